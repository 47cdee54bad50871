#pragma once

#include <binder/IInterface.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "listener/IQmedBinderListener.h"

namespace qmedtest {

// An in-process listener that records release notices. hold() makes it block
// inside the callback until release(), like a client that stopped answering.
class RecordingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    void hold() {
        std::lock_guard<std::mutex> l(mLock);
        mHeld = true;
    }
    void release() {
        std::lock_guard<std::mutex> l(mLock);
        mHeld = false;
        mCv.notify_all();
    }
    int onKstateCallback(int, unsigned char*) override { return 0; }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        std::unique_lock<std::mutex> l(mLock);
        mEntered++;
        mCv.notify_all();
        mCv.wait(l, [this] { return !mHeld; });
        mStops.emplace_back(pid, reason != nullptr ? reason : "");
        mCv.notify_all();
        return 0;
    }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }

    std::vector<std::pair<int, std::string>> stops() {
        std::lock_guard<std::mutex> l(mLock);
        return mStops;
    }
    // Notices arrive on the limiter's notifier thread: wait for the n-th.
    std::vector<std::pair<int, std::string>> waitForStops(size_t n, int timeoutMs = 3000) {
        std::unique_lock<std::mutex> l(mLock);
        mCv.wait_for(l, std::chrono::milliseconds(timeoutMs), [&] { return mStops.size() >= n; });
        return mStops;
    }
    bool waitEntered(int n, int timeoutMs = 3000) {
        std::unique_lock<std::mutex> l(mLock);
        return mCv.wait_for(l, std::chrono::milliseconds(timeoutMs), [&] { return mEntered >= n; });
    }

  private:
    std::mutex mLock;
    std::condition_variable mCv;
    bool mHeld = false;
    int mEntered = 0;
    std::vector<std::pair<int, std::string>> mStops;
};

}  // namespace qmedtest
