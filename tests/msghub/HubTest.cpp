// The hub in the test process: the header codec, routing over socket pairs, and the
// process-wide hub on the netlink channel against the module simulator (this binary runs
// with the interposer preloaded).

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <tuple>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "msghub/ChannelManager.h"
#include "msghub/Kstate.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/HubWire.h"
#include "tools/kmodsim/KmodsimControl.h"

using android::sp;
using qmed::host::LogCapture;

namespace qmedtest {
namespace {

TEST(TlvEncDec, WritesFourHostOrderWordsOnlyWhereTheyFit) {
    const Bytes golden = tlvMessage(5, 6, 7, 0x01020304);
    // {buffer size, result, bytes written}
    const int rows[][3] = {{16, 0, 16}, {40, 0, 16}, {15, 0, 12}, {13, 0, 12}, {12, -1, 12},
                           {8, -1, 8},  {4, -1, 4},  {3, -1, 0},  {0, -1, 0},  {-5, -1, 0}};
    TlvEncDec codec;
    for (const auto& r : rows) {
        Bytes area(20, 0xEE);
        char* buf = reinterpret_cast<char*>(area.data());
        EXPECT_EQ(r[1], codec.headerEnc({5, 6, 7, 0x01020304}, buf, r[0])) << r[0];
        for (int i = 0; i < 20; i++) EXPECT_EQ(i < r[2] ? golden[i] : 0xEE, area[i]) << r[0];
    }
}

// A channel over a socket pair whose far end the test plays.
struct PairChannel : Channel {
    explicit PairChannel(int id = 0) { mId = id; }
    ~PairChannel() override { close(peer); }
    int init() override {
        int sv[2];
        if (failInit || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) return -1;
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
    bool inject(const Bytes& b) { return send(peer, b.data(), b.size(), 0) == ssize_t(b.size()); }
    Bytes sent() {  // the next message sent on the channel, empty when none is pending
        Bytes buf(65536);
        buf.resize(std::max<ssize_t>(0, recv(peer, buf.data(), buf.size(), MSG_DONTWAIT)));
        return buf;
    }
    int peer = -1;
    bool failInit = false;
};

struct PairFactory : ChannelFactory {
    explicit PairFactory(PairChannel* c) : channel(c) {}
    Channel* createChannel() override { return channel; }
    PairChannel* channel;
};

TEST(ChannelManager, AsksNewChannelsOnceRoutesByDestinationAndDropsThoseThatHangUp) {
    sp<ChannelManager> hub = new ChannelManager();
    PairChannel* ch[3] = {new PairChannel(), new PairChannel(6), new PairChannel(TLV_ID_HUB)};
    ASSERT_TRUE(hub->addChannel(new PairFactory(ch[0])));
    for (int i = 1; i < 3; i++) ASSERT_EQ(0, hub->add(ch[i]));
    EXPECT_EQ(tlvMessage(1, 0, 0, 0), ch[0]->sent());  // only the one without an id
    // {from, message, channel it reaches (-1: none), id of the sender after}
    const std::tuple<int, Bytes, int, int> rows[] = {
            {0, tlvMessage(1, 4, 0, 0), -1, 4},            // the answer names the channel
            {0, tlvMessage(1, 0, 0, 0), -1, 4},            // src 0 names nothing
            {0, tlvMessage(9, 4, 6, 3, {1, 2, 3}), 1, 4},  // whole, header and all
            {0, tlvMessage(9, 4, 4, 0), -1, 4},            // to itself
            {2, tlvMessage(1, 6, 6, 0), -1, 1},  // the local server is neither routed nor renamed
    };
    for (const auto& [from, msg, to, id] : rows) {
        ASSERT_TRUE(ch[from]->inject(msg));
        ASSERT_EQ(0, hub->waitForMessage());
        for (int i = 0; i < 3; i++) EXPECT_EQ(i == to ? msg : Bytes(), ch[i]->sent()) << hexOf(msg);
        EXPECT_EQ(id, ch[from]->mId) << hexOf(msg);
    }
    EXPECT_EQ(ch[0], hub->getChannelById(4));
    // Seven at most: the eighth channel is freed (the leak checker sees to it), its
    // factory stays the caller's. A channel whose peer hung up is dropped.
    for (int i = 3; i < 7; i++) ASSERT_EQ(0, hub->add(new PairChannel(10 + i))) << i;
    PairFactory eighth(new PairChannel(20));
    EXPECT_FALSE(hub->addChannel(&eighth));
    close(ch[1]->peer);
    ch[1]->peer = -1;
    ASSERT_EQ(0, hub->waitForMessage());
    EXPECT_EQ(nullptr, hub->getChannelById(6));
    EXPECT_EQ(6u, hub->channelCount());
}

TEST(ChannelManager, ThreadRunsOnWhenItsFirstChannelFails) {
    LogCapture log;
    PairFactory factory(new PairChannel());
    factory.channel->failInit = true;
    // Kept: the thread drops its own last reference after join() returns.
    static auto* hub = new sp<ChannelManager>(new ChannelManager(&factory));
    ASSERT_EQ(android::NO_ERROR, (*hub)->run("HubTest"));
    EXPECT_TRUE(waitUntil([&] { return log.contains("Nothing to select, ignored"); }, 5000));
    EXPECT_TRUE(log.contains("Add netlink channel to ChannelManager failed"));
    (*hub)->requestExit();
    (*hub)->join();
}

TEST(Hub, OnTheNetlinkChannelWithTheModule) {
    Daemon sim;  // not started: only its module simulator
    ASSERT_TRUE(sim.startSimulator({"--identify", "hold"}));
    setenv("KMODSIM_SOCKET", sim.simulatorSocket().c_str(), 1);
    kmodsim::Control ctl(sim.simulatorCtl());
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<RecordingListener> listener = new RecordingListener();
    ASSERT_EQ(0, registry->registerListener(listener, 1));
    sp<Kstate> k = Kstate::getInstance();
    EXPECT_EQ(-1, k->binderListener(nullptr));
    ASSERT_EQ(0, k->binderListener(registry));
    ChannelManager::getInstance()->start();
    ASSERT_TRUE(ctl.ok("wait-received 1 5000"));
    EXPECT_EQ(-1, k->setMask(5, 0));  // nothing goes out before the module identified itself
    EXPECT_EQ(-1, k->setKWakelock(3, "abc", 1, 3));
    EXPECT_EQ(-1, k->checkWaitingBinder(1234));
    ASSERT_TRUE(ctl.ok("identify"));
    ASSERT_TRUE(waitUntil([] { return ChannelManager::getInstance()->getChannelById(4); }, 5000));

    const std::string n64(64, 'n'), n65(65, 'n');
    Bytes wl64 = {2, 0}, record(66, 0);
    wl64.insert(wl64.end(), n64.begin(), n64.end());
    record[0] = 6, record[1] = 210;  // 1234 mod 256
    memcpy(&record[2], "1234", 4);
    // {call, TLV message sent (none: refused)}
    const std::pair<std::function<int()>, Bytes> sends[] = {
            {[&] { return k->setMask(5, 777); }, tlvMessage(4, 8, 4, 4, {5, 0, 0, 0})},
            {[&] { return k->setMask(-1, 0); }, tlvMessage(4, 8, 4, 4, Bytes(4, 255))},
            {[&] { return k->setKWakelock(3, "abc", 1, 3); },
             tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})},
            {[&] { return k->setKWakelock(0x103, "x", 300, 1); },  // code, argument: 8 bits
             tlvMessage(5, 4, 4, 3, {3, 44, 'x'})},
            {[&] { return k->setKWakelock(2, n64.c_str(), 0, 64); }, tlvMessage(5, 4, 4, 66, wl64)},
            {[&] { return k->setKWakelock(2, n65.c_str(), 0, 65); }, {}},
            {[&] { return k->checkWaitingBinder(1234); }, tlvMessage(5, 4, 4, 66, record)},
    };
    std::vector<Bytes> expect = {netlinkMessage(getpid(), tlvMessage(1, 0, 0, 0))};
    for (const auto& [send, tlv] : sends) {
        EXPECT_EQ(tlv.empty() ? -1 : 0, send()) << hexOf(tlv);
        if (!tlv.empty()) expect.push_back(netlinkMessage(getpid(), tlv));
    }
    ASSERT_TRUE(ctl.ok("wait-received " + std::to_string(expect.size()) + " 5000"));
    EXPECT_EQ(expect, ctl.received());

