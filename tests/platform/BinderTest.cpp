#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "platform/host/src/Transport.h"
#include "tests/support/TestService.h"
#include "tests/support/ToolRunner.h"

using namespace android;
using namespace android::hostbinder;
using namespace qmedtest;
using Words = std::vector<int32_t>;

namespace {

struct Recipient : IBinder::DeathRecipient {
    void binderDied(const wp<IBinder>& who) override {
        mWho = who.promote();
        mDied++;  // publishes mWho
    }
    std::atomic<int> mDied{0};
    sp<IBinder> mWho;
};

// Transacts `args` as int32s; gives the status, then up to three int32s of the reply.
Words call(const sp<IBinder>& b, uint32_t code, Words args, uint32_t flags = 0) {
    Parcel data, reply;
    for (int32_t a : args) data.writeInt32(a);
    Words out = {b->transact(code, data, flags ? nullptr : &reply, flags)};
    while (reply.dataAvail() >= 4 && out.size() < 4) out.push_back(reply.readInt32());
    return out;
}

class BinderTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(nullptr, mService = sm->checkService(String16("test.svc"))); }
    ServiceChild mServer{"test.svc"};
    sp<IServiceManager> sm = defaultServiceManager();
    sp<IBinder> mService;
};

TEST_F(BinderTest, ServiceAddedInOneProcessIsCalledFromAnotherAndSeesItsCaller) {
    EXPECT_EQ(String16(kTestDescriptor), mService->getInterfaceDescriptor());
    EXPECT_EQ(NO_ERROR, mService->pingBinder());
    EXPECT_EQ(mService, sm->checkService(String16("test.svc")));  // one proxy per object
    EXPECT_EQ(nullptr, sm->checkService(String16("no.such.svc")));
    const int32_t kMax = 1024 * 1024;
    const struct {
        uint32_t code;
        Words args, want;  // status, then the reply's first int32s
    } rows[] = {
            {ECHO_PLUS_ONE, {41}, {NO_ERROR, 42}},
            {FAIL_WITH, {-1}, {-1}},  // a failure status travels back instead of the reply
            {FAIL_WITH, {5}, {NO_ERROR, 123}},
            {0x1234, {}, {UNKNOWN_TRANSACTION}},
            {WHO_CALLS, {}, {NO_ERROR, int32_t(getuid()), getpid()}},
            {BIG_REPLY, {kMax + 4}, {FAILED_TRANSACTION}},
    };
    for (const auto& r : rows) EXPECT_EQ(r.want, call(mService, r.code, r.args)) << r.code;
    Parcel big, reply;
    big.writeInt32(kMax);
    ASSERT_EQ(NO_ERROR, mService->transact(BIG_REPLY, big, &reply));
    EXPECT_TRUE(std::string((const char*)reply.data(), reply.dataSize()) == std::string(kMax, 'Z'));
    // Requests have the same limit, checked before anything is sent.
    big.writeInplace(kMax);
    EXPECT_EQ(FAILED_TRANSACTION, mService->transact(ECHO_PLUS_ONE, big, &reply));
    // A dump transaction reaches dump(fd, args) in the service.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Vector<String16> args;
    args.add(String16("debug"));
    args.add(String16("x y"));
    ASSERT_EQ(NO_ERROR, mService->dump(fds[1], args));
    close(fds[1]);
    // Its read end goes to the service and back, and still reads what dump() wrote.
    Parcel data, back;
    data.writeInterfaceToken(String16(kTestDescriptor));
    data.writeFileDescriptor(fds[0], true);
    ASSERT_EQ(NO_ERROR, mService->transact(TOKEN_ECHO, data, &back));
    EXPECT_EQ(0, back.readExceptionCode());
    EXPECT_EQ("dump debug x y\n",
              readFile("/proc/self/fd/" + std::to_string(back.readFileDescriptor())));
    // The parent has pooled connections before the fork; the child must not reuse them.
    EXPECT_EQ(0, runInChild(2000, [&] {
                  return call(mService, WHO_CALLS, {}) == Words{NO_ERROR, 2000, getpid()} ? 0 : 1;
              }));
}

