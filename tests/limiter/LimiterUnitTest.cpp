#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <random>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/limiter/LimiterHarness.h"
#include "tests/support/ProcTree.h"
#include "tests/support/TestChild.h"

using android::sp;
using namespace qmedtest;
using Kind = TestChild::Kind;
using Ints = std::vector<int>;
using PL = ProcessLimiter;

namespace {

// Keys (the leading int of each element) in order; fails on a link or count that disagrees.
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
    for (Ints r : {Ints{4, 1, 1, 3, 4}, {4, 0, 2, 3, 4}, {4, 3, 1, 2, 3}, {1, 0}}) {
        std::vector<listNode*> n;
        for (int i = 0; i < r[0]; i++) n.push_back(PL::addElem(&l, e[i]));
        PL::deleteNode(&l, n[r[1]]);
        EXPECT_EQ(Ints(r.begin() + 2, r.end()), keys(l)) << "delete " << r[1] << " of " << r[0];
        PL::clearList(&l);
    }
    EXPECT_EQ(nullptr, PL::locateElem(&l, key));
    for (int i : {0, 4, 5}) PL::addElem(&l, e[i]);
    EXPECT_EQ(e[4], PL::locateElem(&l, key));  // first match, only the key compared
    EXPECT_EQ(nullptr, PL::locateNode(&l, e[1]));
    listNode blank{nullptr, nullptr, nullptr}, *orphans = l.first;
    auto* stray = static_cast<listNode*>(calloc(1, sizeof(listNode)));
    stray->data = e[5];
    PL::deleteNode(&l, nullptr), PL::deleteNode(&l, &blank);
    EXPECT_EQ(Ints({1, 7, 7}), keys(l));
    PL::deleteNode(&l, stray);  // counted three, linked to nothing: give up
    EXPECT_TRUE(keys(l).empty());
    for (listNode* next; orphans != nullptr; orphans = next) next = orphans->next, free(orphans);
    // Ascending by working rate; equal rates keep their order. Keys are the owner pids.
    for (float rate : {.5f, .2f, .4f, .4f}) {
        auto* g = static_cast<processGroup*>(calloc(1, sizeof(processGroup)));
        g->ownerPid = l.count, g->workingRate = rate;
        PL::addElem(&l, g);
    }
    PL::sortListBubble(l.first), PL::sortListBubble(nullptr);
    EXPECT_EQ(Ints({1, 2, 3, 0}), keys(l));
    PL::destroyList(&l);  // frees the data: the sanitizer build reports leaks
    EXPECT_TRUE(keys(l).empty());
}

TEST(LimiterProc, IteratorWalksRealTrees) {
    sp<ProcessLimiter> pl = new ProcessLimiter();
    auto walk = [&](int pid, bool children) {
        processFilter f{pid, children};
        processIterator it{nullptr, nullptr};
        process p;
        Ints out;
        if (pl->initProcessIterator(&it, &f) == 0) {
            while (pl->getNextProcess(&it, &p) == 0) out.push_back(p.pid);
            pl->closeProcessIterator(&it);
        }
        return std::sort(out.begin(), out.end()), out;
    };
    TestChild tree = TestChild::spawnTree(Kind::Sleep, 2, 2);
    Ints all(tree.pids().begin(), tree.pids().end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, walk(tree.pid(), true));
    EXPECT_EQ(Ints{tree.pid()}, walk(tree.pid(), false));
    // A grandchild whose parent exited is re-parented to pid 1: no longer ours.
    int orphan = atoi(runCommand({"sh", "-c", "sleep 30 >/dev/null 2>&1 & echo $!"}).out.c_str());
    Ints mine = walk(getpid(), true);
    kill(orphan, SIGKILL);
    EXPECT_EQ(0, std::count(mine.begin(), mine.end(), orphan));
}

