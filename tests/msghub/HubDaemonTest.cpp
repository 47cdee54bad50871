// The real daemon with the kernel-module simulator and real listener processes.
// Runs through tools/qmed-ns.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

#include "tests/msghub/HubTestUtil.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"
#include "tools/kmodsim/KmodsimControl.h"

using qmedtest::BackgroundTool;
using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::TestChild;

namespace {

std::vector<uint8_t> le32(uint32_t v) {
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}

// nlmsg_len, zero type/flags/seq, nlmsg_pid, then the TLV message.
std::vector<uint8_t> netlinkMessage(uint32_t nlLen, uint32_t pid, const std::vector<uint8_t>& tlv) {
    std::vector<uint8_t> m = le32(nlLen);
    m.insert(m.end(), 8, 0);
    std::vector<uint8_t> p = le32(pid);
    m.insert(m.end(), p.begin(), p.end());
    m.insert(m.end(), tlv.begin(), tlv.end());
    m.resize((m.size() + 3) & ~size_t(3), 0);
    return m;
}

class HubDaemon : public ::testing::Test {
  protected:
    void startAll(const std::string& identify = "auto") {
        DaemonOptions opts;
        opts.simulator = true;
        daemon.reset(new Daemon(opts));
        ASSERT_TRUE(daemon->startSimulator({"--identify", identify}));
        ctl = kmodsim::Control(daemon->simulatorCtl());
        ASSERT_TRUE(daemon->start()) << daemon->log();
        ASSERT_TRUE(ctl.ok("wait-connected 5000"));
        if (identify == "auto") {
            ASSERT_TRUE(ctl.ok("wait-identified 5000"));
        }
    }

    std::unique_ptr<BackgroundTool> listen(const std::string& mask) {
        std::unique_ptr<BackgroundTool> l(
                new BackgroundTool("qmedctl", {"listen", mask}, daemon->clientOptions()));
        EXPECT_TRUE(l->waitForLine("listening mask=")) << l->output();
        return l;
    }

    // A marker every listener with bit 1 sees; everything injected before it
    // has been handled once it arrives (the hub handles messages in order).
    void syncMarker(const std::vector<BackgroundTool*>& listeners, int n) {
        std::string text = "marker-" + std::to_string(n);
        ASSERT_TRUE(ctl.ok("event kind 77 " + text));
        for (BackgroundTool* l : listeners) {
            ASSERT_TRUE(l->waitForLine("text=\"" + text + "\"")) << l->output();
        }
    }

    void TearDown() override {
        if (daemon) daemon->kill(9);
    }

    kmodsim::Control ctl{""};
    std::unique_ptr<Daemon> daemon;
};

TEST_F(HubDaemon, BytesToTheModule) {
    startAll();
    const uint32_t pid = static_cast<uint32_t>(daemon->pid());
    auto rx = ctl.received();
    ASSERT_EQ(1u, rx.size());  // one identification request for the one channel
    EXPECT_EQ(netlinkMessage(32, pid, hubtest::tlvMessage(1, 0, 0, 0)), rx[0]);

    ASSERT_EQ(0, daemon->qmedctl({"mask", "5"}).exitCode);
    ASSERT_TRUE(ctl.ok("wait-received 2"));
    rx = ctl.received();
    EXPECT_EQ(netlinkMessage(36, pid, hubtest::tlvMessage(4, 8, 4, 4, {5, 0, 0, 0})), rx[1]);
    EXPECT_EQ(36u, rx[1].size());

    ASSERT_EQ(0, daemon->qmedctl({"wakelock", "3", "abc", "1"}).exitCode);
    ASSERT_TRUE(ctl.ok("wait-received 3"));
    rx = ctl.received();
    EXPECT_EQ(netlinkMessage(40, pid, hubtest::tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})),
              rx[2]);

    // 64 name bytes are sent, 65 are refused without a message.
    ASSERT_EQ(0, daemon->qmedctl({"wakelock", "2", std::string(64, 'w'), "0"}).exitCode);
    ASSERT_TRUE(ctl.ok("wait-received 4"));
    EXPECT_NE(0, daemon->qmedctl({"wakelock", "2", std::string(65, 'w'), "0"}).exitCode);

    // Freezing asks the module about a waiting binder call: the whole record.
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "hubfrz");
    qmedtest::ToolResult frz = daemon->qmedctl({"freeze", std::to_string(child.pid()), "-1"});
    ASSERT_EQ(0, frz.exitCode) << frz.out << frz.err << daemon->log();
    ASSERT_TRUE(ctl.ok("wait-received 5"));
    rx = ctl.received();
    ASSERT_EQ(5u, rx.size());
    std::vector<uint8_t> record(66, 0);
    record[0] = 6;
    record[1] = static_cast<uint8_t>(child.pid());
    std::string digits = std::to_string(child.pid());
    memcpy(&record[2], digits.data(), digits.size());
    EXPECT_EQ(netlinkMessage(100, pid, hubtest::tlvMessage(5, 4, 4, 66, record)), rx[4]);
    daemon->qmedctl({"thaw", std::to_string(child.pid()), "-1"});
}

