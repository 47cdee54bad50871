#include "tests/platform/TestService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <utils/String8.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

using namespace android;

namespace platformtest {

namespace {

class TestService : public BBinder {
  public:
    const String16& getInterfaceDescriptor() const override { return mDescriptor; }

    status_t dump(int fd, const Vector<String16>& args) override {
        std::string text = "dump";
        for (size_t i = 0; i < args.size(); i++)
            text += std::string(" ") + String8(args[i]).string();
        text += "\n";
        return ::write(fd, text.data(), text.size()) == ssize_t(text.size()) ? NO_ERROR
                                                                             : UNKNOWN_ERROR;
    }

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        IPCThreadState* ipc = IPCThreadState::self();
        switch (code) {
            case ECHO_PLUS_ONE:
                reply->writeInt32(data.readInt32() + 1);
                return NO_ERROR;
            case WHO_CALLS:
                reply->writeInt32(int32_t(ipc->getCallingUid()));
                reply->writeInt32(int32_t(ipc->getCallingPid()));
                return NO_ERROR;
            case CALL_BACK: {
                sp<IBinder> cb = data.readStrongBinder();
                if (cb == nullptr) return BAD_VALUE;
                Parcel in, out;
                in.writeInt32(data.readInt32());
                status_t err = cb->transact(ECHO_PLUS_ONE, in, &out);
                reply->writeInt32(err == NO_ERROR ? out.readInt32() : err);
                return NO_ERROR;
            }
            case RETURN_BINDER:
                reply->writeStrongBinder(data.readStrongBinder());
                return NO_ERROR;
            case RECORD: {
                std::lock_guard<std::mutex> l(mLock);
                mCount++;
                mSum += data.readInt32();
                return NO_ERROR;
            }
            case GET_RECORDS: {
                std::lock_guard<std::mutex> l(mLock);
                reply->writeInt32(mCount);
                reply->writeInt64(mSum);
                return NO_ERROR;
            }
            case BIG_REPLY: {
                const int32_t size = data.readInt32();
                if (size < 0) return BAD_VALUE;
                void* p = reply->writeInplace(size_t(size));
                if (p == nullptr) return NO_MEMORY;
                memset(p, 0x5a, size_t(size));
                return NO_ERROR;
            }
            case BARRIER: {
                const int parties = data.readInt32();
                std::unique_lock<std::mutex> l(mLock);
                mInside++;
                if (mInside > mMaxInside) mMaxInside = mInside;
                mCond.notify_all();
                // Liveness bound only: a serial server never lets the others in.
                mCond.wait_for(l, std::chrono::seconds(5), [&] { return mMaxInside >= parties; });
                const int seen = mMaxInside;
                mInside--;
                reply->writeInt32(seen);
                return NO_ERROR;
            }
            case FAIL_WITH:
                reply->writeInt32(123);  // must not reach the caller
                return data.readInt32();
            case GET_PID:
                reply->writeInt32(int32_t(getpid()));
                return NO_ERROR;
            case READ_FD: {
                const int fd = data.readFileDescriptor();
                if (fd < 0) return BAD_VALUE;
                char buf[256];
                const ssize_t n = pread(fd, buf, sizeof(buf), 0);
                reply->writeString8(String8(buf, n > 0 ? size_t(n) : 0));
                return NO_ERROR;
            }
            case TOKEN_FAIL:
                if (!data.checkInterface(this)) return PERMISSION_DENIED;
                return data.readInt32();
            case TOKEN_ECHO:
                if (!data.checkInterface(this)) return PERMISSION_DENIED;
                reply->writeNoException();
                reply->appendFrom(&data, data.dataPosition(), data.dataAvail());
                return NO_ERROR;
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

  private:
    const String16 mDescriptor{kTestDescriptor};
    std::mutex mLock;
    std::condition_variable mCond;
    int mCount = 0;
    int64_t mSum = 0;
    int mInside = 0;
    int mMaxInside = 0;
};

}  // namespace

status_t EchoBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (code != ECHO_PLUS_ONE) return BBinder::onTransact(code, data, reply, flags);
    calls++;
    reply->writeInt32(data.readInt32() + 1);
    return NO_ERROR;
}

void useUniqueBinderNamespace() {
    // One per test process: its endpoint keeps the namespace it was created in.
    static const std::string ns = "ptest-" + std::to_string(getpid());
    setenv("BINDER_HOST_NS", ns.c_str(), 1);
}

pid_t forkTestService(const std::string& name) {
    int ready[2];
    if (pipe(ready) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sp<IBinder> service = new TestService();
        if (defaultServiceManager()->addService(String16(name.c_str()), service) != NO_ERROR) {
            _exit(2);
        }
        ProcessState::self()->startThreadPool();
        const char ok = 1;
        if (write(ready[1], &ok, 1) != 1) _exit(3);
        close(ready[1]);
        for (;;) pause();
    }
    close(ready[1]);
    char ok = 0;
    const ssize_t n = pid > 0 ? read(ready[0], &ok, 1) : -1;
    close(ready[0]);
    return n == 1 ? pid : -1;
}

}  // namespace platformtest
