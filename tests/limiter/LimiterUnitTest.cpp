#include <android/log.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>

#include <algorithm>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/limiter/LimiterHarness.h"
#include "tests/support/TestChild.h"

using android::sp;
using qmed::host::LogCapture;
using namespace qmedtest;
using Kind = TestChild::Kind;
using Ints = std::vector<int>;
using Pairs = std::vector<std::pair<Ints, Ints>>;

namespace {

// Keys in order; fails on any link that disagrees with its neighbour or the count.
Ints keys(const list& l) {
    Ints out;
    listNode* prev = nullptr;
    for (listNode* n = l.first; n != nullptr; prev = n, n = n->next) {
        EXPECT_EQ(prev, n->prev);
        out.push_back(*static_cast<int*>(n->data));
    }
    EXPECT_EQ(prev, l.last);
    EXPECT_EQ(static_cast<int>(out.size()), l.count);
    return out;
}

TEST(LimiterList, AddDeleteLocateAndSortKeepLinksAndCount) {
    int e[][2] = {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {7, 2}, {7, 3}}, key[] = {7, 9};
    list l{nullptr, nullptr, 4, 0};
    // size, node deleted, keys left
    for (Ints r : {Ints{4, 1, 1, 3, 4}, Ints{4, 0, 2, 3, 4}, Ints{4, 3, 1, 2, 3}, Ints{1, 0}}) {
        std::vector<listNode*> n;
        for (int i = 0; i < r[0]; i++) n.push_back(ProcessLimiter::addElem(&l, e[i]));
        ProcessLimiter::deleteNode(&l, n[r[1]]);
        EXPECT_EQ(Ints(r.begin() + 2, r.end()), keys(l)) << "delete " << r[1] << " of " << r[0];
        ProcessLimiter::clearList(&l);
    }
    EXPECT_EQ(nullptr, ProcessLimiter::addElem(nullptr, e[0]));
    EXPECT_EQ(nullptr, ProcessLimiter::locateElem(&l, key));
    for (int i : {0, 4, 5}) ProcessLimiter::addElem(&l, e[i]);
    EXPECT_EQ(e[4], ProcessLimiter::locateElem(&l, key));  // first match, only the key compared
    EXPECT_EQ(nullptr, ProcessLimiter::locateNode(&l, e[1]));
    listNode blank{nullptr, nullptr, nullptr}, *orphans = l.first;
    listNode* stray = static_cast<listNode*>(calloc(1, sizeof(listNode)));
    stray->data = e[5];
    ProcessLimiter::deleteNode(&l, nullptr);
    ProcessLimiter::deleteNode(&l, &blank);
    EXPECT_EQ(Ints({1, 7, 7}), keys(l));
    ProcessLimiter::deleteNode(&l, stray);  // counted three, linked to nothing: give up
    EXPECT_TRUE(keys(l).empty());
    for (listNode* next; orphans != nullptr; orphans = next) next = orphans->next, free(orphans);
    // Sorting swaps data ascending by working rate; equal rates are not exchanged.
    for (auto s : Pairs{{{5, 2, 3}, {1, 2, 0}}, {{4, 4, 1}, {2, 1, 0}}}) {
        std::vector<void*> g;
        for (int rate : s.first) {
            g.push_back(calloc(1, sizeof(processGroup)));
            static_cast<processGroup*>(g.back())->workingRate = rate / 10.0f;
            ProcessLimiter::addElem(&l, g.back());
        }
        ProcessLimiter::sortListBubble(l.first);
        listNode* n = l.first;
        for (int i : s.second) {
            EXPECT_EQ(g[i], n->data);
            n = n->next;
        }
        ProcessLimiter::destroyList(&l);  // frees the data: the sanitizer build reports leaks
        EXPECT_TRUE(keys(l).empty());
    }
    ProcessLimiter::sortListBubble(nullptr);
}

Ints walk(const sp<ProcessLimiter>& pl, int pid, bool children) {
    processFilter f{pid, children};
    processIterator it{nullptr, nullptr};
    Ints out;
    process p;
    if (pl->initProcessIterator(&it, &f) != 0) return out;
    while (pl->getNextProcess(&it, &p) == 0) out.push_back(p.pid);
    EXPECT_EQ(0, pl->closeProcessIterator(&it));
    std::sort(out.begin(), out.end());
    return out;
}

TEST(LimiterProc, IteratorAndReadersOnRealAndFakeProcessTrees) {
    sp<ProcessLimiter> pl = new ProcessLimiter();
    TestChild tree = TestChild::spawnTree(Kind::Sleep, 2, 2);
    Ints all(tree.pids().begin(), tree.pids().end());
    std::sort(all.begin(), all.end());
    ASSERT_EQ(7u, all.size());
    EXPECT_EQ(all, walk(pl, tree.pid(), true));
    EXPECT_EQ(Ints{tree.pid()}, walk(pl, tree.pid(), false));
    // Our grandchild whose parent exited is re-parented away: no longer ours.
    int orphan = atoi(runCommand({"sh", "-c", "sleep 30 >/dev/null 2>&1 & echo $!"}).out.c_str());
    ASSERT_GT(orphan, 0);
    Ints mine = walk(pl, getpid(), true);
    kill(orphan, SIGKILL);
    EXPECT_EQ(0, std::count(mine.begin(), mine.end(), orphan));
    EXPECT_TRUE(std::includes(mine.begin(), mine.end(), all.begin(), all.end()));
    int gone = tree.pid();
    tree.kill();
    EXPECT_TRUE(walk(pl, gone, false).empty());
    TestChild blank = TestChild::spawn(Kind::Sleep, "my app");
    process p{};
    char name[PACKAGE_NAME_SIZE + 8];
    ASSERT_EQ(0, pl->readProcessInfo(blank.pid(), &p));
    EXPECT_EQ(0, p.ppid);  // the blank shifts the fields: the 4th token is the state
    ASSERT_EQ(0, pl->getProcName(blank.pid(), name));
    EXPECT_STREQ("my", name);

    long tps = sysconf(_SC_CLK_TCK);
    FakeProc fp;
    int family[][2] = {{100, 1}, {101, 100}, {102, 101}, {103, 1}, {104, 104}};
    for (auto& f : family) fp.stat(f[0], "p", f[1]);
    mkdir((fp.root + "/12a").c_str(), 0755);
    fp.stat(300, std::string(300, 'n') + ")", 42, 12 * tps, 3 * tps + tps / 2, 77 * tps + 5);
    fp.write(302, "stat", "302 (x)");
    fp.write(303, "status", "Name:\tx\nTgid:\t6\n");
    sp<ProcessLimiter> fake = new ProcessLimiter(fp.root.c_str());
    EXPECT_EQ(Ints({100, 101, 102}), walk(fake, 100, true));  // 104 is its own parent
    EXPECT_EQ(Ints({100, 101, 102, 103, 104, 300, 302, 303}), walk(fake, 0, false));
    EXPECT_TRUE(walk(new ProcessLimiter("/nonexistent"), 0, false).empty());
    EXPECT_EQ(Ints({1, 0, 0}), Ints({fake->isPidEqualTgid(100), fake->isPidEqualTgid(303),
                                     fake->isPidEqualTgid(301)}));
    // pid, then: read result, getPpidOf, ppid, CPU ms, start s
    for (Ints r :
         {Ints{300, 0, 42, 42, 15500, 77}, Ints{301, -1, -1, 0, 0, 0}, Ints{302, 0, 0, 0, 0, 0}}) {
        process q{};
        EXPECT_EQ(Ints(r.begin() + 1, r.end()),
                  Ints({fake->readProcessInfo(r[0], &q), fake->getPpidOf(r[0]), q.ppid, q.cpuTime,
                        q.startTime}))
                << r[0];
    }
    memset(name, 'x', sizeof(name));
    ASSERT_EQ(0, fake->getProcName(300, name));  // cut at the last ')' and to the group's field
    EXPECT_EQ(PACKAGE_NAME_SIZE - 1, static_cast<int>(strlen(name)));
}

TEST(ProcessGroup, UsageIsSampledAfterTwoSecondsSmoothedAndAveragedOverAllMembers) {
    long tps = sysconf(_SC_CLK_TCK);
    FakeProc fp;
    auto cpuMs = [&](int pid, int ppid, long ms) { fp.stat(pid, "p", ppid, ms * tps / 1000); };
    for (int pid : {100, 101, 102}) cpuMs(pid, pid == 100 ? 1 : pid - 1, 0);
    sp<DrivenLimiter> pl = new DrivenLimiter(fp.root.c_str());
    processGroup* g = static_cast<processGroup*>(calloc(1, sizeof(processGroup)));
    pl->initProcessGroup(g, 100, true, 0.3f, 7);
    ASSERT_EQ(3, g->procList->count);
    struct Step {
        long advanceMs, cpu100, cpu101;
        float use100, use101, load;  // load * cpus * members
    } steps[] = {{0, 0, 0, -1, -1, -1},
                 {1500, 600, 0, -1, -1, -1},
                 {1000, 1000, 500, .4f, .2f, .6f},  // 2.5 s since the last sample
                 {2000, 3000, 500, .08f + .92f * .4f, .92f * .2f, .08f + .92f * .6f}};
    for (const Step& s : steps) {
        cpuMs(100, 1, s.cpu100);
        cpuMs(101, 100, s.cpu101);
        if (s.load > 0) cpuMs(103, 100, 50);  // unsampled when new, but in the divisor
        if (s.cpu100 == 3000) runCommand({"rm", "-rf", fp.root + "/102"});  // leaves it
        pl->advanceMs(s.advanceMs);
        pl->updateProcessGroup(g);
        pl->computeGroupLoad(g);
        process* m[2] = {};
        for (listNode* n = g->procList->first; n != nullptr; n = n->next) {
            process* p = static_cast<process*>(n->data);
            if (p->pid <= 101) m[p->pid - 100] = p;
        }
        EXPECT_FLOAT_EQ(s.use100, m[0]->cpuUsage) << s.advanceMs;
        EXPECT_FLOAT_EQ(s.use101, m[1]->cpuUsage) << s.advanceMs;
        int members = s.load < 0 ? 3 : 4 - (s.cpu100 == 3000);
        EXPECT_FLOAT_EQ(s.load / pl->mCpuCount / members, g->load) << s.advanceMs;
    }
    pl->closeProcessGroup(g);
}

TEST(ProcessGroup, ControllerArithmeticAndClamps) {
    sp<DrivenLimiter> pl = new DrivenLimiter();
    struct Row {
        float origin, target, load, working, err1, err2, want;
    } rows[] = {
            {-1, .02f, 0, 0, .1f, .2f, .04f},      // floor before limiting begins
            {-1, .9f, 0, 0, 0, 0, .9f},            // but no ceiling
            {.5f, .3f, .1f, .3f, .7f, .05f, .8f},  // 0.3 + 4 - 0.5: ceiling; err1 weighs 0
            {.5f, .3f, .29f, .5f, 0, .01f, .6f},   // 0.5 + 0.2 - 0.1
            {.5f, .3f, .5f, .3f, 0, 0, .04f},      // 0.3 - 4: floor
    };
    for (const Row& r : rows) {
        processGroup c{};
        c.originLoad = r.origin, c.targetRate = r.target, c.load = r.load;
        c.workingRate = r.working, c.err1 = r.err1, c.err2 = r.err2;
        pl->adjustWorkingRate(&c);
        bool on = r.origin > 0;
        EXPECT_NEAR(r.want, c.workingRate, 1e-6) << r.target << " " << r.load;
        EXPECT_EQ(std::vector<float>(
                          {on ? r.err1 : 0, on ? r.err2 : r.err1, on ? r.target - r.load : r.err2}),
                  std::vector<float>({c.err0, c.err1, c.err2}));
    }
}

class LimiterCycle : public ::testing::Test {
  protected:
    void SetUp() override {
        bDebug = true;  // its extra records must not change what the cycle does
        ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onStopProcSpearCallback));
        ASSERT_EQ(0, pl->binderListener(registry));
    }
    void TearDown() override {
        listener->hold(false);
        __android_log_set_minimum_priority(ANDROID_LOG_INFO);
    }
    // Adds pid with warm-up skipped: limited from the next cycle.
    processGroup* addLimited(pid_t pid, float rate, sp<DrivenLimiter> l = nullptr) {
        l = l != nullptr ? l : pl;
        EXPECT_EQ(1, l->add2LimiterGroup(pid, 50, 0, false));
        processGroup* g = l->findGroup(pid);
        g->originLoad = 0.5f;
        g->workingRate = rate;
        return g;
    }
    static bool becomes(pid_t pid, bool stopped) {
        return waitUntil([&] { return (procState(pid) == 'T') == stopped; }, 2000);
    }

    sp<DrivenLimiter> pl = new DrivenLimiter();
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<RecordingListener> listener = new RecordingListener();
};

