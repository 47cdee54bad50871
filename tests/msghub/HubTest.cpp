// The hub in process: the TLV codec, routing over socket pairs, and the netlink channel on a
// scripted kernel, which sees every byte the daemon sends the module.

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "daemon/QmedGlobals.h"
#include "msghub/ChannelManager.h"
#include "msghub/ChannelNetlink.h"
#include "msghub/Kstate.h"
#include "tests/support/FakeSockets.h"
#include "tests/support/HubWire.h"

namespace qmedtest {
namespace {

using Ids = std::vector<std::string>;

const std::string kToKernel = "100000000000000000000000";

std::string str(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

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
    explicit PairChannel(int id = 0) {
        int sv[2] = {-1, -1};
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv);
        mFd = sv[0], peer = sv[1], mId = id;
    }
    ~PairChannel() override { close(peer); }
    Channel* createChannel() override { return this; }
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
    android::sp<ChannelManager> hub = new ChannelManager();
    EXPECT_EQ(-1, hub->waitForMessage());  // nothing to wait on
    PairChannel* ch[2] = {new PairChannel(), new PairChannel(6)};
    for (PairChannel* c : ch) ASSERT_EQ(0, hub->add(c));
    EXPECT_EQ(tlvMessage(1, 0, 0, 0), ch[0]->sent());  // only the one without an id
    EXPECT_EQ(Bytes(), ch[1]->sent());
    const Bytes msg = tlvMessage(9, 4, 6, 3, {1, 2, 3});
    ASSERT_EQ(ssize_t(msg.size()), send(ch[0]->peer, msg.data(), msg.size(), 0));
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(msg, ch[1]->sent());
    // Seven at most (the eighth is freed); a channel whose peer hung up is dropped.
    for (int i = 2; i < 7; i++) ASSERT_EQ(0, hub->add(new PairChannel(10 + i))) << i;
    EXPECT_FALSE(hub->addChannel(new PairChannel(20)));
    close(ch[1]->peer);
    ch[1]->peer = -1;
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(nullptr, hub->getChannelById(6));
    EXPECT_EQ(6u, hub->channelCount());
    android::sp<Kstate> bare = new Kstate();  // no registry yet: events are dropped
    EXPECT_EQ(0, bare->processClientData((const char*)tlvMessage(4, 4, 8, 0).data(), 16));
}

// The identification request once the hub adds the channel, then every command the bridge
// sends; each goes to the kernel's address framed with the daemon's pid.
TEST(ChannelNetlink, FramesEveryModuleCommandByteForByte) {
    FakeSockets& os = *new FakeSockets();  // the hub keeps the channel until the process ends
    const uint32_t self = static_cast<uint32_t>(getpid());
    const std::string pid = FakeSockets::hex(&self, 4);
    android::sp<ChannelManager> hub = ChannelManager::getInstance();
    android::sp<Kstate> kstate = Kstate::getInstance();
    EXPECT_EQ(-1, kstate->setMask(5, 0));  // no module yet
    ASSERT_EQ(0, hub->add(new ChannelNetlink(os)));
    EXPECT_EQ(os.calls, Ids({"socket 0 16 3 30", "bind 0 10000000" + pid + "00000000",
                             "sendmsg 0 " + kToKernel + " 200000000000000000000000" + pid +
                                     "01000000" + std::string(24, '0')}));
    os.reply(0, str(netlinkMessage(0, tlvMessage(1, 4, 0, 0))));
    ASSERT_EQ(0, hub->waitForMessage());
    const std::string n64(64, 'n');
    Bytes wl64(66, 'n'), waiting(66, 0);
    wl64[0] = 2, wl64[1] = 0;
    waiting[0] = 6, waiting[1] = 0x39, memcpy(&waiting[2], "12345", 5);
    // {result, what the module gets (none: refused)}
    const std::pair<std::function<int()>, Bytes> rows[] = {
            {[&] { return kstate->setMask(5, 0); }, tlvMessage(4, 8, 4, 4, {5, 0, 0, 0})},
            {[&] { return kstate->setMask(0, 77); }, tlvMessage(4, 8, 4, 4, {0, 0, 0, 0})},
            {[&] { return kstate->setKWakelock(3, "abc", 1, 3); },
             tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})},
            {[&] { return kstate->setKWakelock(2, n64.c_str(), 0, 64); },
             tlvMessage(5, 4, 4, 66, wl64)},
            {[&] { return kstate->setKWakelock(2, (n64 + "n").c_str(), 0, 65); }, {}},
            {[&] { return kstate->checkWaitingBinder(12345); }, tlvMessage(5, 4, 4, 66, waiting)},
            {[&] { return kstate->putMessageToKQm(nullptr, 2); }, {}},
    };
    for (const auto& [send, tlv] : rows) {
        const size_t before = os.calls.size();
        EXPECT_EQ(tlv.empty() ? -1 : 0, send()) << hexOf(tlv);
        EXPECT_EQ(os.calls.size(), before + !tlv.empty()) << hexOf(tlv);
        if (!tlv.empty()) {
            EXPECT_EQ(os.calls.back(),
                      "sendmsg 0 " + kToKernel + " " + hexOf(netlinkMessage(self, tlv)));
        }
    }
}