TEST_F(BinderTest, BinderSentInParcelIsCalledBackAndComesBackLocal) {
    sp<BBinder> local = newTestService();
    Parcel data, reply;
    data.writeStrongBinder(local);
    data.writeInt32(9);
    ASSERT_EQ(NO_ERROR, mService->transact(CALL_BACK, data, &reply));
    EXPECT_EQ(1, reply.readInt32());  // the local object's first record
    EXPECT_EQ((Words{NO_ERROR, 2, 9 + 1, 0}), call(local, RECORD, {1}));
    for (const sp<IBinder>& sent : {sp<IBinder>(local), mService, sp<IBinder>()}) {
        Parcel d, r;
        sp<IBinder> back;
        d.writeStrongBinder(sent);
        ASSERT_EQ(NO_ERROR, mService->transact(RETURN_BINDER, d, &r));
        EXPECT_EQ(NO_ERROR, r.readNullableStrongBinder(&back));
        EXPECT_EQ(sent, back);
    }
    EXPECT_EQ(INVALID_OPERATION, local->linkToDeath(new Recipient()));
}

TEST_F(BinderTest, OneWayCallsAreServedInOrderAndEightThreadsAtOnce) {
    for (int i = 1; i <= 50; i++) call(mService, RECORD, {i}, IBinder::FLAG_ONEWAY);
    EXPECT_EQ((Words{NO_ERROR, 51, 50 * 51 / 2, 0}), call(mService, RECORD, {0}));
    std::vector<Words> seen(8);
    std::vector<std::thread> threads;
    for (auto& s : seen) threads.emplace_back([&] { s = call(mService, BARRIER, {8}); });
    for (auto& t : threads) t.join();
    for (auto& s : seen) EXPECT_EQ((Words{NO_ERROR, 8}), s);
}

TEST_F(BinderTest, LinkToDeathFiresWhenPeerIsKilledAndUnlinkStopsIt) {
    sp<Recipient> kept = new Recipient(), dropped = new Recipient();
    int cookie = 0;
    wp<IBinder::DeathRecipient> out;
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(kept));
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(dropped, &cookie));
    EXPECT_EQ(NO_ERROR, mService->unlinkToDeath(dropped, &cookie, 0, &out));
    EXPECT_EQ(dropped, out.promote());
    EXPECT_EQ(NAME_NOT_FOUND, mService->unlinkToDeath(dropped, &cookie));
    mServer.kill();
    ASSERT_TRUE(waitUntil([&] { return kept->mDied > 0; }, 5000));
    EXPECT_EQ(mService, kept->mWho);
    EXPECT_FALSE(mService->isBinderAlive());
    EXPECT_EQ(DEAD_OBJECT, call(mService, ECHO_PLUS_ONE, {1})[0]);
    EXPECT_EQ(DEAD_OBJECT, mService->linkToDeath(new Recipient()));
    EXPECT_EQ(DEAD_OBJECT, mService->unlinkToDeath(kept));
    EXPECT_EQ(nullptr, sm->checkService(String16("test.svc")));
    EXPECT_EQ(0, dropped->mDied);
    EXPECT_EQ(1, kept->mDied);
}

