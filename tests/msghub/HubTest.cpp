// The hub in process: the TLV codec, routing over socket pairs, and the netlink channel on a
// scripted kernel, which sees every byte the daemon sends the module.

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <string.h>
#include <unistd.h>

#include <functional>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
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
std::string hexOf(const Bytes& b) {
    return FakeSockets::hex(b.data(), b.size());
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

// A netlink channel whose peer has hung up.
struct GoneChannel : ChannelNetlink {
    using ChannelNetlink::ChannelNetlink;
    int getMessage(char*, unsigned*) override { return kConnectionGone; }
};

TEST(ChannelManager, AsksNewChannelsOnceRoutesWholeMessagesAndDropsThoseThatHangUp) {
    FakeSockets os;
    android::sp<ChannelManager> hub = new ChannelManager();
    EXPECT_EQ(-1, hub->waitForMessage());  // nothing to wait on
    Channel* ch[3] = {new ChannelNetlink(os), new ChannelNetlink(os), new GoneChannel(os)};
    ch[1]->mId = 6, ch[2]->mId = 7;
    for (Channel* c : ch) ASSERT_EQ(0, hub->add(c));
    const uint32_t self = static_cast<uint32_t>(getpid());
    EXPECT_EQ(os.sent(0), Ids({hexOf(netlinkMessage(self, tlvMessage(1, 0, 0, 0)))}));
    EXPECT_EQ(os.sent(1), Ids());  // only the one without an id is asked
    const Bytes msg = tlvMessage(9, 4, 6, 3, {1, 2, 3});
    os.reply(0, str(netlinkMessage(0, msg)));
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(os.sent(1), Ids({hexOf(netlinkMessage(self, msg))}));
    // Seven at most (the eighth is freed); a channel whose peer hung up is dropped.
    for (int id = 13; id < 17; id++) {
        ch[0] = new ChannelNetlink(os);
        ch[0]->mId = id;
        ASSERT_EQ(0, hub->add(ch[0])) << id;
    }
    ChannelNetlinkFactory eighth(os);
    EXPECT_FALSE(hub->addChannel(&eighth));
    os.reply(2, "x");
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(nullptr, hub->getChannelById(7));
    EXPECT_EQ(6u, hub->channelCount());
    android::sp<Kstate> bare = new Kstate();  // no registry yet: events are dropped
    EXPECT_EQ(0, bare->processClientData((const char*)tlvMessage(4, 4, 8, 0).data(), 16));
}

// The module exchange: the identification request once the hub adds the channel, every command
// of the bridge framed with the daemon's pid, and what the module sends, which reaches the bridge
// only as an event for it, with the length it claims.
TEST(ChannelNetlink, ModuleExchangeByteForByte) {
    // The hub keeps its channel, and so this, until the process ends.
    static FakeSockets& os = *new FakeSockets();
    const uint32_t self = static_cast<uint32_t>(getpid());
    const std::string pid = FakeSockets::hex(&self, 4), n64(64, 'n');
    android::sp<ChannelManager> hub = ChannelManager::getInstance();
    android::sp<Kstate> kstate = Kstate::getInstance();
    ASSERT_EQ(0, kstate->binderListener(new IQmedBinderListenerService(nullptr, nullptr)));
    qmed::host::LogCapture log;
    bDebug = true;  // the bridge shows what it passes on, and the channel what it sends
    ASSERT_EQ(0, hub->add(new ChannelNetlink(os)));
    EXPECT_EQ(-1, kstate->setMask(5, 0));  // not identified yet: no module
    EXPECT_EQ(os.calls, Ids({"socket 0 16 3 30", "bind 0 10000000" + pid + "00000000",
                             "sendmsg 0 " + kToKernel}));
    EXPECT_EQ(os.sent(0),
              Ids({"200000000000000000000000" + pid + "01000000" + std::string(24, '0')}));
    os.reply(0, str(netlinkMessage(0, tlvMessage(1, 4, 0, 0))));
    ASSERT_EQ(0, hub->waitForMessage());
    Bytes wl64(66, 'n'), waiting(66, 0);
    wl64[0] = 2, wl64[1] = 0;
    waiting[0] = 6, waiting[1] = 0x39, memcpy(&waiting[2], "12345", 5);
    // {command, what the module gets (none: refused)}
    const std::pair<std::function<int()>, Bytes> out[] = {
            {[&] { return kstate->setMask(5, 0); }, tlvMessage(4, 8, 4, 4, {5, 0, 0, 0})},
            {[&] { return kstate->setMask(0, 77); }, tlvMessage(4, 8, 4, 4, {0, 0, 0, 0})},
            {[&] { return kstate->setKWakelock(3, "abc", 1, 3); },
             tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})},
            {[&] { return kstate->setKWakelock(2, n64.c_str(), 0, 64); },
             tlvMessage(5, 4, 4, 66, wl64)},
            {[&] { return kstate->setKWakelock(2, (n64 + "n").c_str(), 0, 65); }, {}},
            {[&] { return kstate->checkWaitingBinder(12345); }, tlvMessage(5, 4, 4, 66, waiting)},
            {[&] { return kstate->putMessageToKQm(nullptr, 2); }, {}}};
    for (const auto& [send, tlv] : out) {
        os.calls.clear();
        EXPECT_EQ(tlv.empty() ? -1 : 0, send()) << hexOf(tlv);
        EXPECT_EQ(os.calls, tlv.empty() ? Ids() : Ids({"sendmsg 0 " + kToKernel}));
        EXPECT_EQ(os.sent(0), tlv.empty() ? Ids() : Ids({hexOf(netlinkMessage(self, tlv))}));
    }
    EXPECT_EQ(2u, log.count("D/Qmed-MsgHub: sendmsg to netlink(20)"));
    // {tag, src, dst, len, what the bridge passes on (-1: nothing)}: dst 0, an unknown one, the
    // module's own, not an event, TLV len past the receive buffer or negative, an identification
    // naming nothing; then one naming the channel after the hub, which ends all routing from it.
    const int in[][5] = {{4, 4, 0, 20, -1},   {4, 4, 5, 20, -1},     {4, 4, 4, 20, -1},
                         {5, 4, 8, 20, -1},   {4, 4, 8, 2033, -1},   {4, 4, 8, -1, -1},
                         {4, 4, 8, 100, 100}, {4, 4, 8, 2032, 2032}, {1, 0, 8, 0, -1},
                         {1, 1, 0, 0, -1},    {4, 4, 8, 20, -1}};
    for (const auto& r : in) {
        log.clear();
        os.reply(0,
                 str(netlinkMessage(0, tlvMessage(r[0], r[1], r[2], r[3], eventPayload(99, "x")))));
        ASSERT_EQ(0, hub->waitForMessage());
        EXPECT_EQ(log.count("putMessageToBinder len="), r[4] < 0 ? 0u : 1u) << r[2] << " " << r[3];
        EXPECT_EQ(log.count("putMessageToBinder len=" + std::to_string(r[4])), r[4] < 0 ? 0u : 1u);
    }
    EXPECT_EQ(-1, kstate->setMask(1, 0));
    bDebug = false;
}

