#pragma once

// Module wire messages and a recording listener, shared by the hub and listener tests.

#include <binder/IInterface.h>
#include <utils/String8.h>

#include <mutex>
#include <string>
#include <vector>

#include "listener/IQmedBinderListener.h"
#include "msghub/TlvEncDec.h"

namespace qmedtest {

using Bytes = std::vector<uint8_t>;

inline Bytes tlvMessage(int tag, int src, int dst, int len, const Bytes& payload = {}) {
    TLV_HEADER h = {tag, src, dst, len};
    Bytes m(reinterpret_cast<uint8_t*>(&h), reinterpret_cast<uint8_t*>(&h + 1));
    m.insert(m.end(), payload.begin(), payload.end());
    return m;
}

// nlmsg_len (0: the padded size), zero type, flags and seq, the sender's pid, then the
// body padded to 4 bytes.
inline Bytes netlinkMessage(uint32_t pid, const Bytes& body = {}, uint32_t nlLen = 0) {
    Bytes m = tlvMessage(nlLen ? nlLen : (19 + body.size()) & ~3u, 0, 0, pid, body);
    m.resize((m.size() + 3) & ~size_t(3), 0);
    return m;
}

// A kernel-state event as the module sends it: kind at 0, zeros to 16, text and NUL.
inline Bytes eventPayload(int kind, const std::string& text) {
    Bytes p = tlvMessage(kind, 0, 0, 0, Bytes(text.begin(), text.end()));
    p.push_back(0);
    return p;
}

inline std::string hexOf(const Bytes& v) {
    std::string s;
    for (uint8_t x : v) s += std::string{"0123456789abcdef"[x >> 4], "0123456789abcdef"[x & 15]};
    return s;
}

// A listener in the test process that keeps every callback.
class RecordingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    int onKstateCallback(int len, unsigned char* data) override {  // len words, as sent
        std::lock_guard<std::mutex> lock(mLock);
        mKstate.emplace_back(data, data + (data && len > 0 ? size_t(len) * 4 : 0));
        return 0;
    }
    int onNetworkPacketCallback(int count, const int* data) override {
        std::string s = "packets";
        for (int i = 0; i < count; i++) s += " " + std::to_string(data[i]);
        return note(s);
    }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        return note("release " + std::to_string(pid) + " " + reason);
    }
    int dump(int, const android::Vector<android::String16>& args) override {
        std::string s = "dump";
        for (const android::String16& a : args) s += std::string(" ") + android::String8(a).c_str();
        return note(s);
    }
    std::vector<Bytes> kstateCalls() {
        std::lock_guard<std::mutex> lock(mLock);
        return mKstate;
    }
    std::vector<std::string> otherCalls() {
        std::lock_guard<std::mutex> lock(mLock);
        return mOthers;
    }

  private:
    int note(const std::string& s) {
        std::lock_guard<std::mutex> lock(mLock);
        mOthers.push_back(s);
        return 0;
    }
    std::mutex mLock;
    std::vector<Bytes> mKstate;
    std::vector<std::string> mOthers;
};

}  // namespace qmedtest