TEST(ProcessGroup, UsageIsSampledAfterTwoSecondsSmoothedAndAveragedOverAllMembers) {
    ProcTree t;
    // A procfs entry with ms of CPU time, half user (field 14), half system (15); 101 has a
    // long name with a ')' in it.
    auto cpuMs = [&](int pid, int ppid, long ms) {
        std::string dir = t.root() + "/" + std::to_string(pid), s = std::to_string(ppid);
        for (int f = 5; f <= 52; f++)
            s += f == 14 || f == 15 ? " " + std::to_string(ms / 2 * sysconf(_SC_CLK_TCK) / 1000)
                                    : " 0";
        mkdir(dir.c_str(), 0755);
        std::string comm = pid == 101 ? std::string(300, 'n') + ")" : "p";
        writeFile(dir + "/stat", std::to_string(pid) + " (" + comm + ") S " + s + "\n");
    };
    for (int pid : {100, 101, 102, 104}) cpuMs(pid, pid == 100 ? 1 : pid == 104 ? 104 : pid - 1, 0);
    sp<DrivenLimiter> pl = new DrivenLimiter(t.root().c_str());
    auto* g = static_cast<processGroup*>(calloc(1, sizeof(processGroup)));
    pl->initProcessGroup(g, 100, true, 0.3f, 7);
    ASSERT_EQ(3, g->procList->count);  // 104 is its own parent
    // ms advanced, CPU ms of 100 and 101, then their usage and the load * cpus * members
    for (auto s : std::vector<std::vector<float>>{
                 {1500, 600, 0, -1, -1, -1},
                 {1000, 1000, 500, .4f, .2f, .6f},  // 2.5 s since the last sample
                 {2000, 3000, 500, .08f + .92f * .4f, .92f * .2f, .08f + .92f * .6f}}) {
        cpuMs(100, 1, s[1]);
        cpuMs(101, 100, s[2]);
        if (s[5] > 0) cpuMs(103, 100, 50);  // unsampled when new, but in the divisor
        if (s[1] == 3000) runCommand({"rm", "-rf", t.root() + "/102"});  // leaves it
        pl->advanceMs(s[0]);
        pl->updateProcessGroup(g);
        pl->computeGroupLoad(g);
        for (int pid : {100, 101}) {
            auto* p = static_cast<process*>(PL::locateElem(g->procList, &pid));
            EXPECT_FLOAT_EQ(s[pid - 97], p->cpuUsage) << s[0];
        }
        EXPECT_FLOAT_EQ(s[5] / pl->mCpuCount / (s[5] < 0 ? 3 : 4 - (s[1] == 3000)), g->load);
    }
    pl->closeProcessGroup(g);
}

TEST(ProcessGroup, ControllerArithmeticAndClamps) {
    sp<DrivenLimiter> pl = new DrivenLimiter();
    // origin, target, load, working, err1, err2, then the new working rate
    for (auto r : std::vector<std::vector<float>>{
                 {-1, .02f, 0, 0, .1f, .2f, .04f},      // floor before limiting begins
                 {.5f, .3f, .1f, .3f, .7f, .05f, .8f},  // 0.3 + 4 - 0.5: ceiling; err1 weighs 0
                 {.5f, .3f, .29f, .5f, 0, .01f, .6f},   // 0.5 + 0.2 - 0.1
                 {.5f, .3f, .5f, .3f, 0, 0, .04f}}) {   // 0.3 - 4: floor
        processGroup c{};
        c.originLoad = r[0], c.targetRate = r[1], c.load = r[2];
        c.workingRate = r[3], c.err1 = r[4], c.err2 = r[5];
        pl->adjustWorkingRate(&c);
        bool on = r[0] > 0;
        EXPECT_NEAR(r[6], c.workingRate, 1e-6) << r[1] << " " << r[2];
        EXPECT_EQ(std::vector<float>({on ? r[4] : 0, on ? r[5] : r[4], on ? r[1] - r[2] : r[5]}),
                  std::vector<float>({c.err0, c.err1, c.err2}));
    }
}

class LimiterCycle : public ::testing::Test {
  protected:
    void SetUp() override {
        bDebug = true;  // its extra records must not change what the cycle does
        __android_log_set_minimum_priority(ANDROID_LOG_WARN);
        ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onStopProcSpearCallback));
        ASSERT_EQ(0, pl->binderListener(registry));
    }
    void TearDown() override { pl->quitLimitAll(), __android_log_set_minimum_priority(4); }
    // Adds pid with warm-up skipped: limited from the next cycle.
    void addLimited(pid_t pid, float rate) {
        EXPECT_EQ(1, pl->add2LimiterGroup(pid, 50, 0, false));
        pl->findGroup(pid)->originLoad = 0.5f, pl->findGroup(pid)->workingRate = rate;
    }

    sp<DrivenLimiter> pl = new DrivenLimiter();
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<ReleaseListener> listener = new ReleaseListener();
};

TEST_F(LimiterCycle, StopPhaseSleepsAndAGoneOwnerReleasedAsTgidErrorOffTheLoop) {
    std::vector<TestChild> kids;
    // Each sleep subtracts only the previous one, so a third stop drifts.
    for (auto r : std::vector<std::pair<Ints, Ints>>{{{2, 5}, {200, 300, 500}},
                                                     {{2, 3, 5}, {200, 100, 400, 500}}}) {
        EXPECT_EQ(1, pl->quitLimitAll());
        kids.clear();
        for (int rate : r.first) {
            kids.push_back(TestChild::spawn(Kind::Sleep));
            addLimited(kids.back().pid(), rate / 10.0f);
        }
        pl->sleepsMs.clear();
        pl->spearCycle();
        EXPECT_EQ(r.second, pl->sleepsMs);
    }
    int pid = kids[0].pid();
    kids[0].kill();
    pl->spearCycle();  // continue phase: the owner fails the tgid check
    EXPECT_EQ(Ints({2, 0}), Ints({pl->getPgroupNum(), pl->islimitedPid(pid)}));
    EXPECT_EQ(std::vector<std::string>({std::to_string(pid) + " tgid_error"}), listener->got(3000));
}

