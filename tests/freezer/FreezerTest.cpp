#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "host/LogCapture.h"
#include "tests/freezer/FrzTestRoot.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::Mutex;
using android::sp;
using android::String8;
using frztest::FrzTestRoot;
using frztest::groupPids;
using qmed::host::LogCapture;
using qmedtest::TestChild;

namespace {

std::string fmt(const char* f, long long a, long long b = 0, long long c = 0, long long d = 0) {
    char buf[256];
    snprintf(buf, sizeof(buf), f, a, b, c, d);
    return buf;
}

std::atomic<int64_t> gNow{1000000};
int64_t fakeClock() {
    return gNow.load();
}

// A child process with a second thread; reports that thread's id.
struct ThreadedChild {
    pid_t pid = -1;
    pid_t tid = -1;
    ThreadedChild() {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid = fork();
        if (pid == 0) {
            close(fds[0]);
            pthread_t t;
            int wfd = fds[1];
            pthread_create(
                    &t, nullptr,
                    [](void* arg) -> void* {
                        pid_t me = (pid_t)syscall(SYS_gettid);
                        ssize_t n = write((int)(intptr_t)arg, &me, sizeof(me));
                        (void)n;
                        for (;;) pause();
                    },
                    (void*)(intptr_t)wfd);
            for (;;) pause();
        }
        close(fds[1]);
        if (read(fds[0], &tid, sizeof(tid)) != sizeof(tid)) tid = -1;
        close(fds[0]);
    }
    ~ThreadedChild() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

class FreezerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(mRoot.ok()) << "no writable cgroup-v1 freezer hierarchy";
        gNow = 1000000;
        mFreezer = new Freezer(String8(mRoot.path().c_str()), fakeClock);
        ASSERT_TRUE(mFreezer->isFrzInited());
    }
    pid_t spawn(TestChild::Kind kind = TestChild::Kind::Sleep) {
        mChildren.push_back(TestChild::spawn(kind));
        return mChildren.back().pid();
    }
    int run(int cmd, std::vector<int> pids) {
        return mFreezer->freezeProcess(cmd, pids.data(), (int)pids.size());
    }
    std::string groupOf(pid_t pid) {
        String8 name = mFreezer->groupNameOf(pid);
        return name.isEmpty() ? "" : mRoot.group(name.c_str());
    }
    bool inRoot(pid_t pid) {
        auto pids = groupPids(mRoot.path());
        return std::find(pids.begin(), pids.end(), pid) != pids.end();
    }
    // The kernel passes through FREEZING; a task shows state D once it is frozen.
    bool becomesFrozen(pid_t pid) {
        return qmedtest::waitUntil([&] { return qmedtest::procState(pid) == 'D'; }, 3000);
    }
    bool frozenStill(pid_t pid) {
        if (!becomesFrozen(pid)) return false;
        long before = qmedtest::procUtime(pid);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return qmedtest::procState(pid) == 'D' && qmedtest::procUtime(pid) == before;
    }
    bool progresses(pid_t pid) {
        long before = qmedtest::procUtime(pid);
        return qmedtest::waitUntil([&] { return qmedtest::procUtime(pid) > before; }, 5000);
    }

    std::vector<TestChild> mChildren;  // reaped after the freezer and the root have thawed them
    FrzTestRoot mRoot;
    sp<Freezer> mFreezer;
};

