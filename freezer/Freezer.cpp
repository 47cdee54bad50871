#define LOG_TAG "Qmed-Freezer"

#include "freezer/Freezer.h"

#include <errno.h>
#include <log/log.h>
#include <safe_str_lib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <utils/Timers.h>

#include "daemon/QmedGlobals.h"
#include "msghub/Kstate.h"
#include "proc/ProcReader.h"

using android::Mutex;
using android::sp;
using android::String8;

static sp<Freezer> sInstance;

// Built once: String8 copies share their buffer, so no freeze or thaw allocates a name.
static const String8& stateFile() {
    static const String8 s(CGroup::kStateFile);
    return s;
}

static const String8& stateValue(bool frozen) {
    static const String8 kFrozen("FROZEN"), kThawed("THAWED");
    return frozen ? kFrozen : kThawed;
}

int64_t Freezer::monotonicMs() {
    return systemTime(SYSTEM_TIME_MONOTONIC) / 1000000;
}

sp<Freezer> Freezer::getInstance() {
    if (sInstance == nullptr) sInstance = new Freezer();
    return sInstance;
}

Freezer::Freezer(String8 root, Clock clock)
    : mInited(false),
      mCheckBinder(false),
      mCurBinderCallBuf(0),
      mRoot(root),
      mClock(clock),
      mSelfPid(getpid()) {
    initFrz();
}

Freezer::~Freezer() {
    if (mInited) uninitFrz();
    mKstate.clear();
}

bool Freezer::initFrz() {
    ALOGI("Freezer::initFrz begin");
    mGroupPool = new GroupPool(POOL_SIZE, mRoot);
    if (!mGroupPool->createGroupPool()) {
        ALOGE("create grouppool fail");
        mInited = false;
        return false;
    }
    mInited = true;
    mCheckBinder = true;
    ALOGI("Freezer::initFrz end checkBinder:%d", mCheckBinder ? 1 : 0);
    return true;
}

void Freezer::uninitFrz() {
    if (mGroupPool == nullptr) {
        if (bDebug) ALOGD("grouppool is null");
        return;
    }
    ALOGI("Uninit Frz");
    mGroupPool->deleteGroupPool();
    mInited = false;
    mGroupPool.clear();
}

bool Freezer::isFrzInited() {
    return mInited;
}

bool Freezer::isFreezed(int pid) {
    if (!mInited) return false;
    Mutex::Autolock lock(mLock);
    Mutex::Autolock state(mStateLock);
    return mFrozenPids.indexOfKey(pid) >= 0;
}

int Freezer::freezeProcess(int cmd, int* pids, int count) {
    if (pids == nullptr || count <= 0) {
        ALOGE("Params format is not correct");
        return -1;
    }
    if (!mInited) {
        ALOGE("Init freezer failed");
        return -1;
    }
    if (cmd == FREEZE_CMD_THAW_ALL) {
        thawAll(false);
        return 0;
    }
    bool ok;
    {
        Mutex::Autolock lock(mLock);
        switch (cmd) {
            case FREEZE_CMD_FREEZE:
                ok = freezePids(pids, count, false);
                break;
            case FREEZE_CMD_THAW:
                ok = thawPids(pids, count);
                break;
            case FREEZE_CMD_FREEZE_CHECK_BINDER:
                ok = freezePids(pids, count, true);
                break;
            default:
                return -1;
        }
    }
    return ok ? 0 : -1;
}

bool Freezer::freezePids(int* pids, int count, bool checkBinder) {
    int self = mSelfPid;
    if (pids == nullptr || count < 1 || pids[count - 1] != -1) {
        ALOGW("Params is invalid");
        return false;
    }
    ALOGI("freezePids");
    int64_t now = mClock();
    for (int i = 0; i < count && pids[i] != -1; i++) {
        const BinderCallInfo* info = getLastBinderCallInfo(pids[i]);
        if (info == nullptr) continue;
        long long ago = now - info->time;
        if (ago > BINDER_CALL_RECENT_MS) continue;
        bool inBatch = false;
        for (int j = 0; j < count; j++) {
            if (pids[j] == info->callingPid) {
                inBatch = true;
                break;
            }
        }
        ALOGI("freezePids pid %d binder called %lld ms ago by %d, ignor it:%d", pids[i], ago,
              info->callingPid, inBatch ? 1 : 0);
        // Freezing a process whose caller is not frozen with it would hang that caller.
        if (!inBatch) return false;
    }
    for (int i = 0; i < count && pids[i] != -1; i++) {
        if (pids[i] == self) {
            ALOGW("freezePids not frz myself: %d", pids[i]);
            continue;
        }
        ALOGI("Freeze process: %d", pids[i]);
        if (!freezePid(pids[i], checkBinder)) {
            if (bDebug) ALOGD("Freeze process: %d failed", pids[i]);
        }
    }
    return true;
}

