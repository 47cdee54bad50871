// Drives the hub's inbound path with the input as kernel-module datagrams: netlink framing
// (ChannelNetlink::getMessage), the TLV header and routing (ChannelManager), and kernel-state
// payloads through the bridge into the listener registry and a listener.
#include <binder/IInterface.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "fuzz/FuzzScratch.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "msghub/ChannelManager.h"
#include "msghub/ChannelNetlink.h"
#include "msghub/Kstate.h"
#include "msghub/TlvEncDec.h"

using android::sp;

namespace {

// The netlink channel over a socket pair instead of the module's socket.
class PairChannel : public ChannelNetlink {
  public:
    PairChannel(int fd, int id) {
        mFd = fd;
        mId = id;
    }
    int init() override { return 0; }
};

// Reads everything a listener proxy would marshal, so a short payload shows up as an overrun.
class ReadingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    int onKstateCallback(int len, unsigned char* data) override {
        unsigned sum = 0;
        for (int i = 0; data != nullptr && i < len * 4; i++) sum += data[i];
        mSink += sum;
        return 0;
    }
    int onNetworkPacketCallback(int count, const int* data) override {
        for (int i = 0; data != nullptr && i < count; i++) mSink += static_cast<unsigned>(data[i]);
        return 0;
    }
    int onStopProcSpearCallback(int pid, const char* reason) override {
        mSink += static_cast<unsigned>(pid) + (reason != nullptr ? strlen(reason) : 0);
        return 0;
    }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }

    volatile unsigned mSink = 0;
};

constexpr size_t kMaxDatagram = 4096;
// Channel ids the second channel may claim: the kernel, the bridge's own, or any other.
const int kPeerIds[] = {TLV_ID_KERNEL, TLV_ID_KSTATE, TLV_ID_HUB, 2, 0};

sp<IQmedBinderListenerService> sRegistry;
std::string sFrzRoot;

bool readable(int fd) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    sFrzRoot = fuzzScratchDir("hubfuzz");
    // A freezer over a plain directory: binder-call records are kept, nothing is frozen.
    sp<Freezer> freezer = new Freezer(android::String8(sFrzRoot.c_str()));
    sRegistry = new IQmedBinderListenerService(freezer, Spear::getInstance());
    sRegistry->registerListener(new ReadingListener(), 0x3FFFFFFF);
    Kstate::getInstance()->binderListener(sRegistry);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sRegistry == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    FuzzInput in(data, size);
    const uint8_t flags = in.u8();
    bDebug = (flags & 0x80) != 0;
    const int peerId = kPeerIds[(flags & 0x7f) % (sizeof(kPeerIds) / sizeof(kPeerIds[0]))];

    int kernel[2];
    int peer[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, kernel) != 0) abort();
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, peer) != 0) abort();
    for (int fd : {kernel[0], kernel[1], peer[0], peer[1]}) {
        int bytes = 8 << 20;
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) != 0) {
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        }
    }
    while (!in.empty()) {
        std::vector<uint8_t> d = in.chunk(kMaxDatagram);
        if (send(kernel[1], d.data(), d.size(), MSG_DONTWAIT) < 0) break;
    }
    // A well-formed empty message last: the hub re-reads after a malformed one, and must
    // find something rather than block.
    const uint32_t sentinel[4] = {16, 0, 0, 0};
    send(kernel[1], sentinel, sizeof(sentinel), MSG_DONTWAIT);

    {
        sp<ChannelManager> hub = new ChannelManager();
        // Listed first so the kernel channel is looked up past it.
        hub->add(new PairChannel(peer[0], peerId));
        hub->add(new PairChannel(kernel[0], 0));
        while (readable(kernel[0])) {
            if (hub->selectChannel() < 0) break;
            hub->checkChannel();
        }
    }
    close(kernel[1]);
    close(peer[1]);
    bDebug = false;
    return 0;
}
