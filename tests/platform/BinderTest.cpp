#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IInterface.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/PermissionCache.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/String8.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/platform/TestService.h"
#include "tests/support/ToolRunner.h"

using namespace android;
using namespace platformtest;

namespace {

class BinderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        useUniqueBinderNamespace();
        mServer = forkTestService("test.svc");
        ASSERT_GT(mServer, 0);
        mService = defaultServiceManager()->checkService(String16("test.svc"));
        ASSERT_NE(mService, nullptr);
    }
    void TearDown() override {
        if (mServer > 0) {
            kill(mServer, SIGKILL);
            waitpid(mServer, nullptr, 0);
        }
    }
    int32_t echo(const sp<IBinder>& b, int32_t v) {
        Parcel data, reply;
        data.writeInt32(v);
        EXPECT_EQ(NO_ERROR, b->transact(ECHO_PLUS_ONE, data, &reply));
        return reply.readInt32();
    }

    pid_t mServer = -1;
    sp<IBinder> mService;
};

class Recipient : public IBinder::DeathRecipient {
  public:
    void binderDied(const wp<IBinder>& who) override {
        std::lock_guard<std::mutex> l(mLock);
        mDied++;
        mWho = who;
        mAt = std::chrono::steady_clock::now();
        mCond.notify_all();
    }
    bool waitDied(int ms) {
        std::unique_lock<std::mutex> l(mLock);
        return mCond.wait_for(l, std::chrono::milliseconds(ms), [&] { return mDied > 0; });
    }
    int died() {
        std::lock_guard<std::mutex> l(mLock);
        return mDied;
    }
    std::mutex mLock;
    std::condition_variable mCond;
    int mDied = 0;
    wp<IBinder> mWho;
    std::chrono::steady_clock::time_point mAt;
};

TEST_F(BinderTest, ServiceAddedInOneProcessIsCalledFromAnother) {
    EXPECT_EQ(42, echo(mService, 41));
    EXPECT_NE(nullptr, mService->remoteBinder());
    EXPECT_EQ(String16(kTestDescriptor), mService->getInterfaceDescriptor());
    EXPECT_EQ(NO_ERROR, mService->pingBinder());
    Parcel data, reply;
    EXPECT_EQ(NO_ERROR, mService->transact(GET_PID, data, &reply));
    EXPECT_EQ(mServer, reply.readInt32());
    // Lookups of the same service give the same proxy object.
    EXPECT_EQ(mService.get(), defaultServiceManager()->checkService(String16("test.svc")).get());
    Vector<String16> names = defaultServiceManager()->listServices();
    ASSERT_EQ(1u, names.size());
    EXPECT_EQ(String16("test.svc"), names[0]);
    EXPECT_EQ(nullptr, defaultServiceManager()->checkService(String16("no.such.svc")));
}

TEST_F(BinderTest, CallerSeesRealUidAndPid) {
    Parcel data, reply;
    ASSERT_EQ(NO_ERROR, mService->transact(WHO_CALLS, data, &reply));
    EXPECT_EQ(int32_t(getuid()), reply.readInt32());
    EXPECT_EQ(getpid(), reply.readInt32());

    // A forked child that switched to uid 2000 is seen as 2000, even though its parent had
    // pooled connections before the fork.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        if (setgid(2000) != 0 || setuid(2000) != 0) _exit(1);
        sp<IBinder> svc = defaultServiceManager()->checkService(String16("test.svc"));
        Parcel d, r;
        int32_t out[3] = {-1, -1, -1};
        if (svc != nullptr && svc->transact(WHO_CALLS, d, &r) == NO_ERROR) {
            out[0] = r.readInt32();
            out[1] = r.readInt32();
            out[2] = int32_t(getpid());
        }
        _exit(write(fds[1], out, sizeof(out)) == sizeof(out) ? 0 : 1);
    }
    close(fds[1]);
    int32_t got[3] = {0, 0, 0};
    ASSERT_EQ(ssize_t(sizeof(got)), read(fds[0], got, sizeof(got)));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(2000, got[0]);
    EXPECT_EQ(got[2], got[1]);
    EXPECT_EQ(child, got[1]);
}