// The loop holds its lock through the stop phase: a pause waits it out, while the queries, a
// rate change and an add answer at once; the rate and the group are in place after the cycle.
TEST_F(LimiterCycle, QueriesRateChangesAndAddsAnswerDuringAStopPhase) {
    TestChild kid = TestChild::spawn(Kind::Sleep), late = TestChild::spawn(Kind::Sleep);
    addLimited(kid.pid(), 0.5f);
    pl->mLoopAccepting = true, pl->holdSleep = true;  // as a running loop
    auto cycle = std::async(std::launch::async, [&] { return pl->spearCycle(); });
    ASSERT_TRUE(waitUntil([&] { return pl->inSleep.load(); }, 3000));
    auto pause = std::async(std::launch::async, [&] { return pl->pauseLimit(kid.pid(), 1); });
    auto answers = std::async(std::launch::async, [&] {
        return Ints({pl->getPgroupNum(), pl->islimitedPid(kid.pid()), pl->islimitedPid(999999),
                     pl->changeParam(kid.pid(), 70), pl->add2LimiterGroup(late.pid(), 30, 0, 0),
                     pl->getPgroupNum(), pl->islimitedPid(late.pid())});
    });
    bool answered = answers.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    bool paused = pause.wait_for(std::chrono::milliseconds(100)) == std::future_status::ready;
    pl->holdSleep = false;
    EXPECT_TRUE(answered && !paused);
    EXPECT_EQ(Ints({1, 1, 0, 0, 1, 2, 1}), answers.get());
    EXPECT_EQ(Ints({1, 2}), Ints({pause.get(), cycle.get()}));
    EXPECT_FLOAT_EQ(0.7f, pl->findGroup(kid.pid())->targetRate);
    EXPECT_FLOAT_EQ(0.3f, pl->findGroup(late.pid())->targetRate);
}

TEST_F(LimiterCycle, LimitingBeginsOnTheFourthCycleAndAPauseKeepsTheLongerCount) {
    TestChild busy = TestChild::spawn(Kind::Busy);
    ASSERT_EQ(1, pl->add2LimiterGroup(busy.pid(), 30, 0, false));
    pl->updateLimiterGroup();
    processGroup* g = pl->findGroup(busy.pid());
    for (int cycle = 1; cycle <= 3; cycle++) {
        long ticks = procCpuTicks(busy.pid());
        ASSERT_TRUE(waitUntil([&] { return procCpuTicks(busy.pid()) > ticks; }, 3000));
        EXPECT_FALSE(g->originLoad > 0) << cycle;
        pl->spearCycle();
        EXPECT_NE('T', procState(busy.pid())) << cycle;
    }
    pl->spearCycle();
    ASSERT_TRUE(waitUntil([&] { return procState(busy.pid()) == 'T'; }, 2000));
    EXPECT_EQ(Ints({1, 1, 0}), Ints({pl->pauseLimit(busy.pid(), 5), pl->pauseLimit(busy.pid(), 3),
                                     pl->pauseLimit(999999, 3)}));
    for (int cycle = 1; cycle <= 5; cycle++) {
        pl->spearCycle();
        EXPECT_EQ(cycle < 5, g->pauseFlag) << cycle;
        EXPECT_NE('T', procState(busy.pid())) << cycle;
    }
}

TEST_F(LimiterCycle, LowLoadReleasesAfter901CyclesExceptType1) {
    TestChild idle = TestChild::spawn(Kind::Sleep), exempt = TestChild::spawn(Kind::Sleep);
    ASSERT_EQ(1, pl->add2LimiterGroup(idle.pid(), 30, 0, false));
    ASSERT_EQ(1, pl->add2LimiterGroup(exempt.pid(), 30, 1, false));
    for (int i = 0; i < 900; i++, pl->advanceMs(1000)) pl->updateLimiterGroup();
    EXPECT_EQ(900, pl->findGroup(idle.pid())->lowRateCount);
    pl->updateLimiterGroup();
    EXPECT_EQ(std::vector<std::string>({std::to_string(idle.pid()) + " low_rate"}),
              listener->got(3000));
    EXPECT_EQ(Ints({0, 1}), Ints({pl->islimitedPid(idle.pid()), pl->islimitedPid(exempt.pid())}));
}

