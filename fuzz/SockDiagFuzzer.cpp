// Answers the socket destroyer's sock_diag requests with the input: dump replies (netlink
// framing, socket records, attributes) on the dump socket and error replies on the destroy
// socket, both over socket pairs.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "daemon/QmedGlobals.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "sockdiag/SockDiag.h"

namespace {

// Larger than the reader's buffer, so truncated datagrams are exercised as well.
constexpr size_t kMaxDatagram = 9000;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const uint8_t mode = in.u8();
    const int uid = in.i32();
    const int pid = in.i32();
    bDebug = (mode & 4) != 0;

    int dump[2];
    int destroy[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, dump) != 0) abort();
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, destroy) != 0) abort();
    // Every destroy request of a run stays queued at the peer: room for all of them, so the
    // harness never blocks the writer.
    for (int fd : {dump[0], dump[1], destroy[0], destroy[1]}) {
        int bytes = 8 << 20;
        if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) != 0) {
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
        }
    }
    while (!in.empty()) {
        const bool toDestroy = (in.u8() & 1) != 0;
        std::vector<uint8_t> d = in.chunk(kMaxDatagram);
        // Zero-length datagrams would read as the end of the dump; they cannot come from
        // the kernel either.
        if (d.empty()) continue;
        if (send(toDestroy ? destroy[1] : dump[1], d.data(), d.size(), MSG_DONTWAIT) < 0) break;
    }
    // The peer sends nothing more; the daemon's own requests still land in its queue.
    shutdown(dump[1], SHUT_WR);
    shutdown(destroy[1], SHUT_WR);

    {
        SockDiag diag(dump[0], destroy[0]);
        const bool excludeLoopback = (mode & 2) != 0;
        if ((mode & 1) != 0) {
            diag.destroySocketsPid(uid, pid, excludeLoopback);
        } else {
            diag.destroySocketsUid(uid, excludeLoopback);
        }
    }
    close(dump[1]);
    close(destroy[1]);
    bDebug = false;
    return 0;
}
