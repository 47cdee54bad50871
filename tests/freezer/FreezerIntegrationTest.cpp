// The real ykqmed freezing real children in the real freezer hierarchy at /dev/frz, driven
// through qmedctl and the kernel-module simulator. Runs through qmed-ns.

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/freezer/FrzTestRoot.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"
#include "tools/kmodsim/KmodsimControl.h"

using qmedtest::BackgroundTool;
using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::TestChild;
using qmedtest::waitUntil;

namespace {

const std::string kFrz = "/dev/frz";

// Groups named prefix + ten digits; an empty prefix takes every prefix.
std::vector<std::string> groupsNamed(const std::string& prefix) {
    std::vector<std::string> out;
    DIR* d = opendir(kFrz.c_str());
    if (d == nullptr) return out;
    while (struct dirent* e = readdir(d)) {
        if (frztest::isGroupName(e->d_name, prefix)) out.push_back(kFrz + "/" + e->d_name);
    }
    closedir(d);
    return out;
}

std::vector<std::string> ownGroups() {
    return groupsNamed("Group_");
}

// The group holding pid, or empty.
std::string groupOf(pid_t pid) {
    for (const auto& g : groupsNamed("")) {
        auto pids = frztest::groupPids(g);
        if (std::find(pids.begin(), pids.end(), pid) != pids.end()) return g;
    }
    return "";
}

bool frozen(pid_t pid) {
    std::string g = groupOf(pid);
    return !g.empty() && frztest::groupState(g) == "FROZEN" && qmedtest::procState(pid) == 'D';
}

bool waitFrozen(pid_t pid) {
    return waitUntil([&] { return frozen(pid); }, 5000);
}

bool waitRunning(pid_t pid) {
    return waitUntil([&] { return groupOf(pid).empty() && qmedtest::procState(pid) != 'D'; }, 5000);
}

bool progresses(pid_t pid) {
    long before = qmedtest::procUtime(pid);
    return waitUntil([&] { return qmedtest::procUtime(pid) > before; }, 5000);
}

std::vector<std::string> args(const char* cmd, const std::vector<pid_t>& pids) {
    std::vector<std::string> a{cmd};
    for (pid_t p : pids) a.push_back(std::to_string(p));
    return a;
}

// The waiting-binder command for pid as the simulator receives it: TLV tag 5, src 4, dst 4,
// len 66, then cmd 6, the pid's low byte and its decimal text zero-filled to 64 bytes.
std::vector<uint8_t> waitingBinderMessage(pid_t pid) {
    std::vector<uint8_t> m = {5, 0, 0, 0,  4, 0, 0, 0, 4,
                              0, 0, 0, 66, 0, 0, 0, 6, (uint8_t)(pid & 0xff)};
    std::string text = std::to_string(pid);
    m.insert(m.end(), text.begin(), text.end());
    m.resize(16 + 66, 0);
    return m;
}

size_t countReceived(const kmodsim::Control& ctl, const std::vector<uint8_t>& tlv) {
    size_t n = 0;
    for (const auto& msg : ctl.received()) {
        // 16 bytes of netlink header come first; the datagram is padded to 4 bytes.
        if (msg.size() >= 16 + tlv.size() && msg.size() <= 16 + tlv.size() + 3 &&
            std::equal(tlv.begin(), tlv.end(), msg.begin() + 16))
            n++;
    }
    return n;
}

class FreezerIntegration : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, access((kFrz + "/cgroup.procs").c_str(), F_OK)) << "run through qmed-ns";
        DaemonOptions opts;
        opts.simulator = true;
        opts.properties.emplace_back("persist.sys.qmed.debug", "true");
        mDaemon.reset(new Daemon(opts));
        ASSERT_TRUE(mDaemon->start()) << mDaemon->log();
        ASSERT_EQ(0, mDaemon->kmodsim({"wait-identified", "5000"}).exitCode);
    }
    void TearDown() override {
        // Nothing may stay frozen for the children's reaping.
        if (mDaemon) mDaemon->qmedctl({"thaw-all"});
        for (const auto& g : groupsNamed("")) frztest::removeGroupTree(g);
    }
    pid_t spawn(TestChild::Kind kind = TestChild::Kind::Sleep) {
        mChildren.push_back(TestChild::spawn(kind));
        return mChildren.back().pid();
    }
    Daemon& daemon() { return *mDaemon; }
    kmodsim::Control sim() { return kmodsim::Control(mDaemon->simulatorCtl()); }
    bool event(const std::string& line) { return sim().ok(line); }

    std::vector<TestChild> mChildren;
    std::unique_ptr<Daemon> mDaemon;
};

