#define LOG_TAG "Qmed"

#include "sockdiag/SockDiag.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <log/log.h>
#include <netinet/in.h>
#include <poll.h>
#include <safe_mem_lib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "daemon/QmedGlobals.h"

namespace {

constexpr size_t kDumpBufferSize = 8192;
constexpr size_t kErrorReplySize = sizeof(nlmsghdr) + sizeof(nlmsgerr);
// Attributes follow the header and the fixed socket record.
constexpr size_t kAttrOffset = sizeof(nlmsghdr) + sizeof(inet_diag_msg);
static_assert(kAttrOffset == 88, "attributes start 88 bytes into a dumped message");

class Stopwatch {
  public:
    Stopwatch() : mStart(std::chrono::steady_clock::now()) {}
    float elapsedMs() const {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                std::chrono::steady_clock::now() - mStart);
        return static_cast<float>(ns.count()) / 1000000.0f;
    }

  private:
    std::chrono::steady_clock::time_point mStart;
};

// The code comes from the peer: INT_MIN must not be negated as an int.
const char* errorText(int ret) {
    return strerror(static_cast<int>(-static_cast<int64_t>(ret)));
}

const char* familyName(uint8_t family) {
    return family == AF_INET ? "IPv4" : "IPv6";
}

bool isMappedWithLastByte127(const uint8_t* a) {
    static const uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    // Byte 15, not the first byte of the embedded IPv4 address: kept for compatibility.
    return memcmp(a, kMappedPrefix, sizeof(kMappedPrefix)) == 0 && a[15] == 127;
}

bool isV6Loopback(const uint8_t* a) {
    static const uint8_t kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return memcmp(a, kLoopback, sizeof(kLoopback)) == 0;
}

}  // namespace

int checkError(SocketOps& ops, int fd) {
    alignas(nlmsghdr) uint8_t buf[kErrorReplySize];
    ssize_t n = ops.recv(fd, buf, sizeof(buf), MSG_PEEK | MSG_DONTWAIT);
    if (n == -1) return errno == EAGAIN ? 0 : -errno;
    if (n != static_cast<ssize_t>(sizeof(buf))) return 0;
    const nlmsghdr* h = reinterpret_cast<const nlmsghdr*>(buf);
    if (h->nlmsg_type != NLMSG_ERROR) return 0;
    nlmsgerr peeked;
    memcpy_s(&peeked, sizeof(peeked), buf + sizeof(nlmsghdr), sizeof(peeked));
    if (ops.recv(fd, buf, sizeof(buf), 0) != static_cast<ssize_t>(sizeof(buf))) return peeked.error;
    nlmsgerr err;
    memcpy_s(&err, sizeof(err), buf + sizeof(nlmsghdr), sizeof(err));
    return err.error;
}

int processNetlinkDump(SocketOps& ops, int fd, const std::function<void(nlmsghdr*)>& callback,
                       int timeoutMs) {
    alignas(nlmsghdr) uint8_t buf[kDumpBufferSize];
    memset_s(buf, sizeof(buf), 0, sizeof(buf));
    ssize_t n;
    do {
        pollfd pfd = {fd, POLLIN, 0};
        int ready = TEMP_FAILURE_RETRY(ops.poll(&pfd, 1, timeoutMs));
        if (ready < 0) return -errno;
        if (ready == 0) return -ETIMEDOUT;
        n = TEMP_FAILURE_RETRY(ops.read(fd, buf, sizeof(buf)));
        if (n < 0) return -errno;
        size_t off = 0;
        size_t len = static_cast<size_t>(n);
        while (len - off >= sizeof(nlmsghdr)) {
            nlmsghdr* h = reinterpret_cast<nlmsghdr*>(buf + off);
            if (h->nlmsg_len < sizeof(nlmsghdr) || h->nlmsg_len > len - off) break;
            if (h->nlmsg_type == NLMSG_DONE) return 0;
            if (h->nlmsg_type == NLMSG_ERROR) {
                if (h->nlmsg_len < sizeof(nlmsghdr) + sizeof(int)) return -EBADMSG;
                int code;
                memcpy_s(&code, sizeof(code), buf + off + sizeof(nlmsghdr), sizeof(code));
                return code;
            }
            callback(h);
            size_t step = NLMSG_ALIGN(h->nlmsg_len);
            if (step > len - off) break;
            off += step;
        }
    } while (n > 0);
    return 0;
}

SockDiag::SockDiag(SocketOps& ops)
    : mOps(ops), mDumpSock(-1), mDestroySock(-1), mDestroyedCount(0) {}

SockDiag::SockDiag(int dumpSock, int destroySock, SocketOps& ops)
    : mOps(ops), mDumpSock(dumpSock), mDestroySock(destroySock), mDestroyedCount(0) {}

SockDiag::~SockDiag() {
    closeSockets();
}

void SockDiag::closeSockets() {
    if (mDumpSock != -1) mOps.close(mDumpSock);
    if (mDestroySock != -1) mOps.close(mDestroySock);
    mDumpSock = -1;
    mDestroySock = -1;
}

