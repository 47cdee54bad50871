// The real daemon with the module simulator and real listener processes (through qmed-ns).

#include <gtest/gtest.h>

#include <tuple>

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
    std::vector<Bytes> expect = {nl(tlvMessage(1, 0, 0, 0)),
                                 nl(tlvMessage(4, 8, 4, 4, {5, 0, 0, 0}))};
    EXPECT_EQ(36u, expect[1].size());
    const std::string n64(64, 'n');
    Bytes wl64 = {2, 0};
    wl64.insert(wl64.end(), n64.begin(), n64.end());
    // {code, name, argument: what goes to the module (none: refused)}
    const std::tuple<std::string, std::string, std::string, Bytes> wakelocks[] = {
            {"3", "abc", "1", tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})},
            {"2", n64, "0", tlvMessage(5, 4, 4, 66, wl64)},
            {"2", n64 + "n", "0", {}}};
    for (const auto& [code, name, arg, tlv] : wakelocks) {
        EXPECT_EQ(tlv.empty(), run({"wakelock", code, name, arg}) != 0) << name;
        if (!tlv.empty()) expect.push_back(nl(tlv));
    }
    child = TestChild::spawn(TestChild::Kind::Sleep, "hubfrz");  // asks about a waiting call
    const std::string pid = std::to_string(child.pid());
    ASSERT_EQ(0, run({"freeze", pid, "-1"})) << daemon.log();
    Bytes record(66, 0);
    record[0] = 6, record[1] = static_cast<uint8_t>(child.pid());
    memcpy(&record[2], pid.data(), pid.size());
    expect.push_back(nl(tlvMessage(5, 4, 4, 66, record)));
    ASSERT_TRUE(ctl.ok("wait-received " + std::to_string(expect.size())));
    EXPECT_EQ(expect, ctl.received());
}

TEST_F(HubDaemon, ListenersGetModuleEventsByMaskThroughHostileTraffic) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    const std::string ss = std::to_string(systemServer.pid()), call = "event binder-call 4242 ";
    const std::string ssLine = "[TPID 4242 CALLED][PID " + ss + "]";
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
    const std::string away = hexOf(eventPayload(99, "nowhere"));
    Bytes big = eventPayload(99, "big");
    big.resize(2100, 1);
    // {what the module sends, text a listener line holds, how many such lines}
    const std::tuple<std::string, std::string, size_t> rows[] = {
            {"event kind 99 hello", "kstate len=22 kind=99 text=\"hello\"", 1},  // 16 + 5 + NUL
            {"send 4 4 0 " + away, "nowhere", 0},  // dst 0, an unknown one, its own, no event
            {"send 4 4 5 " + away, "nowhere", 0},
            {"send 4 4 4 " + away, "nowhere", 0},
            {"send 5 4 8 " + away, "nowhere", 0},
            {"send-tlv 4 4 8 2032 " + hexOf(eventPayload(99, "at2032")),
             "len=2032 kind=99 text=\"at2032\"", 1},
            {"send-tlv 4 4 8 2033 " + hexOf(eventPayload(99, "at2033")), "at2033", 0},
            {"send-tlv 4 4 8 -1 " + hexOf(eventPayload(99, "minus")), "minus", 0},
            {"raw " + hexOf(netlinkMessage(0, tlvMessage(4, 4, 8, 100, eventPayload(99, "cut")),
                                           1000)),
             "len=100 kind=99 text=\"cut\"", 1},  // nlmsg_len beyond what came
            {"raw " + hexOf(netlinkMessage(0, tlvMessage(4, 4, 8, 2032, big))),
             "len=2032 kind=99 text=\"big\"", 1},             // beyond the receive buffer
            {"raw 0a000000", "", 0},                          // shorter than a header
            {"raw 08000000000000000000000000000000", "", 0},  // nlmsg_len below a header
            {"send-tlv 4 4 8 100000 08000000", "", 0},
            {"send 4 4 8 1000000000000000000000000000000041414141", "", 0},  // text without NUL
            {"event kind 16 [TPID garbage", "", 0},  // unparsable binder call
            {"event kind 8 [PID x KILLED]", "", 0},  // unparsable kill
            {"send-tlv 4 4 8 3 63", "len=3 ", 1},    // header len 3, 1 byte
            {"send 1 0 8", "", 0},                   // identification, src 0
            {call + "4343", "4343]", 0},             // binder calls only from the system server
    };
    for (const auto& row : rows) ASSERT_TRUE(ctl.ok(std::get<0>(row))) << std::get<0>(row);
    // Once per target within 15 s; 19 targets are kept, the twentieth empties the table.
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(ctl.ok(i < 2 ? call + ss
                                 : "event binder-call " + std::to_string(9000 + i) + " " + ss));
    }
    ASSERT_TRUE(ctl.ok(call + ss));
    sync("marker-1");
    for (const auto& [cmd, text, times] : rows) {
        if (!text.empty()) {
            EXPECT_EQ(times, l[0]->countLines(text)) << cmd.substr(0, 40);
        }
    }
    EXPECT_EQ(1u, l[1]->countLines(ssLine));
    EXPECT_EQ(0u, l[2]->countLines("kstate"));
    ASSERT_TRUE(ctl.ok("event binder-call 9020 " + ss));
    ASSERT_TRUE(ctl.ok(call + ss));
    // The death notice sets the mask to 0 at the module; the others keep working.
    l[3]->kill(9);
    ASSERT_TRUE(ctl.ok("wait-received 2 5000"));
    EXPECT_EQ((std::vector<Bytes>{nl(tlvMessage(1, 0, 0, 0)),
                                  nl(tlvMessage(4, 8, 4, 4, {0, 0, 0, 0}))}),
              ctl.received());
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
