#include <android/log.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/limiter/DrivenLimiter.h"
#include "tests/limiter/RecordingListener.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner-inl.h"

using android::sp;
using qmedtest::DrivenLimiter;
using qmedtest::RecordingListener;
using qmedtest::TestChild;

namespace {

bool stopped(pid_t pid) {
    return qmedtest::procState(pid) == 'T';
}
bool becomesStopped(pid_t pid) {
    return qmedtest::waitUntil([&] { return stopped(pid); }, 2000);
}

class LimiterCycleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        pl = new DrivenLimiter();
        registry = new IQmedBinderListenerService(nullptr, nullptr);
        listener = new RecordingListener();
        ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onStopProcSpearCallback));
        ASSERT_EQ(0, pl->binderListener(registry));
    }
    // Adds pid and skips warm-up by hand: the group is limited from the next cycle.
    processGroup* addLimited(pid_t pid, float workingRate) {
        EXPECT_EQ(1, pl->add2LimiterGroup(pid, 50, 0, false));
        processGroup* g = pl->groupOf(pid);
        g->originLoad = 0.5f;
        g->workingRate = workingRate;
        return g;
    }
    void quiet() { __android_log_set_minimum_priority(ANDROID_LOG_WARN); }
    void TearDown() override { __android_log_set_minimum_priority(ANDROID_LOG_INFO); }

    sp<DrivenLimiter> pl;
    sp<IQmedBinderListenerService> registry;
    sp<RecordingListener> listener;
};

TEST_F(LimiterCycleTest, StopPhaseSleepsForTwoAndThreeGroups) {
    TestChild a = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild b = TestChild::spawn(TestChild::Kind::Sleep);
    addLimited(a.pid(), 0.2f);
    addLimited(b.pid(), 0.5f);
    pl->spearCycle();
    ASSERT_EQ(3u, pl->mSleeps.size());
    EXPECT_NEAR(200000000, pl->mSleeps[0], 100);
    EXPECT_NEAR(300000000, pl->mSleeps[1], 100);
    EXPECT_NEAR(500000000, pl->mSleeps[2], 100);
    EXPECT_TRUE(becomesStopped(a.pid()));
    EXPECT_TRUE(becomesStopped(b.pid()));

    // Three groups: each sleep subtracts only the previous one, so the third stop drifts.
    sp<DrivenLimiter> three = new DrivenLimiter();
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
    pl = three;
    addLimited(a.pid(), 0.2f);
    addLimited(b.pid(), 0.3f);
    addLimited(c.pid(), 0.5f);
    pl->spearCycle();
    ASSERT_EQ(4u, pl->mSleeps.size());
    EXPECT_NEAR(200000000, pl->mSleeps[0], 100);
    EXPECT_NEAR(100000000, pl->mSleeps[1], 100);
    EXPECT_NEAR(400000000, pl->mSleeps[2], 100);
    EXPECT_NEAR(500000000, pl->mSleeps[3], 100);
    EXPECT_TRUE(becomesStopped(c.pid()));
    pl->quitLimitAll();
}

TEST_F(LimiterCycleTest, LimitingBeginsOnTheFourthCycle) {
    qmed::host::LogCapture log;
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "warmup");
    pl->mRealDivisor = 10;
    ASSERT_EQ(1, pl->add2LimiterGroup(busy.pid(), 30, 0, false));
    EXPECT_EQ(1, pl->mLoopStarts);
    pl->update();
    processGroup* g = pl->groupOf(busy.pid());
    EXPECT_FLOAT_EQ(0.3f, g->workingRate);
    for (int cycle = 1; cycle <= 3; cycle++) {
        long ticks = qmedtest::procCpuTicks(busy.pid());
        ASSERT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procCpuTicks(busy.pid()) > ticks; },
                                        3000));
        EXPECT_FALSE(g->originLoad > 0) << "cycle " << cycle;
        pl->spearCycle();
        EXPECT_FALSE(stopped(busy.pid())) << "cycle " << cycle;
    }
    EXPECT_GT(g->originLoad, 0.0f);
    // The only group record of the warm-up is the one that sets the origin.
    EXPECT_EQ(1u, log.count("type=33 package=warmup reason=pid: " + std::to_string(busy.pid())));
    EXPECT_FALSE(log.contains("origin: -100.00%"));
    pl->spearCycle();
    EXPECT_TRUE(becomesStopped(busy.pid()));
    EXPECT_EQ(1, pl->quitLimit(busy.pid()));
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !stopped(busy.pid()); }, 2000));
}

