// The real daemon throttling real children, driven through qmedctl.
// Runs through tools/qmed-ns.

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using qmedtest::BackgroundTool;
using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::TestChild;

namespace {

using Clock = std::chrono::steady_clock;

// Time not stopped: on a CPU or waiting for one (ns, from schedstat).
long long runnableNs(pid_t pid) {
    std::string s = qmedtest::readFile("/proc/" + std::to_string(pid) + "/schedstat");
    long long run = 0, wait = 0;
    if (sscanf(s.c_str(), "%lld %lld", &run, &wait) != 2) return -1;
    return run + wait;
}

bool everStopped(pid_t pid, int timeoutMs) {
    return qmedtest::waitUntil([&] { return qmedtest::procState(pid) == 'T'; }, timeoutMs);
}

// True when none of pids is seen stopped during ms.
bool neverStoppedFor(const std::vector<pid_t>& pids, int ms) {
    auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < end) {
        for (pid_t p : pids) {
            if (qmedtest::procState(p) == 'T') return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class SpearDaemon : public ::testing::Test {
  protected:
    void SetUp() override {
        DaemonOptions opts;
        // Debug makes the limiter log its rate every 10 cycles.
        opts.properties.emplace_back("persist.sys.qmed.debug", "true");
        opts.simulator = true;  // without its kernel module the daemon exits
        daemon.reset(new Daemon(opts));
        ASSERT_TRUE(daemon->start()) << daemon->log();
    }
    std::string ctl(const std::vector<std::string>& args) {
        qmedtest::ToolResult r = daemon->qmedctl(args);
        return r.out + r.err;
    }
    // Runs qmedctl and checks the facade's result it prints.
    ::testing::AssertionResult result(const std::vector<std::string>& args, int expected) {
        std::string out = ctl(args);
        std::string want = "(result " + std::to_string(expected) + ")";
        if (out.find(want) != std::string::npos) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "qmedctl " << args[0] << " gave: " << out;
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(SpearDaemon, DutyCycleMatchesTheAppliedRateAndAStopFreesWhatADeadDaemonLeft) {
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "dutyloop");
    std::string pid = std::to_string(busy.pid());
    ASSERT_TRUE(result({"spear", pid, "80"}, 1));
    ASSERT_TRUE(everStopped(busy.pid(), 15000)) << daemon->log();

    size_t mark = daemon->log().size();
    long tps = sysconf(_SC_CLK_TCK);
    long long run0 = runnableNs(busy.pid());
    long cpu0 = qmedtest::procCpuTicks(busy.pid());
    auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(10));
    long long run1 = runnableNs(busy.pid());
    long cpu1 = qmedtest::procCpuTicks(busy.pid());
    double wall = std::chrono::duration<double>(Clock::now() - t0).count();

    std::regex rateLine("Sr msg: pkg: dutyloop, P: " + pid + ", L: [-0-9.]+%, NTL: ([0-9.]+)%");
    std::string window = daemon->log().substr(mark);
    double sum = 0;
    int n = 0;
    for (std::sregex_iterator it(window.begin(), window.end(), rateLine), end; it != end; ++it) {
        sum += atof((*it)[1].str().c_str()) / 100;
        n++;
    }
    ASSERT_GT(n, 0) << window;
    double applied = sum / n;
    double runnable = (run1 - run0) / 1e9 / wall;
    double cpu = static_cast<double>(cpu1 - cpu0) / tps / wall;
    printf("applied %.3f runnable %.3f cpu %.3f\n", applied, runnable, cpu);
    // On a busy machine the child also waits for a CPU while it may run, so
    // the duty cycle is the time it was not stopped; CPU time can only be less.
    EXPECT_NEAR(applied, runnable, 0.05);
    EXPECT_LE(cpu, applied + 0.05);
    if (runnable - cpu < 0.02) {
        EXPECT_NEAR(applied, cpu, 0.05);
    }

    // The daemon dies while the child is stopped: nobody continues it.
    ASSERT_TRUE(everStopped(busy.pid(), 3000));
    daemon->kill(SIGKILL);
    ASSERT_TRUE(daemon->waitExit(3000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_EQ('T', qmedtest::procState(busy.pid()));
    ASSERT_TRUE(daemon->start()) << daemon->log();
    EXPECT_TRUE(result({"stop", pid}, 1));
    EXPECT_TRUE(neverStoppedFor({busy.pid()}, 500));
}

TEST_F(SpearDaemon, TreeIsThrottledRateChangedPausedAndEveryMemberFreedOnStop) {
    TestChild tree = TestChild::spawnTree(TestChild::Kind::Busy, 1, 1);
    TestChild single = TestChild::spawn(TestChild::Kind::Busy, "single");
    ASSERT_EQ(3u, tree.pids().size());
    std::string root = std::to_string(tree.pid());
    ASSERT_TRUE(result({"spear", root, "30", "0", "--children"}, 1));
    ASSERT_TRUE(result({"spear", std::to_string(single.pid()), "30"}, 1));

    std::set<pid_t> seen;
    qmedtest::waitUntil(
            [&] {
                for (pid_t p : tree.pids()) {
                    if (qmedtest::procState(p) == 'T') seen.insert(p);
                }
                return seen.size() == tree.pids().size();
            },
            15000);
    EXPECT_EQ(tree.pids().size(), seen.size()) << daemon->log();

    // A second request for the same owner changes its rate.
    EXPECT_TRUE(result({"spear", root, "50", "0", "--children"}, 1));
    EXPECT_TRUE(daemon->waitForLog("Change P: " + root + " Sr R: 50.00%"));
    // Only the first request made a group.
    EXPECT_EQ(1u, daemon->countLog("owned by " + root + ", number"));

    EXPECT_TRUE(result({"pause", root, "3"}, 1));
    EXPECT_TRUE(neverStoppedFor(tree.pids(), 1500));
    EXPECT_TRUE(everStopped(tree.pids()[2], 5000));  // limited again once the pause is over

    ASSERT_TRUE(everStopped(single.pid(), 3000));
    EXPECT_TRUE(result({"stop", root}, 1));
    EXPECT_TRUE(neverStoppedFor(tree.pids(), 1200));
    ASSERT_TRUE(everStopped(single.pid(), 3000));
    EXPECT_TRUE(result({"stop-all"}, 1));
    EXPECT_TRUE(neverStoppedFor({single.pid()}, 1200));
}

TEST_F(SpearDaemon, FacadeReturnCodes) {
    TestChild idle = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild other = TestChild::spawn(TestChild::Kind::Sleep);
    std::string pid = std::to_string(idle.pid());
    std::string dpid = std::to_string(daemon->pid());

    EXPECT_TRUE(result({"stop", "999999"}, 0));  // resume failed
    EXPECT_TRUE(result({"stop-all"}, -2));
    EXPECT_TRUE(result({"spear", "0", "30"}, -2));
    EXPECT_TRUE(result({"spear", "999999", "30"}, -3));
    EXPECT_TRUE(result({"spear", dpid, "30"}, -4));
    EXPECT_TRUE(daemon->waitForLog("No exceptions in Sr loop, limit qmed load to 4.00%!"));
    EXPECT_TRUE(result({"spear", dpid, "30"}, -4));
    EXPECT_TRUE(daemon->waitForLog("limit qmed load to 3.00%!"));

    std::string thread;
    DIR* d = opendir(("/proc/" + dpid + "/task").c_str());
    ASSERT_NE(nullptr, d);
    for (struct dirent* e; (e = readdir(d)) != nullptr;) {
        if (e->d_name[0] != '.' && dpid != e->d_name) thread = e->d_name;
    }
    closedir(d);
    ASSERT_FALSE(thread.empty());
    EXPECT_TRUE(result({"spear", thread, "30"}, -5));

    EXPECT_TRUE(result({"pause", pid, "3"}, -2));
    EXPECT_TRUE(result({"rate", pid, "40"}, -2));
    EXPECT_TRUE(result({"spear", pid, "30"}, 1));
    EXPECT_TRUE(result({"rate", pid, "40"}, 1));
    EXPECT_TRUE(result({"stop", std::to_string(other.pid())}, -2));
    EXPECT_TRUE(result({"pause", pid, "3"}, 1));
    EXPECT_TRUE(result({"stop", pid}, 1));
}

TEST_F(SpearDaemon, OwnerExitReleasesTheGroupAsEmptyAndTellsListeners) {
    BackgroundTool listener("qmedctl", {"listen", "4"}, daemon->clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening mask=")) << listener.output();
    TestChild idle = TestChild::spawn(TestChild::Kind::Sleep);
    std::string pid = std::to_string(idle.pid());
    ASSERT_TRUE(result({"spear", pid, "30"}, 1));
    idle.kill();
    EXPECT_TRUE(listener.waitForLine("spear-released pid=" + pid + " reason=\"empty\"", 6000))
            << listener.output() << daemon->log();
    EXPECT_TRUE(daemon->waitForLog("PGroup (owner: " + pid + ") is empty!"));
    EXPECT_TRUE(result({"stop", pid}, 0));  // no group left
}

}  // namespace
