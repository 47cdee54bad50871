#pragma once

#include <binder/IBinder.h>
#include <stdint.h>
#include <time.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include "listener/IQmedBinderListener.h"
#include "proc/ProcReader.h"

class Freezer;
class Spear;

// Event handed to IQmedBinderListenerService::handleMessage. The words are
// pointer-sized so that pointers fit on 64-bit hosts as well.
//   type 1: arg1 = payload pointer, arg2 = payload length in bytes
//   type 2: arg1 = pointer to int32 values, arg2 = count
//   type 4: arg1 = pid, arg2 = pointer to the reason text
struct Message {
    intptr_t arg1;
    intptr_t arg2;
};

// Listener type mask bits and handleMessage types.
enum {
    TYPE_LISTENER_onKstateCallback = 1,
    TYPE_LISTENER_onNetworkPacketCallback = 2,
    TYPE_LISTENER_onStopProcSpearCallback = 4,
    TYPE_LISTENER_dump = 0x20000000,
};

// Registry of client callbacks. Every public method may be called from any
// thread; mLock serialises them and is held while callbacks run, so a slow
// listener delays other posters. Lock order: callers may hold the limiter's
// lock when they post, never the other way round.
class IQmedBinderListenerService : public virtual android::RefBase {
  public:
    enum {
        RESULT_OK = 0,
        RESULT_NULL_LISTENER = 1,
        RESULT_ALREADY_REGISTERED = 2,
        RESULT_NOT_REGISTERED = 3,
        RESULT_INVALID_TYPE = 4,
    };

    // Not locked: the first call happens during start-up.
    static android::sp<IQmedBinderListenerService> getInstance();

    // Takes the freezer and limiter singletons.
    IQmedBinderListenerService();
    // For tests: explicit engines (either may be null).
    IQmedBinderListenerService(const android::sp<Freezer>& freezer,
                               const android::sp<Spear>& spear);
    ~IQmedBinderListenerService() override;

    int registerListener(const android::sp<IQmedBinderListener>& listener, int type);
    int unregisterListener(const android::sp<IQmedBinderListener>& listener);
    void clearDeadListeners(const android::wp<android::IBinder>& who);
    void handleMessage(int type, Message msg);
    int dump(int fd, const android::Vector<android::String16>& args);

    // For tests: the clock of the report throttle (default time()).
    typedef time_t (*Clock)(time_t*);
    void setClock(Clock clock) { mClock = clock; }
    size_t listenerCount();
    size_t reportTimeCount();
    int systemServerPid() {
        android::Mutex::Autolock lock(mLock);
        return mSystemServerPid;
    }

  private:
    // Largest kernel-state payload passed on; larger ones cannot travel in one transaction.
    static constexpr intptr_t kMaxKstatePayload = 256 * 1024;

    int getListenerIndex(const android::sp<IQmedBinderListener>& listener) REQUIRES(mLock);
    bool shouldReport(int callerPid, int targetPid) REQUIRES(mLock);
    void handleKstate(int len, const unsigned char* payload, bool limited) REQUIRES(mLock);

    android::Mutex mLock;
    android::KeyedVector<android::sp<IQmedBinderListener>, unsigned int> mListeners
            GUARDED_BY(mLock);
    android::sp<Freezer> mFreezer;
    int mSystemServerPid GUARDED_BY(mLock);
    int mCxspPid GUARDED_BY(mLock);
    android::KeyedVector<int, long> mReportTime GUARDED_BY(mLock);
    android::sp<Spear> mSpear;
    Clock mClock;
};

// Pid of the first process whose short name (the first word of it, at most 50 bytes) equals
// name, 0 when none.
int getPidByName(const char* name, const ProcReader& proc = ProcReader());
