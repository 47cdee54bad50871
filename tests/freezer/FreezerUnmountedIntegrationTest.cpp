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
    EXPECT_TRUE(daemon.waitForLog("freezer group is not mounted") &&
                daemon.waitForLog("Init Freezer Error!!!"));
    std::string pid = std::to_string(TestChild::spawn(TestChild::Kind::Sleep).pid());
    for (std::string cmd : {"freeze", "freeze-check", "thaw"}) {
        EXPECT_NE(0, daemon.qmedctl({cmd, pid}).exitCode) << cmd;
    }
    EXPECT_NE(0, daemon.qmedctl({"thaw-all"}).exitCode);
    EXPECT_TRUE(waitUntil([&] { return daemon.countLog("Init freezer failed") == 4; }, 5000));
    auto r = daemon.qmedctl({"utime", std::to_string(getpid())});  // everything else still works
    EXPECT_EQ(0, r.exitCode) << r.out << r.err;
}