TEST_F(BinderTest, IdentityOutsideTransactionIsOwnAndClearRestores) {
    IPCThreadState* ipc = IPCThreadState::self();
    EXPECT_EQ(getuid(), ipc->getCallingUid());
    EXPECT_EQ(getpid(), ipc->getCallingPid());
    ipc->setCallingIdentity(77, 2000);
    const int64_t token = ipc->clearCallingIdentity();
    EXPECT_EQ(getuid(), ipc->getCallingUid());
    ipc->restoreCallingIdentity(token);
    EXPECT_EQ(2000u, ipc->getCallingUid());
    EXPECT_EQ(77, ipc->getCallingPid());
    ipc->setCallingIdentity(getpid(), getuid());
}

TEST_F(BinderTest, BinderSentInParcelIsCalledBackAndComesBackLocal) {
    sp<EchoBinder> local = new EchoBinder();
    Parcel data, reply;
    data.writeStrongBinder(local);
    data.writeInt32(9);
    ASSERT_EQ(NO_ERROR, mService->transact(CALL_BACK, data, &reply));
    EXPECT_EQ(10, reply.readInt32());
    EXPECT_EQ(1, local->calls);

    Parcel d2, r2;
    d2.writeStrongBinder(local);
    ASSERT_EQ(NO_ERROR, mService->transact(RETURN_BINDER, d2, &r2));
    sp<IBinder> back = r2.readStrongBinder();
    EXPECT_EQ(static_cast<IBinder*>(local.get()), back.get());
    EXPECT_NE(nullptr, back->localBinder());

    // A remote binder sent back to its home is the same proxy here.
    Parcel d3, r3;
    d3.writeStrongBinder(mService);
    ASSERT_EQ(NO_ERROR, mService->transact(RETURN_BINDER, d3, &r3));
    EXPECT_EQ(mService.get(), r3.readStrongBinder().get());

    // A null binder travels as null.
    Parcel d4, r4;
    d4.writeStrongBinder(nullptr);
    ASSERT_EQ(NO_ERROR, mService->transact(RETURN_BINDER, d4, &r4));
    sp<IBinder> none;
    EXPECT_EQ(NO_ERROR, r4.readNullableStrongBinder(&none));
    EXPECT_EQ(nullptr, none);
}

TEST_F(BinderTest, OneWayCallsAreDeliveredInOrderWithoutReply) {
    for (int i = 1; i <= 50; i++) {
        Parcel data;
        data.writeInt32(i);
        EXPECT_EQ(NO_ERROR, mService->transact(RECORD, data, nullptr, IBinder::FLAG_ONEWAY));
    }
    // A two-way call on the pooled connection is served after the one-way ones.
    Parcel data, reply;
    ASSERT_EQ(NO_ERROR, mService->transact(GET_RECORDS, data, &reply));
    EXPECT_EQ(50, reply.readInt32());
    EXPECT_EQ(50 * 51 / 2, reply.readInt64());
}