bool SockDiag::open() {
    if (mDumpSock != -1 && mDestroySock != -1) return true;
    // A half-open pair is replaced without closing the survivor, as the service expects.
    mDumpSock = mOps.socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_INET_DIAG);
    mDestroySock = mOps.socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_INET_DIAG);
    bool ok = mDumpSock != -1 && mDestroySock != -1;
    if (ok) {
        sockaddr_nl nl;
        memset_s(&nl, sizeof(nl), 0, sizeof(nl));
        nl.nl_family = AF_NETLINK;
        const sockaddr* addr = reinterpret_cast<const sockaddr*>(&nl);
        ok = mOps.connect(mDumpSock, addr, sizeof(nl)) == 0 &&
             mOps.connect(mDestroySock, addr, sizeof(nl)) == 0;
    }
    if (!ok) closeSockets();
    return ok;
}

int SockDiag::sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                              iovec* iov, int iovcnt) {
    SOCK_DIAG_REQUEST request;
    memset_s(&request, sizeof(request), 0, sizeof(request));
    request.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.req.sdiag_family = family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_ext = extensions;
    request.req.idiag_states = states;

    size_t total = 0;
    if (iov != nullptr && iovcnt >= 1) {
        iov[0].iov_base = &request;
        iov[0].iov_len = sizeof(request);
        total = sizeof(request);
        for (int i = 1; i < iovcnt; i++) total += iov[i].iov_len;
    } else {
        iovcnt = 0;
    }
    request.nlh.nlmsg_len = static_cast<uint32_t>(total);

    ssize_t written = mOps.writev(mDumpSock, iov, iovcnt);
    if (written == static_cast<ssize_t>(total)) return checkError(mOps, mDumpSock);
    return written < 0 ? -errno : -EMSGSIZE;
}

int SockDiag::sockDestroy(uint8_t proto, const inet_diag_msg* msg) {
    if (msg == nullptr) return 0;

    SOCK_DIAG_REQUEST request;
    memset_s(&request, sizeof(request), 0, sizeof(request));
    request.nlh.nlmsg_len = sizeof(request);
    request.nlh.nlmsg_type = SOCK_DESTROY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST;
    request.req.sdiag_family = msg->idiag_family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_states = msg->idiag_state < 32 ? 1u << msg->idiag_state : 0;
    request.req.id = msg->id;

    int family = msg->idiag_family == AF_INET6 ? AF_INET6 : AF_INET;
    char src[INET6_ADDRSTRLEN] = "";
    char dst[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, msg->id.idiag_src, src, sizeof(src));
    // Both strings show the source address; existing log parsers expect this form.
    inet_ntop(family, msg->id.idiag_src, dst, sizeof(dst));
    int sport = ntohs(msg->id.idiag_sport);
    int dport = ntohs(msg->id.idiag_dport);

    ssize_t written = mOps.write(mDestroySock, &request, sizeof(request));
    if (written < static_cast<ssize_t>(sizeof(request))) {
        int err = written < 0 ? -errno : -EMSGSIZE;
        if (bDebug) {
            ALOGE("sockDestroy write err, uid=%d family=%d, idiag_state=%d, src=%s:%d, dst=%s:%d",
                  msg->idiag_uid, msg->idiag_family, msg->idiag_state, src, sport, dst, dport);
        }
        return err;
    }
    int err = checkError(mOps, mDestroySock);
    if (err != 0) {
        ALOGE("sockDestroy err, uid=%d family=%d, idiag_state=%d, src=%s:%d, dst=%s:%d",
              msg->idiag_uid, msg->idiag_family, msg->idiag_state, src, sport, dst, dport);
        return err;
    }
    mDestroyedCount++;
    switch (msg->idiag_state) {
        case 1:  // ESTABLISHED
        case 2:  // SYN_SENT
        case 8:  // CLOSE_WAIT
            break;
        default:
            ALOGI("sockDestroy succ, uid=%d family=%d, idiag_state=%d, src=%s:%d, dst=%s:%d",
                  msg->idiag_uid, msg->idiag_family, msg->idiag_state, src, sport, dst, dport);
    }
    return 0;
}

bool SockDiag::isLoopbackSocket(const inet_diag_msg* msg) {
    const uint8_t* src = reinterpret_cast<const uint8_t*>(msg->id.idiag_src);
    const uint8_t* dst = reinterpret_cast<const uint8_t*>(msg->id.idiag_dst);
    switch (msg->idiag_family) {
        case AF_INET:
            return src[0] == 127 || msg->id.idiag_src[0] == msg->id.idiag_dst[0] || dst[0] == 127;
        case AF_INET6:
            if (isMappedWithLastByte127(src)) return true;
            if (isMappedWithLastByte127(dst)) return true;
            if (isV6Loopback(src)) return true;
            if (isV6Loopback(dst)) return true;
            return memcmp(src, dst, 16) == 0;
        default:
            return false;
    }
}