TEST_F(HubDaemon, SendsFailUntilTheModuleIdentifiedItself) {
    startAll("hold");
    ASSERT_TRUE(ctl.ok("wait-received 1"));
    EXPECT_NE(0, daemon->qmedctl({"mask", "5"}).exitCode);
    EXPECT_NE(0, daemon->qmedctl({"wakelock", "3", "abc", "1"}).exitCode);
    EXPECT_EQ(1u, ctl.received().size());
    ASSERT_TRUE(ctl.ok("identify"));
    ASSERT_TRUE(qmedtest::waitUntil(
            [&] {
                return daemon->qmedctl({"mask", "5"}).exitCode == 0;
            },
            5000));
    EXPECT_EQ(2u, ctl.received().size());
}

TEST_F(HubDaemon, EventsReachEveryKernelStateListener) {
    startAll();
    auto a = listen("1");
    auto b = listen("3");
    auto none = listen("2");
    ASSERT_TRUE(ctl.ok("event kind 99 hello"));
    for (BackgroundTool* l : {a.get(), b.get()}) {
        // 16 + 5 + NUL payload bytes, kind and text as the module sent them.
        ASSERT_TRUE(l->waitForLine("kstate len=22 kind=99 text=\"hello\"")) << l->output();
    }
    // dst 0 and an unknown dst are not delivered; the latter is logged.
    std::vector<uint8_t> p = hubtest::eventPayload(99, "nowhere");
    std::string hex;
    char b2[3];
    for (uint8_t x : p) {
        snprintf(b2, sizeof(b2), "%02x", x);
        hex += b2;
    }
    ASSERT_TRUE(ctl.ok("send 4 4 0 " + hex));
    ASSERT_TRUE(ctl.ok("send 4 4 5 " + hex));
    syncMarker({a.get(), b.get()}, 1);
    EXPECT_TRUE(daemon->waitForLog("Failed to get channel by id, ignore forwarding"));
    EXPECT_EQ(0u, a->countLines("nowhere"));
    EXPECT_EQ(0u, none->countLines("kstate"));
}

TEST_F(HubDaemon, ModuleNamingItselfTheHubIsNeverRouted) {
    startAll();
    auto l = listen("1");
    // An identification answer with src 1 names the netlink channel after the
    // hub itself: from then on nothing it sends is routed, and nothing can be
    // sent to the module either.
    ASSERT_TRUE(ctl.ok("send 1 1 0"));
    ASSERT_TRUE(qmedtest::waitUntil(
            [&] {
                return daemon->qmedctl({"mask", "1"}).exitCode != 0;
            },
            5000));
    ASSERT_TRUE(ctl.ok("event kind 99 unrouted"));
    EXPECT_TRUE(daemon->waitForLog("Message is from local server, ignore forwarding"));
    EXPECT_FALSE(l->waitForLine("unrouted", 300));
    EXPECT_TRUE(daemon->running());
}

