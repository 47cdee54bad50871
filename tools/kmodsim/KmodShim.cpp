// LD_PRELOAD interposer: the process's socket(AF_NETLINK, SOCK_RAW, 30) becomes a
// SOCK_SEQPACKET connection to the kernel-module simulator named by
// KMODSIM_SOCKET, with netlink addressing emulated on top. select/poll/close
// work on the real descriptor unchanged.

#include <dlfcn.h>
#include <errno.h>
#include <linux/netlink.h>
#include <poll.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>

#include "tools/kmodsim/KmodsimWire.h"

using namespace kmodsim;

namespace {

constexpr int kProtocol = 30;
constexpr int kMaxFd = 65536;

std::atomic<uint32_t> gBoundPid[kMaxFd];
std::atomic<bool> gShimmed[kMaxFd];

template <typename F>
F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

#define REAL(fn) static auto real_##fn = next<decltype(&::fn)>(#fn)

bool isShimmed(int fd) {
    return fd >= 0 && fd < kMaxFd && gShimmed[fd].load();
}

ssize_t sendRecord(int fd, uint32_t op, uint32_t arg, const struct iovec* iov, size_t iovcnt) {
    REAL(sendmsg);
    unsigned char header[kRecordHeader];
    putLe32(header, op);
    putLe32(header + 4, arg);
    struct iovec parts[1 + 64];
    if (iovcnt > 64) {
        errno = EMSGSIZE;
        return -1;
    }
    parts[0] = {header, sizeof(header)};
    size_t total = 0;
    for (size_t i = 0; i < iovcnt; ++i) {
        parts[1 + i] = iov[i];
        total += iov[i].iov_len;
    }
    struct msghdr msg = {};
    msg.msg_iov = parts;
    msg.msg_iovlen = 1 + iovcnt;
    ssize_t n = real_sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n < 0) return -1;
    return static_cast<ssize_t>(total);
}

ssize_t shimSend(int fd, const struct msghdr* msg) {
    uint32_t dest = 0;
    if (msg->msg_name != nullptr && msg->msg_namelen >= sizeof(struct sockaddr_nl)) {
        const struct sockaddr_nl* nl = static_cast<const struct sockaddr_nl*>(msg->msg_name);
        if (nl->nl_family != AF_NETLINK) {
            errno = EINVAL;
            return -1;
        }
        dest = nl->nl_pid;
    }
    return sendRecord(fd, OP_SEND, dest, msg->msg_iov, msg->msg_iovlen);
}

ssize_t shimRecv(int fd, struct msghdr* msg, int flags) {
    REAL(recvmsg);
    if (msg->msg_iovlen > 64) {
        errno = EMSGSIZE;
        return -1;
    }
    // The record header goes aside, the netlink message straight into the
    // caller's buffers.
    unsigned char header[kRecordHeader];
    struct iovec parts[1 + 64];
    parts[0] = {header, sizeof(header)};
    size_t room = 0;
    for (size_t i = 0; i < msg->msg_iovlen; ++i) {
        parts[1 + i] = msg->msg_iov[i];
        room += msg->msg_iov[i].iov_len;
    }
    for (;;) {
        struct msghdr inner = {};
        inner.msg_iov = parts;
        inner.msg_iovlen = 1 + msg->msg_iovlen;
        ssize_t n = real_recvmsg(fd, &inner, flags & (MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC));
        if (n < 0) return -1;
        if (n == 0) {
            // The simulator went away. A kernel module never hangs up: behave as
            // one that has nothing more to say instead of reporting end of file.
            if (flags & MSG_DONTWAIT) {
                errno = EAGAIN;
                return -1;
            }
            for (;;) pause();
        }
        if (static_cast<size_t>(n) < kRecordHeader || getLe32(header) != OP_DELIVER) continue;
        const size_t length = static_cast<size_t>(n) - kRecordHeader;
        msg->msg_flags = (inner.msg_flags & MSG_TRUNC) ? MSG_TRUNC : 0;
        if (msg->msg_name != nullptr) {
            struct sockaddr_nl from = {};
            from.nl_family = AF_NETLINK;
            from.nl_pid = getLe32(header + 4);
            socklen_t space = msg->msg_namelen;
            memcpy(msg->msg_name, &from, space < sizeof(from) ? space : sizeof(from));
            msg->msg_namelen = sizeof(from);
        }
        // With MSG_TRUNC the kernel reports the full record length.
        return static_cast<ssize_t>((flags & MSG_TRUNC) ? length : (length < room ? length : room));
    }
}

}  // namespace

