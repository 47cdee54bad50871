#pragma once

#include <binder/IInterface.h>
#include <sys/stat.h>

#include <condition_variable>
#include <mutex>

#include "limiter/ProcessLimiter.h"
#include "listener/IQmedBinderListener.h"
#include "tests/support/ToolRunner.h"

namespace qmedtest {

// A limiter with a fake clock and no loop thread: tests drive cycles directly.
// Sleeps advance the clock; realDivisor > 0 also sleeps that many times
// shorter for real so busy children run between samples.
class DrivenLimiter : public ProcessLimiter {
  public:
    explicit DrivenLimiter(const char* root = "/proc") : ProcessLimiter(root) {
        gettimeofday(&now, nullptr);
    }
    using ProcessLimiter::adjustWorkingRate;
    using ProcessLimiter::computeGroupLoad;
    using ProcessLimiter::findGroup;  // no loop thread: no lock needed
    using ProcessLimiter::mCpuCount;
    using ProcessLimiter::mGroups;
    using ProcessLimiter::mSelfGroup;
    using ProcessLimiter::spearCycle;
    using ProcessLimiter::updateLimiterGroup;

    void advanceMs(long ms) {
        long us = now.tv_usec + ms * 1000;
        now.tv_sec += us / 1000000;
        now.tv_usec = us % 1000000;
    }
    struct timeval now;
    std::vector<int> sleepsMs;  // asked for, rounded
    int loopStarts = 0, realDivisor = 0;

  protected:
    void currentTime(struct timeval* tv) override { *tv = now; }
    void startSpearLoop() override { loopStarts++; }
    void sleepFor(const struct timespec* ts) override {
        sleepsMs.push_back((ts->tv_nsec + 500000) / 1000000);
        if (ts->tv_nsec >= 1000000000) return;  // nanosleep refuses it
        advanceMs(ts->tv_nsec / 1000000);
        struct timespec real = {0, realDivisor > 0 ? ts->tv_nsec / realDivisor : 0};
        if (real.tv_nsec > 0) nanosleep(&real, nullptr);
    }
};

// A private folder laid out like procfs: <root>/<pid>/stat and status.
class FakeProc {
  public:
    ~FakeProc() { runCommand({"rm", "-rf", root}); }
    void write(int pid, const std::string& file, const std::string& text) {
        mkdir((root + "/" + std::to_string(pid)).c_str(), 0755);
        writeFile(root + "/" + std::to_string(pid) + "/" + file, text);
    }
    // Sets fields 4 (ppid), 14-15 (utime, stime) and 22 (start); the others are 0.
    void stat(int pid, const std::string& comm, int ppid, long ut = 0, long st = 0, long at = 0) {
        std::string s = std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid);
        for (int f = 5; f <= 52; f++)
            s += " " + std::to_string(f == 14 ? ut : f == 15 ? st : f == 22 ? at : 0);
        write(pid, "stat", s + "\n");
        write(pid, "status", "Name:\t" + comm + "\nTgid:\t" + std::to_string(pid) + "\n");
    }
    char tmpl[32] = "/tmp/limiter-proc-XXXXXX";
    std::string root = mkdtemp(tmpl);
};

// Records release notices; hold(true) blocks the callback like a stuck client.
class RecordingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    using Stops = std::vector<std::pair<int, std::string>>;
    int onKstateCallback(int, unsigned char*) override { return 0; }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        std::unique_lock<std::mutex> l(mLock);
        mCv.wait_for(l, std::chrono::seconds(5), [this] { return !held; });
        mStops.emplace_back(pid, reason);
        return 0;
    }
    void hold(bool h) {
        std::lock_guard<std::mutex> l(mLock);
        held = h;
        mCv.notify_all();
    }
    Stops waitFor(size_t n) {  // at least n notices, or what came within 3 s
        waitUntil([&] { return stops().size() >= n; }, 3000);
        return stops();
    }
    Stops stops() {
        std::lock_guard<std::mutex> l(mLock);
        return mStops;
    }

  private:
    std::mutex mLock;
    std::condition_variable mCv;
    bool held = false;
    Stops mStops;
};

}  // namespace qmedtest