TEST_F(HubDaemon, BinderCallReportsAreThrottled) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    TestChild other = TestChild::spawn(TestChild::Kind::Sleep, "hubcaller");
    TestChild target = TestChild::spawn(TestChild::Kind::Sleep, "hubtarget");
    startAll();
    // The registry looks the system server up when a listener registers.
    auto l = listen("1");
    const std::string ss = std::to_string(systemServer.pid());
    const std::string tp = std::to_string(target.pid());
    const std::string reported = "[TPID " + tp + " CALLED][PID " + ss + "]";

    ASSERT_TRUE(ctl.ok("event binder-call " + tp + " " + std::to_string(other.pid())));
    ASSERT_TRUE(ctl.ok("event binder-call " + tp + " " + ss));
    ASSERT_TRUE(ctl.ok("event binder-call " + tp + " " + ss));
    syncMarker({l.get()}, 1);
    EXPECT_EQ(0u, l->countLines("[PID " + std::to_string(other.pid()) + "]"));
    EXPECT_EQ(1u, l->countLines(reported));

    // Nineteen more targets fill the table to 20, which empties it: the first
    // target is reported again well within 15 s.
    for (int i = 1; i <= 19; ++i) {
        ASSERT_TRUE(ctl.ok("event binder-call " + std::to_string(900000 + i) + " " + ss));
    }
    ASSERT_TRUE(ctl.ok("event binder-call " + tp + " " + ss));
    syncMarker({l.get()}, 2);
    EXPECT_EQ(2u, l->countLines(reported));
    EXPECT_TRUE(daemon->waitForLog("clear process report time"));
}

TEST_F(HubDaemon, AsyncCallToFrozenTargetThawsAndIsReported) {
    TestChild target = TestChild::spawn(TestChild::Kind::Busy, "hubfrozen");
    startAll();
    auto l = listen("1");
    const std::string tp = std::to_string(target.pid());
    ASSERT_EQ(0, daemon->qmedctl({"freeze", tp, "-1"}).exitCode);
    ASSERT_TRUE(
            qmedtest::waitUntil([&] { return qmedtest::procState(target.pid()) == 'D'; }, 3000));
    // Not from the system server, yet reported: the target is frozen.
    ASSERT_TRUE(ctl.ok("event binder-call " + tp + " -1"));
    ASSERT_TRUE(l->waitForLine("[TPID " + tp + " CALLED][PID -1]")) << l->output();
    EXPECT_TRUE(
            qmedtest::waitUntil([&] { return qmedtest::procState(target.pid()) != 'D'; }, 3000));
    EXPECT_TRUE(daemon->waitForLog("-1 async call " + tp + ", thawed in zoqmed"));
}

TEST_F(HubDaemon, DeadListenerClearsTheModuleMask) {
    startAll();
    auto stays = listen("1");
    auto dies = listen("1");
    ASSERT_TRUE(ctl.ok("clear"));
    dies->kill(9);
    // The death notice sets the mask to 0 at the module.
    std::vector<uint8_t> zeroMask = hubtest::tlvMessage(4, 8, 4, 4, {0, 0, 0, 0});
    ASSERT_TRUE(ctl.ok("wait-received 1 5000"));
    auto rx = ctl.received();
    ASSERT_FALSE(rx.empty());
    EXPECT_EQ(netlinkMessage(36, daemon->pid(), zeroMask), rx.back());
    syncMarker({stays.get()}, 1);
}

TEST_F(HubDaemon, HostileModuleInputNeverHurtsTheDaemon) {
    startAll();
    auto l = listen("1");
    const std::vector<std::string> hostile = {
            "raw 0a000000",                                         // shorter than a netlink header
            "raw 08000000000000000000000000000000",                 // nlmsg_len below the header
            "raw e803000000000000000000000000000004000000",         // nlmsg_len beyond what came
            "send-tlv 4 4 8 2000 10000000",                         // TLV len beyond what came
            "send-tlv 4 4 8 -7 10000000",                           // negative TLV len
            "send-tlv 4 4 8 100000 08000000",                       // beyond any receive buffer
            "send 4 4 8 1000000000000000000000000000000041414141",  // text without NUL
            "event kind 16 [TPID garbage",                          // unparsable binder call
            "event kind 8 [PID x KILLED]",                          // unparsable kill
            "send-tlv 4 4 8 3 10",                                  // header len 3, 1 byte
            "send 1 0 8",                                           // identification with src 0
    };
    for (const std::string& cmd : hostile) ASSERT_TRUE(ctl.ok(cmd)) << cmd;
    std::string out;
    ASSERT_TRUE(ctl.ok("flood 1000 kind 99 flood", &out));
    syncMarker({l.get()}, 1);
    EXPECT_TRUE(daemon->running());
    EXPECT_EQ(1000u, l->countLines("text=\"flood\""));
    EXPECT_EQ(0, daemon->qmedctl({"mask", "1"}).exitCode);
}

}  // namespace
