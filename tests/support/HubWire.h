#pragma once

// Module wire messages and a recording binder, shared by the hub and listener tests.

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <mutex>

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

// A binder that keeps every transaction; a listener proxy over it shows the request bytes
// a listener process would receive.
struct RecordingBinder : android::BBinder {
    using Call = std::pair<uint32_t, Bytes>;  // code, request bytes
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override {
        EXPECT_EQ(0u, flags) << code;  // a reply is awaited
        std::lock_guard<std::mutex> lock(mLock);
        mCalls.emplace_back(code, Bytes(data.data(), data.data() + data.dataSize()));
        reply->writeInt32(7);
        return android::NO_ERROR;
    }
    android::sp<IQmedBinderListener> proxy() { return IQmedBinderListener::asInterface(this); }
    std::vector<Call> calls() {
        std::lock_guard<std::mutex> lock(mLock);
        return mCalls;
    }
    std::mutex mLock;
    std::vector<Call> mCalls;
};

}  // namespace qmedtest
