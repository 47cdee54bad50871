// Commands from four threads, binder-call posts through the registry and
// release notices, all while the real loop thread runs. The lock order is
// limiter, then registry; a deadlock trips the watchdog.

#include <android/log.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/limiter/RecordingListener.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner-inl.h"

using android::sp;
using qmedtest::RecordingListener;
using qmedtest::TestChild;

namespace {

constexpr int kSpeedUp = 20;

// The real loop thread on a clock running kSpeedUp times faster, so a few
// seconds cover dozens of cycles, warm-ups included.
class FastLimiter : public ProcessLimiter {
  public:
    FastLimiter() { clock_gettime(CLOCK_MONOTONIC, &mBase); }
    bool loopRunning() const { return mLoopRunning; }
    // The registry holds the facade, which holds this: break the cycle at the end.
    void dropListener() { mListener.clear(); }

  protected:
    void currentTime(struct timeval* tv) override {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        int64_t us =
                ((now.tv_sec - mBase.tv_sec) * 1000000LL + (now.tv_nsec - mBase.tv_nsec) / 1000) *
                kSpeedUp;
        tv->tv_sec = 1000000 + us / 1000000;
        tv->tv_usec = us % 1000000;
    }
    void sleepFor(const struct timespec* ts) override {
        if (ts->tv_nsec < 0 || ts->tv_nsec >= 1000000000) return;
        struct timespec real = {0, ts->tv_nsec / kSpeedUp};
        nanosleep(&real, nullptr);
    }

  private:
    struct timespec mBase;
};

class Watchdog {
  public:
    explicit Watchdog(int seconds)
        : mThread([this, seconds] {
              std::unique_lock<std::mutex> l(mLock);
              if (!mCv.wait_for(l, std::chrono::seconds(seconds), [this] { return mDone; })) {
                  fprintf(stderr, "watchdog: no progress for %d s, deadlock?\n", seconds);
                  abort();
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard<std::mutex> l(mLock);
            mDone = true;
        }
        mCv.notify_all();
        mThread.join();
    }

  private:
    std::mutex mLock;
    std::condition_variable mCv;
    bool mDone = false;
    std::thread mThread;
};

// A kernel binder-call event into target, as the bridge posts it.
void postBinderCall(const sp<IQmedBinderListenerService>& registry, int target) {
    unsigned char payload[64] = {};
    int kind = 16;
    memcpy(payload, &kind, sizeof(kind));
    snprintf(reinterpret_cast<char*>(payload) + 16, sizeof(payload) - 16,
             "[TPID %d CALLED][PID %d]", target, 4242);
    registry->handleMessage(TYPE_LISTENER_onKstateCallback,
                            Message{reinterpret_cast<intptr_t>(payload), sizeof(payload)});
}

TEST(LimiterStress, LockOrderHoldsUnderConcurrentCommandsAndNotices) {
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    Watchdog watchdog(120);
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
            while (!stop) {
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
                        break;
                }
                commands++;
                usleep(1000 + rng() % 4000);
            }
        });
    }
    // Binder-call posts ask the limiter before the registry locks.
    threads.emplace_back([&] {
        std::mt19937 rng(99);
        while (!stop) {
            postBinderCall(registry, pids[rng() % pids.size()]);
            usleep(500);
        }
    });
    // Owners that go away make the loop send notices with its lock held.
    threads.emplace_back([&] {
        while (!stop) {
            TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
            spear->doSpear(c.pid(), 30, 0, false);
            usleep(150000);
            c.kill();
            usleep(100000);
        }
    });

    std::this_thread::sleep_for(std::chrono::seconds(4));
    stop = true;
    for (auto& t : threads) t.join();
    // Whatever is still limited is let go; nothing may stay stopped.
    spear->stopSpearAll();
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !limiter->loopRunning(); }, 10000));
    for (int pid : pids) {
        EXPECT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procState(pid) != 'T'; }, 2000))
                << pid;
    }
    // Children walks under the lock make commands slow, under sanitizers most of all.
    EXPECT_GT(commands.load(), 20);
    EXPECT_FALSE(listener->stops().empty());
    limiter->dropListener();
    __android_log_set_minimum_priority(ANDROID_LOG_INFO);
}

TEST(LimiterStress, LoopThreadStartsWithTheFirstGroupAndEndsWithTheLast) {
    Watchdog watchdog(60);
    sp<FastLimiter> limiter = new FastLimiter();
    TestChild a = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild b = TestChild::spawn(TestChild::Kind::Sleep);
    EXPECT_FALSE(limiter->loopRunning());
    ASSERT_EQ(1, limiter->add2LimiterGroup(a.pid(), 30, 0, false));
    ASSERT_TRUE(qmedtest::waitUntil([&] { return limiter->loopRunning(); }, 5000));
    ASSERT_EQ(1, limiter->add2LimiterGroup(b.pid(), 30, 0, false));
    EXPECT_EQ(1, limiter->quitLimit(a.pid()));
    usleep(200000);  // several fast cycles
    EXPECT_TRUE(limiter->loopRunning());
    EXPECT_EQ(1, limiter->quitLimit(b.pid()));
    EXPECT_TRUE(qmedtest::waitUntil([&] { return !limiter->loopRunning(); }, 5000));
}

}  // namespace