    const Bytes ev = eventPayload(99, "hello"), p = eventPayload(16, "[TPID 5 CALLED][PID 6]");
    Bytes noNul(16, 0), big(2100, 1);
    noNul[0] = 16;
    noNul.resize(56, 'A');
    Bytes bigTlv = tlvMessage(4, 4, 8, 2032, big);
    Bytes marker = eventPayload(77, "marker");
    marker.resize(marker.size() * 4, 0);
    const std::string e = hexOf(ev), hp = hexOf(p);
    // {what the module sends, payload and len the listener gets (len -1: nothing), log}
    const std::tuple<std::string, Bytes, int, const char*> rows[] = {
            {"event kind 99 hello", ev, 22, nullptr},
            {"send 4 4 0 " + e, {}, -1, nullptr},
            {"send 4 4 5 " + e, {}, -1, "Failed to get channel by id, ignore forwarding"},
            {"send 4 4 4 " + e, {}, -1, nullptr},
            {"send 5 4 8 " + e, {}, -1, nullptr},
            {"send-tlv 4 4 8 2032 " + hp, p, 2032, "shorter than its header says"},
            {"send-tlv 4 4 8 2033 " + hp, {}, -1, "bad length 2033"},
            {"send-tlv 4 4 8 -1 " + hp, {}, -1, "bad length -1"},
            {"send 4 4 8 " + hexOf(noNul), noNul, 56, nullptr},
            {"send-tlv 4 4 8 3 100000", {16, 0, 0}, 3, nullptr},
            {"raw " + hexOf(netlinkMessage(0, {4, 0, 0}, 19)), {}, -1, nullptr},
            {"raw " + hexOf(netlinkMessage(0, tlvMessage(4, 4, 8, 100, ev), 1000)), ev, 100,
             "shorter than its header says (24 of 100 bytes)"},  // nlmsg_len beyond what came
            {"raw " + hexOf(netlinkMessage(0, bigTlv)), Bytes(2032, 1), 2032, nullptr},
            {"raw " + hexOf(netlinkMessage(0, {}, 8)), {}, -1, "Malformed netlink message"},
            {"raw 0a000000", {}, -1, "Malformed netlink message"},
    };
    for (const auto& [cmd, payload, len, text] : rows) {
        SCOPED_TRACE(cmd.substr(0, 40));
        LogCapture log;
        size_t before = listener->kstateCalls().size();
        ASSERT_TRUE(ctl.ok(cmd));
        ASSERT_TRUE(ctl.ok("event kind 77 marker"));  // handled in order: the last to arrive
        std::vector<Bytes> calls;
        auto markerIn = [&] { return (calls = listener->kstateCalls()).size() > before; };
        ASSERT_TRUE(waitUntil([&] { return markerIn() && calls.back() == marker; }, 5000));
        ASSERT_EQ(before + (len < 0 ? 1 : 2), calls.size());
        EXPECT_TRUE(text ? log.contains(text) : !log.contains("ignore forwarding"));
        if (len < 0) continue;
        Bytes words = payload;  // what came, then zeros up to the len words the proxy sends
        words.resize(static_cast<size_t>(len) * 4, 0);
        EXPECT_EQ(words, calls[before]);
    }
    EXPECT_EQ(expect.size(), ctl.received().size());  // nothing went back to the module
    sp<Kstate> bare = new Kstate();                   // no registry yet: dropped
    Bytes event = tlvMessage(4, 4, 8, 22, ev);
    EXPECT_EQ(0, bare->processClientData(reinterpret_cast<const char*>(event.data()), 38));
    EXPECT_EQ(-1, bare->processClientData(nullptr, 0));
}

}  // namespace
}  // namespace qmedtest
