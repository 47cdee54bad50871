#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/limiter/DrivenLimiter.h"
#include "tests/limiter/LimiterTestUtil.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner-inl.h"

using android::sp;
using qmedtest::DrivenLimiter;
using qmedtest::FakeProc;
using qmedtest::TestChild;

namespace {

process* member(processGroup* g, int pid) {
    for (listNode* n = g->procList->first; n != nullptr; n = n->next) {
        process* p = static_cast<process*>(n->data);
        if (p->pid == pid) return p;
    }
    return nullptr;
}

processGroup* newGroup() {
    return static_cast<processGroup*>(calloc(1, sizeof(processGroup)));
}

class ProcessGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        tps = sysconf(_SC_CLK_TCK);
        fp.writeStat(100, "owner", 1, 0, 0, 0);
        fp.writeStat(101, "child", 100, 0, 0, 0);
        fp.writeStat(102, "grandchild", 101, 0, 0, 0);
        pl = new DrivenLimiter(fp.root());
    }
    // CPU time in milliseconds given as ticks so the reader's conversion is exact.
    void setCpuMs(int pid, int ppid, long ms) {
        fp.writeStat(pid, "p" + std::to_string(pid), ppid, ms * tps / 1000, 0, 0);
    }

    long tps;
    FakeProc fp;
    sp<DrivenLimiter> pl;
};

TEST_F(ProcessGroupTest, InitMeasuresMembersOnceWithoutUsage) {
    processGroup* g = newGroup();
    pl->initProcessGroup(g, 100, true, 0.3f, 7);
    EXPECT_EQ(100, g->ownerPid);
    EXPECT_FLOAT_EQ(0.3f, g->targetRate);
    EXPECT_EQ(-1.0f, g->workingRate);
    EXPECT_EQ(-1.0f, g->load);
    EXPECT_EQ(-1.0f, g->lastLoad);
    EXPECT_EQ(-1.0f, g->originLoad);
    EXPECT_EQ(7, g->type);
    EXPECT_FALSE(g->pauseFlag);
    EXPECT_EQ(3, g->procList->count);
    for (int pid : {100, 101, 102}) {
        ASSERT_NE(nullptr, member(g, pid));
        EXPECT_EQ(-1.0f, member(g, pid)->cpuUsage);
    }
    pl->closeProcessGroup(g);
}

TEST_F(ProcessGroupTest, UsageIsSampledOnlyAfterTwoSecondsAndSmoothed) {
    processGroup* g = newGroup();
    pl->initProcessGroup(g, 100, true, 0.3f, 0);
    struct timeval t0 = g->lastUpdate;
    EXPECT_EQ(pl->mNow.tv_sec, t0.tv_sec);

    setCpuMs(100, 1, 600);
    pl->advanceMs(1500);
    pl->updateProcessGroup(g);
    EXPECT_EQ(-1.0f, member(g, 100)->cpuUsage);
    EXPECT_EQ(t0.tv_sec, g->lastUpdate.tv_sec);

    setCpuMs(100, 1, 1000);
    setCpuMs(101, 100, 500);
    pl->advanceMs(1000);  // 2.5 s since the last sample
    pl->updateProcessGroup(g);
    EXPECT_FLOAT_EQ(1000.0f / 2500, member(g, 100)->cpuUsage);
    EXPECT_FLOAT_EQ(500.0f / 2500, member(g, 101)->cpuUsage);
    EXPECT_FLOAT_EQ(0.0f, member(g, 102)->cpuUsage);
    EXPECT_EQ(pl->mNow.tv_sec, g->lastUpdate.tv_sec);

    setCpuMs(100, 1, 3000);
    pl->advanceMs(2000);
    pl->updateProcessGroup(g);
    EXPECT_FLOAT_EQ(static_cast<float>(0.08 * (2000.0 / 2000) + 0.92 * 0.4f),
                    member(g, 100)->cpuUsage);
    pl->closeProcessGroup(g);
}

TEST_F(ProcessGroupTest, LoadAveragesOverAllMembersIncludingUnsampledOnes) {
    processGroup* g = newGroup();
    pl->initProcessGroup(g, 100, true, 0.3f, 0);
    pl->computeGroupLoad(g);
    EXPECT_FLOAT_EQ(-1.0f / 3 / pl->mCpuCount, g->load);  // nothing sampled yet

    setCpuMs(100, 1, 1600);
    setCpuMs(101, 100, 800);
    pl->advanceMs(2000);
    fp.writeStat(103, "newcomer", 100, 50, 0, 0);
    pl->updateProcessGroup(g);
    ASSERT_EQ(4, g->procList->count);
    EXPECT_EQ(-1.0f, member(g, 103)->cpuUsage);
    pl->computeGroupLoad(g);
    EXPECT_FLOAT_EQ((0.8f + 0.4f + 0.0f) / 4 / pl->mCpuCount, g->load);

    // A member that vanished drops out of the list, and out of the divisor.
    system(("rm -rf " + std::string(fp.root()) + "/102").c_str());
    pl->advanceMs(500);
    pl->updateProcessGroup(g);
    pl->computeGroupLoad(g);
    EXPECT_EQ(3, g->procList->count);
    EXPECT_FLOAT_EQ((0.8f + 0.4f) / 3 / pl->mCpuCount, g->load);
    pl->closeProcessGroup(g);
}