TEST_F(BinderTest, EightClientThreadsAreServedAtOnce) {
    constexpr int kThreads = 8;
    std::vector<int32_t> seen(kThreads, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; i++) {
        threads.emplace_back([&, i] {
            Parcel data, reply;
            data.writeInt32(kThreads);
            if (mService->transact(BARRIER, data, &reply) == NO_ERROR) seen[i] = reply.readInt32();
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; i++) EXPECT_EQ(kThreads, seen[i]) << "thread " << i;
    // And the connections are reused afterwards.
    EXPECT_EQ(2, echo(mService, 1));
}

TEST_F(BinderTest, OneMegabyteReplyWorksAndLargerFailsCleanly) {
    constexpr int32_t kLimit = 1024 * 1024;
    Parcel data, reply;
    data.writeInt32(kLimit);
    ASSERT_EQ(NO_ERROR, mService->transact(BIG_REPLY, data, &reply));
    ASSERT_EQ(size_t(kLimit), reply.dataSize());
    EXPECT_EQ(0x5a, reply.data()[0]);
    EXPECT_EQ(0x5a, reply.data()[kLimit - 1]);

    Parcel d2, r2;
    d2.writeInt32(kLimit + 4);
    EXPECT_EQ(FAILED_TRANSACTION, mService->transact(BIG_REPLY, d2, &r2));
    EXPECT_EQ(0u, r2.dataSize());

    // Requests have the same limit, checked before anything is sent.
    Parcel big, r3;
    big.writeInplace(kLimit + 4);
    EXPECT_EQ(FAILED_TRANSACTION, mService->transact(ECHO_PLUS_ONE, big, &r3));
    EXPECT_EQ(8, echo(mService, 7));
}

TEST_F(BinderTest, NegativeStatusTravelsBackInsteadOfReply) {
    Parcel data, reply;
    data.writeInt32(-1);
    EXPECT_EQ(-1, mService->transact(FAIL_WITH, data, &reply));
    EXPECT_EQ(0u, reply.dataSize());
    Parcel d2, r2;
    EXPECT_EQ(UNKNOWN_TRANSACTION, mService->transact(0x1234, d2, &r2));
    // A positive status is not an error on the wire.
    Parcel d3, r3;
    d3.writeInt32(5);
    EXPECT_EQ(NO_ERROR, mService->transact(FAIL_WITH, d3, &r3));
    EXPECT_EQ(123, r3.readInt32());
}

TEST_F(BinderTest, InterfaceQueryAnswersDescriptorAsBareString16) {
    Parcel data, reply;
    ASSERT_EQ(NO_ERROR, mService->transact(IBinder::INTERFACE_TRANSACTION, data, &reply));
    EXPECT_EQ(String16(kTestDescriptor), reply.readString16());
    EXPECT_EQ(0u, reply.dataAvail());
    Parcel d2, r2;
    EXPECT_EQ(NO_ERROR, mService->transact(IBinder::PING_TRANSACTION, d2, &r2));
    EXPECT_EQ(0u, r2.dataSize());
}

TEST_F(BinderTest, DumpTransactionReachesDumpWithFdAndArgs) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Vector<String16> args;
    args.add(String16("debug"));
    args.add(String16("x y"));
    ASSERT_EQ(NO_ERROR, mService->dump(fds[1], args));
    close(fds[1]);
    char buf[128] = {};
    ASSERT_GT(read(fds[0], buf, sizeof(buf) - 1), 0);
    close(fds[0]);
    EXPECT_STREQ("dump debug x y\n", buf);
}

TEST_F(BinderTest, FileDescriptorTravelsToServer) {
    char path[] = "/tmp/qmed-fd-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(5, write(fd, "hello", 5));
    Parcel data, reply;
    data.writeFileDescriptor(fd);
    ASSERT_EQ(NO_ERROR, mService->transact(READ_FD, data, &reply));
    EXPECT_EQ(String8("hello"), reply.readString8());
    close(fd);
    unlink(path);
}

TEST_F(BinderTest, LinkToDeathFiresWhenPeerIsKilled) {
    sp<Recipient> r = new Recipient();
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(r));
    EXPECT_TRUE(mService->isBinderAlive());
    const auto killedAt = std::chrono::steady_clock::now();
    ASSERT_EQ(0, kill(mServer, SIGKILL));
    waitpid(mServer, nullptr, 0);
    mServer = -1;
    ASSERT_TRUE(r->waitDied(5000));
    RecordProperty(
            "death_notice_us",
            int(std::chrono::duration_cast<std::chrono::microseconds>(r->mAt - killedAt).count()));
    EXPECT_EQ(mService.get(), r->mWho.promote().get());
    EXPECT_FALSE(mService->isBinderAlive());
    Parcel data, reply;
    EXPECT_EQ(DEAD_OBJECT, mService->transact(ECHO_PLUS_ONE, data, &reply));
    EXPECT_EQ(DEAD_OBJECT, mService->linkToDeath(new Recipient()));
    EXPECT_EQ(nullptr, defaultServiceManager()->checkService(String16("test.svc")));
    EXPECT_EQ(1, r->died());
}

