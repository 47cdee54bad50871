// Commands from four threads, binder-call posts through the registry and
// release notices, all while the real loop thread runs. The lock order is
// limiter, then registry; a deadlock trips the alarm.

#include <android/log.h>
#include <gtest/gtest.h>
#include <string.h>

#include <functional>
#include <random>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/limiter/LimiterHarness.h"
#include "tests/support/TestChild.h"

using android::sp;
using namespace qmedtest;

namespace {

constexpr int kSpeedUp = 20;

// The real loop thread on a clock kSpeedUp times faster: seconds cover dozens of cycles.
class FastLimiter : public ProcessLimiter {
  public:
    bool loopRunning() const { return mLoopRunning; }
    void dropListener() { mListener.clear(); }  // the registry holds us through the facade

  protected:
    void currentTime(struct timeval* tv) override {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        int64_t us = (now.tv_sec * 1000000LL + now.tv_nsec / 1000) * kSpeedUp;
        tv->tv_sec = us / 1000000;
        tv->tv_usec = us % 1000000;
    }
    void sleepFor(const struct timespec* ts) override {
        struct timespec real = {0, ts->tv_nsec / kSpeedUp};
        if (ts->tv_nsec < 1000000000) nanosleep(&real, nullptr);
    }
};

TEST(LimiterStress, LockOrderHoldsUnderConcurrentCommandsAndNotices) {
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    alarm(120);  // a deadlock kills the test instead of hanging it
    sp<FastLimiter> limiter = new FastLimiter();
    sp<Spear> spear = new Spear(limiter);
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, spear);
    sp<RecordingListener> listener = new RecordingListener();
    ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onStopProcSpearCallback |
                                                              TYPE_LISTENER_onKstateCallback));
    spear->setProcLimiterBinder(registry);
    std::vector<TestChild> pool;
    std::vector<int> pids;
    for (int i = 0; i < 6; i++) {
        pool.push_back(TestChild::spawn(i < 2 ? TestChild::Kind::Busy : TestChild::Kind::Sleep));
        pids.push_back(pool.back().pid());
    }
    std::atomic<bool> stop{false};
    std::atomic<int> commands{0};
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
                    [&](int p) { spear->isSpeared(p); }};
            for (; !stop; commands++, usleep(1000 + rng() % 4000)) {
                ops[rng() % 6](pids[rng() % pids.size()]);
            }
        });
    }
    // Binder-call posts ask the limiter before the registry locks.
    threads.emplace_back([&] {
        unsigned char event[64] = {16};  // a kernel binder-call event, as the bridge posts it
        for (std::mt19937 rng(99); !stop; usleep(500)) {
            snprintf(reinterpret_cast<char*>(event) + 16, 48, "[TPID %d CALLED][PID 4242]",
                     pids[rng() % pids.size()]);
            registry->handleMessage(TYPE_LISTENER_onKstateCallback,
                                    Message{reinterpret_cast<intptr_t>(event), sizeof(event)});
        }
    });
    // Owners that go away make the loop queue notices with its lock held.
    threads.emplace_back([&] {
        while (!stop) {
            TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
            spear->doSpear(c.pid(), 30, 0, false);
            usleep(150000);
            c.kill();
            usleep(100000);
        }
    });
    sleep(4);
    stop = true;
    for (auto& t : threads) t.join();
    spear->stopSpearAll();  // whatever is still limited is let go
    EXPECT_TRUE(waitUntil([&] { return !limiter->loopRunning(); }, 10000));
    for (int pid : pids) {
        EXPECT_TRUE(waitUntil([&] { return procState(pid) != 'T'; }, 2000)) << pid;
    }
    // Children walks under the lock make commands slow, under sanitizers most of all.
    EXPECT_GT(commands.load(), 20);
    EXPECT_FALSE(listener->waitFor(1).empty());
    limiter->dropListener();

    alarm(0);
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
}

}  // namespace