// Hostile peers writing raw bytes: each bad message fails alone, the rest are still served.
TEST_F(BinderTest, MalformedTransportInputFailsOnlyItsOwnMessage) {
    const std::string ep = mService->remoteBinder()->endpoint();
    const uint64_t target = mService->remoteBinder()->objectId();
    // clang-format off
    auto msg = [&](uint32_t size, uint32_t objs = 0, uint64_t to = 0, std::string tail = "") {
        const WireHeader h = {kWireMagic, WIRE_TRANSACTION, to ? to : target,
                              objs ? uint32_t(RETURN_BINDER) : uint32_t(ECHO_PLUS_ONE), 0, 0,
                              size, objs, 0, uint32_t(tail.size()), 0};
        return std::string((const char*)&h, sizeof(h)) + tail;
    };
    // clang-format on
    // A RETURN_BINDER call whose one object is of `type` at `offset`, in endpoint `name`.
    auto object = [&](uint32_t offset, uint32_t type, uint64_t id, const std::string& name) {
        const WireObject o = {offset, type, id, uint32_t(name.size()), 0};
        const std::string pad(-name.size() % 4, '\0');
        return msg(24, 1, 0, std::string((const char*)&o, sizeof(o)) + name + pad)
                .insert(sizeof(WireHeader), 24, '\0');
    };
    const int32_t kNoReply = 1, kPeerGone = 2;
    const struct {
        const char* what;
        std::string bytes;
        int32_t status;        // of the error reply, or one of the two below
        bool hangsUp = false;  // the server closes the connection
    } rows[] = {
            // clang-format off
            {"header cut short, peer gone", msg(0).substr(0, 10), kPeerGone},
            {"header cut short, peer stalls", msg(0).substr(0, 10), kNoReply, true},
            {"peer gone mid-data", msg(4096) + std::string(100, '\xee'), kPeerGone},
            {"garbage header", std::string(64, '\xee'), kNoReply, true},
            {"oversized length", msg(kMaxTransactionData + 4), BAD_VALUE, true},
            {"too many objects", msg(0, kMaxObjects + 1), BAD_VALUE, true},
            {"unknown target", msg(0, 0, 424242), DEAD_OBJECT},
            {"unknown object", object(0, WIRE_OBJ_BINDER, 999999, ep), BAD_VALUE},
            {"object slot past the data", object(8, WIRE_OBJ_BINDER, 1, ep), BAD_VALUE},
            {"misaligned slot", object(2, WIRE_OBJ_BINDER, 1, ep), BAD_VALUE},
            {"fd that was not sent", object(0, WIRE_OBJ_FD, 0, ""), BAD_VALUE},
            {"unknown object type", object(0, 77, 1, ep), BAD_VALUE},
            {"outside the namespace", object(0, WIRE_OBJ_BINDER, 1, "elsewhere/x"), BAD_VALUE},
            // clang-format on
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        const int fd = connectAbstract(Transport::serviceSocketName("test.svc"));
        ASSERT_EQ(ssize_t(r.bytes.size()), write(fd, r.bytes.data(), r.bytes.size()));
        if (r.status == kPeerGone) close(fd);
        EXPECT_EQ((Words{NO_ERROR, 100}), call(mService, ECHO_PLUS_ONE, {99}));
        if (r.status == kPeerGone) continue;
        Message m;
        if (r.status != kNoReply) {
            ASSERT_EQ(NO_ERROR, recvMessage(fd, &m));
            EXPECT_EQ(r.status, m.hdr.status);
        }
        // The same connection carries good calls after a refused one.
        const std::string good = msg(4) + std::string(4, '\0');
        if (!r.hangsUp) {
            ASSERT_EQ(52, write(fd, good.data(), good.size()));
            EXPECT_TRUE(recvMessage(fd, &m) == NO_ERROR && m.hdr.status == NO_ERROR);
        }
        struct pollfd p = {fd, POLLIN, 0};
        ssize_t n = 1;
        while (r.hangsUp && poll(&p, 1, 10000) == 1 && (n = read(fd, &m, 1)) > 0) {
        }
        EXPECT_TRUE(!r.hangsUp || n <= 0);
        close(fd);
    }
    // The server dies while a call is in flight: the call fails, nothing hangs.
    std::thread killer([&] {
        usleep(100 * 1000);
        mServer.kill();
    });
    EXPECT_EQ(DEAD_OBJECT, call(mService, BARRIER, {3})[0]);
    killer.join();
}

