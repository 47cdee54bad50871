#pragma once

#include <signal.h>
#include <sys/time.h>
#include <time.h>
#include <utils/Mutex.h>

#include <string>
#include <vector>

#include "limiter/ProcessLimiter.h"

namespace qmedtest {

// A limiter whose clock and sleeps are fake and whose loop never starts on its
// own: tests drive cycles and updates directly. Every sleep advances the fake
// clock; realDivisor > 0 also sleeps for real, that many times shorter, so busy
// children accumulate CPU time between samples.
class DrivenLimiter : public ProcessLimiter {
  public:
    explicit DrivenLimiter(const char* procRoot = "/proc") : ProcessLimiter(procRoot) {
        gettimeofday(&mNow, nullptr);
    }

    using ProcessLimiter::adjustWorkingRate;
    using ProcessLimiter::computeGroupLoad;
    using ProcessLimiter::mCpuCount;
    using ProcessLimiter::mCycle;
    using ProcessLimiter::mGroups;
    using ProcessLimiter::mLock;
    using ProcessLimiter::mLoopRunning;
    using ProcessLimiter::mLoopStart;
    using ProcessLimiter::mSelfGroup;
    using ProcessLimiter::reportProcGroup;
    using ProcessLimiter::reportQmedState;
    using ProcessLimiter::spearCycle;

    void update() {
        android::Mutex::Autolock l(mLock);
        updateLimiterGroup();
    }
    // The loop's first update, then n cycles.
    void startAndRun(int n) {
        update();
        for (int i = 0; i < n; i++) spearCycle();
    }
    void advanceMs(long ms) {
        long us = mNow.tv_usec + ms * 1000;
        mNow.tv_sec += us / 1000000;
        mNow.tv_usec = us % 1000000;
    }
    processGroup* group(int index) {
        listNode* n = mGroups->first;
        for (int i = 0; n != nullptr && i < index; i++) n = n->next;
        return n != nullptr ? static_cast<processGroup*>(n->data) : nullptr;
    }
    processGroup* groupOf(int pid) {
        for (listNode* n = mGroups->first; n != nullptr; n = n->next) {
            processGroup* g = static_cast<processGroup*>(n->data);
            if (g != nullptr && g->ownerPid == pid) return g;
        }
        return nullptr;
    }
    struct timeval mNow;
    std::vector<long> mSleeps;  // nanoseconds asked for, in order
    int mLoopStarts = 0;
    int mRealDivisor = 0;

  protected:
    void currentTime(struct timeval* tv) override { *tv = mNow; }
    void sleepFor(const struct timespec* ts) override {
        mSleeps.push_back(ts->tv_nsec);
        if (ts->tv_nsec >= 1000000000 || ts->tv_nsec < 0) return;  // EINVAL for nanosleep
        advanceMs(ts->tv_sec * 1000 + ts->tv_nsec / 1000000);
        if (mRealDivisor > 0) {
            struct timespec real = {0, ts->tv_nsec / mRealDivisor};
            nanosleep(&real, nullptr);
        }
    }
    void startSpearLoop() override { mLoopStarts++; }
};

}  // namespace qmedtest
