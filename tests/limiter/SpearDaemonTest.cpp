#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;
using Kind = TestChild::Kind;

namespace {

// stopped: every pid is seen stopped at once within ms; otherwise none is seen stopped during ms.
bool seen(const std::vector<pid_t>& pids, bool stopped, int ms) {
    auto n = [&] {
        return std::count_if(pids.begin(), pids.end(), [](pid_t p) { return procState(p) == 'T'; });
    };
    return waitUntil([&] { return stopped ? n() == long(pids.size()) : n() > 0; }, ms) == stopped;
}

// Seconds not stopped (on a CPU or waiting for one) and a clock.
std::vector<double> times(pid_t pid) {
    long long r = 0, w = 0;
    sscanf(readFile("/proc/" + std::to_string(pid) + "/schedstat").c_str(), "%lld %lld", &r, &w);
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return {(r + w) / 1e9, std::chrono::duration<double>(now).count()};
}

class SpearDaemon : public ::testing::Test {
  protected:
    void SetUp() override {
        d.options().properties.emplace_back("persist.sys.qmed.debug", "true");  // rate every 10 s
        d.options().simulator = true;  // without its kernel module the daemon exits
        ASSERT_TRUE(d.start()) << d.log();
    }
    // Runs qmedctl; true when it prints the facade's result want.
    bool result(const std::vector<std::string>& args, int want) {
        ToolResult r = d.qmedctl(args);
        return (r.out + r.err).find("(result " + std::to_string(want) + ")") != std::string::npos;
    }
    Daemon d;
};

TEST_F(SpearDaemon, DutyCycleMatchesTheAppliedRateAndAStopFreesWhatADeadDaemonLeft) {
    TestChild busy = TestChild::spawn(Kind::Busy, "dutyloop");
    std::string pid = std::to_string(busy.pid());
    ASSERT_TRUE(result({"spear", pid, "80"}, 1));
    ASSERT_TRUE(seen({busy.pid()}, true, 15000)) << d.log();  // limiting has begun
    size_t mark = d.log().size();
    std::vector<double> t0 = times(busy.pid());
    sleep(10);  // one rate line per 10 cycles
    std::vector<double> t = times(busy.pid());
    double run = t[0] - t0[0], wall = t[1] - t0[1];
    std::regex rateLine("Sr msg: pkg: dutyloop, P: " + pid + ", L: [-0-9.]+%, NTL: ([0-9.]+)%");
    std::string window = d.log().substr(mark);
    double sum = 0, n = 0;
    for (std::sregex_iterator it(window.begin(), window.end(), rateLine), end; it != end; ++it) {
        sum += atof((*it)[1].str().c_str()) / 100, n++;
    }
    // Waiting for a CPU counts: the duty cycle is the time not stopped, CPU time can be less.
    EXPECT_NEAR(sum / n, run / wall, 0.05) << window;

    // The daemon dies while the child is stopped: nobody continues it but a new daemon.
    ASSERT_TRUE(seen({busy.pid()}, true, 3000));
    d.kill(SIGKILL);
    ASSERT_TRUE(d.waitExit(3000));
    usleep(300000);
    ASSERT_EQ('T', procState(busy.pid()));
    ASSERT_TRUE(d.start()) << d.log();
    EXPECT_TRUE(result({"stop", pid}, 1));
    EXPECT_TRUE(seen({busy.pid()}, false, 500));
}

TEST_F(SpearDaemon, ReturnCodesAndTheReleaseOfAGroupWhoseOwnerExited) {
    TestChild idle = TestChild::spawn(Kind::Sleep), other = TestChild::spawn(Kind::Sleep);
    std::string pid = std::to_string(idle.pid()), dpid = std::to_string(d.pid());
    std::string thread =
            runCommand({"sh", "-c", "ls /proc/" + dpid + "/task | grep -vxm1 " + dpid}).out;
    thread.pop_back();  // a thread of the daemon: not a process
    for (auto& [args, want] : std::vector<std::pair<std::vector<std::string>, int>>{
                 {{"stop", "999999"}, 0},  // no groups at all: a resume, which fails
                 {{"stop-all"}, -2},
                 {{"spear", "0", "30"}, -2},
                 {{"spear", "999999", "30"}, -3},
                 {{"spear", dpid, "30"}, -4},
                 {{"spear", dpid, "30"}, -4},
                 {{"spear", thread, "30"}, -5},
                 {{"pause", pid, "3"}, -2},
                 {{"rate", pid, "40"}, -2},
                 {{"spear", pid, "30"}, 1},
                 {{"rate", pid, "40"}, 1},
                 {{"stop", std::to_string(other.pid())}, -2},
                 {{"stop", pid}, 1}}) {
        EXPECT_TRUE(result(args, want)) << args.back();
    }
    // Each call on its own pid lowers the daemon's own target by a point.
    EXPECT_TRUE(d.waitForLog("limit qmed load to 4.00%!") && d.waitForLog("load to 3.00%!"));

    BackgroundTool listener("qmedctl", {"listen", "4"}, d.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening mask=")) << listener.output();
    ASSERT_TRUE(result({"spear", pid, "30"}, 1));
    idle.kill();  // the owner exits: released as empty, and listeners told
    EXPECT_TRUE(listener.waitForLine("spear-released pid=" + pid + " reason=\"empty\"", 6000))
            << listener.output() << d.log();
}

TEST_F(SpearDaemon, TreeIsThrottledRateChangedPausedAndEveryMemberFreedOnStop) {
    TestChild tree = TestChild::spawnTree(Kind::Busy, 1, 1), single = TestChild::spawn(Kind::Busy);
    std::string root = std::to_string(tree.pid());
    ASSERT_TRUE(result({"spear", root, "30", "0", "--children"}, 1));
    ASSERT_TRUE(result({"spear", std::to_string(single.pid()), "30"}, 1));
    EXPECT_TRUE(seen(tree.pids(), true, 15000)) << d.log();
    EXPECT_TRUE(result({"spear", root, "50", "0", "--children"}, 1));  // a change, not a group
    EXPECT_TRUE(d.waitForLog("Change P: " + root + " Sr R: 50.00%"));
    EXPECT_EQ(1u, d.countLog("owned by " + root + ", number"));
    EXPECT_TRUE(result({"pause", root, "3"}, 1));
    EXPECT_TRUE(seen(tree.pids(), false, 1500));
    EXPECT_TRUE(seen({tree.pids()[2]}, true, 5000));  // limited again once the pause is over
    EXPECT_TRUE(result({"stop", root}, 1));
    EXPECT_TRUE(seen(tree.pids(), false, 1200));
    ASSERT_TRUE(seen({single.pid()}, true, 3000)) << d.log();
    EXPECT_TRUE(result({"stop-all"}, 1));
    EXPECT_TRUE(seen({single.pid()}, false, 1200));
}

}  // namespace
