#pragma once

#include <binder/IInterface.h>
#include <sys/time.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "limiter/ProcessLimiter.h"
#include "listener/IQmedBinderListener.h"
#include "tests/support/ToolRunner.h"

namespace qmedtest {

// A limiter with a fake clock and no loop thread: tests drive cycles directly.
// Sleeps advance the clock and last a twentieth for real, so busy children run between samples.
class DrivenLimiter : public ProcessLimiter {
  public:
    using ProcessLimiter::adjustWorkingRate, ProcessLimiter::computeGroupLoad,
            ProcessLimiter::findGroup, ProcessLimiter::mCpuCount, ProcessLimiter::mGroups,
            ProcessLimiter::mLoopAccepting, ProcessLimiter::mLoopRunning,
            ProcessLimiter::mLoopStart, ProcessLimiter::reportQmedState, ProcessLimiter::spearCycle,
            ProcessLimiter::updateLimiterGroup;
    using ProcessLimiter::ProcessLimiter;

    void advanceMs(long ms) {
        long us = now.tv_usec + ms * 1000;
        now.tv_sec += us / 1000000;
        now.tv_usec = us % 1000000;
    }
    struct timeval now = {1000000, 0};
    std::vector<int> sleepsMs;                           // asked for, rounded
    std::atomic<bool> holdSleep{false}, inSleep{false};  // a sleep held while holdSleep
    int loopStarts = 0;

  protected:
    void currentTime(struct timeval* tv) override { *tv = now; }
    void startSpearLoop() override { loopStarts++; }
    void sleepFor(const struct timespec* ts) override {
        for (inSleep = true; holdSleep; usleep(1000)) {
        }
        inSleep = false;
        sleepsMs.push_back((ts->tv_nsec + 500000) / 1000000);
        if (ts->tv_nsec >= 1000000000) return;  // nanosleep refuses it
        advanceMs(ts->tv_nsec / 1000000);
        struct timespec real = {0, ts->tv_nsec / 20};
        nanosleep(&real, nullptr);
    }
};

// Keeps release notices as "pid reason".
struct ReleaseListener : android::BnInterface<IQmedBinderListener> {
    int onKstateCallback(int, unsigned char*) override { return 0; }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        std::lock_guard<std::mutex> l(lock);
        notices.push_back(std::to_string(pid) + " " + reason);
        return 0;
    }
    std::vector<std::string> got(int waitMs = 0) {  // waits up to waitMs for one at least
        auto copy = [&] { return std::lock_guard<std::mutex>(lock), notices; };
        waitUntil([&] { return !copy().empty(); }, waitMs);
        return copy();
    }
    std::mutex lock;
    std::vector<std::string> notices;
};

}  // namespace qmedtest
