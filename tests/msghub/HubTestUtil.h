#pragma once

// Helpers shared by the message hub tests: a channel over a socketpair whose far
// end the test plays, and a local listener that keeps what it is handed.

#include <binder/IInterface.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "listener/IQmedBinderListener.h"
#include "msghub/Channel.h"
#include "msghub/TlvEncDec.h"

namespace hubtest {

template <typename Pred>
bool waitFor(Pred pred, int timeoutMs = 5000) {
    for (int waited = 0; waited < timeoutMs; waited += 5) {
        if (pred()) return true;
        usleep(5000);
    }
    return pred();
}

inline std::vector<uint8_t> tlvMessage(int tag, int src, int dst, int len,
                                       const std::vector<uint8_t>& payload = {}) {
    TLV_HEADER h = {tag, src, dst, len};
    std::vector<uint8_t> m(sizeof(h) + payload.size());
    memcpy(m.data(), &h, sizeof(h));
    if (!payload.empty()) memcpy(m.data() + sizeof(h), payload.data(), payload.size());
    return m;
}

inline std::vector<uint8_t> eventPayload(int kind, const std::string& text) {
    std::vector<uint8_t> p(16, 0);
    memcpy(p.data(), &kind, sizeof(kind));
    p.insert(p.end(), text.begin(), text.end());
    p.push_back(0);
    return p;
}

class PairChannel : public Channel {
  public:
    explicit PairChannel(int id = 0, bool failInit = false, bool* destroyed = nullptr)
        : mFailInit(failInit), mDestroyed(destroyed) {
        mId = id;
    }
    ~PairChannel() override {
        if (mPeer >= 0) close(mPeer);
        if (mDestroyed != nullptr) *mDestroyed = true;
    }

    int init() override {
        if (mFailInit) return -1;
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) return -1;
        mFd = sv[0];
        mPeer = sv[1];
        return 0;
    }
    int getMessage(char* buf, unsigned* len) override {
        ssize_t n = recv(mFd, buf, *len, 0);
        if (n == 0) return kConnectionGone;
        if (n < 0) return -1;
        *len = static_cast<unsigned>(n);
        return 0;
    }
    int putMessage(const char* buf, unsigned len) override {
        return send(mFd, buf, len, MSG_NOSIGNAL) < 0 ? -1 : 0;
    }

    // The far end.
    bool inject(const std::vector<uint8_t>& bytes) {
        return send(mPeer, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Next message sent on the channel, empty when none is pending.
    std::vector<uint8_t> sent() {
        std::vector<uint8_t> buf(65536);
        ssize_t n = recv(mPeer, buf.data(), buf.size(), MSG_DONTWAIT);
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }
    void hangUp() {
        close(mPeer);
        mPeer = -1;
    }

  private:
    bool mFailInit;
    bool* mDestroyed;
    int mPeer = -1;
};

class PairFactory : public ChannelFactory {
  public:
    explicit PairFactory(PairChannel** made = nullptr, bool failInit = false,
                         bool* destroyed = nullptr)
        : mMade(made), mFailInit(failInit), mDestroyed(destroyed) {}
    Channel* createChannel() override {
        PairChannel* c = new PairChannel(0, mFailInit, mDestroyed);
        if (mMade != nullptr) *mMade = c;
        return c;
    }

  private:
    PairChannel** mMade;
    bool mFailInit;
    bool* mDestroyed;
};

// A listener living in the test process: the registry calls it directly.
class KeepingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    struct Call {
        int len;
        std::vector<uint8_t> words;  // the len x 4 bytes the proxy would send
    };

    int onKstateCallback(int len, unsigned char* data) override {
        std::lock_guard<std::mutex> lock(mLock);
        Call c{len, {}};
        if (len > 0 && data != nullptr) c.words.assign(data, data + static_cast<size_t>(len) * 4);
        mCalls.push_back(c);
        return 0;
    }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int onStopProcSpearCallback(int, const char*) override { return 0; }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }

    std::vector<Call> calls() {
        std::lock_guard<std::mutex> lock(mLock);
        return mCalls;
    }

  private:
    std::mutex mLock;
    std::vector<Call> mCalls;
};

}  // namespace hubtest