TEST_F(LimiterCycleTest, PauseKeepsTheLongerCountAndEndsWithAReport) {
    qmed::host::LogCapture log;
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep, "pausing");
    processGroup* g = addLimited(c.pid(), 0.3f);
    pl->spearCycle();
    ASSERT_TRUE(becomesStopped(c.pid()));

    EXPECT_EQ(1, pl->pauseLimit(c.pid(), 5));
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !stopped(c.pid()); }, 2000));
    EXPECT_EQ(1, pl->pauseLimit(c.pid(), 3));
    EXPECT_TRUE(g->pauseFlag);
    EXPECT_EQ(5, g->pauseLeft);

    std::string report = "type=33 package=pausing reason=pid: " + std::to_string(c.pid());
    for (int cycle = 1; cycle <= 4; cycle++) {
        size_t before = log.count(report);
        pl->spearCycle();
        EXPECT_TRUE(g->pauseFlag) << cycle;
        EXPECT_EQ(before, log.count(report)) << cycle;
        EXPECT_FALSE(stopped(c.pid())) << cycle;
    }
    size_t before = log.count(report);
    pl->spearCycle();
    EXPECT_FALSE(g->pauseFlag);
    EXPECT_EQ(before + 1, log.count(report));
    EXPECT_TRUE(log.contains(report + ", origin: 50.00%, now: 0.00% value=0"));
    pl->spearCycle();
    EXPECT_TRUE(becomesStopped(c.pid()));

    EXPECT_EQ(0, pl->pauseLimit(999999, 3));
    EXPECT_TRUE(log.contains("Pause Sr failed. Not find pGroup (owner: 999999)"));
    pl->quitLimitAll();
}

TEST_F(LimiterCycleTest, LowLoadReleasesAfter901CyclesExceptType1) {
    TestChild idle = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild exempt = TestChild::spawn(TestChild::Kind::Sleep);
    ASSERT_EQ(1, pl->add2LimiterGroup(idle.pid(), 30, 0, false));
    ASSERT_EQ(1, pl->add2LimiterGroup(exempt.pid(), 30, 1, false));
    quiet();
    for (int i = 0; i < 900; i++) {
        pl->advanceMs(1000);
        pl->update();
    }
    EXPECT_EQ(2, pl->getPgroupNum());
    EXPECT_EQ(900, pl->groupOf(idle.pid())->lowRateCount);
    EXPECT_TRUE(listener->stops().empty());
    pl->advanceMs(1000);
    pl->update();
    EXPECT_EQ(1, pl->getPgroupNum());
    EXPECT_EQ(nullptr, pl->groupOf(idle.pid()));
    auto stops = listener->waitForStops(1);
    ASSERT_EQ(1u, stops.size());
    EXPECT_EQ(idle.pid(), stops[0].first);
    EXPECT_EQ("low_rate", stops[0].second);
    for (int i = 0; i < 200; i++) {
        pl->advanceMs(1000);
        pl->update();
    }
    EXPECT_EQ(1, pl->islimitedPid(exempt.pid()));
    EXPECT_EQ(1u, listener->stops().size());
}

TEST_F(LimiterCycleTest, RisingLoadResetsTheLowCount) {
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
    processGroup* g = addLimited(c.pid(), 0.3f);
    g->lowRateCount = 900;
    pl->update();  // load 0 or unsampled: low
    EXPECT_EQ(nullptr, pl->groupOf(c.pid()));

    TestChild d = TestChild::spawn(TestChild::Kind::Sleep);
    g = addLimited(d.pid(), 0.3f);
    g->lowRateCount = 900;
    // Not low: at least 0.01 and not below the last load.
    process* m = static_cast<process*>(g->procList->first->data);
    m->cpuUsage = 0.5f;
    g->lastLoad = 0.0f;
    pl->update();
    EXPECT_EQ(0, pl->groupOf(d.pid())->lowRateCount);
    pl->quitLimitAll();
}

