// ykqmed started without a freezer hierarchy at /dev/frz. Runs through qmed-ns --no-frz.

#include <gtest/gtest.h>

#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;

TEST(FreezerUnmountedIntegration, EveryFreezeFailsAndTheDaemonGoesOnServing) {
    ASSERT_NE(0, access("/dev/frz/cgroup.procs", F_OK)) << "run through qmed-ns --no-frz";
    DaemonOptions opts;
    opts.simulator = true;
    Daemon daemon(opts);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    for (const char* line :
         {"freezer group is not mounted", "create grouppool fail", "Init Freezer Error!!!"}) {
        EXPECT_TRUE(daemon.waitForLog(line)) << line;
    }
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep);
    std::string pid = std::to_string(child.pid());
    for (std::vector<std::string> cmd : {std::vector<std::string>{"freeze", pid},
                                         {"freeze-check", pid},
                                         {"thaw", pid},
                                         {"thaw-all"}}) {
        EXPECT_NE(0, daemon.qmedctl(cmd).exitCode) << cmd[0];
    }
    EXPECT_TRUE(waitUntil([&] { return daemon.countLog("Init freezer failed") == 4; }, 5000));
    EXPECT_NE('D', procState(child.pid()));
    // Everything else still works.
    auto r = daemon.qmedctl({"utime", pid});
    EXPECT_EQ(0, r.exitCode) << r.out << r.err;
}
