#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "limiter/ProcessLimiter.h"
#include "tests/limiter/LimiterTestUtil.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner-inl.h"

using qmedtest::FakeProc;
using qmedtest::TestChild;

namespace {

std::set<int> walk(const android::sp<ProcessLimiter>& pl, int pid, bool children) {
    processFilter f{pid, children};
    processIterator it{nullptr, nullptr};
    std::set<int> out;
    if (pl->initProcessIterator(&it, &f) != 0) return out;
    process p;
    while (pl->getNextProcess(&it, &p) == 0) out.insert(p.pid);
    EXPECT_EQ(nullptr, it.dip);
    EXPECT_EQ(0, pl->closeProcessIterator(&it));
    return out;
}

TEST(LimiterProc, SingleModeYieldsTheProcessOnceOrNothing) {
    android::sp<ProcessLimiter> pl = new ProcessLimiter();
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
    processFilter f{c.pid(), false};
    processIterator it{nullptr, nullptr};
    ASSERT_EQ(0, pl->initProcessIterator(&it, &f));
    process p;
    ASSERT_EQ(0, pl->getNextProcess(&it, &p));
    EXPECT_EQ(c.pid(), p.pid);
    EXPECT_EQ(getpid(), p.ppid);
    EXPECT_EQ(-1, pl->getNextProcess(&it, &p));
    EXPECT_EQ(0, pl->closeProcessIterator(&it));

    int gone = c.pid();
    c.kill();
    EXPECT_TRUE(walk(pl, gone, false).empty());
}

TEST(LimiterProc, ChildrenModeFollowsGrandchildrenButNotOrphans) {
    android::sp<ProcessLimiter> pl = new ProcessLimiter();
    TestChild tree = TestChild::spawnTree(TestChild::Kind::Sleep, 2, 2);
    ASSERT_EQ(7u, tree.pids().size());
    std::set<int> expected(tree.pids().begin(), tree.pids().end());
    EXPECT_EQ(expected, walk(pl, tree.pid(), true));
    EXPECT_EQ(std::set<int>{tree.pid()}, walk(pl, tree.pid(), false));

    // root -> middle -> orphan; middle exits, so the orphan is re-parented away.
    int report[2];
    ASSERT_EQ(0, pipe(report));
    pid_t root = fork();
    if (root == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pid_t middle = fork();
        if (middle == 0) {
            pid_t orphan = fork();
            if (orphan == 0) {
                for (int i = 0; i < 300 && getppid() != 1; i++) usleep(10000);
                for (;;) pause();
            }
            pid_t pair[2] = {getpid(), orphan};
            ssize_t n = write(report[1], pair, sizeof(pair));
            _exit(n == sizeof(pair) ? 0 : 1);
        }
        waitpid(middle, nullptr, 0);
        for (;;) pause();
    }
    close(report[1]);
    pid_t pair[2] = {-1, -1};
    ASSERT_EQ(static_cast<ssize_t>(sizeof(pair)), read(report[0], pair, sizeof(pair)));
    close(report[0]);
    pid_t orphan = pair[1];
    ASSERT_TRUE(qmedtest::waitUntil([&] { return pl->getPpidOf(orphan) != pair[0]; }, 3000));
    std::set<int> seen = walk(pl, root, true);
    EXPECT_EQ(std::set<int>{root}, seen);
    kill(orphan, SIGKILL);
    kill(root, SIGKILL);
    waitpid(root, nullptr, 0);
}

TEST(LimiterProc, WalkSkipsNonNumericEntriesAndReadsAncestryFromTheGivenRoot) {
    FakeProc fp;
    fp.writeStat(100, "owner", 1, 0, 0, 0);
    fp.writeStat(101, "child", 100, 0, 0, 0);
    fp.writeStat(102, "grandchild", 101, 0, 0, 0);
    fp.writeStat(103, "stranger", 1, 0, 0, 0);
    fp.writeStat(104, "loop", 104, 0, 0, 0);  // its own parent: must not hang
    fp.mkdirEntry("self");
    fp.mkdirEntry("net");
    fp.mkdirEntry("12a");
    android::sp<ProcessLimiter> pl = new ProcessLimiter(fp.root());
    EXPECT_EQ((std::set<int>{100, 101, 102}), walk(pl, 100, true));
    EXPECT_EQ((std::set<int>{100, 101, 102, 103, 104}), walk(pl, 0, false));

    android::sp<ProcessLimiter> missing = new ProcessLimiter("/nonexistent-proc");
    processFilter f{0, false};
    processIterator it{nullptr, nullptr};
    EXPECT_EQ(-1, missing->initProcessIterator(&it, &f));
    EXPECT_EQ(-1, missing->getNextProcess(&it, nullptr));
    EXPECT_EQ(0, missing->closeProcessIterator(&it));
}

TEST(LimiterProc, ReadProcessInfoConvertsTicksToMilliseconds) {
    long tps = sysconf(_SC_CLK_TCK);
    FakeProc fp;
    fp.writeStat(300, "worker", 42, 12 * tps, 3 * tps + tps / 2, 77 * tps + 5);
    android::sp<ProcessLimiter> pl = new ProcessLimiter(fp.root());
    process p{};
    ASSERT_EQ(0, pl->readProcessInfo(300, &p));
    EXPECT_EQ(300, p.pid);
    EXPECT_EQ(42, p.ppid);
    EXPECT_EQ(15500, p.cpuTime);
    EXPECT_EQ(77, p.startTime);
    EXPECT_EQ(42, pl->getPpidOf(300));
    EXPECT_EQ(-1, pl->readProcessInfo(301, &p));
    EXPECT_EQ(-1, pl->getPpidOf(301));

    // Truncated and empty stat files: zeros or a failed read, never a crash.
    fp.writeRaw(302, "stat", "302 (x)");
    ASSERT_EQ(0, pl->readProcessInfo(302, &p));
    EXPECT_EQ(0, p.ppid);
    EXPECT_EQ(0, p.cpuTime);
    fp.writeRaw(303, "stat", "");
    EXPECT_EQ(-1, pl->readProcessInfo(303, &p));

    // A real busy child: the reading matches the kernel's own tick count.
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy);
    android::sp<ProcessLimiter> real = new ProcessLimiter();
    usleep(100000);
    kill(busy.pid(), SIGSTOP);
    ASSERT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procState(busy.pid()) == 'T'; }, 2000));
    ASSERT_EQ(0, real->readProcessInfo(busy.pid(), &p));
    EXPECT_EQ(getpid(), p.ppid);
    EXPECT_EQ(qmedtest::procCpuTicks(busy.pid()) * 1000 / tps, p.cpuTime);
    EXPECT_GT(p.cpuTime, 0);
}