bool Freezer::freezePid(int pid, bool checkBinder) {
    if (pid < 1) {
        ALOGW("Pid must be more than 0.");
        return false;
    }
    if (bDebug) ALOGD("freezePid begin, pid: %d", pid);
    {
        Mutex::Autolock state(mStateLock);
        if (mFrozenPids.indexOfKey(pid) >= 0) {
            ALOGI("freezePid, already frzd pid: %d", pid);
            return true;
        }
        sp<CGroup> group = mGroupPool->getGroup();
        if (group == nullptr) {
            ALOGI("Process %d get group fail", pid);
            return false;
        }
        mFrozenPids.add(pid, group);
        // A failed attach keeps the entry and the group's used mark; thawPid clears both.
        if (!group->attachPid(pid)) {
            ALOGI("freeze pid fail in proccess %d", pid);
            return false;
        }
        // Writing a tid to cgroup.procs moves its whole thread group, so the tgid is checked
        // after the attach: the move is undone and no thread is ever frozen on its own.
        if (getTgid(pid) != pid) {
            ALOGW("freezePid not frz tid: %d", pid);
            group->detachPid(pid);
            mGroupPool->putGroup(group);
            mFrozenPids.removeItem(pid);
            return false;
        }
        if (pid == mSelfPid) {
            ALOGW("freezePid not frz my tid: %d", pid);
            group->detachPid(pid);
            mGroupPool->putGroup(group);
            mFrozenPids.removeItem(pid);
            return false;
        }
        if (!group->setCGroup(stateFile(), stateValue(true))) {
            ALOGI("set cgroup freezer_state frozen fail");
            return false;
        }
    }
    if (bDebug) ALOGD("freezePid end, pid: %d", pid);
    if (checkBinder || mCheckBinder) {
        if (mKstate == nullptr) mKstate = Kstate::getInstance();
        if (mKstate != nullptr) mKstate->checkWaitingBinder(pid);
    }
    printAllGroups();
    return true;
}

bool Freezer::thawPids(int* pids, int count) {
    if (pids == nullptr || count <= 0) {
        ALOGW("Params is not correct");
        return false;
    }
    ALOGI("thawPids");
    int self = mSelfPid;
    for (int i = 0; i < count && pids[i] != -1; i++) {
        if (pids[i] == self) continue;
        if (!thawPid(pids[i])) {
            if (bDebug) ALOGD("Pid %d failed to be thawed", pids[i]);
        }
    }
    return true;
}

bool Freezer::thawPid(int pid) {
    if (bDebug) ALOGD("thawPid begin, pid: %d", pid);
    if (pid < 0) {
        ALOGW("Invalid pid %d", pid);
        return true;
    }
    Mutex::Autolock state(mStateLock);
    ssize_t index = mFrozenPids.indexOfKey(pid);
    if (index < 0) {
        ALOGI("Pid %d is not exist in vector", pid);
        return true;
    }
    sp<CGroup> group = mFrozenPids.valueAt(index);
    if (group == nullptr) {
        ALOGI("No group matched with pid %d", pid);
        mFrozenPids.removeItemsAt(index);
        return true;
    }
    if (!group->setCGroup(stateFile(), stateValue(false))) {
        ALOGI("Set cgroup %s thawed fail", group->getName().c_str());
        return false;
    }
    if (!group->detachPid(pid)) {
        ALOGI("Thaw pid %d fail", pid);
    }
    mGroupPool->putGroup(group);
    mFrozenPids.removeItem(pid);
    if (bDebug) ALOGD("thawPid end, pid: %d", pid);
    return true;
}

