// Hub codec and socket-pair routing in process, then the daemon, simulator and listeners.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "msghub/ChannelManager.h"
#include "msghub/Kstate.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/HubWire.h"
#include "tests/support/TestChild.h"
#include "tools/kmodsim/KmodsimControl.h"

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

TEST(HubDaemon, ModuleBytesAndListenerDeliveryThroughHostileTraffic) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    Daemon daemon;
    daemon.options().simulator = true;
    ASSERT_TRUE(daemon.startSimulator({"--identify", "hold"}) && daemon.start());
    kmodsim::Control ctl(daemon.simulatorCtl());
    ASSERT_TRUE(ctl.ok("wait-received 1 5000"));
    auto run = [&](const std::vector<std::string>& args) { return daemon.qmedctl(args).exitCode; };
    auto nl = [&](const Bytes& tlv) { return netlinkMessage(daemon.pid(), tlv); };
    EXPECT_NE(0, run({"mask", "5"}));
    ASSERT_TRUE(ctl.ok("identify"));
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "5"}) == 0; }, 5000));
    std::vector<Bytes> expect = {nl(tlvMessage(1, 0, 0, 0)),
                                 nl(tlvMessage(4, 8, 4, 4, {5, 0, 0, 0}))};
    const std::string n64(64, 'n');
    Bytes wl64(66, 'n');
    wl64[0] = 2, wl64[1] = 0;
    // {code, name, argument: what goes to the module (none: refused)}
    const std::tuple<std::string, std::string, std::string, Bytes> wakelocks[] = {
            {"3", "abc", "1", tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})},
            {"2", n64, "0", tlvMessage(5, 4, 4, 66, wl64)},
            {"2", n64 + "n", "0", {}}};
    for (const auto& [code, name, arg, tlv] : wakelocks) {
        EXPECT_EQ(tlv.empty(), run({"wakelock", code, name, arg}) != 0) << name;
        if (!tlv.empty()) expect.push_back(nl(tlv));
    }
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "hubfrz");
    const std::string pid = std::to_string(child.pid());
    struct Thaw {  // before the child is killed, whatever happens
        Daemon& d;
        std::string pid;
        ~Thaw() { d.qmedctl({"thaw", pid, "-1"}); }
    } thaw{daemon, pid};
    ASSERT_EQ(0, run({"freeze", pid, "-1"})) << daemon.log();  // asks about a waiting call
    Bytes record(66, 0);
    record[0] = 6, record[1] = static_cast<uint8_t>(child.pid());
    memcpy(&record[2], pid.data(), pid.size());
    expect.push_back(nl(tlvMessage(5, 4, 4, 66, record)));
    ASSERT_TRUE(ctl.ok("wait-received " + std::to_string(expect.size())));
    EXPECT_EQ(expect, ctl.received());
    ASSERT_TRUE(ctl.ok("clear"));

    const std::string ss = std::to_string(systemServer.pid());
    const std::string ssLine = "[TPID 4242 CALLED][PID " + ss + "]";
    std::unique_ptr<BackgroundTool> l[4];  // masks 1, 3, 2, and one that dies
    const char* masks[] = {"1", "3", "2", "1"};
    for (int i = 0; i < 4; i++) {
        l[i] = std::make_unique<BackgroundTool>(
                "qmedctl", std::vector<std::string>{"listen", masks[i]}, daemon.clientOptions());
        ASSERT_TRUE(l[i]->waitForLine("listening mask=")) << l[i]->output();
    }
    // Once both saw the marker, all injected before it was handled.
    auto sync = [&](const std::string& marker) {
        ASSERT_TRUE(ctl.ok("event kind 77 " + marker));
        for (int i = 0; i < 2; i++) ASSERT_TRUE(l[i]->waitForLine(marker + "\"")) << marker;
    };
    // Go nowhere: dst 0, an unknown one, the module's own, not an event, TLV len past the
    // receive buffer or negative.
    for (std::string cmd : {"send 4 4 0 ", "send 4 4 5 ", "send 4 4 4 ", "send 5 4 8 ",
                            "send-tlv 4 4 8 2033 ", "send-tlv 4 4 8 -1 "}) {
        ASSERT_TRUE(ctl.ok(cmd + hexOf(eventPayload(99, "nowhere")))) << cmd;
    }
    // Shorter than a header, nlmsg_len below a header, a text without NUL, an unparsable
    // binder call, an identification naming nothing.
    for (const char* cmd : {"raw 0a000000", "raw 08000000000000000000000000000000",
                            "send 4 4 8 1000000000000000000000000000000041414141",
                            "event kind 16 [TPID garbage", "send 1 0 8"}) {
        ASSERT_TRUE(ctl.ok(cmd)) << cmd;
    }
    Bytes big = eventPayload(99, "big");
    big.resize(2100, 1);
    // {what the module sends, the line a listener gets}
    const std::pair<std::string, std::string> rows[] = {
            {"send-tlv 4 4 8 2032 " + hexOf(eventPayload(99, "at2032")),
             "len=2032 kind=99 text=\"at2032\""},
            {"raw " + hexOf(netlinkMessage(0, tlvMessage(4, 4, 8, 100, eventPayload(99, "cut")),
                                           1000)),
             "len=100 kind=99 text=\"cut\""},  // nlmsg_len beyond what came
            {"raw " + hexOf(netlinkMessage(0, tlvMessage(4, 4, 8, 2032, big))),
             "len=2032 kind=99 text=\"big\""},  // beyond the receive buffer
    };
    for (const auto& row : rows) ASSERT_TRUE(ctl.ok(row.first)) << row.first;
    // Once per target within 15 s; 19 targets are kept, the twentieth empties the table.
    auto fromSs = [&](int t) {
        return ctl.ok("event binder-call " + std::to_string(t) + " " + ss);
    };
    for (int i = 0; i < 21; ++i) ASSERT_TRUE(fromSs(i < 2 || i == 20 ? 4242 : 9000 + i));
    sync("marker-1");
    for (const auto& [cmd, text] : rows) EXPECT_EQ(1u, l[0]->countLines(text)) << text;
    EXPECT_EQ(0u, l[0]->countLines("nowhere") + l[2]->countLines("kstate"));
    EXPECT_EQ(1u, l[1]->countLines(ssLine));
    ASSERT_TRUE(fromSs(9020) && fromSs(4242));
    // The death notice sets the mask to 0 at the module; the others keep working.
    l[3]->kill(9);
    ASSERT_TRUE(ctl.ok("wait-received 1 5000"));
    EXPECT_EQ(std::vector<Bytes>{nl(tlvMessage(4, 8, 4, 4, {0, 0, 0, 0}))}, ctl.received());
    ASSERT_TRUE(ctl.ok("flood 1000 kind 99 flood"));
    sync("marker-2");
    EXPECT_EQ(2u, l[1]->countLines(ssLine));
    EXPECT_EQ(1000u, l[1]->countLines("text=\"flood\""));
    // An answer naming the channel after the hub itself (id 1): from then on nothing it
    // sends is routed, and nothing can be sent to the module.
    ASSERT_TRUE(ctl.ok("send 1 1 0"));
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "1"}) != 0; }, 5000));
    ASSERT_TRUE(ctl.ok("event kind 99 unrouted"));
    EXPECT_FALSE(l[0]->waitForLine("unrouted", 300));
    EXPECT_TRUE(daemon.running());
}

}  // namespace
}  // namespace qmedtest
