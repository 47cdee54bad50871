#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
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
    void binderDied(const wp<IBinder>& who) override { mWho = who.promote(), mDied++; }
    std::atomic<int> mDied{0};  // publishes mWho
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
    void TearDown() override { mServer.kill(SIGTERM), mServer.reap(3000); }
    TestChild mServer = serveTestService("test.svc");
    sp<IServiceManager> sm = defaultServiceManager();
    sp<IBinder> mService;
};

TEST_F(BinderTest, CallsFromOtherProcessesSeeTheirCallerAndAreServedInParallel) {
    const int32_t kMax = 1024 * 1024;
    EXPECT_EQ(Words{FAILED_TRANSACTION}, call(mService, BIG_REPLY, {kMax + 4}));
    Parcel big, reply;
    big.writeInt32(kMax);
    ASSERT_EQ(NO_ERROR, mService->transact(BIG_REPLY, big, &reply));
    EXPECT_TRUE(std::string((const char*)reply.data(), reply.dataSize()) == std::string(kMax, 'Z'));
    big.writeInplace(kMax);  // requests have the same limit, checked before anything is sent
    EXPECT_EQ(FAILED_TRANSACTION, mService->transact(WHO_CALLS, big, &reply));
    // A child switched to uid 2000 reports via RECORD; it must not reuse our pooled connections.
    TestChild child = TestChild::run([&] {
        if (setgid(2000) == 0 && setuid(2000) == 0 &&
            call(mService, WHO_CALLS, {}) == Words{NO_ERROR, 2000, getpid()})
            call(mService, RECORD, {2000});
    });
    EXPECT_TRUE(child.reap(10000));
    for (int i = 1; i <= 50; i++) call(mService, RECORD, {i}, IBinder::FLAG_ONEWAY);
    EXPECT_EQ((Words{NO_ERROR, 52, 2000 + 50 * 51 / 2, 0}), call(mService, RECORD, {0}));
    std::vector<Words> seen(8);
    std::vector<std::thread> threads;
    for (auto& s : seen) threads.emplace_back([&] { s = call(mService, BARRIER, {8}); });
    for (auto& t : threads) t.join();
    for (auto& s : seen) EXPECT_EQ((Words{NO_ERROR, 8}), s);
}

// The service echoes what follows the interface token: every type, binders and an fd included.
TEST_F(BinderTest, EveryTypeSurvivesTheTripToTheServiceAndBackPingAndDumpAnswer) {
    EXPECT_EQ(String16(kTestDescriptor), mService->getInterfaceDescriptor());
    EXPECT_EQ(NO_ERROR, mService->pingBinder());
    EXPECT_EQ(NO_ERROR, mService->dump(STDOUT_FILENO, Vector<String16>()));
    sp<IBinder> local = new BBinder();
    const int32_t ints[3] = {1, -2, 3};
    Parcel d, p;
    d.writeInterfaceToken(String16(kTestDescriptor));
    // clang-format off
    d.writeInt32(INT32_MIN), d.writeUint32(0xdeadbeef), d.writeInt64(INT64_MIN),
            d.writeUint64(0xfedcba9876543210ull), d.writeFloat(1.5f), d.writeDouble(-2.25e300),
            d.writeBool(true), d.writeChar(u'\u20ac'), d.writeByte(-7), d.writeCString("c string"),
            d.writeString8(String8("string8 \xc3\xa9")), d.writeString8(nullptr, 0),
            d.writeString16(String16("string16 \xe2\x82\xac")), d.writeString16(nullptr, 0),
            d.writeInt32Array(3, ints), d.writeByteArray(5, (const uint8_t*)"\1\2\3\4\5"),
            d.writeStrongBinder(local), d.writeStrongBinder(mService), d.writeStrongBinder(nullptr),
            d.writeDupFileDescriptor(0), d.writeNoException();
    // clang-format on
    ASSERT_EQ(NO_ERROR, mService->transact(TOKEN_ECHO, d, &p));
    EXPECT_EQ(0, p.readExceptionCode());
    String8 null8("x");
    std::unique_ptr<String16> null16(new String16("x"));
    sp<IBinder> none = local;
    // clang-format off
    const std::tuple got{  // a braced list is read left to right
            p.readInt32(), p.readUint32(), p.readInt64(), p.readUint64(), p.readFloat(),
            p.readDouble(), p.readBool(), p.readChar(), p.readByte(), std::string(p.readCString()),
            p.readString8(), p.readString8(&null8), p.readString16(), p.readString16(&null16),
            p.readInt32(), p.readInt32(), p.readInt32(), p.readInt32(), p.readInt32(),
            std::string((const char*)p.readInplace(5), 5), p.readStrongBinder(),
            p.readStrongBinder(), p.readStrongBinder(&none)};
    EXPECT_EQ(std::tuple(INT32_MIN, 0xdeadbeefu, INT64_MIN, 0xfedcba9876543210ull, 1.5f, -2.25e300,
                         true, u'\u20ac', int8_t(-7), std::string("c string"),
                         String8("string8 \xc3\xa9"), UNEXPECTED_NULL,
                         String16("string16 \xe2\x82\xac"), NO_ERROR, 3, 1, -2, 3, 5,
                         std::string("\1\2\3\4\5"), local, mService, UNEXPECTED_NULL), got);
    // clang-format on
    EXPECT_EQ(nullptr, null16);
    const int fd = p.readFileDescriptor();
    EXPECT_TRUE(fd > 0 && fcntl(fd, F_GETFD) >= 0) << fd;
    EXPECT_EQ(0, p.readExceptionCode());
    EXPECT_EQ(p.dataSize(), p.dataPosition());
    p.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, p.readFileDescriptor());  // raw words are not fds
}

