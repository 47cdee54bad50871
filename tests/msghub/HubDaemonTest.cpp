// The real daemon with the module simulator and real listener processes (through qmed-ns).

#include <gtest/gtest.h>
#include <string.h>

#include <memory>

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
        ASSERT_TRUE(daemon.startSimulator({"--identify", identify}));
        ASSERT_TRUE(daemon.start()) << daemon.log();
        ASSERT_TRUE(ctl.ok(identify == "auto" ? "wait-identified 5000" : "wait-received 1 5000"));
    }
    std::unique_ptr<BackgroundTool> listen(const std::string& mask) {
        auto l = std::make_unique<BackgroundTool>(
                "qmedctl", std::vector<std::string>{"listen", mask}, daemon.clientOptions());
        EXPECT_TRUE(l->waitForLine("listening mask=")) << l->output();
        return l;
    }
    // Once a listener saw the marker, all that was injected before it was handled.
    void sync(std::initializer_list<BackgroundTool*> listeners, int n) {
        ASSERT_TRUE(ctl.ok("event kind 77 marker-" + std::to_string(n)));
        for (BackgroundTool* l : listeners) {
            ASSERT_TRUE(l->waitForLine("marker-" + std::to_string(n) + "\"")) << l->output();
        }
    }
    Bytes nl(const Bytes& tlv) { return netlinkMessage(daemon.pid(), tlv); }
    int run(const std::vector<std::string>& args) { return daemon.qmedctl(args).exitCode; }
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
    EXPECT_NE(0, run({"wakelock", "3", "abc", "1"}));
    ASSERT_TRUE(ctl.ok("identify"));
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "5"}) == 0; }, 5000));
    const std::string w64(64, 'w');
    Bytes wl64 = {2, 0};
    wl64.insert(wl64.end(), w64.begin(), w64.end());
    std::vector<Bytes> expect = {nl(tlvMessage(1, 0, 0, 0)),
                                 nl(tlvMessage(4, 8, 4, 4, {5, 0, 0, 0}))};
    EXPECT_EQ(36u, expect[1].size());
    // {wakelock code, name and argument; TLV message sent (none: refused)}
    const std::pair<std::vector<std::string>, Bytes> rows[] = {
            {{"3", "abc", "1"}, tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'})},
            {{"2", w64, "0"}, tlvMessage(5, 4, 4, 66, wl64)},
            {{"2", w64 + "w", "0"}, {}},
    };
    for (const auto& [a, tlv] : rows) {
        EXPECT_EQ(tlv.empty(), run({"wakelock", a[0], a[1], a[2]}) != 0) << a[1];
        if (!tlv.empty()) expect.push_back(nl(tlv));
    }
    // Freezing asks the module about a waiting binder call: the whole record.
    child = TestChild::spawn(TestChild::Kind::Sleep, "hubfrz");
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
    startAll("auto");
    auto a = listen("1"), b = listen("3"), none = listen("2"), dies = listen("1");
    ASSERT_TRUE(ctl.ok("event kind 99 hello"));
    for (BackgroundTool* l : {a.get(), b.get(), dies.get()}) {  // 16 + 5 + NUL payload bytes
        ASSERT_TRUE(l->waitForLine("kstate len=22 kind=99 text=\"hello\"")) << l->output();
    }
    // dst 0 and an unknown dst are not delivered; the latter is logged.
    const std::string hex = hexOf(eventPayload(99, "nowhere"));
    ASSERT_TRUE(ctl.ok("send 4 4 0 " + hex) && ctl.ok("send 4 4 5 " + hex));
    // Binder calls: only the system server's, once per target within 15 s.
    for (const char* caller : {"4343", ss.c_str(), ss.c_str()})
        ASSERT_TRUE(ctl.ok(call + caller));
    sync({a.get(), b.get()}, 1);
    EXPECT_TRUE(daemon.waitForLog("Failed to get channel by id, ignore forwarding"));
    EXPECT_EQ(0u, a->countLines("nowhere") + none->countLines("kstate") + a->countLines("4343]"));
    EXPECT_EQ(1u, b->countLines("[TPID 4242 CALLED][PID " + ss + "]"));
    // Nineteen more targets fill the table to 20, which empties it.
    for (int i = 1; i <= 19; ++i)
        ASSERT_TRUE(ctl.ok("event binder-call " + std::to_string(9000 + i) + " " + ss));
    ASSERT_TRUE(ctl.ok(call + ss));
    // The death notice sets the mask to 0 at the module; the others keep working.
    ASSERT_TRUE(ctl.ok("clear"));
    dies->kill(9);
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
            "flood 1000 kind 99 flood",
    };
    for (const char* cmd : hostile) ASSERT_TRUE(ctl.ok(cmd)) << cmd;
    sync({a.get(), b.get()}, 2);
    EXPECT_EQ(2u, b->countLines("[TPID 4242 CALLED][PID " + ss + "]"));
    EXPECT_EQ(1000u, b->countLines("text=\"flood\""));
    EXPECT_EQ(0, run({"mask", "1"}));
    // An answer naming the channel after the hub itself (id 1): from then on nothing it
    // sends is routed, and nothing can be sent to the module.
    ASSERT_TRUE(ctl.ok("send 1 1 0"));
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "1"}) != 0; }, 5000));
    ASSERT_TRUE(ctl.ok("event kind 99 unrouted"));
    EXPECT_TRUE(daemon.waitForLog("Message is from local server, ignore forwarding"));
    EXPECT_FALSE(a->waitForLine("unrouted", 300));
    EXPECT_TRUE(daemon.running());
}

}  // namespace
}  // namespace qmedtest