TEST_F(LimiterCycleTest, OwnerGoneWhileLimitedIsATgidErrorAndWhileWarmingUpEmpty) {
    TestChild limited = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild warming = TestChild::spawn(TestChild::Kind::Sleep);
    addLimited(limited.pid(), 0.3f);
    ASSERT_EQ(1, pl->add2LimiterGroup(warming.pid(), 30, 0, false));
    pl->update();
    pl->spearCycle();
    int limitedPid = limited.pid();
    int warmingPid = warming.pid();
    limited.kill();
    warming.kill();

    pl->spearCycle();  // continue phase: the owner fails the tgid check
    auto stops = listener->waitForStops(1);
    ASSERT_EQ(1u, stops.size());
    EXPECT_EQ(limitedPid, stops[0].first);
    EXPECT_EQ("tgid_error", stops[0].second);
    EXPECT_EQ(nullptr, pl->groupOf(limitedPid));

    pl->spearCycle();  // the update before found no member, this one drops the group
    stops = listener->waitForStops(2);
    ASSERT_EQ(2u, stops.size());
    EXPECT_EQ(warmingPid, stops[1].first);
    EXPECT_EQ("empty", stops[1].second);
    EXPECT_EQ(0, pl->getPgroupNum());
}

TEST_F(LimiterCycleTest, StuckReleaseListenerHoldsNeitherTheCycleNorCommands) {
    TestChild gone = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild limited = TestChild::spawn(TestChild::Kind::Sleep);
    addLimited(gone.pid(), 0.2f);
    addLimited(limited.pid(), 0.5f);
    pl->spearCycle();
    ASSERT_TRUE(becomesStopped(limited.pid()));
    listener->hold();
    gone.kill();
    pl->spearCycle();  // releases the first group; the notice blocks in the listener
    ASSERT_TRUE(listener->waitEntered(1));
    EXPECT_EQ(1, pl->getPgroupNum());
    EXPECT_TRUE(becomesStopped(limited.pid()));  // the cycle went on
    EXPECT_EQ(1, pl->quitLimit(limited.pid()));
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !stopped(limited.pid()); }, 2000));
    listener->release();
    auto stops = listener->waitForStops(1);
    ASSERT_EQ(1u, stops.size());
    EXPECT_EQ("tgid_error", stops[0].second);
}

TEST_F(LimiterCycleTest, HundredGroupsThenRefusedAndRatesClamped) {
    qmed::host::LogCapture log;
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
    quiet();
    for (int i = 0; i < ProcessLimiter::MAX_GROUPS; i++) {
        ASSERT_EQ(1, pl->add2LimiterGroup(c.pid(), i, 0, false)) << i;
    }
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    EXPECT_EQ(1, pl->mLoopStarts);
    EXPECT_EQ(0, pl->add2LimiterGroup(c.pid(), 30, 0, false));
    EXPECT_TRUE(log.contains("Too much need to Sr, ignore this!"));
    EXPECT_EQ(100, pl->getPgroupNum());

    struct Case {
        int percent;
        float rate;
    };
    // Group i was added with i percent.
    for (Case k : {Case{0, 0.04f}, Case{3, 0.04f}, Case{4, 0.04f}, Case{5, 0.05f}, Case{79, 0.79f},
                   Case{80, 0.8f}, Case{81, 0.8f}}) {
        EXPECT_FLOAT_EQ(k.rate, pl->group(k.percent)->targetRate) << k.percent;
    }
    EXPECT_EQ(0, pl->changeParam(c.pid(), 95));
    EXPECT_FLOAT_EQ(0.8f, pl->group(0)->targetRate);
    EXPECT_EQ(1, pl->quitLimitAll());
    EXPECT_EQ(1, pl->quitLimitAll());  // empty: still 1, no notice
    EXPECT_TRUE(listener->stops().empty());
}