// Hostile peers writing raw bytes: each bad message fails alone, the rest are still served.
TEST_F(BinderTest, MalformedInputFailsOnlyItsOwnMessageAndDeathIsNoticed) {
    const std::string ep = mService->remoteBinder()->endpoint();
    const uint64_t target = mService->remoteBinder()->objectId();
    // clang-format off
    auto msg = [&](uint32_t size, uint32_t objs = 0, uint64_t to = 0, std::string tail = "") {
        const WireHeader h = {kWireMagic, WIRE_TRANSACTION, to ? to : target, WHO_CALLS, 0, 0,
                              size, objs, 0, uint32_t(tail.size()), 0};
        return std::string((const char*)&h, sizeof(h)) + tail;
    };
    // A call whose one object is of `type` at `offset`, in endpoint `name`.
    auto object = [&](uint32_t offset, uint32_t type, uint64_t id, const std::string& name) {
        const WireObject o = {offset, type, id, uint32_t(name.size()), 0};
        return msg(24, 1, 0, std::string((const char*)&o, sizeof(o)) + name +
                   std::string(-name.size() % 4, '\0')).insert(sizeof(WireHeader), 24, '\0');
    };
    const int32_t kNoReply = 1, kPeerGone = 2;
    // What, bytes, the status of the error reply or one of the two above.
    const std::tuple<const char*, std::string, int32_t> rows[] = {
            {"header cut short, peer stalls", msg(0).substr(0, 10), kNoReply},
            {"peer gone mid-data", msg(4096) + std::string(100, '\xee'), kPeerGone},
            {"garbage header", std::string(64, '\xee'), kNoReply},
            {"oversized length", msg(kMaxTransactionData + 4), BAD_VALUE},
            {"unknown target", msg(0, 0, 424242), DEAD_OBJECT},
            {"unknown object", object(0, WIRE_OBJ_BINDER, 999999, ep), BAD_VALUE},
            {"object slot past the data", object(8, WIRE_OBJ_BINDER, 1, ep), BAD_VALUE},
            {"misaligned slot", object(2, WIRE_OBJ_BINDER, 1, ep), BAD_VALUE},
            {"fd that was not sent", object(0, WIRE_OBJ_FD, 0, ""), BAD_VALUE},
            {"unknown object type", object(0, 77, 1, ep), BAD_VALUE},
            {"outside the namespace", object(0, WIRE_OBJ_BINDER, 1, "elsewhere/x"), BAD_VALUE},
    };
    // clang-format on
    const Words served = {NO_ERROR, int32_t(getuid()), getpid()};
    for (const auto& [what, bytes, status] : rows) {
        SCOPED_TRACE(what);
        const int fd = connectAbstract(Transport::serviceSocketName("test.svc"));
        ASSERT_EQ(ssize_t(bytes.size()), write(fd, bytes.data(), bytes.size()));
        if (status == kPeerGone) close(fd);
        EXPECT_EQ(served, call(mService, WHO_CALLS, {}));
        if (status == kPeerGone) continue;
        // An error reply, or the connection closed when the message cannot be framed.
        Message m;
        char c;
        struct pollfd p = {fd, POLLIN, 0};
        EXPECT_TRUE(poll(&p, 1, 10000) == 1 &&
                    (status == kNoReply ? read(fd, &c, 1) <= 0
                                        : recvMessage(fd, &m) == 0 && m.hdr.status == status));
        close(fd);
    }
    // The server dies while a call is in flight: the call fails, nothing hangs, and only the
    // recipient still linked hears of it.
    sp<Recipient> kept = new Recipient(), dropped = new Recipient();
    int cookie = 0;
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(kept));
    ASSERT_EQ(NO_ERROR, mService->linkToDeath(dropped, &cookie));
    EXPECT_EQ(NO_ERROR, mService->unlinkToDeath(dropped, &cookie));
    std::thread killer([&] { usleep(100 * 1000), mServer.kill(); });
    EXPECT_EQ(DEAD_OBJECT, call(mService, BARRIER, {3})[0]);
    killer.join();
    ASSERT_TRUE(waitUntil([&] { return kept->mDied > 0; }, 5000));
    EXPECT_TRUE(dropped->mDied == 0 && kept->mDied == 1 && kept->mWho == mService);
}

