// ykqmed started without a freezer hierarchy at /dev/frz. Runs through qmed-ns --no-frz.

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::TestChild;

namespace {

TEST(FreezerUnmountedIntegration, EveryFreezeFailsAndTheDaemonGoesOnServing) {
    ASSERT_NE(0, access("/dev/frz/cgroup.procs", F_OK)) << "run through qmed-ns --no-frz";
    DaemonOptions opts;
    opts.simulator = true;
    Daemon daemon(opts);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    EXPECT_TRUE(daemon.waitForLog("freezer group is not mounted"));
    EXPECT_TRUE(daemon.waitForLog("create grouppool fail"));
    EXPECT_TRUE(daemon.waitForLog("Init Freezer Error!!!"));

    TestChild child = TestChild::spawn(TestChild::Kind::Sleep);
    std::string pid = std::to_string(child.pid());
    for (const char* cmd : {"freeze", "freeze-check", "thaw"}) {
        EXPECT_NE(0, daemon.qmedctl({cmd, pid}).exitCode) << cmd;
    }
    EXPECT_NE(0, daemon.qmedctl({"thaw-all"}).exitCode);
    EXPECT_EQ(4u, daemon.countLog("Init freezer failed"));
    EXPECT_NE('D', qmedtest::procState(child.pid()));
    // Everything else still works.
    auto r = daemon.qmedctl({"utime", pid});
    EXPECT_EQ(0, r.exitCode) << r.out << r.err;
    EXPECT_TRUE(daemon.running());
}

}  // namespace
