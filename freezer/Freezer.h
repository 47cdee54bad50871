#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/String8.h>
#include <utils/TypeHelpers.h>

#include "freezer/CGroup.h"
#include "freezer/GroupPool.h"

class Kstate;

namespace android {
// A strong pointer is one raw pointer, so moving its bytes moves it: the pid map then shifts
// with memmove instead of a reference-count round trip per element.
ANDROID_TRIVIAL_MOVE_TRAIT(sp<CGroup>)
}  // namespace android

// The last binder call recorded into a pid.
struct BinderCallInfo {
    int64_t time;        // monotonic milliseconds
    int32_t callingPid;  // -1 for a one-way call
    int32_t reserved;    // always 0
};
static_assert(sizeof(BinderCallInfo) == 16, "BinderCallInfo layout");
static_assert(offsetof(BinderCallInfo, time) == 0, "BinderCallInfo layout");
static_assert(offsetof(BinderCallInfo, callingPid) == 8, "BinderCallInfo layout");
static_assert(offsetof(BinderCallInfo, reserved) == 12, "BinderCallInfo layout");

// Freezes processes one per freezer group and thaws them again, refusing a batch when one
// of its pids was just called through binder by a process outside the batch.
//
// Threading: public entry points (freezeProcess, thawAll, isFreezed, recordBinderCallTime)
// may be called from any thread and take mLock themselves; thawAll(true) only tries it.
// freezePids, thawPids, freezePid, getLastBinderCallInfo and printAllGroups must be called
// with mLock held. getInstance() takes no lock: call it first during start-up.
// mStateLock guards mFrozenPids alone and is held only across one pid's cgroup writes, so the
// forced thaw-all, which does not wait for mLock, never races a freeze on the map.
// Lock order: mLock, then mStateLock, then the pool's lock.
class Freezer : public android::RefBase {
  public:
    enum {
        FREEZE_CMD_FREEZE = 1,
        FREEZE_CMD_THAW = 2,
        FREEZE_CMD_THAW_ALL = 3,
        FREEZE_CMD_FREEZE_CHECK_BINDER = 4,
    };
    static constexpr unsigned int POOL_SIZE = 20;
    static constexpr size_t BINDER_CALL_BUF_LIMIT = 31;
    static constexpr int64_t BINDER_CALL_RECENT_MS = 2000;

    // Milliseconds of a monotonic clock.
    typedef int64_t (*Clock)();
    static int64_t monotonicMs();

    static android::sp<Freezer> getInstance();

    // `root` and `clock` are injectable for tests; the defaults are the daemon's.
    explicit Freezer(android::String8 root = android::String8(CGroup::kFrzRoot),
                     Clock clock = monotonicMs);
    virtual ~Freezer();

    bool initFrz();
    void uninitFrz();
    bool isFrzInited();
    bool isFreezed(int pid);
    int freezeProcess(int cmd, int* pids, int count);
    bool thawAll(bool force);
    void recordBinderCallTime(int callingPid, int pid);

    bool thawPids(int* pids, int count) REQUIRES(mLock);
    bool freezePid(int pid, bool checkBinder) REQUIRES(mLock);
    const BinderCallInfo* getLastBinderCallInfo(int pid) REQUIRES(mLock);

    static int getTgid(int tid);

    // Inspection for tests; take mLock.
    size_t frozenCount();
    android::String8 groupNameOf(int pid);
    android::sp<GroupPool> getGroupPool() { return mGroupPool; }
    // For tests of the forced thaw path.
    android::Mutex& lockForTest() RETURN_CAPABILITY(mLock) { return mLock; }

  private:
    bool freezePids(int* pids, int count, bool checkBinder) REQUIRES(mLock);
    // Needs only mStateLock: the forced thaw-all calls it when mLock cannot be had.
    bool thawPid(int pid);
    void thawEachFrozen();
    void printAllGroups() REQUIRES(mLock);

    android::KeyedVector<int, android::sp<CGroup>> mFrozenPids GUARDED_BY(mStateLock);
    android::sp<GroupPool> mGroupPool;
    bool mInited;
    bool mCheckBinder;
    android::Mutex mLock;
    android::KeyedVector<int, BinderCallInfo> mBinderCallBufs[2] GUARDED_BY(mLock);
    int32_t mCurBinderCallBuf GUARDED_BY(mLock);
    android::sp<Kstate> mKstate GUARDED_BY(mLock);
    android::Mutex mStateLock;
    android::String8 mRoot;
    Clock mClock;
    int mSelfPid;  // the daemon never forks, so one read serves every freeze
};
