// Answers the socket destroyer's sock_diag requests with the input: dump replies (netlink
// framing, socket records, attributes) on the dump socket and error replies on the destroy
// socket, both in-process sockets whose peer has sent everything and shut down.
#include <stdint.h>

#include "daemon/QmedGlobals.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "fuzz/FuzzSockets.h"
#include "sockdiag/SockDiag.h"

namespace {

// Larger than the reader's buffer, so truncated datagrams are exercised as well.
constexpr size_t kMaxDatagram = 9000;

FuzzSockets* sSockets;
int sDumpFd;
int sDestroyFd;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    sSockets = new FuzzSockets();
    sDumpFd = sSockets->open(FuzzSockets::kShutDown);
    sDestroyFd = sSockets->open(FuzzSockets::kShutDown);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sSockets == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    FuzzInput in(data, size);
    const uint8_t mode = in.u8();
    const int uid = in.i32();
    const int pid = in.i32();
    bDebug = (mode & 4) != 0;

    while (!in.empty()) {
        const bool toDestroy = (in.u8() & 1) != 0;
        size_t len;
        const uint8_t* d = in.chunkInPlace(kMaxDatagram, &len);
        // Zero-length datagrams would read as the end of the dump; they cannot come from
        // the kernel either.
        if (len > 0) sSockets->queue(toDestroy ? sDestroyFd : sDumpFd, d, len);
    }
    {
        SockDiag diag(sDumpFd, sDestroyFd, *sSockets);
        const bool excludeLoopback = (mode & 2) != 0;
        if ((mode & 1) != 0) {
            diag.destroySocketsPid(uid, pid, excludeLoopback);
        } else {
            diag.destroySocketsUid(uid, excludeLoopback);
        }
    }
    sSockets->clear();
    bDebug = false;
    return 0;
}