// A received message gives what arrived, within the caller's buffer; a broken one fails with
// one line, as does a failed call.
TEST(ChannelNetlink, ReceivesWhatArrivedWithinTheBuffer) {
    const Bytes event = netlinkMessage(0, tlvMessage(4, 4, 8, 4, {1, 2, 3, 4}));
    // {datagram, capacity, result, payload bytes, line}
    const std::tuple<Bytes, unsigned, int, unsigned, std::string> rows[] = {
            {event, 2048, 0, 20, ""},
            {netlinkMessage(0), 2048, 0, 0, ""},
            {Bytes(10, 0), 2048, -1, 2048, "Malformed netlink message (nlmsg_len 0, received 10)"},
            {netlinkMessage(0, {}, 8), 2048, -1, 2048,
             "Malformed netlink message (nlmsg_len 8, received 16)"},
            {netlinkMessage(0, Bytes(36, 1), 1000), 2048, 0, 36,
             "Truncated netlink message (nlmsg_len 1000, received 52)"},
            {netlinkMessage(0, Bytes(2100, 7)), 2048, 0, 2048,
             "Truncated netlink message (nlmsg_len 2116, received 2064)"},
            {event, 8, 0, 8, "Truncated netlink message (nlmsg_len 36, received 24)"}};
    FakeSockets os;
    ChannelNetlink ch(os), unbound(os);
    ASSERT_EQ(0, ch.init());
    for (const auto& [datagram, capacity, result, bytes, line] : rows) {
        qmed::host::LogCapture log;
        os.reply(0, str(datagram));
        Bytes buf(capacity, 0xEE);
        unsigned len = capacity;
        EXPECT_EQ(result, ch.getMessage(reinterpret_cast<char*>(buf.data()), &len)) << line;
        EXPECT_EQ(bytes, len) << line;
        EXPECT_TRUE(result != 0 || std::equal(buf.begin(), buf.begin() + len, &datagram[16]));
        EXPECT_EQ(log.lines(), line.empty() ? Ids() : Ids({"E/Qmed-MsgHub: " + line}));
    }
    qmed::host::LogCapture log;
    char buf[64];
    unsigned len = sizeof(buf);
    os.failing = {{"recvmsg", EIO}, {"sendmsg", ECONNREFUSED}, {"bind", EADDRINUSE}};
    EXPECT_EQ(-1, ch.getMessage(buf, &len));
    EXPECT_EQ(-1, ch.putMessage(buf, 16));
    EXPECT_EQ(-1, unbound.init());
    EXPECT_EQ(log.lines(), Ids({"E/Qmed-MsgHub: Failed to recvmsg",
                                "E/Qmed-MsgHub: Failed to sendmsg (Connection refused)",
                                "E/Qmed-MsgHub: Bind socket failed (Address already in use)"}));
    os.failing = {{"socket", EPROTONOSUPPORT}};
    EXPECT_EXIT(ChannelNetlink(os).init(), ::testing::ExitedWithCode(255),
                "Obtaining netlink socket failed \\(Protocol not supported\\), exit.");
}

}  // namespace
}  // namespace qmedtest
