// Faults of the daemon's peers against the real ykqmed: its client dying, the daemon itself
// dying, the kernel module going away. Runs through tools/qmed-ns.

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/fault/FaultTestUtil.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"
#include "tools/kmodsim/KmodsimControl.h"

using faulttest::heldDuring;
using faulttest::join;
using qmedtest::BackgroundTool;
using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::TestChild;
using qmedtest::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kFrz = "/dev/frz";

bool inFrozenGroup(pid_t pid) {
    std::vector<pid_t> f = faulttest::frozenPids();
    return std::find(f.begin(), f.end(), pid) != f.end();
}

bool isFrozen(pid_t pid) {
    return inFrozenGroup(pid) && qmedtest::procState(pid) == 'D';
}

// Groups named "Group_" and ten digits.
size_t ownGroupCount() {
    size_t n = 0;
    DIR* d = opendir(kFrz.c_str());
    if (d == nullptr) return 0;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() == 16 && name.compare(0, 6, "Group_") == 0 &&
            name.find_first_not_of("0123456789", 6) == std::string::npos)
            n++;
    }
    closedir(d);
    return n;
}

void record(const std::string& name, double value) {
    printf("FIGURE %s %.1f\n", name.c_str(), value);
    ::testing::Test::RecordProperty(name, std::to_string(value));
}

class Fault : public faulttest::DaemonFixture {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, access((kFrz + "/cgroup.procs").c_str(), F_OK)) << "run through qmed-ns";
        startDaemon();
    }
    pid_t spawn(TestChild::Kind kind) {
        mChildren.push_back(TestChild::spawn(kind));
        return mChildren.back().pid();
    }
    std::vector<pid_t> spawnMany(TestChild::Kind kind, int n) {
        std::vector<pid_t> out;
        for (int i = 0; i < n; i++) out.push_back(spawn(kind));
        return out;
    }
    ::testing::AssertionResult ctl(const std::vector<std::string>& args, int expected) {
        qmedtest::ToolResult r = mDaemon->qmedctl(args);
        std::string want = "(result " + std::to_string(expected) + ")";
        if (r.out.find(want) != std::string::npos) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "qmedctl " << args[0] << ": " << r.out << r.err;
    }
    static std::vector<std::string> cmd(const char* name, const std::vector<pid_t>& pids) {
        std::vector<std::string> a{name};
        for (pid_t p : pids) a.push_back(std::to_string(p));
        return a;
    }
    bool freezeAll(const std::vector<pid_t>& pids) {
        if (mDaemon->qmedctl(cmd("freeze", pids)).exitCode != 0) return false;
        for (pid_t p : pids) {
            if (!waitUntil([&] { return isFrozen(p); }, 5000)) return false;
        }
        return true;
    }
    // Limiting begins on the fourth cycle, so the first stop comes after a few seconds.
    bool limit(const std::vector<pid_t>& pids, int rate) {
        for (pid_t p : pids) {
            if (!ctl({"spear", std::to_string(p), std::to_string(rate)}, 1)) return false;
        }
        for (pid_t p : pids) {
            if (!faulttest::seenStopped(p, 12000)) return false;
        }
        return true;
    }

};

