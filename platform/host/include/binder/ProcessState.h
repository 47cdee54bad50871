// Host binder: per-process binder state and the thread pool. Incoming transactions are
// dispatched on pool threads; the pool grows on demand up to the maximum (default 15)
// once startThreadPool has been called. Thread-safe.
#pragma once

#include <binder/IBinder.h>
#include <utils/Mutex.h>
#include <utils/String8.h>

namespace android {

class IPCThreadState;

class ProcessState : public virtual RefBase {
  public:
    static sp<ProcessState> self();
    static sp<ProcessState> selfOrNull();
    static sp<ProcessState> initWithDriver(const char* driver);

    sp<IBinder> getContextObject(const sp<IBinder>& caller);

    void startThreadPool();
    void spawnPooledThread(bool isMain);

    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    size_t getThreadPoolMaxTotalThreadCount() const;
    void giveThreadPoolName();

    String8 getDriverName();

    bool isThreadPoolStarted() const;

  private:
    friend class IPCThreadState;
    ProcessState();
    ~ProcessState();

    String8 makeBinderThreadName();

    mutable Mutex mLock;
    bool mThreadPoolStarted;
    size_t mMaxThreads;
    volatile int32_t mThreadPoolSeq;
};

}  // namespace android
