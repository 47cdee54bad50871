// Host binder: per-thread binder state. The calling identity is the peer process's uid and
// pid as reported by the kernel for the connection the current transaction arrived on;
// outside a transaction it is this process's own uid and pid.
#pragma once

#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <sys/types.h>
#include <utils/Errors.h>

namespace android {

class IPCThreadState {
  public:
    static IPCThreadState* self();
    static IPCThreadState* selfOrNull();

    sp<ProcessState> process();

    status_t clearLastError();

    pid_t getCallingPid() const;
    const char* getCallingSid() const;
    uid_t getCallingUid() const;

    void setStrictModePolicy(int32_t policy);
    int32_t getStrictModePolicy() const;

    static const int32_t kUnsetWorkSource = -1;
    int64_t setCallingWorkSourceUid(uid_t uid);
    int64_t setCallingWorkSourceUidWithoutPropagation(uid_t uid);
    uid_t getCallingWorkSourceUid() const;
    int64_t clearCallingWorkSource();
    void restoreCallingWorkSource(int64_t token);
    void clearPropagateWorkSource();
    bool shouldPropagateWorkSource() const;

    void setLastTransactionBinderFlags(int32_t flags);
    int32_t getLastTransactionBinderFlags() const;

    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);

    status_t setupPolling(int* fd);
    status_t handlePolledCommands();
    void flushCommands();
    bool flushIfNeeded();

    // Serves incoming transactions on this thread; returns only if isMain is false and the
    // pool shrinks, which never happens on the host.
    void joinThreadPool(bool isMain = true);

    void stopProcess(bool immediate = true);

    static void shutdown();

    // Host-only: used by the transport while a transaction is dispatched on this thread.
    void setCallingIdentity(pid_t pid, uid_t uid) {
        mCallingPid = pid;
        mCallingUid = uid;
    }

  private:
    IPCThreadState();
    ~IPCThreadState();

    pid_t mCallingPid;
    uid_t mCallingUid;
    int32_t mStrictModePolicy;
    int32_t mLastTransactionBinderFlags;
    int32_t mWorkSource;
    bool mPropagateWorkSource;
};

}  // namespace android