TEST_F(FreezerTest, FreezesBatchEachInOwnGroupAndThawResumes) {
    pid_t a = spawn(TestChild::Kind::Busy), b = spawn(TestChild::Kind::Busy),
          c = spawn(TestChild::Kind::Busy);
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, b, c, -1}));
    std::set<std::string> groups;
    for (pid_t p : {a, b, c}) {
        std::string g = groupOf(p);
        ASSERT_FALSE(g.empty());
        groups.insert(g);
        EXPECT_TRUE(mFreezer->isFreezed(p));
        EXPECT_EQ(std::vector<pid_t>{p}, groupPids(g));
        EXPECT_TRUE(frztest::waitGroupState(g, "FROZEN")) << frztest::groupState(g);
    }
    EXPECT_EQ(3u, groups.size());
    for (pid_t p : {a, b, c}) EXPECT_TRUE(frozenStill(p)) << p;
    EXPECT_EQ(17u, mFreezer->getGroupPool()->freeCount());

    // Thaw takes a list without the terminator.
    std::string gb = groupOf(b);
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_THAW, {b}));
    EXPECT_FALSE(mFreezer->isFreezed(b));
    EXPECT_TRUE(inRoot(b));
    EXPECT_EQ("THAWED", frztest::groupState(gb));
    EXPECT_TRUE(progresses(b));
    EXPECT_TRUE(frozenStill(a));
    EXPECT_EQ(18u, mFreezer->getGroupPool()->freeCount());

    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_THAW_ALL, {12345}));
    EXPECT_EQ(0u, mFreezer->frozenCount());
    for (pid_t p : {a, c}) {
        EXPECT_TRUE(inRoot(p));
        EXPECT_TRUE(progresses(p)) << p;
    }
    EXPECT_EQ(20u, mFreezer->getGroupPool()->freeCount());
    EXPECT_EQ(20u, mRoot.groups().size());
}

TEST_F(FreezerTest, FreezeListMustEndWithTerminatorAndStopsAtFirst) {
    pid_t a = spawn(), b = spawn();
    LogCapture log;
    EXPECT_EQ(-1, run(Freezer::FREEZE_CMD_FREEZE, {a}));
    EXPECT_EQ(1u, log.count("W/Qmed-Freezer: Params is invalid"));
    EXPECT_EQ(-1, run(Freezer::FREEZE_CMD_FREEZE_CHECK_BINDER, {a, b}));
    EXPECT_EQ(0u, mFreezer->frozenCount());
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, -1, b, -1}));
    EXPECT_TRUE(mFreezer->isFreezed(a));
    EXPECT_FALSE(mFreezer->isFreezed(b));
    EXPECT_TRUE(becomesFrozen(a));
}

TEST_F(FreezerTest, RejectsBadArgumentsAndUnknownCommands) {
    pid_t a = spawn();
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, -1}));
    std::vector<int> one{a};
    LogCapture log;
    EXPECT_EQ(-1, mFreezer->freezeProcess(Freezer::FREEZE_CMD_THAW_ALL, nullptr, 1));
    EXPECT_EQ(1u, log.count("E/Qmed-Freezer: Params format is not correct"));
    EXPECT_EQ(-1, mFreezer->freezeProcess(Freezer::FREEZE_CMD_THAW_ALL, one.data(), 0));
    EXPECT_EQ(-1, mFreezer->freezeProcess(Freezer::FREEZE_CMD_THAW, one.data(), -1));
    EXPECT_EQ(-1, run(9, {a, -1}));
    EXPECT_EQ(-1, run(0, {a, -1}));
    EXPECT_TRUE(mFreezer->isFreezed(a));
    EXPECT_TRUE(becomesFrozen(a));
}

TEST_F(FreezerTest, ThreadIdIsNotFrozenAndItsGroupIsFreeAgain) {
    ThreadedChild child;
    ASSERT_GT(child.tid, 0);
    ASSERT_NE(child.pid, child.tid);
    EXPECT_EQ(child.pid, Freezer::getTgid(child.tid));
    EXPECT_EQ(child.pid, Freezer::getTgid(child.pid));
    EXPECT_EQ(-1, Freezer::getTgid(-1));
    // The batch as a whole still succeeds.
    LogCapture log;
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {child.tid, -1}));
    EXPECT_TRUE(log.contains(fmt("W/Qmed-Freezer: freezePid not frz tid: %lld", child.tid)));
    EXPECT_FALSE(mFreezer->isFreezed(child.tid));
    EXPECT_FALSE(mFreezer->isFreezed(child.pid));
    EXPECT_EQ(20u, mFreezer->getGroupPool()->freeCount());
    EXPECT_TRUE(inRoot(child.pid));
    EXPECT_NE('D', qmedtest::procState(child.pid));
}