TEST(LimiterProc, NameWithBlankShiftsFieldsAsRead) {
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep, "my app");
    android::sp<ProcessLimiter> pl = new ProcessLimiter();
    process p{};
    ASSERT_EQ(0, pl->readProcessInfo(c.pid(), &p));
    EXPECT_EQ(0, p.ppid);  // the 4th token is the state letter
    char name[PACKAGE_NAME_SIZE] = {};
    ASSERT_EQ(0, pl->getProcName(c.pid(), name));
    EXPECT_STREQ("my", name);

    TestChild plain = TestChild::spawn(TestChild::Kind::Sleep, "plain)name");
    ASSERT_EQ(0, pl->getProcName(plain.pid(), name));
    EXPECT_STREQ("plain)name", name);  // cut at the last ')'
    EXPECT_EQ(-1, pl->getProcName(999999, name));

    FakeProc fp;
    fp.writeStat(7, std::string(300, 'n'), 1, 0, 0, 0);
    android::sp<ProcessLimiter> fake = new ProcessLimiter(fp.root());
    char bounded[PACKAGE_NAME_SIZE + 8];
    memset(bounded, 'x', sizeof(bounded));
    ASSERT_EQ(0, fake->getProcName(7, bounded));
    EXPECT_EQ(static_cast<size_t>(PACKAGE_NAME_SIZE - 1), strlen(bounded));
    EXPECT_EQ('x', bounded[PACKAGE_NAME_SIZE]);
}

TEST(LimiterProc, TgidCheckTellsLeadersFromThreads) {
    qmed::host::LogCapture log;
    android::sp<ProcessLimiter> pl = new ProcessLimiter();
    EXPECT_TRUE(pl->isPidEqualTgid(getpid()));

    std::atomic<int> tid{0};
    std::atomic<bool> done{false};
    std::thread t([&] {
        tid = static_cast<int>(syscall(SYS_gettid));
        while (!done) usleep(1000);
    });
    while (tid == 0) usleep(1000);
    EXPECT_FALSE(pl->isPidEqualTgid(tid));
    done = true;
    t.join();
    EXPECT_TRUE(log.contains("pid:" + std::to_string(tid.load()) +
                             " not equal tgid:" + std::to_string(getpid()) + "!"));

    EXPECT_FALSE(pl->isPidEqualTgid(999999));
    EXPECT_TRUE(log.contains("getTgid err, pid: 999999 because No such file or directory"));

    FakeProc fp;
    fp.writeRaw(5, "status", "Name:\tx\nTgid:\n");  // too short to count
    android::sp<ProcessLimiter> fake = new ProcessLimiter(fp.root());
    EXPECT_FALSE(fake->isPidEqualTgid(5));
    EXPECT_TRUE(log.contains("pid:5 not equal tgid:-1!"));
}

}  // namespace