TEST_F(LimiterCycle, StopPhaseSleepsForTwoAndThreeGroups) {
    // Each sleep subtracts only the previous one, so a third stop drifts.
    for (auto r : Pairs{{{2, 5}, {200, 300, 500}}, {{2, 3, 5}, {200, 100, 400, 500}}}) {
        sp<DrivenLimiter> l = new DrivenLimiter();
        std::vector<TestChild> kids;
        for (int rate : r.first) {
            kids.push_back(TestChild::spawn(Kind::Sleep));
            addLimited(kids.back().pid(), rate / 10.0f, l);
        }
        l->spearCycle();
        EXPECT_EQ(r.second, l->sleepsMs);
        for (const TestChild& k : kids) EXPECT_TRUE(becomes(k.pid(), true));
        EXPECT_EQ(1, l->quitLimitAll());
        for (const TestChild& k : kids) EXPECT_TRUE(becomes(k.pid(), false));
    }
}

TEST_F(LimiterCycle, LimitingBeginsOnTheFourthCycle) {
    LogCapture log;
    TestChild busy = TestChild::spawn(Kind::Busy, "warmup");
    pl->realDivisor = 10;
    ASSERT_EQ(1, pl->add2LimiterGroup(busy.pid(), 30, 0, false));
    EXPECT_EQ(1, pl->loopStarts);
    pl->updateLimiterGroup();
    processGroup* g = pl->findGroup(busy.pid());
    EXPECT_FLOAT_EQ(0.3f, g->workingRate);
    for (int cycle = 1; cycle <= 3; cycle++) {
        long ticks = procCpuTicks(busy.pid());
        ASSERT_TRUE(waitUntil([&] { return procCpuTicks(busy.pid()) > ticks; }, 3000));
        EXPECT_FALSE(g->originLoad > 0) << cycle;
        pl->spearCycle();
        EXPECT_NE('T', procState(busy.pid())) << cycle;
    }
    EXPECT_GT(g->originLoad, 0.0f);
    // The warm-up's only group record is the one that sets the origin.
    EXPECT_EQ(1u, log.count("type=33 package=warmup reason=pid: " + std::to_string(busy.pid())));
    pl->spearCycle();
    EXPECT_TRUE(becomes(busy.pid(), true));
    EXPECT_EQ(1, pl->quitLimit(busy.pid()));
    EXPECT_TRUE(becomes(busy.pid(), false));
}