TEST_F(ProcessGroupTest, ControllerArithmeticAndClamps) {
    processGroup g{};
    g.originLoad = -1.0f;
    g.targetRate = 0.02f;
    pl->adjustWorkingRate(&g);
    EXPECT_FLOAT_EQ(0.04f, g.workingRate);
    g.targetRate = 0.9f;  // no upper clamp before limiting begins
    pl->adjustWorkingRate(&g);
    EXPECT_FLOAT_EQ(0.9f, g.workingRate);

    g.originLoad = 0.5f;
    g.targetRate = 0.3f;
    g.load = 0.1f;
    g.workingRate = 0.3f;
    g.err1 = 0.7f;  // weight 0: shifted, never used
    g.err2 = 0.05f;
    pl->adjustWorkingRate(&g);  // 0.3 + 4 - 0.5 = 3.8
    EXPECT_FLOAT_EQ(0.8f, g.workingRate);
    EXPECT_FLOAT_EQ(0.7f, g.err0);
    EXPECT_FLOAT_EQ(0.05f, g.err1);
    EXPECT_FLOAT_EQ(0.2f, g.err2);

    g.workingRate = 0.5f;
    g.load = 0.29f;
    g.err2 = 0.01f;
    pl->adjustWorkingRate(&g);  // 0.5 + 0.2 - 0.1
    EXPECT_NEAR(0.6f, g.workingRate, 1e-6);

    g.workingRate = 0.3f;
    g.load = 0.5f;
    g.err2 = 0.0f;
    pl->adjustWorkingRate(&g);  // 0.3 - 4
    EXPECT_FLOAT_EQ(0.04f, g.workingRate);
    EXPECT_FLOAT_EQ(-0.2f, g.err2);

    pl->adjustWorkingRate(nullptr);
}

TEST_F(ProcessGroupTest, RemoveProcessCodesAndSharedBuckets) {
    auto hash = [](int pid) { return (pid ^ (static_cast<unsigned>(pid) >> 8)) & 1023; };
    int twin = 101 + 1;
    while (hash(twin) != hash(101)) twin++;
    fp.writeStat(twin, "twin", 100, 0, 0, 0);
    processGroup* g = newGroup();
    pl->initProcessGroup(g, 100, true, 0.3f, 0);
    ASSERT_NE(nullptr, g->procTable[hash(101)]);
    EXPECT_EQ(2, g->procTable[hash(101)]->count);

    EXPECT_EQ(3, pl->removeProcess(nullptr, 101));
    int emptyBucketPid = 1;
    while (g->procTable[hash(emptyBucketPid)] != nullptr) emptyBucketPid++;
    EXPECT_EQ(1, pl->removeProcess(g, emptyBucketPid));
    int sameBucket = twin + 1;
    while (hash(sameBucket) != hash(101)) sameBucket++;
    EXPECT_EQ(2, pl->removeProcess(g, sameBucket));
    process* rec = member(g, 101);
    EXPECT_EQ(0, pl->removeProcess(g, 101));
    EXPECT_EQ(1, g->procTable[hash(101)]->count);
    free(rec);  // the record is the caller's to free once unlinked
    pl->closeProcessGroup(g);
}

TEST_F(ProcessGroupTest, CloseFreesListsAndKeepsARecordOwnedByPidZero) {
    processGroup* g = newGroup();
    pl->initProcessGroup(g, 100, true, 0.3f, 0);
    g->ownerPid = 0;
    pl->closeProcessGroup(g);
    EXPECT_EQ(nullptr, g->procList);
    for (int i = 0; i < PROC_TABLE_SIZE; i++) ASSERT_EQ(nullptr, g->procTable[i]);
    free(g);  // still allocated: the sanitizer build would report a double free otherwise
    pl->closeProcessGroup(nullptr);
    pl->updateProcessGroup(nullptr);
}

TEST(ProcessGroupSignals, NoticeSignalsOnlyWithAPositiveRateAndDropsTheDead) {
    qmed::host::LogCapture log;
    sp<DrivenLimiter> pl = new DrivenLimiter();
    TestChild tree = TestChild::spawnTree(TestChild::Kind::Sleep, 2, 0);
    processGroup* g = newGroup();
    pl->initProcessGroup(g, tree.pid(), true, 0.3f, 0);
    ASSERT_EQ(3, g->procList->count);

    g->workingRate = -1.0f;
    pl->noticeProcess(g, SIGSTOP);
    usleep(50000);
    for (pid_t p : tree.pids()) EXPECT_NE('T', qmedtest::procState(p));

    g->workingRate = 0.3f;
    pl->noticeProcess(g, SIGSTOP);
    for (pid_t p : tree.pids()) {
        EXPECT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procState(p) == 'T'; }, 2000));
    }
    pl->noticeProcess(g, SIGCONT);

    pl->closeProcessGroup(g);

    // A member that is gone (reaped) is dropped from the list and the table.
    TestChild lone = TestChild::spawn(TestChild::Kind::Sleep);
    g = newGroup();
    pl->initProcessGroup(g, lone.pid(), false, 0.3f, 0);
    g->workingRate = 0.3f;
    pid_t dead = lone.pid();
    lone.kill();
    pl->noticeProcess(g, SIGCONT);
    EXPECT_TRUE(log.contains("I/Qmed-PL: Notice failed, " + std::to_string(dead) +
                             " is dead, remove it from family"));
    EXPECT_EQ(0, g->procList->count);
    EXPECT_NE(0, pl->removeProcess(g, dead));
    pl->closeProcessGroup(g);
}

}  // namespace