TEST_F(BinderTest, UnlinkToDeathStopsTheNotice) {
    sp<Recipient> kept = new Recipient();
    sp<Recipient> dropped = new Recipient();
    int cookie = 0;
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(kept));
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(dropped, &cookie));
    wp<IBinder::DeathRecipient> out;
    EXPECT_EQ(NO_ERROR, mService->unlinkToDeath(dropped, &cookie, 0, &out));
    EXPECT_EQ(dropped.get(), out.promote().get());
    EXPECT_EQ(NAME_NOT_FOUND, mService->unlinkToDeath(dropped, &cookie));
    kill(mServer, SIGKILL);
    waitpid(mServer, nullptr, 0);
    mServer = -1;
    ASSERT_TRUE(kept->waitDied(5000));
    EXPECT_EQ(0, dropped->died());
    EXPECT_EQ(DEAD_OBJECT, mService->unlinkToDeath(kept));
}

TEST_F(BinderTest, LocalBinderDefaults) {
    sp<EchoBinder> local = new EchoBinder();
    EXPECT_EQ(INVALID_OPERATION, local->linkToDeath(new Recipient()));
    EXPECT_EQ(NO_ERROR, local->pingBinder());
    EXPECT_TRUE(local->isBinderAlive());
    Parcel data, reply;
    EXPECT_EQ(UNKNOWN_TRANSACTION, local->transact(77, data, &reply));
    EXPECT_EQ(2, echo(local, 1));
}

}  // namespace

// The meta-interface macros give asInterface the local object or a proxy.
class IAdder : public IInterface {
  public:
    DECLARE_META_INTERFACE(Adder)
    virtual int32_t addOne(int32_t v) = 0;
};

class BpAdder : public BpInterface<IAdder> {
  public:
    explicit BpAdder(const sp<IBinder>& impl) : BpInterface<IAdder>(impl) {}
    int32_t addOne(int32_t v) override {
        Parcel data, reply;
        data.writeInterfaceToken(IAdder::getInterfaceDescriptor());
        data.writeInt32(v);
        if (remote()->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply) != NO_ERROR) {
            return -1;
        }
        if (reply.readExceptionCode() != 0) return -2;
        return reply.readInt32();
    }
};

IMPLEMENT_META_INTERFACE(Adder, "qmed.test.IAdder");

class Adder : public BnInterface<IAdder> {
  public:
    int32_t addOne(int32_t v) override { return v + 1; }
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != IBinder::FIRST_CALL_TRANSACTION) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        CHECK_INTERFACE(IAdder, data, reply);
        reply->writeNoException();
        reply->writeInt32(addOne(data.readInt32()));
        return NO_ERROR;
    }
};