TEST_F(LimiterCycle, PauseKeepsTheLongerCountAndEndsWithAReport) {
    LogCapture log;
    TestChild c = TestChild::spawn(Kind::Sleep, "pausing");
    processGroup* g = addLimited(c.pid(), 0.3f);
    pl->spearCycle();
    ASSERT_TRUE(becomes(c.pid(), true));
    EXPECT_EQ(Ints({1, 1, 0}), Ints({pl->pauseLimit(c.pid(), 5), pl->pauseLimit(c.pid(), 3),
                                     pl->pauseLimit(999999, 3)}));
    EXPECT_TRUE(becomes(c.pid(), false));
    std::string report = "type=33 package=pausing reason=pid: " + std::to_string(c.pid());
    for (int cycle = 1; cycle <= 5; cycle++) {
        size_t before = log.count(report);
        pl->spearCycle();
        EXPECT_EQ(cycle < 5, g->pauseFlag) << cycle;
        EXPECT_EQ(before + (cycle == 5), log.count(report)) << cycle;
        EXPECT_NE('T', procState(c.pid())) << cycle;
    }
    EXPECT_TRUE(log.contains(report + ", origin: 50.00%, now: 0.00% value=0"));
    pl->spearCycle();
    EXPECT_TRUE(becomes(c.pid(), true));
    pl->quitLimitAll();
}

