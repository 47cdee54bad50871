// Drives the hub's inbound path with the input as kernel-module datagrams: netlink framing
// (ChannelNetlink::getMessage), the TLV header and routing (ChannelManager), and kernel-state
// payloads through the bridge into the listener registry and a listener. The datagrams come
// from in-process sockets; only the hub's own select is a system call.
#include <binder/IInterface.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "fuzz/FuzzScratch.h"
#include "fuzz/FuzzSockets.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "msghub/ChannelManager.h"
#include "msghub/ChannelNetlink.h"
#include "msghub/Kstate.h"
#include "msghub/TlvEncDec.h"

using android::sp;

namespace {

// The netlink channel over a fuzz socket instead of the module's socket.
class FuzzChannel : public ChannelNetlink {
  public:
    FuzzChannel(FuzzSockets& sockets, int fd, int id) : ChannelNetlink(sockets) {
        mFd = fd;
        mId = id;
    }
    int init() override { return 0; }
};

// Reads everything a listener proxy would marshal, so a short payload shows up as an overrun.
class ReadingListener : public android::BnInterface<IQmedBinderListener> {
  public:
    int onKstateCallback(int len, unsigned char* data) override {
        if (data != nullptr && len > 0) fuzzTouch(data, static_cast<size_t>(len) * 4);
        return 0;
    }
    int onNetworkPacketCallback(int count, const int* data) override {
        if (data != nullptr && count > 0) fuzzTouch(data, static_cast<size_t>(count) * 4);
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
FuzzSockets* sSockets;
int sKernelFd;
// Takes what the hub forwards; sends nothing back.
int sPeerFd;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    sFrzRoot = fuzzScratchDir("hubfuzz");
    // A freezer over a plain directory: binder-call records are kept, nothing is frozen.
    sp<Freezer> freezer = new Freezer(android::String8(sFrzRoot.c_str()));
    sRegistry = new IQmedBinderListenerService(freezer, Spear::getInstance());
    sRegistry->registerListener(new ReadingListener(), 0x3FFFFFFF);
    Kstate::getInstance()->binderListener(sRegistry);
    sSockets = new FuzzSockets();
    sKernelFd = sSockets->open(FuzzSockets::kOpen);
    sPeerFd = sSockets->open(FuzzSockets::kSilent);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sRegistry == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    FuzzInput in(data, size);
    const uint8_t flags = in.u8();
    bDebug = (flags & 0x80) != 0;
    const int peerId = kPeerIds[(flags & 0x7f) % (sizeof(kPeerIds) / sizeof(kPeerIds[0]))];

    while (!in.empty()) {
        size_t len;
        const uint8_t* d = in.chunkInPlace(kMaxDatagram, &len);
        sSockets->queue(sKernelFd, d, len);
    }
    // A well-formed empty message last: the hub re-reads after a malformed one, and must
    // find something rather than block.
    static const uint32_t kSentinel[4] = {16, 0, 0, 0};
    sSockets->queue(sKernelFd, reinterpret_cast<const uint8_t*>(kSentinel), sizeof(kSentinel));

    {
        sp<ChannelManager> hub = new ChannelManager();
        // Listed first so the kernel channel is looked up past it.
        hub->add(new FuzzChannel(*sSockets, sPeerFd, peerId));
        hub->add(new FuzzChannel(*sSockets, sKernelFd, 0));
        while (sSockets->pending(sKernelFd)) {
            if (hub->selectChannel() < 0) break;
            hub->checkChannel();
        }
    }
    sSockets->clear();
    bDebug = false;
    return 0;
}