namespace {

TEST_F(BinderTest, MetaInterfaceGivesLocalObjectOrProxy) {
    sp<Adder> impl = new Adder();
    sp<IAdder> local = interface_cast<IAdder>(IInterface::asBinder(impl));
    EXPECT_EQ(impl.get(), local.get());
    EXPECT_EQ(String16("qmed.test.IAdder"), IAdder::descriptor);

    // Sent through the server and back it is local again; a proxy over a foreign binder
    // carries calls with the interface token.
    sp<IBinder> viaServer;
    {
        Parcel data, reply;
        data.writeStrongBinder(IInterface::asBinder(impl));
        ASSERT_EQ(NO_ERROR, mService->transact(RETURN_BINDER, data, &reply));
        viaServer = reply.readStrongBinder();
    }
    EXPECT_EQ(impl.get(), interface_cast<IAdder>(viaServer).get());
    sp<IAdder> proxy = new BpAdder(IInterface::asBinder(impl));
    EXPECT_EQ(8, proxy->addOne(7));
    sp<IAdder> wrong = interface_cast<IAdder>(mService);
    ASSERT_NE(nullptr, wrong);
    EXPECT_NE(static_cast<IAdder*>(impl.get()), wrong.get());
}

TEST(PermissionCacheTest, RootAndOwnPidAlwaysOthersFromGrantsFile) {
    const String16 perm("android.permission.DUMP");
    unsetenv("QMED_PERMISSION_FILE");
    EXPECT_TRUE(PermissionCache::checkPermission(perm, 1, 0));
    EXPECT_TRUE(PermissionCache::checkPermission(perm, getpid(), 1000));
    EXPECT_FALSE(PermissionCache::checkPermission(perm, 1, 1000));

    char path[] = "/tmp/qmed-perm-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << "# grants\n\nandroid.permission.DUMP 1000\nother.PERM 2000\n";
    setenv("QMED_PERMISSION_FILE", path, 1);
    EXPECT_TRUE(PermissionCache::checkPermission(perm, 1, 1000));
    EXPECT_FALSE(PermissionCache::checkPermission(perm, 1, 2000));
    EXPECT_TRUE(PermissionCache::checkPermission(String16("other.PERM"), 1, 2000));
    EXPECT_FALSE(PermissionCache::checkPermission(String16("android.permission"), 1, 1000));
    // Re-read on every check.
    std::ofstream(path) << "android.permission.DUMP 2000\n";
    EXPECT_FALSE(PermissionCache::checkPermission(perm, 1, 1000));
    EXPECT_TRUE(PermissionCache::checkPermission(perm, 1, 2000));
    unsetenv("QMED_PERMISSION_FILE");
    unlink(path);
}

pid_t poolThreadTid() {
    DIR* dir = opendir("/proc/self/task");
    pid_t found = 0;
    while (struct dirent* e = dir ? readdir(dir) : nullptr) {
        std::ifstream in(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string comm;
        std::getline(in, comm);
        if (comm.compare(0, 7, "binder:") == 0) found = pid_t(atoi(e->d_name));
    }
    if (dir) closedir(dir);
    return found;
}

TEST(ProcessStateTest, ForkedServerOfStartedProcessStillGrowsItsPool) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer stops children that start threads after a threaded fork";
#endif
    const char* emulator = getenv("QMED_EMULATOR");
    if (emulator != nullptr && *emulator != '\0') {
        GTEST_SKIP() << "qemu-user aborts children that start threads after a threaded fork";
    }
    useUniqueBinderNamespace();
    ProcessState::self()->startThreadPool();
    // Fork only once the pool thread sleeps: a thread still starting up may hold the
    // allocator's lock, which the child would inherit held.
    ASSERT_TRUE(qmedtest::waitUntil(
            [] {
                std::ifstream in("/proc/self/task/" + std::to_string(poolThreadTid()) + "/wchan");
                std::string wchan;
                in >> wchan;
                return wchan == "do_epoll_wait";
            },
            5000));
    const pid_t server = forkTestService("forked.svc");
    ASSERT_GT(server, 0);
    sp<IBinder> svc = defaultServiceManager()->checkService(String16("forked.svc"));
    ASSERT_NE(nullptr, svc);
    std::vector<int32_t> seen(4, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&, i] {
            Parcel data, reply;
            data.writeInt32(4);
            if (svc->transact(BARRIER, data, &reply) == NO_ERROR) seen[i] = reply.readInt32();
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < 4; i++) EXPECT_EQ(4, seen[i]) << "thread " << i;
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
}

TEST(ProcessStateTest, ThreadPoolDefaultsToFifteenAndRecordsStart) {
    EXPECT_EQ(15u, ProcessState::self()->getThreadPoolMaxTotalThreadCount());
    EXPECT_FALSE(ProcessState::self()->isThreadPoolStarted());
    ProcessState::self()->startThreadPool();
    EXPECT_TRUE(ProcessState::self()->isThreadPoolStarted());
    EXPECT_EQ(NO_ERROR, ProcessState::self()->setThreadPoolMaxThreadCount(4));
    EXPECT_EQ(4u, ProcessState::self()->getThreadPoolMaxTotalThreadCount());
}

}  // namespace
