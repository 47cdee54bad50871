// The daemon with the simulator and listener processes: the module path end to end.

#include <gtest/gtest.h>

#include "tests/support/DaemonHarness.h"
#include "tests/support/HubWire.h"
#include "tests/support/TestChild.h"
#include "tools/kmodsim/KmodsimControl.h"

namespace qmedtest {
namespace {

TEST(HubDaemon, ModuleBytesAndListenerDeliveryEndToEnd) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    Daemon daemon;
    daemon.options().simulator = true;
    ASSERT_TRUE(daemon.start());
    kmodsim::Control ctl(daemon.simulatorCtl());
    auto run = [&](const std::vector<std::string>& args) { return daemon.qmedctl(args).exitCode; };
    auto nl = [&](const Bytes& tlv) { return netlinkMessage(daemon.pid(), tlv); };
    ASSERT_TRUE(waitUntil([&] { return run({"mask", "5"}) == 0; }, 5000));  // once identified
    ASSERT_TRUE(ctl.ok("wait-received 2"));
    EXPECT_EQ((std::vector<Bytes>{nl(tlvMessage(1, 0, 0, 0)),
                                  nl(tlvMessage(4, 8, 4, 4, {5, 0, 0, 0}))}),
              ctl.received());
    ASSERT_TRUE(ctl.ok("clear"));

    const std::string ss = std::to_string(systemServer.pid());
    const std::string ssLine = "[TPID 4242 CALLED][PID " + ss + "]";
    std::unique_ptr<BackgroundTool> l[3];  // masks 1, 3, and one that dies
    const char* masks[] = {"1", "3", "1"};
    for (int i = 0; i < 3; i++) {
        l[i] = std::make_unique<BackgroundTool>(
                "qmedctl", std::vector<std::string>{"listen", masks[i]}, daemon.clientOptions());
        ASSERT_TRUE(l[i]->waitForLine("listening mask=")) << l[i]->output();
    }
    // Once both saw the marker, all injected before it was handled.
    auto sync = [&](const std::string& marker) {
        ASSERT_TRUE(ctl.ok("event kind 77 " + marker));
        for (int i = 0; i < 2; i++) ASSERT_TRUE(l[i]->waitForLine(marker + "\"")) << marker;
    };
    // Once per target within 15 s; 19 targets are kept, the twentieth empties the table.
    auto fromSs = [&](int t) {
        return ctl.ok("event binder-call " + std::to_string(t) + " " + ss);
    };
    for (int i = 0; i < 21; ++i) ASSERT_TRUE(fromSs(i < 2 || i == 20 ? 4242 : 9000 + i));
    sync("marker-1");
    EXPECT_EQ(1u, l[1]->countLines(ssLine));
    ASSERT_TRUE(fromSs(9020) && fromSs(4242));
    // The death notice sets the mask to 0 at the module; the others keep working.
    l[2]->kill(9);
    ASSERT_TRUE(ctl.ok("wait-received 1 5000"));
    EXPECT_EQ(std::vector<Bytes>{nl(tlvMessage(4, 8, 4, 4, {0, 0, 0, 0}))}, ctl.received());
    ASSERT_TRUE(ctl.ok("flood 1000 kind 99 flood"));
    sync("marker-2");
    EXPECT_EQ(2u, l[1]->countLines(ssLine));
    EXPECT_EQ(1000u, l[1]->countLines("text=\"flood\""));
    EXPECT_TRUE(daemon.running());
}

}  // namespace
}  // namespace qmedtest
