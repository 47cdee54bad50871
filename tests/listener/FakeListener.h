#pragma once

// An in-process listener that records every callback it receives.

#include <binder/IInterface.h>
#include <string.h>
#include <utils/String8.h>

#include <mutex>
#include <string>
#include <vector>

#include "listener/IQmedBinderListener.h"

class FakeListener : public android::BnInterface<IQmedBinderListener> {
  public:
    struct Kstate {
        int len;
        std::vector<unsigned char> words;  // len * 4 bytes, as the proxy would send
    };

    int onKstateCallback(int len, unsigned char* data) override {
        std::lock_guard<std::mutex> lock(mLock);
        Kstate k{len, {}};
        // Read exactly what the proxy would: len words.
        if (data != nullptr && len > 0) k.words.assign(data, data + static_cast<size_t>(len) * 4);
        kstate.push_back(k);
        return 0;
    }
    int onNetworkPacketCallback(int count, const int* data) override {
        std::lock_guard<std::mutex> lock(mLock);
        packets.push_back(std::vector<int>(data, data + (count > 0 ? count : 0)));
        return 0;
    }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        std::lock_guard<std::mutex> lock(mLock);
        released.push_back(std::to_string(pid) + ":" + (reason ? reason : "(null)"));
        return 0;
    }
    int dump(int fd, const android::Vector<android::String16>& args) override {
        std::lock_guard<std::mutex> lock(mLock);
        std::string joined;
        for (size_t i = 0; i < args.size(); i++) joined += android::String8(args[i]).c_str();
        dumps.push_back(joined);
        if (fd >= 0) dprintf(fd, "fake listener\n");
        return 0;
    }

    size_t kstateCount() {
        std::lock_guard<std::mutex> lock(mLock);
        return kstate.size();
    }

    std::mutex mLock;
    std::vector<Kstate> kstate;
    std::vector<std::vector<int>> packets;
    std::vector<std::string> released;
    std::vector<std::string> dumps;
};

// A kernel-state payload as the module sends it: kind at 0, text from 16.
inline std::vector<unsigned char> kstatePayload(int kind, const std::string& text) {
    std::vector<unsigned char> p(16 + text.size() + 1, 0);
    memcpy(p.data(), &kind, sizeof(kind));
    memcpy(p.data() + 16, text.c_str(), text.size() + 1);
    return p;
}