TEST_F(FreezerTest, OwnPidIsSkippedInBatchAndRefusedAlone) {
    pid_t a = spawn();
    LogCapture log;
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {getpid(), a, -1}));
    EXPECT_TRUE(log.contains(fmt("W/Qmed-Freezer: freezePids not frz myself: %lld", getpid())));
    EXPECT_FALSE(mFreezer->isFreezed(getpid()));
    EXPECT_TRUE(mFreezer->isFreezed(a));
    {
        Mutex::Autolock lock(mFreezer->lockForTest());
        EXPECT_FALSE(mFreezer->freezePid(getpid(), false));
        EXPECT_TRUE(log.contains(fmt("W/Qmed-Freezer: freezePid not frz my tid: %lld", getpid())));
        // Thawing our own pid is skipped as well.
        int self[] = {getpid()};
        EXPECT_TRUE(mFreezer->thawPids(self, 1));
    }
    EXPECT_FALSE(mFreezer->isFreezed(getpid()));
    EXPECT_EQ(19u, mFreezer->getGroupPool()->freeCount());
}

TEST_F(FreezerTest, AlreadyFrozenPidKeepsItsGroup) {
    pid_t a = spawn();
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, -1}));
    std::string g = groupOf(a);
    LogCapture log;
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, a, -1}));
    EXPECT_EQ(2u, log.count(fmt("I/Qmed-Freezer: freezePid, already frzd pid: %lld", a)));
    EXPECT_EQ(g, groupOf(a));
    EXPECT_EQ(1u, mFreezer->frozenCount());
    EXPECT_EQ(19u, mFreezer->getGroupPool()->freeCount());
}

TEST_F(FreezerTest, ThawOfUnknownOrNegativePidSucceeds) {
    LogCapture log;
    Mutex::Autolock lock(mFreezer->lockForTest());
    EXPECT_TRUE(mFreezer->thawPid(-5));
    EXPECT_TRUE(log.contains("W/Qmed-Freezer: Invalid pid -5"));
    EXPECT_TRUE(mFreezer->thawPid(0));
    EXPECT_TRUE(mFreezer->thawPid(424242));
    EXPECT_TRUE(log.contains("I/Qmed-Freezer: Pid 424242 is not exist in vector"));
    EXPECT_FALSE(mFreezer->freezePid(0, false));
    EXPECT_FALSE(mFreezer->freezePid(-3, false));
    EXPECT_FALSE(mFreezer->thawPids(nullptr, 1));
}

TEST_F(FreezerTest, VanishedPidStaysHeldUntilThawed) {
    pid_t gone;
    {
        TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
        gone = c.pid();
    }
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {gone, -1}));
    EXPECT_TRUE(mFreezer->isFreezed(gone));
    EXPECT_EQ(19u, mFreezer->getGroupPool()->freeCount());
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_THAW, {gone}));
    EXPECT_FALSE(mFreezer->isFreezed(gone));
    EXPECT_EQ(20u, mFreezer->getGroupPool()->freeCount());
}

TEST_F(FreezerTest, BinderCallFromOutsideWithin2000msRefusesWholeBatch) {
    pid_t a = spawn(), b = spawn();
    const int outsider = 777777;
    mFreezer->recordBinderCallTime(outsider, b);

    gNow += 1999;
    LogCapture log;
    EXPECT_EQ(-1, run(Freezer::FREEZE_CMD_FREEZE, {a, b, -1}));
    EXPECT_TRUE(log.contains(
            fmt("I/Qmed-Freezer: freezePids pid %lld binder called %lld ms ago by %lld, ignor it:0",
                b, 1999, outsider)));
    gNow += 1;  // exactly 2000 ms: still recent
    EXPECT_EQ(-1, run(Freezer::FREEZE_CMD_FREEZE_CHECK_BINDER, {a, b, -1}));
    EXPECT_EQ(0u, mFreezer->frozenCount());
    EXPECT_NE('D', qmedtest::procState(a));

    gNow += 1;  // 2001 ms
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, b, -1}));
    EXPECT_TRUE(mFreezer->isFreezed(a));
    EXPECT_TRUE(mFreezer->isFreezed(b));
}

