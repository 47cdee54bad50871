// Hostile peers writing raw bytes at a service: each bad message fails alone and the
// process goes on serving everyone else.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/host/src/Transport.h"
#include "platform/host/src/WireFormat.h"
#include "tests/platform/TestService.h"

using namespace android;
using namespace android::hostbinder;
using namespace platformtest;

namespace {

class TransportRobustnessTest : public ::testing::Test {
  protected:
    void SetUp() override {
        useUniqueBinderNamespace();
        mServer = forkTestService("robust.svc");
        ASSERT_GT(mServer, 0);
        mService = defaultServiceManager()->checkService(String16("robust.svc"));
        ASSERT_NE(nullptr, mService);
        mTarget = mService->remoteBinder()->objectId();
    }
    void TearDown() override {
        kill(mServer, SIGKILL);
        waitpid(mServer, nullptr, 0);
    }

    int rawConnect() { return connectAbstract(Transport::serviceSocketName("robust.svc")); }

    WireHeader header(uint32_t code, uint32_t dataSize) {
        WireHeader h = {};
        h.magic = kWireMagic;
        h.kind = WIRE_TRANSACTION;
        h.target = mTarget;
        h.code = code;
        h.dataSize = dataSize;
        return h;
    }

    void expectStillServing() {
        Parcel data, reply;
        data.writeInt32(99);
        ASSERT_EQ(NO_ERROR, mService->transact(ECHO_PLUS_ONE, data, &reply));
        EXPECT_EQ(100, reply.readInt32());
    }

    // True when the server closes the connection within the wait.
    static bool closedByPeer(int fd, int ms) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, ms) != 1) return false;
        char buf[256];
        for (;;) {
            const ssize_t n = read(fd, buf, sizeof(buf));
            if (n <= 0) return true;
        }
    }

    pid_t mServer = -1;
    sp<IBinder> mService;
    uint64_t mTarget = 0;
};

TEST_F(TransportRobustnessTest, TruncatedHeaderFailsThatConnectionOnly) {
    // Peer writes part of a header and goes away.
    int fd = rawConnect();
    ASSERT_GE(fd, 0);
    WireHeader h = header(ECHO_PLUS_ONE, 0);
    ASSERT_EQ(10, write(fd, &h, 10));
    close(fd);
    expectStillServing();

    // Peer writes part of a header and stalls: the server gives up on it, and serves others
    // meanwhile.
    fd = rawConnect();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(10, write(fd, &h, 10));
    expectStillServing();
    EXPECT_TRUE(closedByPeer(fd, 10000));
    close(fd);
    expectStillServing();
}

TEST_F(TransportRobustnessTest, OversizedLengthIsAnsweredWithErrorAndDropped) {
    const int fd = rawConnect();
    ASSERT_GE(fd, 0);
    WireHeader h = header(ECHO_PLUS_ONE, uint32_t(kMaxTransactionData + 4));
    ASSERT_EQ(ssize_t(sizeof(h)), write(fd, &h, sizeof(h)));
    Message m;
    ASSERT_EQ(NO_ERROR, recvMessage(fd, &m));
    EXPECT_EQ(uint32_t(WIRE_REPLY), m.hdr.kind);
    EXPECT_EQ(BAD_VALUE, m.hdr.status);
    EXPECT_TRUE(closedByPeer(fd, 10000));
    close(fd);
    expectStillServing();

    // Counts beyond the limits are refused the same way.
    const int fd2 = rawConnect();
    WireHeader h2 = header(ECHO_PLUS_ONE, 0);
    h2.objCount = kMaxObjects + 1;
    ASSERT_EQ(ssize_t(sizeof(h2)), write(fd2, &h2, sizeof(h2)));
    Message m2;
    ASSERT_EQ(NO_ERROR, recvMessage(fd2, &m2));
    EXPECT_EQ(BAD_VALUE, m2.hdr.status);
    close(fd2);
    expectStillServing();
}