TEST_F(FreezerIntegration, FreezesEachInOwnGroupSendsWaitingBinderAndThaws) {
    EXPECT_EQ(20u, ownGroups().size());
    pid_t a = spawn(TestChild::Kind::Busy), b = spawn(TestChild::Kind::Busy), c = spawn();
    auto r = daemon().qmedctl(args("freeze", {a, b, c}));
    ASSERT_EQ(0, r.exitCode) << r.out << r.err;
    std::set<std::string> groups;
    for (pid_t p : {a, b, c}) {
        EXPECT_TRUE(waitFrozen(p)) << p;
        groups.insert(groupOf(p));
        EXPECT_EQ(std::vector<pid_t>{p}, frztest::groupPids(groupOf(p)));
    }
    EXPECT_EQ(3u, groups.size());
    long before = qmedtest::procUtime(a);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(before, qmedtest::procUtime(a));

    kmodsim::Control ctl = sim();
    for (pid_t p : {a, b, c}) {
        EXPECT_TRUE(
                waitUntil([&] { return countReceived(ctl, waitingBinderMessage(p)) == 1; }, 5000))
                << p;
    }

    ASSERT_EQ(0, daemon().qmedctl(args("thaw", {b})).exitCode);
    EXPECT_TRUE(waitRunning(b));
    EXPECT_TRUE(progresses(b));
    EXPECT_TRUE(frozen(a));
    ASSERT_EQ(0, daemon().qmedctl({"thaw-all"}).exitCode);
    for (pid_t p : {a, c}) EXPECT_TRUE(waitRunning(p)) << p;
    EXPECT_TRUE(progresses(a));
    EXPECT_EQ(20u, ownGroups().size());
}

TEST_F(FreezerIntegration, RowsOfTheFreezeListAndTheCommands) {
    pid_t a = spawn();
    // The daemon's own pid is skipped; the rest of the batch is frozen.
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", {daemon().pid(), a})).exitCode);
    EXPECT_TRUE(waitFrozen(a));
    EXPECT_TRUE(groupOf(daemon().pid()).empty());
    EXPECT_TRUE(
            daemon().waitForLog("freezePids not frz myself: " + std::to_string(daemon().pid())));
    // Already frozen: accepted, same group.
    std::string g = groupOf(a);
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", {a})).exitCode);
    EXPECT_EQ(g, groupOf(a));
    EXPECT_TRUE(daemon().waitForLog("freezePid, already frzd pid: " + std::to_string(a)));
    // A thread id: the batch succeeds, the thread's process is not frozen.
    pid_t tid = -1;
    {
        DIR* d = opendir(("/proc/" + std::to_string(daemon().pid()) + "/task").c_str());
        ASSERT_NE(nullptr, d);
        while (struct dirent* e = readdir(d)) {
            int t = atoi(e->d_name);
            if (t > 0 && t != daemon().pid()) tid = t;
        }
        closedir(d);
    }
    ASSERT_GT(tid, 0);
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", {tid})).exitCode);
    EXPECT_TRUE(daemon().waitForLog("freezePid not frz tid: " + std::to_string(tid)));
    EXPECT_TRUE(groupOf(daemon().pid()).empty());
    // No terminator: the raw service call passes the list as it is, and is refused.
    auto raw = daemon().service(
            {"call", "Binder.Qmed", "3", "i32", "1", "i32", "1", "i32", std::to_string(a)});
    EXPECT_EQ(0, raw.exitCode) << raw.err;
    EXPECT_NE(std::string::npos, raw.out.find("ffffffff")) << raw.out;
    EXPECT_TRUE(daemon().waitForLog("Params is invalid"));
    // An unknown command fails; command 3 thaws everything.
    auto nine = daemon().service({"call", "Binder.Qmed", "3", "i32", "9", "i32", "2", "i32",
                                  std::to_string(a), "i32", "-1"});
    EXPECT_NE(std::string::npos, nine.out.find("ffffffff")) << nine.out;
    EXPECT_TRUE(frozen(a));
    auto three =
            daemon().service({"call", "Binder.Qmed", "3", "i32", "3", "i32", "1", "i32", "12345"});
    EXPECT_NE(std::string::npos, three.out.find("00000000 00000000")) << three.out;
    EXPECT_TRUE(waitRunning(a));
}