TEST_F(FreezerTest, BinderCallFromInsideBatchOrOneWayDoesNotRefuse) {
    pid_t a = spawn(), b = spawn(), c = spawn();
    mFreezer->recordBinderCallTime(a, b);
    LogCapture log;
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, b, -1}));
    EXPECT_TRUE(log.contains(
            fmt("freezePids pid %lld binder called 0 ms ago by %lld, ignor it:1", b, a)));
    EXPECT_TRUE(mFreezer->isFreezed(b));
    // A one-way call's caller is -1, which matches the list's own terminator.
    mFreezer->recordBinderCallTime(-1, c);
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {c, -1}));
    EXPECT_TRUE(mFreezer->isFreezed(c));
}

TEST_F(FreezerTest, CallRecordedInTheFutureCountsAsRecent) {
    pid_t a = spawn();
    mFreezer->recordBinderCallTime(555555, a);
    gNow -= 5000;
    EXPECT_EQ(-1, run(Freezer::FREEZE_CMD_FREEZE, {a, -1}));
    gNow += 7001;
    EXPECT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, -1}));
}

TEST_F(FreezerTest, BinderCallsKeptInTwoBuffersOf31) {
    const int base = 100000;
    auto info = [&](int pid) -> const BinderCallInfo* {
        Mutex::Autolock lock(mFreezer->lockForTest());
        return mFreezer->getLastBinderCallInfo(pid);
    };
    for (int i = 0; i < 30; i++) {
        gNow += 1;
        mFreezer->recordBinderCallTime(1, base + i);
    }
    // Recording again into a buffer that is not full replaces, it does not grow it.
    int64_t t = ++gNow;
    mFreezer->recordBinderCallTime(2, base + 5);
    const BinderCallInfo* i5 = info(base + 5);
    ASSERT_NE(nullptr, i5);
    EXPECT_EQ(t, i5->time);
    EXPECT_EQ(2, i5->callingPid);
    EXPECT_EQ(0, i5->reserved);
    mFreezer->recordBinderCallTime(1, base + 30);
    // The 32nd distinct pid opens the second buffer; the first 31 are still found.
    mFreezer->recordBinderCallTime(3, base + 31);
    for (int i = 0; i <= 31; i++) EXPECT_NE(nullptr, info(base + i)) << i;
    // A newer record in the current buffer wins over the older one.
    t = ++gNow;
    mFreezer->recordBinderCallTime(4, base + 7);
    ASSERT_NE(nullptr, info(base + 7));
    EXPECT_EQ(4, info(base + 7)->callingPid);
    EXPECT_EQ(t, info(base + 7)->time);
    // Fill the second buffer to 31 (base+31, base+7 and 29 more), then switch back.
    for (int i = 0; i < 29; i++) mFreezer->recordBinderCallTime(5, base + 1000 + i);
    EXPECT_NE(nullptr, info(base + 0));
    mFreezer->recordBinderCallTime(6, base + 2000);
    EXPECT_EQ(nullptr, info(base + 0));
    EXPECT_EQ(nullptr, info(base + 30));
    EXPECT_NE(nullptr, info(base + 7));
    EXPECT_NE(nullptr, info(base + 31));
    EXPECT_NE(nullptr, info(base + 1028));
    EXPECT_NE(nullptr, info(base + 2000));
    EXPECT_EQ(nullptr, info(base + 5));
}

TEST_F(FreezerTest, ForcedThawAllProceedsWhileAnotherThreadHoldsTheLock) {
    std::vector<int> pids;
    for (int i = 0; i < 5; i++) pids.push_back(spawn());
    pids.push_back(-1);
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, pids));
    pids.pop_back();

    std::atomic<bool> held{false}, release{false};
    std::thread holder([&] {
        Mutex::Autolock lock(mFreezer->lockForTest());
        held = true;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    while (!held) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(mFreezer->thawAll(true));
    bool allThawed = true;
    for (int p : pids) allThawed = allThawed && inRoot(p);
    release = true;
    holder.join();
    EXPECT_TRUE(allThawed);
    for (int p : pids) {
        EXPECT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procState(p) == 'S'; }, 3000));
    }
    EXPECT_EQ(0u, mFreezer->frozenCount());
    EXPECT_EQ(20u, mFreezer->getGroupPool()->freeCount());
}