TEST_F(LimiterCycle, AddsClampRatesAndRefuseThe101st) {
    TestChild c = TestChild::spawn(Kind::Sleep);
    for (int i = 0; i < PL::MAX_GROUPS; i++) ASSERT_EQ(1, pl->add2LimiterGroup(c.pid(), i, 0, 0));
    EXPECT_EQ(Ints({1, 0, 100}),
              Ints({pl->loopStarts, pl->add2LimiterGroup(c.pid(), 30, 0, 0), pl->getPgroupNum()}));
    int i = 0;  // group i asked for i%
    for (listNode* n = pl->mGroups->first; n != nullptr; n = n->next, i++) {
        EXPECT_FLOAT_EQ(std::clamp(i, 4, 80) / 100.f, ((processGroup*)n->data)->targetRate) << i;
    }
    EXPECT_EQ(Ints({1, 1, 0}),  // empty: still 1
              Ints({pl->quitLimitAll(), pl->quitLimitAll(), pl->quitLimit(999999)}));
    EXPECT_EQ(Ints({0, 0}), Ints({pl->resumeProc(999999), pl->resumeProc(-1)}));  // no broadcast
    EXPECT_TRUE(listener->got().empty());  // explicit stops send no notice
    pl->mGroups->count = 2;                // no head but a count: repaired
    EXPECT_EQ(Ints({1, 0}), Ints({pl->checkAbnormal(), pl->getPgroupNum()}));
}

// The real loop thread on a clock 20 times faster: seconds of stress cover dozens of cycles.
struct FastLimiter : ProcessLimiter {
    using ProcessLimiter::mListener, ProcessLimiter::mLoopRunning;
    void currentTime(struct timeval* tv) override {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        int64_t us = (now.tv_sec * 1000000LL + now.tv_nsec / 1000) * 20;
        tv->tv_sec = us / 1000000, tv->tv_usec = us % 1000000;
    }
    void sleepFor(const struct timespec* ts) override {
        struct timespec real = {0, ts->tv_nsec / 20};
        if (ts->tv_nsec < 1000000000) nanosleep(&real, nullptr);
    }
};

// Commands from four threads, binder-call posts and release notices while the loop runs: the
// lock order is limiter, then registry.
TEST(LimiterStress, LockOrderHoldsUnderConcurrentCommandsAndNotices) {
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    alarm(120);  // a deadlock kills the test instead of hanging it
    sp<FastLimiter> limiter = new FastLimiter();
    sp<Spear> spear = new Spear(limiter);
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, spear);
    sp<ReleaseListener> listener = new ReleaseListener();
    ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onStopProcSpearCallback |
                                                              TYPE_LISTENER_onKstateCallback));
    spear->setProcLimiterBinder(registry);
    std::vector<TestChild> pool(6);
    for (int i = 0; i < 6; i++) pool[i] = TestChild::spawn(i < 2 ? Kind::Busy : Kind::Sleep);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(t + 1);
            std::function<void(int)> ops[] = {
                    [&](int p) { spear->doSpear(p, 10 + rng() % 70, rng() % 2, rng() % 8 == 0); },
                    [&](int p) { spear->changeSpearParam(p, rng() % 100); },
                    [&](int p) { spear->pauseSpear(p, 1 + rng() % 5); },
                    [&](int p) { spear->stopSpear(p); },
                    [&](int) { (void)(rng() % 10 != 0 || spear->stopSpearAll()); },
                    [&](int p) { spear->isSpeared(p); },
                    [&](int p) {  // a binder-call post asks the limiter before the registry locks
                        char event[64] = {16};
                        snprintf(event + 16, 48, "[TPID %d CALLED][PID 4242]", p);
                        registry->handleMessage(TYPE_LISTENER_onKstateCallback,
                                                Message{intptr_t(event), sizeof(event)});
                    },
                    [&](int) {               // an owner that goes away: the loop queues a notice
                        if (t != 0) return;  // spawns in flight would share their pipes
                        TestChild c = TestChild::spawn(Kind::Sleep);
                        spear->doSpear(c.pid(), 30, 0, false);
                        usleep(150000);
                    }};
            for (; !stop; usleep(1000 + rng() % 4000)) ops[rng() % 8](pool[rng() % 6].pid());
        });
    }
    sleep(4);
    stop = true;
    for (auto& t : threads) t.join();
    {  // one more that goes away, so a notice comes whatever the stops above let through
        TestChild gone = TestChild::spawn(Kind::Sleep);
        EXPECT_EQ(1, spear->doSpear(gone.pid(), 30, 0, false));
    }
    EXPECT_FALSE(listener->got(5000).empty());
    spear->stopSpearAll();  // whatever is still limited is let go
    EXPECT_TRUE(waitUntil([&] { return !limiter->mLoopRunning; }, 10000));
    for (TestChild& c : pool)
        EXPECT_TRUE(waitUntil([&] { return procState(c.pid()) != 'T'; }, 2000));
    limiter->mListener.clear();  // the registry holds us through the facade
    alarm(0);
}

}  // namespace
