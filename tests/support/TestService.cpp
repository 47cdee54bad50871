#include "tests/support/TestService.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>

using namespace android;

namespace qmedtest {
namespace {

class TestService : public BBinder {
  public:
    const String16& getInterfaceDescriptor() const override { return mDescriptor; }

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        IPCThreadState* ipc = IPCThreadState::self();
        std::unique_lock<std::mutex> l(mLock, std::defer_lock);
        switch (code) {
            case WHO_CALLS:
                reply->writeInt32(int32_t(ipc->getCallingUid()));
                return reply->writeInt32(ipc->getCallingPid());
            case RECORD:
                l.lock();
                mSum += data.readInt32();
                reply->writeInt32(++mCount);
                return reply->writeInt64(mSum);
            case BIG_REPLY: {
                const size_t size = size_t(data.readInt32());
                return memset(reply->writeInplace(size), 'Z', size) ? NO_ERROR : NO_MEMORY;
            }
            case BARRIER: {  // 5 s at most: a serial server never lets the others in
                const int parties = data.readInt32();
                l.lock();
                mMaxInside = std::max(mMaxInside, ++mInside);
                mCond.notify_all();
                mCond.wait_for(l, std::chrono::seconds(5), [&] { return mMaxInside >= parties; });
                mInside--;
                return reply->writeInt32(mMaxInside);
            }
            case TOKEN_ECHO:
                if (!data.checkInterface(this)) return PERMISSION_DENIED;
                reply->writeNoException();
                return reply->appendFrom(&data, data.dataPosition(), data.dataAvail());
        }
        return BBinder::onTransact(code, data, reply, flags);
    }

  private:
    const String16 mDescriptor{kTestDescriptor};
    std::mutex mLock;
    std::condition_variable mCond;
    int mCount = 0, mInside = 0, mMaxInside = 0;
    int64_t mSum = 0;
};

}  // namespace

TestChild serveTestService(const std::string& name) {
    // One namespace per test process: an endpoint keeps the namespace it was created in.
    setenv("BINDER_HOST_NS", ("ptest-" + std::to_string(getpid())).c_str(), 1);
    TestChild child = TestChild::run([&] {
        sigset_t term;
        sigemptyset(&term);
        sigaddset(&term, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &term, nullptr);  // the pool threads inherit it
        if (defaultServiceManager()->addService(String16(name.c_str()), new TestService()))
            _exit(2);
        ProcessState::self()->startThreadPool();
        int sig = 0;
        sigwait(&term, &sig);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        _exit(0);  // no leak or race report from a process torn down under its running pool
#endif
        exit(0);  // writes the service side's counters in coverage builds
    });
    // Waits a bounded while for a service that is still starting.
    if (defaultServiceManager()->getService(String16(name.c_str())) == nullptr) child.kill();
    return child;
}

}  // namespace qmedtest