int SockDiag::readDiagMsg(uint8_t proto,
                          const std::function<bool(uint8_t, const inet_diag_msg*)>& shouldDestroy) {
    return processNetlinkDump(mOps, mDumpSock, [&](nlmsghdr* nlh) {
        if (nlh->nlmsg_len < kAttrOffset) return;
        const inet_diag_msg* msg = reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(nlh));
        if (shouldDestroy(proto, msg)) sockDestroy(proto, msg);
    });
}

int SockDiag::readDiagMsgWithPid(
        uint8_t proto,
        const std::function<bool(uint8_t, uint32_t, const inet_diag_msg*)>& shouldDestroy) {
    return processNetlinkDump(mOps, mDumpSock, [&](nlmsghdr* nlh) {
        if (nlh->nlmsg_len < kAttrOffset) return;
        const inet_diag_msg* msg = reinterpret_cast<const inet_diag_msg*>(NLMSG_DATA(nlh));
        const uint8_t* attr = reinterpret_cast<const uint8_t*>(nlh) + kAttrOffset;
        long remaining = static_cast<long>(nlh->nlmsg_len - kAttrOffset);
        uint32_t ownerPid = 0;
        while (remaining >= static_cast<long>(sizeof(rtattr))) {
            rtattr rta;
            memcpy_s(&rta, sizeof(rta), attr, sizeof(rta));
            if (rta.rta_len < sizeof(rtattr) || rta.rta_len > remaining) break;
            if (rta.rta_type == kAttrOwnerPid) {
                if (rta.rta_len >= sizeof(rtattr) + sizeof(ownerPid)) {
                    memcpy_s(&ownerPid, sizeof(ownerPid), attr + sizeof(rtattr), sizeof(ownerPid));
                }
                break;
            }
            long step = RTA_ALIGN(rta.rta_len);
            attr += step;
            remaining -= step;
        }
        if (shouldDestroy(proto, ownerPid, msg)) sockDestroy(proto, msg);
    });
}

int SockDiag::destroySocketsUid(int uid, bool excludeLoopback) {
    mDestroyedCount = 0;
    Stopwatch s;
    auto shouldDestroy = [&](uint8_t, const inet_diag_msg* msg) {
        if (msg == nullptr) return false;
        if (static_cast<int>(msg->idiag_uid) != uid) return false;
        return !(excludeLoopback && isLoopbackSocket(msg));
    };
    for (uint8_t family : {AF_INET, AF_INET6}) {
        iovec iov[1];
        int ret = sendDumpRequest(IPPROTO_TCP, family, 0, kDestroyStates, iov, 1);
        if (ret != 0) {
            ALOGE("Failed to dump %s sockets for UID: %s", familyName(family), errorText(ret));
            return ret;
        }
        ret = readDiagMsg(IPPROTO_TCP, shouldDestroy);
        if (ret != 0) {
            ALOGE("Failed to destroy %s sockets for UID: %s", familyName(family), errorText(ret));
            return ret;
        }
    }
    if (mDestroyedCount >= 1) {
        ALOGI("Destroyed %d sockets for uid:%d in %.1f ms", mDestroyedCount, uid, s.elapsedMs());
    }
    return 0;
}

int SockDiag::destroySocketsPid(int uid, int pid, bool excludeLoopback) {
    mDestroyedCount = 0;
    Stopwatch s;
    auto shouldDestroy = [&](uint8_t, uint32_t ownerPid, const inet_diag_msg* msg) {
        if (msg == nullptr || ownerPid == 0) return false;
        if (static_cast<int>(msg->idiag_uid) != uid) return false;
        if (static_cast<int>(ownerPid) != pid) return false;
        return !(excludeLoopback && isLoopbackSocket(msg));
    };
    iovec iov[1];
    int ret = destroyLiveSocketsByPid(shouldDestroy, "PID", iov, 1);
    if (ret != 0) return ret;
    if (mDestroyedCount >= 1) {
        ALOGI("Destroyed %d sockets for uid:%d pid:%d in %.1f ms", mDestroyedCount, uid, pid,
              s.elapsedMs());
    }
    return 0;
}

int SockDiag::destroyLiveSocketsByPid(
        std::function<bool(uint8_t, uint32_t, const inet_diag_msg*)> shouldDestroy,
        const char* what, iovec* iov, int iovcnt) {
    for (uint8_t family : {AF_INET, AF_INET6}) {
        int ret = sendDumpRequest(IPPROTO_TCP, family, 0, kDestroyStates, iov, iovcnt);
        if (ret != 0) {
            ALOGE("Failed to dump %s sockets for %s: %s", familyName(family), what, errorText(ret));
            return ret;
        }
        ret = readDiagMsgWithPid(IPPROTO_TCP, shouldDestroy);
        if (ret != 0) {
            ALOGE("Failed to destroy %s sockets for %s: %s", familyName(family), what,
                  errorText(ret));
            return ret;
        }
    }
    return 0;
}
