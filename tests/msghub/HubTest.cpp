// The hub in the test process: the header codec and routing between channels over socket
// pairs. The netlink channel and the module are driven through the daemon.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "msghub/ChannelManager.h"
#include "tests/support/HubWire.h"

using android::sp;

namespace qmedtest {
namespace {

TEST(TlvEncDec, WritesFourHostOrderWordsOnlyWhereTheyFit) {
    const Bytes golden = tlvMessage(5, 6, 7, 0x01020304);
    // {buffer size, result, bytes written}
    const int rows[][3] = {{16, 0, 16}, {15, 0, 12}, {13, 0, 12}, {12, -1, 12},
                           {4, -1, 4},  {3, -1, 0},  {-5, -1, 0}};
    TlvEncDec codec;
    for (const auto& r : rows) {
        Bytes area(20, 0xEE);
        EXPECT_EQ(r[1], codec.headerEnc({5, 6, 7, 0x01020304}, (char*)area.data(), r[0])) << r[0];
        for (int i = 0; i < 20; i++) EXPECT_EQ(i < r[2] ? golden[i] : 0xEE, area[i]) << r[0];
    }
}

// A channel over a socket pair whose far end the test plays.
struct PairChannel : Channel, ChannelFactory {
    explicit PairChannel(int id = 0) { mId = id; }
    ~PairChannel() override { close(peer); }
    Channel* createChannel() override { return this; }
    int init() override {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) return -1;
        mFd = sv[0], peer = sv[1];
        return 0;
    }
    int getMessage(char* buf, unsigned* len) override {
        ssize_t n = recv(mFd, buf, *len, 0);
        *len = n > 0 ? static_cast<unsigned>(n) : 0;
        return n > 0 ? 0 : n == 0 ? kConnectionGone : -1;
    }
    int putMessage(const char* buf, unsigned len) override {
        return send(mFd, buf, len, MSG_NOSIGNAL) < 0 ? -1 : 0;
    }
    Bytes sent() {  // the next message sent on the channel, empty when none is pending
        Bytes buf(65536);
        buf.resize(std::max<ssize_t>(0, recv(peer, buf.data(), buf.size(), MSG_DONTWAIT)));
        return buf;
    }
    int peer = -1;
};

TEST(ChannelManager, AsksNewChannelsOnceRoutesWholeMessagesAndDropsThoseThatHangUp) {
    sp<ChannelManager> hub = new ChannelManager();
    EXPECT_EQ(-1, hub->waitForMessage());  // nothing to wait on
    PairChannel* ch[2] = {new PairChannel(), new PairChannel(6)};
    for (PairChannel* c : ch) ASSERT_EQ(0, hub->add(c));
    EXPECT_EQ(tlvMessage(1, 0, 0, 0), ch[0]->sent());  // only the one without an id
    EXPECT_EQ(Bytes(), ch[1]->sent());
    const Bytes msg = tlvMessage(9, 4, 6, 3, {1, 2, 3});
    ASSERT_EQ(ssize_t(msg.size()), send(ch[0]->peer, msg.data(), msg.size(), 0));
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(msg, ch[1]->sent());
    EXPECT_EQ(Bytes(), ch[0]->sent());
    // Seven at most: the eighth channel is freed (the leak checker sees to it). A channel
    // whose peer hung up is dropped.
    for (int i = 2; i < 7; i++) ASSERT_EQ(0, hub->add(new PairChannel(10 + i))) << i;
    EXPECT_FALSE(hub->addChannel(new PairChannel(20)));
    close(ch[1]->peer);
    ch[1]->peer = -1;
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(nullptr, hub->getChannelById(6));
    EXPECT_EQ(6u, hub->channelCount());
}

}  // namespace
}  // namespace qmedtest