bool Freezer::thawAll(bool force) {
    ALOGI("Thaw All Begin,force:%d", force ? 1 : 0);
    if (!force) {
        Mutex::Autolock lock(mLock);
        thawEachFrozen();
    } else if (mLock.tryLock() == 0) {
        thawEachFrozen();
        mLock.unlock();
    } else {
        // A dying client must never leave processes frozen, even when a binder thread is
        // stuck inside a freeze holding the lock.
        thawEachFrozen();
    }
    ALOGI("Thaw All End");
    return true;
}

void Freezer::thawEachFrozen() {
    for (;;) {
        int pid;
        size_t size;
        {
            Mutex::Autolock state(mStateLock);
            if (mFrozenPids.isEmpty()) break;
            pid = mFrozenPids.keyAt(0);
            size = mFrozenPids.size();
        }
        if (bDebug) ALOGD("Thaw vec size: %d, pid: %d.", (int)size, pid);
        if (!thawPid(pid)) {
            if (bDebug) ALOGD("Thaw pid %d fail", pid);
        }
    }
}

void Freezer::recordBinderCallTime(int callingPid, int pid) {
    Mutex::Autolock lock(mLock);
    if (!mInited) return;
    if (bDebug) {
        Mutex::Autolock state(mStateLock);
        if (mFrozenPids.indexOfKey(pid) >= 0) ALOGD("recordBinderCallTime %d freezed ", pid);
    }
    int64_t now = mClock();
    if (mBinderCallBufs[mCurBinderCallBuf].size() >= BINDER_CALL_BUF_LIMIT) {
        mCurBinderCallBuf = (mCurBinderCallBuf + 1) % 2;
        mBinderCallBufs[mCurBinderCallBuf].clear();
        if (bDebug) ALOGD("recordBinderCallTime use the next buf:%d", mCurBinderCallBuf);
    }
    android::KeyedVector<int, BinderCallInfo>& buf = mBinderCallBufs[mCurBinderCallBuf];
    if (bDebug) {
        ALOGD("recordBinderCallTime called pid :%d, callingPid:%d, now:%lld, buf size:%d", pid,
              callingPid, (long long)now, (int)buf.size());
    }
    BinderCallInfo info = {now, callingPid, 0};
    buf.removeItem(pid);
    buf.add(pid, info);
}

const BinderCallInfo* Freezer::getLastBinderCallInfo(int pid) {
    const android::KeyedVector<int, BinderCallInfo>& cur = mBinderCallBufs[mCurBinderCallBuf];
    ssize_t index = cur.indexOfKey(pid);
    if (index >= 0) return &cur.valueAt(index);
    const android::KeyedVector<int, BinderCallInfo>& other =
            mBinderCallBufs[(mCurBinderCallBuf + 1) % 2];
    index = other.indexOfKey(pid);
    if (index >= 0) return &other.valueAt(index);
    return nullptr;
}

int Freezer::getTgid(int tid) {
    static const ProcReader sProc;
    int tgid = -1;
    if (!sProc.threadGroupOf(tid, &tgid)) {
        if (bDebug) ALOGD("getTgid err, tid: %d because %s", tid, strerror(errno));
        return -1;
    }
    return tgid;
}

void Freezer::printAllGroups() {
    if (!bDebug) return;
    Mutex::Autolock state(mStateLock);
    ALOGD("print pid -- group name begin, size: %d", (int)mFrozenPids.size());
    for (size_t i = 0; i < mFrozenPids.size(); i++) {
        sp<CGroup> group = mFrozenPids.valueAt(i);
        ALOGD("%d -- %s", mFrozenPids.keyAt(i),
              group != nullptr ? group->getName().c_str() : "(null)");
    }
    ALOGD("print pid -- group name end");
}

size_t Freezer::frozenCount() {
    Mutex::Autolock state(mStateLock);
    return mFrozenPids.size();
}

String8 Freezer::groupNameOf(int pid) {
    Mutex::Autolock state(mStateLock);
    ssize_t index = mFrozenPids.indexOfKey(pid);
    if (index < 0 || mFrozenPids.valueAt(index) == nullptr) return String8();
    return mFrozenPids.valueAt(index)->getName();
}
