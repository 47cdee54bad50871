// The real daemon with the module simulator and real listener processes (through qmed-ns).

#include <gtest/gtest.h>

#include "tests/support/DaemonHarness.h"
#include "tests/support/HubWire.h"
#include "tests/support/TestChild.h"
#include "tools/kmodsim/KmodsimControl.h"

namespace qmedtest {
namespace {

class HubDaemon : public ::testing::Test {
  protected:
    void startAll(const std::string& identify) {
        daemon.options().simulator = true;
        ASSERT_TRUE(daemon.startSimulator({"--identify", identify}) && daemon.start());
        ASSERT_TRUE(ctl.ok(identify == "auto" ? "wait-identified 5000" : "wait-received 1 5000"));
    }
    int run(const std::vector<std::string>& args) { return daemon.qmedctl(args).exitCode; }
    Bytes nl(const Bytes& tlv) { return netlinkMessage(daemon.pid(), tlv); }
    void TearDown() override {
        if (child.pid() > 0) run({"thaw", std::to_string(child.pid()), "-1"});
    }
    Daemon daemon;
    kmodsim::Control ctl{daemon.simulatorCtl()};
    TestChild child;
};

TEST_F(HubDaemon, SendsExactBytesOnlyOnceTheModuleIdentifiedItself) {
    startAll("hold");
    EXPECT_NE(0, run({"mask", "5"}));
    ASSERT_TRUE(ctl.ok("identify"));
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "5"}) == 0; }, 5000));
    EXPECT_NE(0, run({"wakelock", "2", std::string(65, 'w'), "0"}));  // sends nothing
    child = TestChild::spawn(TestChild::Kind::Sleep, "hubfrz");       // asks about a waiting call
    const std::string pid = std::to_string(child.pid());
    ASSERT_EQ(0, run({"freeze", pid, "-1"})) << daemon.log();
    Bytes record(66, 0);
    record[0] = 6, record[1] = static_cast<uint8_t>(child.pid());
    memcpy(&record[2], pid.data(), pid.size());
    const std::vector<Bytes> expect = {nl(tlvMessage(1, 0, 0, 0)),
                                       nl(tlvMessage(4, 8, 4, 4, {5, 0, 0, 0})),
                                       nl(tlvMessage(5, 4, 4, 66, record))};
    ASSERT_TRUE(ctl.ok("wait-received 3"));
    EXPECT_EQ(expect, ctl.received());
    EXPECT_EQ(36u, expect[1].size());
}

TEST_F(HubDaemon, ListenersGetModuleEventsByMaskThroughHostileTraffic) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    const std::string ss = std::to_string(systemServer.pid()), call = "event binder-call 4242 ";
    startAll("auto");
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
    ASSERT_TRUE(ctl.ok("event kind 99 hello"));
    for (int i : {0, 1, 3}) {  // 16 + 5 + NUL payload bytes
        ASSERT_TRUE(l[i]->waitForLine("kstate len=22 kind=99 text=\"hello\"")) << l[i]->output();
    }
    // dst 0 and an unknown dst go nowhere; binder calls only from the system server, once
    // per target within 15 s.
    const std::string hex = hexOf(eventPayload(99, "nowhere"));
    for (std::string cmd :
         {"send 4 4 0 " + hex, "send 4 4 5 " + hex, call + "4343", call + ss, call + ss}) {
        ASSERT_TRUE(ctl.ok(cmd));
    }
    sync("marker-1");
    EXPECT_TRUE(daemon.waitForLog("Failed to get channel by id, ignore forwarding"));
    EXPECT_EQ(0u,
              l[0]->countLines("nowhere") + l[2]->countLines("kstate") + l[0]->countLines("4343]"));
    // Nineteen more targets fill the table to 20, which empties it.
    for (int i = 1; i < 20; ++i) {
        ASSERT_TRUE(ctl.ok("event binder-call " + std::to_string(9000 + i) + " " + ss));
    }
    ASSERT_TRUE(ctl.ok(call + ss));
    // The death notice sets the mask to 0 at the module; the others keep working.
    ASSERT_TRUE(ctl.ok("clear"));
    l[3]->kill(9);
    ASSERT_TRUE(ctl.ok("wait-received 1 5000"));
    EXPECT_EQ(std::vector<Bytes>{nl(tlvMessage(4, 8, 4, 4, {0, 0, 0, 0}))}, ctl.received());
    const char* hostile[] = {
            "raw 0a000000",                                         // shorter than a header
            "raw 08000000000000000000000000000000",                 // nlmsg_len below a header
            "raw e803000000000000000000000000000004000000",         // nlmsg_len beyond what came
            "send-tlv 4 4 8 2000 10000000",                         // TLV len beyond what came
            "send-tlv 4 4 8 -7 10000000",                           // negative TLV len
            "send-tlv 4 4 8 100000 08000000",                       // beyond any receive buffer
            "send 4 4 8 1000000000000000000000000000000041414141",  // text without NUL
            "event kind 16 [TPID garbage",                          // unparsable binder call
            "event kind 8 [PID x KILLED]",                          // unparsable kill
            "send-tlv 4 4 8 3 10",                                  // header len 3, 1 byte
            "send 1 0 8",                                           // identification, src 0
            "flood 1000 kind 99 flood"};
    for (const char* cmd : hostile) ASSERT_TRUE(ctl.ok(cmd)) << cmd;
    sync("marker-2");
    EXPECT_EQ(2u, l[1]->countLines("[TPID 4242 CALLED][PID " + ss + "]"));
    EXPECT_EQ(1000u, l[1]->countLines("text=\"flood\""));
    // An answer naming the channel after the hub itself (id 1): from then on nothing it
    // sends is routed, and nothing can be sent to the module.
    ASSERT_TRUE(ctl.ok("send 1 1 0"));
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "1"}) != 0; }, 5000));
    ASSERT_TRUE(ctl.ok("event kind 99 unrouted"));
    EXPECT_TRUE(daemon.waitForLog("Message is from local server, ignore forwarding"));
    EXPECT_FALSE(l[0]->waitForLine("unrouted", 300));
    EXPECT_TRUE(daemon.running());
}

}  // namespace
}  // namespace qmedtest
