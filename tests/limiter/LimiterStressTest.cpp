// Commands from four threads, binder-call posts through the registry and
// release notices, all while the real loop thread runs. The lock order is
// limiter, then registry; a deadlock trips the alarm.

#include <android/log.h>
#include <gtest/gtest.h>
#include <string.h>

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

// A kernel binder-call event into target, as the bridge posts it.
void postBinderCall(const sp<IQmedBinderListenerService>& registry, int target) {
    unsigned char payload[64] = {16};
    snprintf(reinterpret_cast<char*>(payload) + 16, sizeof(payload) - 16,
             "[TPID %d CALLED][PID %d]", target, 4242);
    registry->handleMessage(TYPE_LISTENER_onKstateCallback,
                            Message{reinterpret_cast<intptr_t>(payload), sizeof(payload)});
}

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
            for (; !stop; commands++, usleep(1000 + rng() % 4000)) {
                int pid = pids[rng() % pids.size()];
                switch (rng() % 8) {
                    case 0:
                    case 1:
                        spear->doSpear(pid, 10 + rng() % 70, rng() % 2, rng() % 8 == 0);
                        break;
                    case 2:
                        spear->changeSpearParam(pid, rng() % 100);
                        break;
                    case 3:
                        spear->pauseSpear(pid, 1 + rng() % 5);
                        break;
                    case 4:
                        spear->stopSpear(pid);
                        break;
                    case 5:
                        if (rng() % 10 == 0) spear->stopSpearAll();
                        break;
                    default:
                        spear->isSpeared(pid);
                }
            }
        });
    }
    // Binder-call posts ask the limiter before the registry locks.
    threads.emplace_back([&] {
        for (std::mt19937 rng(99); !stop; usleep(500)) {
            postBinderCall(registry, pids[rng() % pids.size()]);
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

    // The loop thread starts with the first group and ends with the last.
    TestChild a = TestChild::spawn(TestChild::Kind::Sleep);
    ASSERT_EQ(1, limiter->add2LimiterGroup(a.pid(), 30, 0, false));
    ASSERT_TRUE(waitUntil([&] { return limiter->loopRunning(); }, 5000));
    ASSERT_EQ(1, limiter->add2LimiterGroup(pids[0], 30, 0, false));
    EXPECT_EQ(1, limiter->quitLimit(a.pid()));
    usleep(200000);  // several fast cycles
    EXPECT_TRUE(limiter->loopRunning());
    EXPECT_EQ(1, limiter->quitLimit(pids[0]));
    EXPECT_TRUE(waitUntil([&] { return !limiter->loopRunning(); }, 5000));
    alarm(0);
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
}

}  // namespace