TEST_F(FreezerIntegration, PoolGrowsAndTypeOptionSelectsPrefix) {
    std::vector<pid_t> pids;
    for (int i = 0; i < 21; i++) pids.push_back(spawn());
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", pids)).exitCode);
    for (pid_t p : pids) EXPECT_TRUE(waitFrozen(p)) << p;
    EXPECT_EQ(21u, ownGroups().size());
    ASSERT_EQ(0, daemon().qmedctl({"thaw-all"}).exitCode);
    for (pid_t p : pids) EXPECT_TRUE(waitRunning(p)) << p;
    EXPECT_EQ(21u, ownGroups().size());

    // A second daemon with -t 3 uses its own prefix and leaves the first one's groups alone.
    DaemonOptions opts;
    opts.args = {"-t", "3"};
    opts.simulator = true;
    Daemon other(opts);
    ASSERT_TRUE(other.start()) << other.log();
    EXPECT_EQ(20u, groupsNamed("VP3_Group_").size());
    EXPECT_EQ(21u, ownGroups().size());
    pid_t x = spawn();
    ASSERT_EQ(0, other.qmedctl(args("freeze", {x})).exitCode);
    EXPECT_TRUE(waitFrozen(x));
    EXPECT_EQ(0u, groupOf(x).find(kFrz + "/VP3_Group_"));
    other.qmedctl({"thaw-all"});
    EXPECT_TRUE(waitRunning(x));
}

TEST_F(FreezerIntegration, BinderCallGuardThroughSimulatorEvents) {
    pid_t a = spawn(), target = spawn(), outsider = spawn();
    const std::string recorded = "recordBinderCallTime called pid :" + std::to_string(target);
    ASSERT_TRUE(
            event("event binder-call " + std::to_string(target) + " " + std::to_string(outsider)));
    ASSERT_TRUE(daemon().waitForLog(recorded));
    auto refused = daemon().qmedctl(args("freeze-check", {a, target}));
    EXPECT_NE(0, refused.exitCode);
    EXPECT_TRUE(daemon().waitForLog(" ms ago by " + std::to_string(outsider) + ", ignor it:0"));
    EXPECT_TRUE(groupOf(a).empty());
    EXPECT_TRUE(groupOf(target).empty());

    // The caller inside the batch does not count.
    EXPECT_EQ(0, daemon().qmedctl(args("freeze", {a, target, outsider})).exitCode);
    EXPECT_TRUE(waitFrozen(target));
    ASSERT_EQ(0, daemon().qmedctl({"thaw-all"}).exitCode);
    for (pid_t p : {a, target, outsider}) EXPECT_TRUE(waitRunning(p));

    // 2001 ms later the call is old.
    std::this_thread::sleep_for(std::chrono::milliseconds(2050));
    EXPECT_EQ(0, daemon().qmedctl(args("freeze", {a, target})).exitCode);
    EXPECT_TRUE(waitFrozen(target));
    ASSERT_EQ(0, daemon().qmedctl({"thaw-all"}).exitCode);
    EXPECT_TRUE(waitRunning(target));
}

TEST_F(FreezerIntegration, BinderCallsAreForgottenAfterTwoFullBuffers) {
    pid_t target = spawn();
    // Calls made by init, which is never in the batch.
    ASSERT_TRUE(event("event binder-call " + std::to_string(target) + " 1"));
    // 61 calls into other pids: the target's buffer is full, the other one fills up.
    for (int i = 0; i < 61; i++) {
        ASSERT_TRUE(event("event binder-call " + std::to_string(900000 + i) + " 1"));
    }
    ASSERT_TRUE(daemon().waitForLog("recordBinderCallTime called pid :900060"));
    auto start = std::chrono::steady_clock::now();
    EXPECT_NE(0, daemon().qmedctl(args("freeze", {target})).exitCode);
    // The 62nd switches back and clears the target's buffer.
    ASSERT_TRUE(event("event binder-call 900061 1"));
    ASSERT_TRUE(daemon().waitForLog("recordBinderCallTime called pid :900061"));
    EXPECT_EQ(0, daemon().qmedctl(args("freeze", {target})).exitCode);
    EXPECT_TRUE(waitFrozen(target));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000))
            << "too slow to tell a forgotten call from an old one";
}