TEST_F(LimiterCycle, LowLoadReleasesAfter901CyclesExceptType1AndRisingLoadResetsTheCount) {
    TestChild idle = TestChild::spawn(Kind::Sleep), exempt = TestChild::spawn(Kind::Sleep);
    ASSERT_EQ(1, pl->add2LimiterGroup(idle.pid(), 30, 0, false));
    ASSERT_EQ(1, pl->add2LimiterGroup(exempt.pid(), 30, 1, false));
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    for (int i = 1; i <= 1100; i++, pl->advanceMs(1000), pl->updateLimiterGroup()) {
        processGroup* g = pl->findGroup(idle.pid());
        if (i == 901 || i == 902) {
            EXPECT_EQ(i == 901 ? 900 : -1, g != nullptr ? g->lowRateCount : -1) << i;
        }
    }
    EXPECT_EQ(RecordingListener::Stops({{idle.pid(), "low_rate"}}), listener->waitFor(1));
    EXPECT_EQ(Ints({0, 1}), Ints({pl->islimitedPid(idle.pid()), pl->islimitedPid(exempt.pid())}));
    // Not low: at least 0.01 and not below the last load.
    TestChild d = TestChild::spawn(Kind::Sleep);
    processGroup* g = addLimited(d.pid(), 0.3f);
    g->lowRateCount = 900;
    static_cast<process*>(g->procList->first->data)->cpuUsage = 0.5f;
    g->lastLoad = 0.0f;
    pl->updateLimiterGroup();
    EXPECT_EQ(0, g->lowRateCount);
    pl->quitLimitAll();
}