TEST_F(Fault, ClientKilledWhileHoldingFrozenAndLimitedProcesses) {
    BackgroundTool client("qmedctl", {"listen", "5"}, mDaemon->clientOptions());
    ASSERT_TRUE(client.waitForLine("listening")) << client.output();
    std::vector<pid_t> frozen = spawnMany(TestChild::Kind::Sleep, 18);
    std::vector<pid_t> frozenBusy = spawnMany(TestChild::Kind::Busy, 2);
    frozen.insert(frozen.end(), frozenBusy.begin(), frozenBusy.end());
    std::vector<pid_t> limited = spawnMany(TestChild::Kind::Busy, 2);
    ASSERT_TRUE(freezeAll(frozen)) << mDaemon->log();
    ASSERT_TRUE(limit(limited, 10)) << mDaemon->log();
    long rss0 = faulttest::rssKb(mDaemon->pid());

    client.kill(SIGKILL);
    auto t0 = Clock::now();
    ASSERT_TRUE(waitUntil(
            [&] {
                for (pid_t p : frozen) {
                    if (inFrozenGroup(p)) return false;
                }
                return true;
            },
            5000))
            << join(faulttest::frozenPids());
    double thawMs = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    record("client_death_thaw_ms", thawMs);
    EXPECT_TRUE(mDaemon->waitForLog("Binder client died !!! do fixing"));
    for (pid_t p : frozenBusy) EXPECT_TRUE(faulttest::progresses(p, 5000)) << p;

    // The client's death does not end its limits (a rate change still finds each group),
    // and the limiter's cycle goes on continuing them.
    for (pid_t p : limited) {
        EXPECT_TRUE(ctl({"rate", std::to_string(p), "20"}, 1)) << p;
        EXPECT_TRUE(faulttest::progresses(p, 5000)) << p;
    }
    ASSERT_TRUE(mDaemon->running()) << mDaemon->log();
    EXPECT_EQ(0, mDaemon->qmedctl({"cmdline", "1"}).exitCode);

    EXPECT_TRUE(ctl({"stop-all"}, 1));
    std::vector<pid_t> all = frozen;
    all.insert(all.end(), limited.begin(), limited.end());
    EXPECT_EQ("", join(heldDuring(all, 1500)));
    // A new client gets the same service.
    pid_t again = spawn(TestChild::Kind::Sleep);
    EXPECT_TRUE(freezeAll({again}));
    EXPECT_LT(faulttest::rssKb(mDaemon->pid()), rss0 + 32 * 1024);
}

