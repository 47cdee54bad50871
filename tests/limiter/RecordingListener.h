#pragma once

#include <binder/IInterface.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "listener/IQmedBinderListener.h"

namespace qmedtest {

// An in-process listener that records release notices.
class RecordingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    int onKstateCallback(int, unsigned char*) override { return 0; }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        std::lock_guard<std::mutex> l(mLock);
        mStops.emplace_back(pid, reason != nullptr ? reason : "");
        return 0;
    }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }

    std::vector<std::pair<int, std::string>> stops() {
        std::lock_guard<std::mutex> l(mLock);
        return mStops;
    }

  private:
    std::mutex mLock;
    std::vector<std::pair<int, std::string>> mStops;
};

}  // namespace qmedtest