// A received message gives what arrived, within the caller's buffer; a broken one fails.
TEST(ChannelNetlink, ReceivesWhatArrivedWithinTheBufferAndLogsOnce) {
    Bytes big = netlinkMessage(0, Bytes(2100, 7));
    const Bytes event = netlinkMessage(0, tlvMessage(4, 4, 8, 4, {1, 2, 3, 4}));
    // {datagram, capacity, result, payload bytes, line}
    const std::tuple<Bytes, unsigned, int, unsigned, std::string> rows[] = {
            {event, 2048, 0, 20, ""},
            {netlinkMessage(0), 2048, 0, 0, ""},
            {Bytes(10, 0), 2048, -1, 0, "Malformed netlink message (nlmsg_len 0, received 10)"},
            {netlinkMessage(0, {}, 8), 2048, -1, 0,
             "Malformed netlink message (nlmsg_len 8, received 16)"},
            {netlinkMessage(0, tlvMessage(4, 4, 8, 100, eventPayload(99, "cut")), 1000), 2048, 0,
             36, "Truncated netlink message (nlmsg_len 1000, received 52)"},
            {big, 2048, 0, 2048, "Truncated netlink message (nlmsg_len 2116, received 2064)"},
            {event, 8, 0, 8, "Truncated netlink message (nlmsg_len 36, received 24)"},
    };
    FakeSockets os;
    ChannelNetlink ch(os);
    ASSERT_EQ(0, ch.init());
    for (const auto& [datagram, capacity, result, bytes, line] : rows) {
        qmed::host::LogCapture log;
        os.reply(0, str(datagram));
        Bytes buf(capacity, 0xEE);
        unsigned len = capacity;
        EXPECT_EQ(result, ch.getMessage(reinterpret_cast<char*>(buf.data()), &len)) << line;
        EXPECT_EQ(result == 0 ? bytes : capacity, len) << line;
        if (result == 0) {
            EXPECT_EQ(Bytes(datagram.begin() + 16, datagram.begin() + 16 + len),
                      Bytes(buf.begin(), buf.begin() + len));
        }
        EXPECT_EQ(log.lines().size(), line.empty() ? 0u : 1u) << line;
        EXPECT_EQ(log.count(line), line.empty() ? 0u : 1u) << line;
    }
    // Failed calls: one line each, and no message; nothing is tried without a socket.
    qmed::host::LogCapture log;
    char buf[64];
    unsigned len = sizeof(buf);
    os.failing = {{"recvmsg", EIO}, {"sendmsg", ECONNREFUSED}, {"bind", EADDRINUSE}};
    EXPECT_EQ(-1, ch.getMessage(buf, &len));
    EXPECT_EQ(-1, ch.putMessage(buf, 16));
    ChannelNetlink unbound(os), closed(os);
    EXPECT_EQ(-1, unbound.init());
    for (Channel* c : {static_cast<Channel*>(&ch), static_cast<Channel*>(&closed)}) {
        EXPECT_EQ(-1, c->getMessage(c == &ch ? nullptr : buf, &len));
        EXPECT_EQ(-1, c->getMessage(buf, c == &ch ? nullptr : &len));
        EXPECT_EQ(-1, c->putMessage(c == &ch ? nullptr : buf, 16));
    }
    EXPECT_EQ(log.lines(), Ids({"E/Qmed-MsgHub: Failed to recvmsg",
                                "E/Qmed-MsgHub: Failed to sendmsg (Connection refused)",
                                "E/Qmed-MsgHub: Bind socket failed (Address already in use)"}));
    os.failing = {};
    bDebug = true;  // the one debug line
    EXPECT_EQ(0, ch.putMessage(buf, 17));
    bDebug = false;
    EXPECT_EQ(1u, log.count("D/Qmed-MsgHub: sendmsg to netlink(17)"));
    EXPECT_EQ(os.sent("sendmsg 0 " + kToKernel + " 24000000").size(), 1u);
    os.failing = {{"socket", EPROTONOSUPPORT}};
    EXPECT_EXIT(ChannelNetlink(os).init(), ::testing::ExitedWithCode(255),
                "Obtaining netlink socket failed \\(Protocol not supported\\), exit.");
}

}  // namespace
}  // namespace qmedtest