// Calls queued back to back on one connection are read ahead together: each is served once, in
// order, with the descriptor sent with its first byte, however the bytes are split.
TEST_F(BinderTest, QueuedCallsAreServedInOrderWithTheirDescriptors) {
    const uint64_t to = mService->remoteBinder()->objectId();
    // RECORD of `value` in `size` data bytes; with an fd object after the value when fds is 1.
    auto record = [&](int32_t value, uint32_t size, uint32_t fds, uint32_t flags = 1) {
        const WireObject o = {8, WIRE_OBJ_FD, 0, 0, 0};
        const WireHeader h = {kWireMagic, WIRE_TRANSACTION, to, RECORD, flags, 0, size, fds,
                              fds,        fds * 24,         0};
        return std::string((const char*)&h, sizeof(h)) + std::string((const char*)&value, 4) +
               std::string(size - 4, '\0') + std::string((const char*)&o, fds * 24);
    };
    const std::string a = record(1, 4, 0), big = record(2, 2000, 0), withFd = record(4, 32, 1),
                      b = record(8, 4, 0), last = record(0, 4, 0, 0);
    // Writes of 5-byte pieces, the one starting the call with an fd carrying it.
    std::vector<std::pair<std::string, bool>> pieces;
    for (const std::string* m : {&a, &big, &withFd, &b, &last})
        for (size_t i = 0; i < m->size(); i += 5)
            pieces.push_back({m->substr(i, 5), i == 0 && m == &withFd});
    // What; the writes; the status of the last call.
    const std::tuple<const char*, std::vector<std::pair<std::string, bool>>, status_t> rows[] = {
            {"two writes", {{a + big, false}, {withFd + b + last, true}}, NO_ERROR},
            {"5-byte pieces", pieces, NO_ERROR},
            {"a descriptor no call announced", {{last, true}}, BAD_VALUE},
    };
    for (const auto& [what, writes, status] : rows) {
        SCOPED_TRACE(what);
        const Words before = call(mService, RECORD, {0});
        const int fd = connectAbstract(Transport::serviceSocketName("test.svc"));
        const struct timeval wait = {10, 0};  // a lost call fails the row rather than hanging
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
        for (const auto& [bytes, passFd] : writes) {
            alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
            struct iovec iov = {(void*)bytes.data(), bytes.size()};
            struct msghdr msg = {nullptr, 0, &iov, 1, control, sizeof(control), 0};
            *CMSG_FIRSTHDR(&msg) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof(fd));
            msg.msg_controllen = passFd ? sizeof(control) : 0;
            ASSERT_EQ(ssize_t(bytes.size()), sendmsg(fd, &msg, 0));
        }
        Message m;
        ASSERT_EQ(NO_ERROR, recvMessage(fd, &m));
        close(fd);
        Parcel p;
        p.setData(m.data.data(), m.data.size());
        const Words got = {m.hdr.status, p.readInt32(), p.readInt32()};  // error replies are empty
        EXPECT_EQ(status ? (Words{status, 0, 0}) : (Words{0, before[1] + 5, before[2] + 15}), got);
    }
}

TEST_F(BinderTest, ServiceToolPrintsRepliesInPlatformForm) {
    // Arguments; exit status; the start of stdout, stderr.
    // clang-format off
    const std::tuple<std::vector<std::string>, int, std::string, std::string> rows[] = {
            {{"call", "test.svc", "5", "i32", "1", "i64", "-2", "s16", "hi", "f", "1.5", "d", "2.5",
              "null", "fd", "/dev/null"}, 0,
             "Result: Parcel(\n"
             "  0x00000000: 00000000 00000001 fffffffe ffffffff '................'\n"
             "  0x00000010: 00000002 00690068 00000000 3fc00000 '....h.i........?'\n"
             "  0x00000020: 00000000 40040000 73622a85 00000000 '.......@.*bs....'\n"
             "  0x00000030: 00000000 00000000 00000000 00000000 '................'\n"
             "  0x00000040: 66642a85 ", ""},
            {{"call", "test.svc", "1", "x"}, 10, "Usage: service", "service: unknown option x\n"},
            {{"list"}, 0, "Found 1 services:\n0\ttest.svc: [qmed.test.ITestService]\n", ""},
    };
    // clang-format on
    for (const auto& [args, status, out, err] : rows) {
        const ToolResult t = runTool("service", args);
        EXPECT_TRUE(t.exitCode == status && t.out.find(out) == 0 && t.err.find(err) == 0)
                << t.out << t.err;
    }
}

}  // namespace
