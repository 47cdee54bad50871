// The real ykqmed freezing real children at /dev/frz, driven through qmedctl and the kernel-module
// simulator. Runs through qmed-ns.

#include <gtest/gtest.h>
#include <signal.h>

#include <set>
#include <thread>

#include "tests/support/DaemonHarness.h"
#include "tests/support/FrzGroups.h"
#include "tests/support/TestChild.h"
#include "tools/kmodsim/KmodsimControl.h"

using namespace qmedtest;

namespace {

const std::string kFrz = "/dev/frz";

class FreezerIntegration : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, access((kFrz + "/cgroup.procs").c_str(), F_OK)) << "run through qmed-ns";
        mDaemon.options().simulator = true;
        mDaemon.options().properties.emplace_back("persist.sys.qmed.debug", "true");
        ASSERT_TRUE(mDaemon.start()) << mDaemon.log();
        ASSERT_EQ(0, mDaemon.kmodsim({"wait-identified", "5000"}).exitCode);
        EXPECT_EQ(20u, frzGroups(kFrz, "Group_").size());
    }
    void TearDown() override {
        mDaemon.qmedctl({"thaw-all"});  // nothing may stay frozen for the children's reaping
        for (const auto& g : frzGroups(kFrz)) removeGroupTree(g);
    }
    std::vector<pid_t> spawn(int n, TestChild::Kind kind = TestChild::Kind::Sleep) {
        std::vector<pid_t> pids;
        while (n-- > 0) mKids.push_back(TestChild::spawn(kind)), pids.push_back(mKids.back().pid());
        return pids;
    }
    int run(const char* cmd, const std::vector<pid_t>& pids) {
        std::vector<std::string> args{cmd};
        for (pid_t p : pids) args.push_back(std::to_string(p));
        return mDaemon.qmedctl(args).exitCode;
    }
    bool event(const std::string& line, const std::string& log = "") {
        return kmodsim::Control(mDaemon.simulatorCtl()).ok("event " + line) &&
               (log.empty() || mDaemon.waitForLog(log));
    }

    std::vector<TestChild> mKids;
    Daemon mDaemon;
};

TEST_F(FreezerIntegration, BinderCallGuardAndThawOnEvents) {
    auto p = spawn(3);
    const std::string a = std::to_string(p[0]), target = std::to_string(p[1]),
                      outsider = std::to_string(p[2]),
                      call = "binder-call " + target + " " + outsider;
    ASSERT_TRUE(event(call, "called pid :" + target));
    EXPECT_NE(0, run("freeze-check", {p[0], p[1]}));
    EXPECT_TRUE(mDaemon.waitForLog(" ms ago by " + outsider + ", ignor it:0"));
    EXPECT_EQ("", frzGroupOf(kFrz, p[0]));
    EXPECT_EQ(0, run("freeze", p));  // the caller inside the batch does not count
    // One-way calls (caller -1) and the low-memory killer's signal 0 thaw; others do not.
    const struct {
        std::string event, log;
        pid_t pid;
        bool thaws;
    } rows[] = {
            {"binder-call " + a + " 4242", "recordBinderCallTime called pid :" + a, p[0], false},
            {"binder-call " + a + " -1", "-1 async call " + a + ", thawed in zoqmed", p[0], true},
            {"kill " + target + " 9", "[PID " + target + " KILLED][SIG 9]", p[1], false},
            {"kill " + target + " 0", "pid " + target + "   be killed by lowmemkiller, thawed",
             p[1], true},
    };
    for (const auto& r : rows) {
        EXPECT_TRUE(waitFrozen(kFrz, r.pid) && event(r.event, r.log)) << r.event;
        EXPECT_TRUE(r.thaws ? waitThawed(kFrz, r.pid) : waitFrozen(kFrz, r.pid)) << r.event;
    }
    // A call 2001 ms old no longer counts.
    ASSERT_TRUE(event(call, "called pid :" + target));
    std::this_thread::sleep_for(std::chrono::milliseconds(2050));
    EXPECT_EQ(0, run("freeze", {p[0], p[1]}));
}

TEST_F(FreezerIntegration, ClientDeathThawsAllThenDaemonDeathLeavesNothingFrozen) {
    BackgroundTool listener("qmedctl", {"listen", "1"}, mDaemon.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening")) << listener.output();
    auto p = spawn(49);
    pid_t busy = spawn(1, TestChild::Kind::Busy)[0];
    p.push_back(busy);
    ASSERT_EQ(0, run("freeze", p));
    for (pid_t pid : p) ASSERT_TRUE(waitFrozen(kFrz, pid)) << pid;
    EXPECT_EQ(50u, frzGroups(kFrz, "Group_").size());  // one each: the pool grew
    EXPECT_FALSE(progresses(busy, 200));
    // Each freeze sends the module the waiting-binder command once: after the 16-byte netlink
    // header, TLV tag 5, src 4, dst 4, len 66, cmd 6, the pid's low byte and its decimal text
    // zero-filled to 64 bytes; the datagram is padded to 4 bytes.
    std::multiset<std::string> sent;
    for (const auto& m : kmodsim::Control(mDaemon.simulatorCtl()).received()) {
        if (m.size() >= 98 && m.size() <= 101) sent.emplace(m.begin() + 16, m.begin() + 98);
    }
    for (pid_t pid : p) {
        std::string want = std::string("\5\0\0\0\4\0\0\0\4\0\0\0\102\0\0\0\6", 17) + char(pid) +
                           std::to_string(pid);
        want.resize(82, '\0');
        EXPECT_EQ(1u, sent.count(want)) << pid;
    }
    listener.kill(SIGKILL);
    EXPECT_TRUE(mDaemon.waitForLog("Binder client died !!! do fixing"));
    for (pid_t pid : p) EXPECT_TRUE(waitThawed(kFrz, pid)) << pid;
    for (const auto& g : frzGroups(kFrz)) EXPECT_FALSE(groupFrozen(g)) << g;
    EXPECT_TRUE(progresses(busy));

    // The daemon goes on serving; killed, it leaves its groups frozen until the next start.
    ASSERT_EQ(0, run("freeze", {busy}));
    ASSERT_TRUE(waitFrozen(kFrz, busy));
    auto before = frzGroups(kFrz);
    mDaemon.kill(SIGKILL);
    ASSERT_TRUE(mDaemon.waitExit(5000));
    EXPECT_TRUE(waitFrozen(kFrz, busy, 200) && !progresses(busy, 200));
    ASSERT_TRUE(mDaemon.start());
    EXPECT_TRUE(waitThawed(kFrz, busy) && progresses(busy));
    EXPECT_EQ(20u, frzGroups(kFrz).size());
    for (const auto& g : before) EXPECT_NE(0, access(g.c_str(), F_OK)) << g;
}

}  // namespace