TEST_F(Fault, DaemonKilledWithFrozenAndStoppedProcessesRecoversOnRestart) {
    std::vector<pid_t> frozen = spawnMany(TestChild::Kind::Sleep, 4);
    std::vector<pid_t> frozenBusy = spawnMany(TestChild::Kind::Busy, 2);
    frozen.insert(frozen.end(), frozenBusy.begin(), frozenBusy.end());
    std::vector<pid_t> limited = spawnMany(TestChild::Kind::Busy, 2);
    ASSERT_TRUE(freezeAll(frozen)) << mDaemon->log();
    // At 5 % both are stopped most of each second; kill the daemon when they are.
    ASSERT_TRUE(limit(limited, 5)) << mDaemon->log();
    ASSERT_TRUE(waitUntil(
            [&] {
                for (pid_t p : limited) {
                    if (qmedtest::procState(p) != 'T') return false;
                }
                return true;
            },
            5000));
    mDaemon->kill(SIGKILL);
    ASSERT_TRUE(mDaemon->waitExit(5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    for (pid_t p : frozen) EXPECT_TRUE(isFrozen(p)) << p;
    for (pid_t p : limited) ASSERT_EQ('T', qmedtest::procState(p)) << p;

    ASSERT_TRUE(mDaemon->start()) << mDaemon->log();
    // The pool's start-up clean-up thaws what the dead daemon froze and drops its groups.
    EXPECT_TRUE(waitUntil([&] { return faulttest::frozenPids().empty(); }, 5000))
            << join(faulttest::frozenPids());
    for (pid_t p : frozenBusy) EXPECT_TRUE(faulttest::progresses(p, 5000)) << p;
    EXPECT_EQ(20u, ownGroupCount());
    // Nobody knows about the stopped ones until a stop request names them.
    for (pid_t p : limited) EXPECT_EQ('T', qmedtest::procState(p)) << p;
    for (pid_t p : limited) EXPECT_TRUE(ctl({"stop", std::to_string(p)}, 1)) << p;
    std::vector<pid_t> all = frozen;
    all.insert(all.end(), limited.begin(), limited.end());
    EXPECT_EQ("", join(heldDuring(all, 1500)));
    for (pid_t p : limited) EXPECT_TRUE(faulttest::progresses(p, 5000)) << p;
}

TEST_F(Fault, SimulatorVanishingAndComingBackNeitherKillsNorWedgesTheDaemon) {
    BackgroundTool listener("qmedctl", {"listen", "1"}, mDaemon->clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening")) << listener.output();
    ASSERT_EQ(0, mDaemon->kmodsim({"event", "kind", "77", "before"}).exitCode);
    ASSERT_TRUE(listener.waitForLine("text=\"before\"")) << listener.output();
    long rss0 = faulttest::rssKb(mDaemon->pid());

    mDaemon->stopSimulator();
    // A hub spinning on a dead socket would show here.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    long cpu0 = qmedtest::procCpuTicks(mDaemon->pid());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    long cpu1 = qmedtest::procCpuTicks(mDaemon->pid());
    EXPECT_LT(cpu1 - cpu0, sysconf(_SC_CLK_TCK)) << "daemon busy without its module";

    ASSERT_TRUE(mDaemon->running()) << mDaemon->log();
    qmedtest::ToolResult r = mDaemon->qmedctl({"cmdline", "1"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    // Commands for the module come back (failed or not) instead of hanging the caller.
    qmedtest::RunOptions quick = mDaemon->clientOptions();
    quick.timeoutMs = 5000;
    qmedtest::ToolResult mask = qmedtest::runTool("qmedctl", {"mask", "5"}, quick);
    EXPECT_NE(128 + SIGKILL, mask.exitCode);
    printf("mask without module: exit %d %s%s", mask.exitCode, mask.out.c_str(), mask.err.c_str());
    // Freezing still works; its waiting-binder note has nowhere to go.
    pid_t child = spawn(TestChild::Kind::Busy);
    qmedtest::ToolResult frz = qmedtest::runTool("qmedctl", cmd("freeze", {child}), quick);
    EXPECT_EQ(0, frz.exitCode) << frz.out << frz.err;
    EXPECT_TRUE(waitUntil([&] { return isFrozen(child); }, 5000));
    EXPECT_EQ(0, qmedtest::runTool("qmedctl", cmd("thaw", {child}), quick).exitCode);
    EXPECT_TRUE(faulttest::progresses(child, 3000));

    // The simulator comes back on the same address. The daemon opened its channel once at
    // start-up, so whether it reconnects is recorded, not assumed.
    ASSERT_TRUE(mDaemon->startSimulator());
    bool reconnected = mDaemon->kmodsim({"wait-connected", "2000"}).exitCode == 0;
    bool delivered = false;
    if (reconnected) {
        mDaemon->kmodsim({"event", "kind", "77", "after"});
        delivered = listener.waitForLine("text=\"after\"", 2000);
    }
    record("simulator_back_reconnected", reconnected ? 1 : 0);
    record("simulator_back_event_delivered", delivered ? 1 : 0);

    ASSERT_TRUE(mDaemon->running()) << mDaemon->log();
    r = mDaemon->qmedctl({"cmdline", "1"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("", join(heldDuring({child}, 300)));
    EXPECT_LT(faulttest::rssKb(mDaemon->pid()), rss0 + 32 * 1024);
}

// A listener for release notices that stops inside its callback while the limiter lets a
// group go. Callbacks are synchronous and the loop releases groups right after its stop
// phase, so a notice sent from the loop would keep every limited process stopped and every
// limiter command waiting until the listener returned or died.
TEST_F(Fault, StuckReleaseListenerLeavesNoLimitedProcessStopped) {
    BackgroundTool listener("qmedctl", {"listen", "4"}, mDaemon->clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening")) << listener.output();
    pid_t owner = spawn(TestChild::Kind::Busy);
    std::vector<pid_t> limited = spawnMany(TestChild::Kind::Busy, 1);
    ASSERT_TRUE(limit({owner, limited[0]}, 5)) << mDaemon->log();

    listener.kill(SIGSTOP);
    // The owner exits; its group is released as empty on the next cycle.
    mChildren.front().kill(SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    bool progressed = faulttest::progresses(limited[0], 3000);
    qmedtest::RunOptions quick = mDaemon->clientOptions();
    quick.timeoutMs = 5000;
    qmedtest::ToolResult stop =
            qmedtest::runTool("qmedctl", {"stop", std::to_string(limited[0])}, quick);

    // The stuck peer dies; whatever waited on it goes on.
    listener.kill(SIGKILL);
    EXPECT_TRUE(progressed) << "pid " << limited[0] << " state " << qmedtest::procState(limited[0])
                            << " while the release listener was stuck";
    EXPECT_EQ(0, stop.exitCode) << "stop while the release listener was stuck: " << stop.out
                                << stop.err;
    EXPECT_TRUE(ctl({"stop-all"}, 1) || ctl({"stop", std::to_string(limited[0])}, 1));
    EXPECT_EQ("", join(heldDuring(limited, 1500)));
    ASSERT_TRUE(mDaemon->running());
}

}  // namespace
