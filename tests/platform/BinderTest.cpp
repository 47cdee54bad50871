#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
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

// Sends the interface token and `put`'s values to TOKEN_ECHO; `back` has the echo.
status_t echo(const sp<IBinder>& b, const std::function<void(Parcel&)>& put, Parcel* back) {
    Parcel data;
    data.writeInterfaceToken(String16(kTestDescriptor));
    put(data);
    const status_t err = b->transact(TOKEN_ECHO, data, back);
    return err ? err : back->readExceptionCode();
}

class BinderTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(nullptr, mService = sm->checkService(String16("test.svc"))); }
    void TearDown() override { mServer.kill(SIGTERM), mServer.reap(3000); }
    TestChild mServer = serveTestService("test.svc");
    sp<IServiceManager> sm = defaultServiceManager();
    sp<IBinder> mService;
};

TEST_F(BinderTest, ServiceAddedInOneProcessIsCalledFromAnotherAndSeesItsCaller) {
    EXPECT_EQ(NO_ERROR, mService->pingBinder());
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
    big.writeInplace(kMax);  // requests have the same limit, checked before anything is sent
    EXPECT_EQ(FAILED_TRANSACTION, mService->transact(ECHO_PLUS_ONE, big, &reply));
    // A dump transaction reaches dump(fd, args); the pipe's read end goes to the service and
    // back, and still reads what dump() wrote.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Vector<String16> args;
    args.add(String16("x y"));
    ASSERT_EQ(NO_ERROR, mService->dump(fds[1], args));
    close(fds[1]);
    Parcel back;
    ASSERT_EQ(NO_ERROR,
              echo(
                      mService, [&](Parcel& p) { p.writeFileDescriptor(fds[0], true); }, &back));
    EXPECT_EQ("dump x y\n", readFile("/proc/self/fd/" + std::to_string(back.readFileDescriptor())));
    // A forked child switched to uid 2000 reports through RECORD what the service saw. This
    // process has pooled connections before the fork; the child must not reuse them.
    TestChild child = TestChild::run([&] {
        if (setgid(2000) == 0 && setuid(2000) == 0 &&
            call(mService, WHO_CALLS, {}) == Words{NO_ERROR, 2000, getpid()})
            call(mService, RECORD, {2000});
    });
    EXPECT_TRUE(child.reap(10000));
    EXPECT_EQ((Words{NO_ERROR, 2, 2000, 0}), call(mService, RECORD, {0}));
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
        Parcel r;
        sp<IBinder> back;
        ASSERT_EQ(NO_ERROR, echo(
                                    mService, [&](Parcel& p) { p.writeStrongBinder(sent); }, &r));
        EXPECT_EQ(NO_ERROR, r.readNullableStrongBinder(&back));
        EXPECT_EQ(sent, back);
    }
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
    EXPECT_EQ(nullptr, sm->checkService(String16("test.svc")));
    EXPECT_EQ(0, dropped->mDied);
    EXPECT_EQ(1, kept->mDied);
}

// Hostile peers writing raw bytes: each bad message fails alone, the rest are still served.
TEST_F(BinderTest, MalformedTransportInputFailsOnlyItsOwnMessage) {
    const std::string ep = mService->remoteBinder()->endpoint();
    const uint64_t target = mService->remoteBinder()->objectId();
    auto msg = [&](uint32_t size, uint32_t objs = 0, uint64_t to = 0, std::string tail = "") {
        const WireHeader h = {kWireMagic,
                              WIRE_TRANSACTION,
                              to ? to : target,
                              ECHO_PLUS_ONE,
                              0,
                              0,
                              size,
                              objs,
                              0,
                              uint32_t(tail.size()),
                              0};
        return std::string((const char*)&h, sizeof(h)) + tail;
    };
    // A call whose one object is of `type` at `offset`, in endpoint `name`.
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
        int32_t status;        // of the error reply, or one of the two above
        bool hangsUp = false;  // the server closes the connection
    } rows[] = {
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
    };
    const std::string good = msg(4) + std::string(4, '\0');
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
        // The same connection carries good calls after a refused one, or is closed.
        if (!r.hangsUp) ASSERT_EQ(ssize_t(good.size()), write(fd, good.data(), good.size()));
        struct pollfd p = {fd, POLLIN, 0};
        char c;
        ASSERT_EQ(1, poll(&p, 1, 10000));
        EXPECT_TRUE(r.hangsUp ? read(fd, &c, 1) <= 0
                              : recvMessage(fd, &m) == NO_ERROR && m.hdr.status == NO_ERROR);
        close(fd);
    }
    // The server dies while a call is in flight: the call fails, nothing hangs.
    std::thread killer([&] { usleep(100 * 1000), mServer.kill(); });
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
            // The interface token's strict-mode word is what ECHO_PLUS_ONE reads.
            {"call test.svc 1 i32 41", 0, "Result: Parcel(80000001    '....')\n", ""},
            {"call test.svc 8 i32 1 i64 -2 s16 hi f 1.5 d 2.5 null fd " + file, 0,
             "Result: Parcel(\n"
             "  0x00000000: 00000000 00000001 fffffffe ffffffff '................'\n"
             "  0x00000010: 00000002 00690068 00000000 3fc00000 '....h.i........?'\n"
             "  0x00000020: 00000000 40040000 73622a85 00000000 '.......@.*bs....'\n"
             "  0x00000030: 00000000 00000000 00000000 00000000 '................'\n"
             "  0x00000040: 66642a85",
             ""},
            {"call test.svc 8 fd /no/file", 10, "Usage: service", "could not open '/no/file'"},
            {"call test.svc 1 bogus 3", 10, "Usage: service", "service: unknown option bogus"},
            {"call no.such 1", 10, "", "service: Service no.such does not exist\n"},
            {"list", 0, "Found 1 services:\n0\ttest.svc: [qmed.test.ITestService]\n", ""},
            {"check test.svc", 0, "Service test.svc: found\n", ""},
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

}  // namespace