TEST_F(FreezerTest, FiftyFrozenAreAllThawed) {
    std::vector<int> pids;
    for (int i = 0; i < 50; i++) pids.push_back(spawn());
    pids.push_back(-1);
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, pids));
    pids.pop_back();
    ASSERT_EQ(50u, mFreezer->frozenCount());
    EXPECT_EQ(50u, mRoot.groups().size());
    EXPECT_EQ(0u, mFreezer->getGroupPool()->freeCount());
    for (int p : pids) EXPECT_TRUE(frztest::waitGroupState(groupOf(p), "FROZEN")) << p;

    EXPECT_TRUE(mFreezer->thawAll(true));
    EXPECT_EQ(0u, mFreezer->frozenCount());
    EXPECT_EQ(50u, mFreezer->getGroupPool()->freeCount());
    for (const auto& g : mRoot.groups()) {
        EXPECT_EQ("THAWED", frztest::groupState(mRoot.group(g)));
        EXPECT_TRUE(groupPids(mRoot.group(g)).empty());
    }
    for (int p : pids) EXPECT_TRUE(inRoot(p)) << p;
}

TEST_F(FreezerTest, UninitRemovesEveryGroupAndThawsWhatItHeld) {
    pid_t a = spawn(TestChild::Kind::Busy);
    ASSERT_EQ(0, run(Freezer::FREEZE_CMD_FREEZE, {a, -1}));
    ASSERT_TRUE(frztest::waitGroupState(groupOf(a), "FROZEN"));
    mFreezer->uninitFrz();
    EXPECT_FALSE(mFreezer->isFrzInited());
    EXPECT_TRUE(mRoot.groups().empty());
    EXPECT_TRUE(progresses(a));
    // Uninitialised: every entry point refuses or does nothing.
    EXPECT_EQ(-1, run(Freezer::FREEZE_CMD_FREEZE, {a, -1}));
    EXPECT_FALSE(mFreezer->isFreezed(a));
    mFreezer->recordBinderCallTime(1, a);
    Mutex::Autolock lock(mFreezer->lockForTest());
    EXPECT_EQ(nullptr, mFreezer->getLastBinderCallInfo(a));
}

// The mount flag is process-wide and never reset: the body runs in a fresh process of this
// binary (through the emulator prefix when there is one).
TEST(FreezerUnmounted, InitFailsAndEveryFreezeReturnsMinusOne) {
    if (getenv("QMED_FRZ_FRESH_PROCESS") == nullptr) {
        qmedtest::RunOptions o;
        o.env["QMED_FRZ_FRESH_PROCESS"] = "1";
        auto r = qmedtest::runTool("freezer_test", {"--gtest_filter=FreezerUnmounted.*"}, o);
        EXPECT_EQ(0, r.exitCode) << r.out << r.err;
        EXPECT_NE(std::string::npos, r.out.find("[  PASSED  ] 1 test.")) << r.out;
        return;
    }
    char tmpl[] = "/tmp/qmedfrz.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    TestChild victim = TestChild::spawn(TestChild::Kind::Sleep);
    LogCapture log;
    sp<Freezer> f = new Freezer(String8(tmpl));
    EXPECT_FALSE(f->isFrzInited());
    int list[] = {victim.pid(), -1};
    for (int cmd = 1; cmd <= 4; cmd++) EXPECT_EQ(-1, f->freezeProcess(cmd, list, 2)) << cmd;
    EXPECT_FALSE(f->isFreezed(victim.pid()));
    EXPECT_TRUE(f->thawAll(true));
    EXPECT_EQ(0, rmdir(tmpl)) << "something was created";
    EXPECT_NE('D', qmedtest::procState(victim.pid()));
    EXPECT_EQ(4u, log.count("E/Qmed-Freezer: Init freezer failed"));
    for (const char* line :
         {"W/Qmed-CGroup: freezer group is not mounted", "E/Qmed-GroupPool: Create cgroup fail",
          "E/Qmed-GroupPool: Create pool failed", "E/Qmed-Freezer: create grouppool fail"}) {
        EXPECT_TRUE(log.contains(line)) << line;
    }
}

}  // namespace