TEST_F(LimiterCycle, OwnerGoneIsATgidErrorWhenLimitedAndEmptyWhenWarmingUpNoticedOffTheLoop) {
    TestChild limited = TestChild::spawn(Kind::Sleep), warming = TestChild::spawn(Kind::Sleep);
    TestChild stays = TestChild::spawn(Kind::Sleep);
    int limitedPid = limited.pid(), warmingPid = warming.pid();
    addLimited(limitedPid, 0.2f);
    addLimited(stays.pid(), 0.5f);
    ASSERT_EQ(1, pl->add2LimiterGroup(warmingPid, 30, 0, false));
    pl->spearCycle();
    limited.kill();
    warming.kill();
    listener->hold(true);  // a stuck client holds neither the cycle nor commands
    pl->spearCycle();      // continue phase: the owner fails the tgid check
    EXPECT_EQ(nullptr, pl->findGroup(limitedPid));
    EXPECT_TRUE(becomes(stays.pid(), true));
    EXPECT_EQ(1, pl->quitLimit(stays.pid()));
    EXPECT_TRUE(becomes(stays.pid(), false));
    EXPECT_TRUE(listener->stops().empty());  // still held: not delivered on the loop
    pl->spearCycle();  // the last update found no member; this one drops the group
    listener->hold(false);
    EXPECT_EQ(RecordingListener::Stops({{limitedPid, "tgid_error"}, {warmingPid, "empty"}}),
              listener->waitFor(2));
    EXPECT_EQ(0, pl->getPgroupNum());
}

TEST_F(LimiterCycle, AddsClampRatesAndRefuseThe101st) {
    LogCapture log;
    TestChild c = TestChild::spawn(Kind::Sleep);
    for (int i = 0; i < ProcessLimiter::MAX_GROUPS; i++) {
        ASSERT_EQ(1, pl->add2LimiterGroup(c.pid(), i, 0, false)) << i;  // group i asks i%
        __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    }
    EXPECT_EQ(Ints({1, 0, 100}), Ints({pl->loopStarts, pl->add2LimiterGroup(c.pid(), 30, 0, false),
                                       pl->getPgroupNum()}));
    EXPECT_TRUE(log.contains("type=34 package=/system/bin/ykqmed reason=pid: " +
                             std::to_string(getpid()) + ", load: ") &&
                log.contains(", duration: 0min value=1"));
    std::vector<float> rates;
    for (listNode* n = pl->mGroups->first; n != nullptr; n = n->next) {
        rates.push_back(static_cast<processGroup*>(n->data)->targetRate);
    }
    for (int p : {0, 4, 5, 79, 80, 81}) {
        EXPECT_FLOAT_EQ(std::min(std::max(p, 4), 80) / 100.f, rates[p]) << p;
    }
    EXPECT_EQ(0, pl->changeParam(c.pid(), 95));
    EXPECT_FLOAT_EQ(0.8f, pl->findGroup(c.pid())->targetRate);
    EXPECT_EQ(Ints({1, 1, 0}),  // empty: still 1
              Ints({pl->quitLimitAll(), pl->quitLimitAll(), pl->quitLimit(999999)}));
    EXPECT_EQ(Ints({0, 0}), Ints({pl->resumeProc(999999), pl->resumeProc(-1)}));  // no broadcast
    EXPECT_TRUE(listener->stops().empty());  // explicit stops send no notice
    pl->mGroups->count = 2;                  // no head but a count: repaired
    EXPECT_EQ(Ints({1, 0, 0}),
              Ints({pl->checkAbnormal(), pl->getPgroupNum(), pl->checkAbnormal()}));
    EXPECT_FLOAT_EQ(0.04f, pl->mSelfGroup->targetRate);  // no fault: lowers its own target
}

}  // namespace