TEST_F(FreezerIntegration, AsyncCallAndLowMemoryKillThaw) {
    pid_t a = spawn(), b = spawn();
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", {a, b})).exitCode);
    ASSERT_TRUE(waitFrozen(a));
    ASSERT_TRUE(waitFrozen(b));
    // A synchronous call leaves it frozen, a one-way call thaws it.
    ASSERT_TRUE(event("event binder-call " + std::to_string(a) + " 4242"));
    ASSERT_TRUE(daemon().waitForLog("recordBinderCallTime called pid :" + std::to_string(a)));
    EXPECT_TRUE(frozen(a));
    ASSERT_TRUE(event("event binder-call " + std::to_string(a) + " -1"));
    EXPECT_TRUE(daemon().waitForLog("-1 async call " + std::to_string(a) + ", thawed in zoqmed"));
    EXPECT_TRUE(waitRunning(a));
    // A kill with signal 9 changes nothing, the low-memory killer's signal 0 thaws.
    ASSERT_TRUE(event("event kill " + std::to_string(b) + " 9"));
    ASSERT_TRUE(daemon().waitForLog("[PID " + std::to_string(b) + " KILLED][SIG 9]"));
    EXPECT_TRUE(frozen(b));
    ASSERT_TRUE(event("event kill " + std::to_string(b) + " 0"));
    EXPECT_TRUE(daemon().waitForLog("pid " + std::to_string(b) +
                                    "   be killed by lowmemkiller, thawed in zoqmed"));
    EXPECT_TRUE(waitRunning(b));
}

TEST_F(FreezerIntegration, ListenerDeathThawsEverythingAndDaemonKeepsServing) {
    BackgroundTool listener("qmedctl", {"listen", "1"}, daemon().clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening")) << listener.output();
    std::vector<pid_t> pids;
    for (int i = 0; i < 50; i++) pids.push_back(spawn());
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", pids)).exitCode);
    for (pid_t p : pids) ASSERT_TRUE(waitFrozen(p)) << p;
    EXPECT_EQ(50u, ownGroups().size());

    listener.kill(SIGKILL);
    EXPECT_TRUE(daemon().waitForLog("Binder client died !!! do fixing"));
    for (pid_t p : pids) EXPECT_TRUE(waitRunning(p)) << p;
    for (const auto& g : ownGroups()) EXPECT_EQ("THAWED", frztest::groupState(g)) << g;

    pid_t x = spawn();
    EXPECT_EQ(0, daemon().qmedctl(args("freeze", {x})).exitCode);
    EXPECT_TRUE(waitFrozen(x));
}

TEST_F(FreezerIntegration, RestartAfterKillThawsAndRemovesLeftovers) {
    pid_t a = spawn(TestChild::Kind::Busy), b = spawn();
    ASSERT_EQ(0, daemon().qmedctl(args("freeze", {a, b})).exitCode);
    ASSERT_TRUE(waitFrozen(a));
    ASSERT_TRUE(waitFrozen(b));
    std::string ga = groupOf(a), gb = groupOf(b);
    auto before = ownGroups();

    daemon().kill(SIGKILL);
    ASSERT_TRUE(daemon().waitExit(5000));
    // Killing the daemon leaves them frozen in place.
    EXPECT_TRUE(frozen(a));
    EXPECT_TRUE(frozen(b));

    ASSERT_TRUE(daemon().start());
    EXPECT_TRUE(waitRunning(a));
    EXPECT_TRUE(waitRunning(b));
    EXPECT_TRUE(progresses(a));
    auto after = ownGroups();
    EXPECT_EQ(20u, after.size());
    for (const auto& g : before) {
        EXPECT_EQ(after.end(), std::find(after.begin(), after.end(), g)) << g;
    }
    EXPECT_NE(0, access(ga.c_str(), F_OK));
    EXPECT_NE(0, access(gb.c_str(), F_OK));
}

}  // namespace