TEST_F(LimiterCycleTest, AddRefusesThreadsAndStopResumesMembers) {
    std::atomic<int> tid{0};
    std::atomic<bool> done{false};
    std::thread t([&] {
        tid = static_cast<int>(syscall(SYS_gettid));
        while (!done) usleep(1000);
    });
    while (tid == 0) usleep(1000);
    EXPECT_EQ(-5, pl->add2LimiterGroup(tid, 30, 0, false));
    done = true;
    t.join();
    EXPECT_EQ(0, pl->mLoopStarts);

    TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
    addLimited(c.pid(), 0.3f);
    pl->spearCycle();
    ASSERT_TRUE(becomesStopped(c.pid()));
    EXPECT_EQ(0, pl->quitLimit(999999));
    EXPECT_EQ(1, pl->quitLimit(c.pid()));
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !stopped(c.pid()); }, 2000));
    EXPECT_EQ(0, pl->islimitedPid(c.pid()));
    EXPECT_TRUE(listener->stops().empty());  // explicit stops send no notice

    kill(c.pid(), SIGSTOP);
    ASSERT_TRUE(becomesStopped(c.pid()));
    EXPECT_EQ(1, pl->resumeProc(c.pid()));
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !stopped(c.pid()); }, 2000));
    EXPECT_EQ(0, pl->resumeProc(999999));
    EXPECT_EQ(0, pl->resumeProc(-1));  // never a broadcast
}

TEST_F(LimiterCycleTest, SelfCheckLowersOwnTargetOrRepairsTheList) {
    qmed::host::LogCapture log;
    EXPECT_EQ(0, pl->checkAbnormal());
    EXPECT_FLOAT_EQ(0.04f, pl->mSelfGroup->targetRate);
    EXPECT_TRUE(log.contains("No exceptions in Sr loop, limit qmed load to 4.00%!"));
    EXPECT_EQ(0, pl->checkAbnormal());
    EXPECT_TRUE(log.contains("limit qmed load to 3.00%!"));

    pl->mGroups->count = 2;  // head null, count not: inconsistent
    EXPECT_EQ(1, pl->checkAbnormal());
    EXPECT_TRUE(log.contains("List error! Clear list now, Memory leak risk!"));
    EXPECT_EQ(0, pl->getPgroupNum());
    EXPECT_FLOAT_EQ(0.03f, pl->mSelfGroup->targetRate);
}

TEST_F(LimiterCycleTest, StatisticsRecordsAndLogLines) {
    qmed::host::LogCapture log;
    TestChild c = TestChild::spawn(TestChild::Kind::Sleep, "stats");
    ASSERT_EQ(1, pl->add2LimiterGroup(c.pid(), 30, 0, false));
    std::string pid = std::to_string(c.pid());
    std::string self = std::to_string(getpid());
    EXPECT_TRUE(
            log.contains("I/TALLY_TAG_QM_CONTROL_STATS: type=34 package=/system/bin/ykqmed "
                         "reason=pid: " +
                         self));
    EXPECT_TRUE(log.contains(", duration: 0min value=1"));

    pl->update();  // cycle 0 always logs
    EXPECT_TRUE(log.contains("I/Qmed-PL: Sr msg: pkg: stats, P: " + pid));
    EXPECT_TRUE(log.contains(", NTL: 30.00%"));

    processGroup* g = pl->groupOf(c.pid());
    g->originLoad = 0.25f;
    g->load = 0.125f;
    g->pauseFlag = true;
    pl->reportProcGroup(g);
    EXPECT_TRUE(log.contains("type=33 package=stats reason=pid: " + pid +
                             ", origin: 25.00%, now: 12.50% value=1"));
    // Too long for the 50-byte reason: the record still goes out, its reason bounded.
    g->originLoad = -123456.0f;
    g->load = -123456.0f;
    size_t records = log.count("type=33 package=stats");
    pl->reportProcGroup(g);
    EXPECT_EQ(records + 1, log.count("type=33 package=stats"));
    for (const std::string& line : log.lines()) {
        auto at = line.find("type=33 package=stats reason=");
        if (at == std::string::npos) continue;
        at += strlen("type=33 package=stats reason=");
        auto end = line.find(" value=", at);
        ASSERT_NE(std::string::npos, end);
        EXPECT_LE(end - at, 49u) << line;
    }

    pl->mLoopRunning = true;
    pl->mLoopStart = pl->mNow;
    pl->mLoopStart.tv_sec -= 125;
    pl->reportQmedState();
    EXPECT_TRUE(log.contains(", duration: 2min value=1"));
    pl->mLoopRunning = false;
    pl->quitLimitAll();
}

}  // namespace
