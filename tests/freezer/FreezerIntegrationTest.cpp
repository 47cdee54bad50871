// ykqmed freezing real children at /dev/frz under qmed-ns, driven by qmedctl and kmodsim.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <set>

#include "tests/support/DaemonHarness.h"
#include "tests/support/FrzGroups.h"
#include "tools/kmodsim/KmodsimControl.h"

using namespace qmedtest;

namespace {

const std::string kFrz = "/dev/frz";

class FreezerIntegration : public ::testing::Test {
  protected:
    void SetUp() override {
        for (int i = 0; i < 50; i++)  // 49 asleep, the last one busy
            p.push_back(mKids.emplace_back(TestChild::spawn(TestChild::Kind(i < 49))).pid());
        mDaemon.options().simulator = true;
        mDaemon.options().properties.emplace_back("persist.sys.qmed.debug", "true");
        umask(022);  // groups must be 0774 whatever the daemon inherits
        ASSERT_TRUE(mDaemon.start()) << mDaemon.log();
        ASSERT_EQ(0, mDaemon.kmodsim({"wait-identified", "5000"}).exitCode);
        struct stat st;
        ASSERT_EQ(20u, frzGroups(kFrz).size());
        EXPECT_TRUE(stat(frzGroups(kFrz)[0].c_str(), &st) == 0 && (st.st_mode & 07777) == 0774);
    }
    void TearDown() override {  // nothing may stay frozen for the children's reaping
        for (const auto& g : frzGroups(kFrz)) removeGroupTree(g);
    }
    int run(const char* cmd, const std::vector<pid_t>& pids) {
        std::vector<std::string> args{cmd};
        for (pid_t p : pids) args.push_back(std::to_string(p));
        return mDaemon.qmedctl(args).exitCode;
    }
    bool event(const std::string& line, const std::string& log) {
        return kmodsim::Control(mDaemon.simulatorCtl()).ok("event " + line) &&
               mDaemon.waitForLog(log);
    }

    std::vector<TestChild> mKids;
    std::vector<pid_t> p;  // mKids' pids
    Daemon mDaemon;
};

TEST_F(FreezerIntegration, BinderCallGuardAndThawOnEvents) {
    const std::string a = std::to_string(p[0]), target = std::to_string(p[1]),
                      call = "binder-call " + target + " " + std::to_string(p[2]);
    ASSERT_TRUE(event(call, "called pid :" + target));
    EXPECT_NE(0, run("freeze-check", {p[0], p[1]}));
    EXPECT_EQ(0, run("freeze", {p[0], p[1], p[2]}));  // the caller inside the batch does not count
    // One-way calls (caller -1) and the low-memory killer's signal 0 thaw; others do not.
    const struct {
        std::string event, log;
        int pid, thaws;
    } rows[] = {
            {"binder-call " + a + " 4242", "recordBinderCallTime called pid :" + a, p[0], 0},
            {"binder-call " + a + " -1", "-1 async call " + a + ", thawed in zoqmed", p[0], 1},
            {"kill " + target + " 9", "[PID " + target + " KILLED][SIG 9]", p[1], 0},
            {"kill " + target + " 0", "pid " + target + "   be killed by lowmemkiller, thawed",
             p[1], 1},
    };
    for (const auto& r : rows) {
        EXPECT_TRUE(waitFrozen(kFrz, r.pid) && event(r.event, r.log)) << r.event;
        EXPECT_TRUE(waitFrozen(kFrz, r.pid, !r.thaws)) << r.event;
    }
    // A call 2001 ms old no longer counts.
    ASSERT_TRUE(event(call, "called pid :" + target));
    usleep(2050 * 1000);
    EXPECT_EQ(0, run("freeze", {p[0], p[1]}));
}

TEST_F(FreezerIntegration, ClientDeathThawsAllThenDaemonDeathLeavesNothingFrozen) {
    BackgroundTool listener("qmedctl", {"listen", "1"}, mDaemon.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening")) << listener.output();
    pid_t busy = p.back();
    ASSERT_EQ(0, run("freeze", p));
    for (pid_t pid : p) ASSERT_TRUE(waitFrozen(kFrz, pid)) << pid;
    EXPECT_EQ(50u, frzGroups(kFrz).size());  // one each: the pool grew
    EXPECT_FALSE(progresses(busy, 200));
    // Each freeze sends the module the waiting-binder command once: after the 16-byte netlink
    // header, TLV tag 5, src 4, dst 4, len 66, cmd 6, the pid's low byte and its decimal text
    // zero-filled to 64 bytes; the datagram is padded to 4 bytes.
    std::multiset<std::string> sent;
    for (const auto& m : kmodsim::Control(mDaemon.simulatorCtl()).received())
        if (m.size() >= 98 && m.size() <= 101) sent.emplace(m.begin() + 16, m.begin() + 98);
    for (pid_t pid : p) {
        std::string want = std::string("\5\0\0\0\4\0\0\0\4\0\0\0\102\0\0\0\6", 17) + char(pid) +
                           std::to_string(pid);
        want.resize(82, '\0');
        EXPECT_EQ(1u, sent.count(want)) << pid;
    }
    listener.kill(SIGKILL);
    for (pid_t pid : p) EXPECT_TRUE(waitFrozen(kFrz, pid, false)) << pid;
    for (const auto& g : frzGroups(kFrz)) EXPECT_FALSE(groupFrozen(g)) << g;
    EXPECT_TRUE(progresses(busy));

    // The daemon goes on serving; killed, it leaves its groups frozen until the next start.
    ASSERT_EQ(0, run("freeze", {busy}));
    ASSERT_TRUE(waitFrozen(kFrz, busy));
    mDaemon.kill(SIGKILL);
    ASSERT_TRUE(mDaemon.waitExit(5000));
    ASSERT_TRUE(mDaemon.start());
    EXPECT_TRUE(waitFrozen(kFrz, busy, false) && progresses(busy));
    EXPECT_EQ(20u, frzGroups(kFrz).size());
}

// Runs last: it takes the freezer away from the whole namespace. Initialisation fails, every
// freeze is refused, no group appears on the bare mount point, and the daemon goes on serving.
TEST(FreezerUnmountedIntegration, EveryFreezeFailsAndTheDaemonGoesOnServing) {
    ASSERT_EQ(0, umount2(kFrz.c_str(), MNT_DETACH));
    DaemonOptions opts;
    opts.simulator = true;
    Daemon daemon(opts);
    ASSERT_TRUE(daemon.start()) << daemon.log();
    EXPECT_TRUE(daemon.waitForLog("Init Freezer Error!!!") && frzGroups(kFrz).empty());
    std::string pid = std::to_string(TestChild::spawn(TestChild::Kind::Sleep).pid());
    for (std::string cmd : {"freeze", "freeze-check", "thaw"})
        EXPECT_NE(0, daemon.qmedctl({cmd, pid}).exitCode) << cmd;
    EXPECT_NE(0, daemon.qmedctl({"thaw-all"}).exitCode);
    EXPECT_TRUE(waitUntil([&] { return daemon.countLog("Init freezer failed") == 4; }, 5000));
    EXPECT_EQ(0, daemon.qmedctl({"utime", std::to_string(getpid())}).exitCode);
}

}  // namespace