TEST_F(BinderTest, ServiceToolPrintsRepliesInPlatformForm) {
    const std::string file = "/tmp/qmed-svc-fd-" + std::to_string(getpid());
    ASSERT_TRUE(writeFile(file, "abc"));
    const struct {
        std::string args;
        int status;
        std::string out, err;  // a text without a final newline need only be part of it
    } rows[] = {
            // clang-format off
            // The interface token's strict-mode word is what ECHO_PLUS_ONE reads.
            {"call test.svc 1 i32 41", 0, "Result: Parcel(80000001    '....')\n", ""},
            {"call test.svc 12 i32 42", 0, "Result: Parcel(00000000 0000002a   '....*...')\n", ""},
            {"call test.svc 12 i32 1 i64 -2 s16 hi f 1.5 d 2.5 null", 0,
             "Result: Parcel(\n"
             "  0x00000000: 00000000 00000001 fffffffe ffffffff '................'\n"
             "  0x00000010: 00000002 00690068 00000000 3fc00000 '....h.i........?'\n"
             "  0x00000020: 00000000 40040000 73622a85 00000000 '.......@.*bs....'\n"
             "  0x00000030: 00000000 00000000 00000000 00000000 '................')\n", ""},
            {"call test.svc 12 fd " + file, 0, "0x00000000: 00000000 66642a85", ""},
            {"call test.svc 999", 0, "Result: Parcel(NULL)\n", "status: -74\n"},
            {"call test.svc 9 i32 -1", 0, "Result: Parcel(NULL)\n", "status: -1\n"},
            {"call test.svc 12 fd /no/file", 10, "Usage: service", "could not open '/no/file'"},
            {"call test.svc 1 bogus 3", 10, "Usage: service", "service: unknown option bogus"},
            {"call no.such 1", 10, "", "service: Service no.such does not exist\n"},
            {"list", 0, "Found 1 services:\n0\ttest.svc: [qmed.test.ITestService]\n", ""},
            {"check test.svc", 0, "Service test.svc: found\n", ""},
            {"check no.such", 0, "Service no.such: not found\n", ""},
            // clang-format on
    };
    auto match = [](const std::string& want, const std::string& got) {
        return want.empty() || want.back() == '\n' ? got == want : got.find(want) != got.npos;
    };
    for (const auto& r : rows) {
        std::vector<std::string> argv;
        std::istringstream in(r.args);
        for (std::string word; in >> word;) argv.push_back(word);
        const ToolResult t = runTool("service", argv);
        EXPECT_EQ(r.status, t.exitCode) << r.args;
        EXPECT_TRUE(match(r.out, t.out) && match(r.err, t.err)) << r.args << "\n" << t.out << t.err;
    }
    unlink(file.c_str());
}

TEST(ProcessStateTest, ForkedServerOfStartedProcessStillGrowsItsPool) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer stops children that start threads after a threaded fork";
#endif
    if (!emulatorPrefix().empty()) GTEST_SKIP() << "qemu-user aborts such children";
    useUniqueBinderNamespace();
    ProcessState::self()->startThreadPool();
    // Fork only once the pool thread sleeps: a thread still starting up may hold the
    // allocator's lock, which the child would inherit held.
    ASSERT_TRUE(waitUntil(
            [] {
                glob_t g;
                size_t asleep = 0;
                glob("/proc/self/task/*/wchan", 0, nullptr, &g);
                for (size_t i = 0; i < g.gl_pathc; i++)
                    asleep += readFile(g.gl_pathv[i]) == "do_epoll_wait";
                globfree(&g);
                return asleep > 0;
            },
            5000));
    ServiceChild server("forked.svc");
    sp<IBinder> svc = defaultServiceManager()->checkService(String16("forked.svc"));
    ASSERT_NE(nullptr, svc);
    std::vector<Words> seen(4);
    std::vector<std::thread> threads;
    for (auto& s : seen) threads.emplace_back([&] { s = call(svc, BARRIER, {4}); });
    for (auto& t : threads) t.join();
    for (auto& s : seen) EXPECT_EQ((Words{NO_ERROR, 4}), s);
}

}  // namespace