extern "C" {

int socket(int domain, int type, int protocol) {
    REAL(socket);
    REAL(connect);
    const char* target = getenv("KMODSIM_SOCKET");
    if (domain != AF_NETLINK || protocol != kProtocol || (type & 0xf) != SOCK_RAW ||
        target == nullptr || target[0] == '\0') {
        return real_socket(domain, type, protocol);
    }
    struct sockaddr_un addr;
    socklen_t addrLen = makeAddress(target, &addr);
    if (addrLen == 0) {
        errno = EINVAL;
        return -1;
    }
    int fd = real_socket(AF_UNIX, SOCK_SEQPACKET | (type & (SOCK_CLOEXEC | SOCK_NONBLOCK)), 0);
    if (fd < 0) return -1;
    if (fd >= kMaxFd || real_connect(fd, reinterpret_cast<struct sockaddr*>(&addr), addrLen) < 0) {
        int saved = errno;
        close(fd);
        // What the kernel says when the module is not loaded.
        errno = saved == ENOENT || saved == ECONNREFUSED ? EPROTONOSUPPORT : saved;
        return -1;
    }
    gBoundPid[fd] = 0;
    gShimmed[fd] = true;
    sendRecord(fd, OP_HELLO, static_cast<uint32_t>(getpid()), nullptr, 0);
    return fd;
}

int close(int fd) {
    REAL(close);
    if (isShimmed(fd)) gShimmed[fd] = false;
    return real_close(fd);
}

int bind(int fd, const struct sockaddr* addr, socklen_t len) {
    REAL(bind);
    if (!isShimmed(fd)) return real_bind(fd, addr, len);
    if (addr == nullptr || len < sizeof(struct sockaddr_nl) || addr->sa_family != AF_NETLINK) {
        errno = EINVAL;
        return -1;
    }
    const struct sockaddr_nl* nl = reinterpret_cast<const struct sockaddr_nl*>(addr);
    uint32_t pid = nl->nl_pid != 0 ? nl->nl_pid : static_cast<uint32_t>(getpid());
    unsigned char groups[4];
    putLe32(groups, nl->nl_groups);
    struct iovec iov = {groups, sizeof(groups)};
    if (sendRecord(fd, OP_BIND, pid, &iov, 1) < 0) return -1;
    gBoundPid[fd] = pid;
    return 0;
}

int getsockname(int fd, struct sockaddr* addr, socklen_t* len) {
    REAL(getsockname);
    if (!isShimmed(fd)) return real_getsockname(fd, addr, len);
    if (addr == nullptr || len == nullptr) {
        errno = EFAULT;
        return -1;
    }
    struct sockaddr_nl nl = {};
    nl.nl_family = AF_NETLINK;
    nl.nl_pid = gBoundPid[fd];
    memcpy(addr, &nl, *len < sizeof(nl) ? *len : sizeof(nl));
    *len = sizeof(nl);
    return 0;
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
    REAL(setsockopt);
    if (isShimmed(fd) && level != SOL_SOCKET) return 0;
    return real_setsockopt(fd, level, name, value, len);
}

ssize_t sendmsg(int fd, const struct msghdr* msg, int flags) {
    REAL(sendmsg);
    if (!isShimmed(fd)) return real_sendmsg(fd, msg, flags);
    return shimSend(fd, msg);
}

ssize_t sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* to,
               socklen_t toLen) {
    REAL(sendto);
    if (!isShimmed(fd)) return real_sendto(fd, buf, len, flags, to, toLen);
    struct iovec iov = {const_cast<void*>(buf), len};
    struct msghdr msg = {};
    msg.msg_name = const_cast<struct sockaddr*>(to);
    msg.msg_namelen = to != nullptr ? toLen : 0;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    return shimSend(fd, &msg);
}

ssize_t send(int fd, const void* buf, size_t len, int flags) {
    REAL(send);
    if (!isShimmed(fd)) return real_send(fd, buf, len, flags);
    return sendto(fd, buf, len, flags, nullptr, 0);
}

ssize_t recvmsg(int fd, struct msghdr* msg, int flags) {
    REAL(recvmsg);
    if (!isShimmed(fd)) return real_recvmsg(fd, msg, flags);
    return shimRecv(fd, msg, flags);
}

ssize_t recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* from,
                 socklen_t* fromLen) {
    REAL(recvfrom);
    if (!isShimmed(fd)) return real_recvfrom(fd, buf, len, flags, from, fromLen);
    struct iovec iov = {buf, len};
    struct msghdr msg = {};
    msg.msg_name = from;
    msg.msg_namelen = fromLen != nullptr ? *fromLen : 0;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    ssize_t n = shimRecv(fd, &msg, flags);
    if (n >= 0 && fromLen != nullptr) *fromLen = msg.msg_namelen;
    return n;
}

ssize_t recv(int fd, void* buf, size_t len, int flags) {
    REAL(recv);
    if (!isShimmed(fd)) return real_recv(fd, buf, len, flags);
    return recvfrom(fd, buf, len, flags, nullptr, nullptr);
}

}  // extern "C"