TEST_F(TransportRobustnessTest, BadObjectReferencesFailOneTransaction) {
    const int fd = rawConnect();
    ASSERT_GE(fd, 0);
    const std::string ep = mService->remoteBinder()->endpoint();
    struct Case {
        const char* what;
        WireObject obj;
        std::string name;
    };
    const std::vector<Case> cases = {
            {"unknown object in its own process", {0, WIRE_OBJ_BINDER, 999999, 0, 0}, ep},
            {"object slot past the data", {8, WIRE_OBJ_BINDER, 1, 0, 0}, ep},
            {"misaligned slot", {2, WIRE_OBJ_BINDER, 1, 0, 0}, ep},
            {"fd that was not sent", {0, WIRE_OBJ_FD, 0, 0, 0}, ""},
            {"unknown object type", {0, 77, 1, 0, 0}, ep},
            {"endpoint outside the namespace", {0, WIRE_OBJ_BINDER, 1, 0, 0}, "elsewhere/x"},
    };
    for (const auto& c : cases) {
        WireObject obj = c.obj;
        obj.nameLen = uint32_t(c.name.size());
        std::string tail(reinterpret_cast<const char*>(&obj), sizeof(obj));
        tail += c.name;
        tail.append((4 - c.name.size() % 4) % 4, '\0');
        WireHeader h = header(RETURN_BINDER, 24);
        h.objCount = 1;
        h.tailSize = uint32_t(tail.size());
        std::vector<uint8_t> data(24, 0);
        ASSERT_EQ(NO_ERROR, sendMessage(fd, h, data.data(), tail, {})) << c.what;
        Message m;
        ASSERT_EQ(NO_ERROR, recvMessage(fd, &m)) << c.what;
        EXPECT_EQ(BAD_VALUE, m.hdr.status) << c.what;
    }
    // The same connection still carries good calls.
    Parcel good;
    good.writeInt32(1);
    WireHeader h = header(ECHO_PLUS_ONE, uint32_t(good.dataSize()));
    ASSERT_EQ(NO_ERROR, sendMessage(fd, h, good.data(), std::string(), {}));
    Message m;
    ASSERT_EQ(NO_ERROR, recvMessage(fd, &m));
    EXPECT_EQ(NO_ERROR, m.hdr.status);
    ASSERT_EQ(4u, m.data.size());
    EXPECT_EQ(2, int32_t(m.data[0]));
    close(fd);
    expectStillServing();
}

TEST_F(TransportRobustnessTest, PeerVanishingMidMessageFailsItAlone) {
    const int fd = rawConnect();
    ASSERT_GE(fd, 0);
    WireHeader h = header(ECHO_PLUS_ONE, 4096);
    ASSERT_EQ(ssize_t(sizeof(h)), write(fd, &h, sizeof(h)));
    std::vector<uint8_t> part(100, 1);
    ASSERT_EQ(100, write(fd, part.data(), part.size()));
    close(fd);
    expectStillServing();

    // Garbage instead of a header.
    const int fd2 = rawConnect();
    std::vector<uint8_t> junk(64, 0xee);
    ASSERT_EQ(64, write(fd2, junk.data(), junk.size()));
    EXPECT_TRUE(closedByPeer(fd2, 10000));
    close(fd2);
    expectStillServing();

    // A call to an object that does not exist.
    const int fd3 = rawConnect();
    WireHeader h3 = header(ECHO_PLUS_ONE, 0);
    h3.target = 424242;
    ASSERT_EQ(NO_ERROR, sendMessage(fd3, h3, nullptr, std::string(), {}));
    Message m;
    ASSERT_EQ(NO_ERROR, recvMessage(fd3, &m));
    EXPECT_EQ(DEAD_OBJECT, m.hdr.status);
    close(fd3);
    expectStillServing();
}

TEST_F(TransportRobustnessTest, ClientSurvivesServerDyingMidCall) {
    // The server dies while our call is in flight: the call fails, nothing hangs.
    Parcel data, reply;
    data.writeInt32(3);
    pid_t killer = fork();
    if (killer == 0) {
        usleep(100 * 1000);
        kill(mServer, SIGKILL);
        _exit(0);
    }
    EXPECT_EQ(DEAD_OBJECT, mService->transact(BARRIER, data, &reply));
    waitpid(killer, nullptr, 0);
}

TEST(WireFormatTest, HeaderGoldenBytes) {
    WireHeader h = {};
    h.magic = kWireMagic;
    h.kind = WIRE_REPLY;
    h.target = 0x0102030405060708ull;
    h.code = 9;
    h.status = -74;
    h.dataSize = 16;
    const uint8_t want[48] = {
            'Q',  'B',  'W',  '1',  2,  0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1, 9, 0, 0, 0, 0, 0, 0, 0,
            0xb6, 0xff, 0xff, 0xff, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    };
    EXPECT_EQ(0, memcmp(want, &h, sizeof(want)));
}

}  // namespace
