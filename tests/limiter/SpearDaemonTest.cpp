// The real daemon throttling real children, driven through qmedctl; runs through tools/qmed-ns.

#include <dirent.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;
using Kind = TestChild::Kind;

namespace {

// stopped: every pid is seen stopped within ms; otherwise none is seen stopped during ms.
bool seen(const std::vector<pid_t>& pids, bool stopped, int ms) {
    std::set<pid_t> hit;
    bool done = waitUntil(
            [&] {
                for (pid_t p : pids) {
                    if (procState(p) == 'T') hit.insert(p);
                }
                return stopped ? hit.size() == pids.size() : !hit.empty();
            },
            ms);
    return done == stopped;
}

// Time not stopped, on a CPU or waiting for one, in seconds.
double runnable(pid_t pid) {
    long long run = 0, wait = 0;
    sscanf(readFile("/proc/" + std::to_string(pid) + "/schedstat").c_str(), "%lld %lld", &run,
           &wait);
    return (run + wait) / 1e9;
}

class SpearDaemon : public ::testing::Test {
  protected:
    void SetUp() override {
        d.options().properties.emplace_back("persist.sys.qmed.debug", "true");  // rate every 10 s
        d.options().simulator = true;  // without its kernel module the daemon exits
        ASSERT_TRUE(d.start()) << d.log();
    }
    // Runs qmedctl and checks the facade's result it prints.
    ::testing::AssertionResult result(const std::vector<std::string>& args, int want) {
        ToolResult r = d.qmedctl(args);
        if ((r.out + r.err).find("(result " + std::to_string(want) + ")") != r.out.npos) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << "qmedctl " << args[0] << ": " << r.out + r.err;
    }
    Daemon d;
};

TEST_F(SpearDaemon, DutyCycleMatchesTheAppliedRateAndAStopFreesWhatADeadDaemonLeft) {
    TestChild busy = TestChild::spawn(Kind::Busy, "dutyloop");
    std::string pid = std::to_string(busy.pid());
    ASSERT_TRUE(result({"spear", pid, "80"}, 1));
    ASSERT_TRUE(seen({busy.pid()}, true, 15000)) << d.log();  // limiting has begun
    size_t mark = d.log().size();
    long tps = sysconf(_SC_CLK_TCK), cpu0 = procCpuTicks(busy.pid());
    double run0 = runnable(busy.pid());
    auto t0 = std::chrono::steady_clock::now();
    sleep(10);  // one rate line per 10 cycles
    double run = runnable(busy.pid()) - run0;
    double cpu = static_cast<double>(procCpuTicks(busy.pid()) - cpu0) / tps;
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::regex rateLine("Sr msg: pkg: dutyloop, P: " + pid + ", L: [-0-9.]+%, NTL: ([0-9.]+)%");
    std::string window = d.log().substr(mark);
    double sum = 0;
    int n = 0;
    for (std::sregex_iterator it(window.begin(), window.end(), rateLine), end; it != end; ++it) {
        sum += atof((*it)[1].str().c_str()) / 100, n++;
    }
    ASSERT_GT(n, 0) << window;
    printf("applied %.3f runnable %.3f cpu %.3f\n", sum / n, run / wall, cpu / wall);
    // On a loaded machine the child also waits for a CPU while it may run, so the
    // duty cycle is the time it was not stopped; CPU time can only be less.
    EXPECT_NEAR(sum / n, run / wall, 0.05);
    EXPECT_LE(cpu / wall, sum / n + 0.05);
    if (run - cpu < 0.02 * wall) {
        EXPECT_NEAR(sum / n, cpu / wall, 0.05);
    }

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
    std::string tasks =
            runCommand({"ls", "-v", "/proc/" + dpid + "/task"}).out;  // a thread: the last
    std::string thread = tasks.substr(tasks.rfind('\n', tasks.size() - 2) + 1);
    thread.pop_back();
    struct Row {
        std::vector<std::string> args;
        int result;
        const char* log = nullptr;
    } rows[] = {
            {{"stop", "999999"}, 0},  // no groups at all: a resume, which fails
            {{"stop-all"}, -2},
            {{"spear", "0", "30"}, -2},
            {{"spear", "999999", "30"}, -3},
            {{"spear", dpid, "30"}, -4, "No exceptions in Sr loop, limit qmed load to 4.00%!"},
            {{"spear", dpid, "30"}, -4, "limit qmed load to 3.00%!"},  // its own target lowered
            {{"spear", thread, "30"}, -5},
            {{"pause", pid, "3"}, -2},
            {{"rate", pid, "40"}, -2},
            {{"spear", pid, "30"}, 1},
            {{"rate", pid, "40"}, 1},
            {{"stop", std::to_string(other.pid())}, -2},
            {{"pause", pid, "3"}, 1},
            {{"stop", pid}, 1},
    };
    for (const Row& r : rows) {
        EXPECT_TRUE(result(r.args, r.result)) << r.args.back();
        EXPECT_TRUE(r.log == nullptr || d.waitForLog(r.log)) << r.log;
    }

    BackgroundTool listener("qmedctl", {"listen", "4"}, d.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening mask=")) << listener.output();
    ASSERT_TRUE(result({"spear", pid, "30"}, 1));
    idle.kill();  // the owner exits: released as empty, and listeners told
    EXPECT_TRUE(listener.waitForLine("spear-released pid=" + pid + " reason=\"empty\"", 6000))
            << listener.output() << d.log();
    EXPECT_TRUE(d.waitForLog("PGroup (owner: " + pid + ") is empty!"));
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
