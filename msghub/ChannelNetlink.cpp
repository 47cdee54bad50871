#define LOG_TAG "Qmed-MsgHub"

#include "msghub/ChannelNetlink.h"

#include <errno.h>
#include <linux/netlink.h>
#include <log/log.h>
#include <safe_mem_lib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/QmedGlobals.h"

static_assert(sizeof(struct nlmsghdr) == ChannelNetlink::kNlHeaderSize,
              "netlink header is 16 bytes");
static_assert(__builtin_offsetof(struct nlmsghdr, nlmsg_pid) == 12, "nlmsg_pid at 12");
static_assert(sizeof(struct sockaddr_nl) == 12, "sockaddr_nl is 12 bytes");
static_assert(ChannelNetlink::nlSpace(16) == 32 && ChannelNetlink::nlSpace(17) == 36,
              "netlink messages are padded to 4 bytes");

ChannelNetlink::ChannelNetlink(SocketOps& ops) : mOps(ops) {}

ChannelNetlink::~ChannelNetlink() {
    // Closed here, through the same calls that opened it; the base then finds nothing to close.
    if (mFd >= 1) mOps.close(mFd);
    mFd = -1;
}

int ChannelNetlink::init() {
    int fd = mOps.socket(AF_NETLINK, SOCK_RAW, kNetlinkProtocol);
    if (fd < 0) {
        ALOGE("Obtaining netlink socket failed (%s), exit.", strerror(errno));
        // Without the kernel channel the daemon has no reason to run.
        exit(-1);
    }
    mFd = fd;

    struct sockaddr_nl local;
    memset_s(&local, sizeof(local), 0, sizeof(local));
    local.nl_family = AF_NETLINK;
    local.nl_pid = static_cast<__u32>(getpid());
    local.nl_groups = 0;
    if (mOps.bind(mFd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) < 0) {
        ALOGE("Bind socket failed (%s)", strerror(errno));
        return -1;
    }
    return 0;
}

int ChannelNetlink::getMessage(char* buf, unsigned* len) {
    if (buf == nullptr || len == nullptr || mFd < 0) {
        return -1;
    }
    const unsigned size = nlSpace(*len);
    if (size < *len) {
        return -1;
    }
    char* nlbuf = static_cast<char*>(calloc(1, size));
    if (nlbuf == nullptr) {
        ALOGE("malloc nlmsghdr failed (%s)", strerror(errno));
        return -1;
    }

    struct sockaddr_nl from;
    memset_s(&from, sizeof(from), 0, sizeof(from));
    struct iovec iov = {nlbuf, size};
    struct msghdr msg;
    memset_s(&msg, sizeof(msg), 0, sizeof(msg));
    msg.msg_name = &from;
    msg.msg_namelen = sizeof(from);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;

    ssize_t received = mOps.recvmsg(mFd, &msg, 0);
    if (received < 0) {
        ALOGE("Failed to recvmsg");
        free(nlbuf);
        return -1;
    }

    // nlmsg_len comes from the peer: only what was actually received, and what
    // fits the caller's buffer, is ever copied.
    const struct nlmsghdr* nlh = reinterpret_cast<const struct nlmsghdr*>(nlbuf);
    const unsigned got = static_cast<unsigned>(received);
    if (got < kNlHeaderSize || nlh->nlmsg_len < kNlHeaderSize) {
        ALOGE("Malformed netlink message (nlmsg_len %u, received %u)",
              got < kNlHeaderSize ? 0u : nlh->nlmsg_len, got);
        free(nlbuf);
        return -1;
    }
    unsigned payload = nlh->nlmsg_len - kNlHeaderSize;
    if (nlh->nlmsg_len > got) {
        ALOGE("Truncated netlink message (nlmsg_len %u, received %u)", nlh->nlmsg_len, got);
        payload = got - kNlHeaderSize;
    }
    if (payload > *len) {
        payload = *len;
    }
    if (payload > 0 && memcpy_s(buf, payload, nlbuf + kNlHeaderSize, payload) != EOK) {
        free(nlbuf);
        return -1;
    }
    *len = payload;
    free(nlbuf);
    return 0;
}

int ChannelNetlink::putMessage(const char* buf, unsigned len) {
    if (buf == nullptr || mFd < 0) {
        return -1;
    }
    const unsigned size = nlSpace(len);
    if (size < len) {
        return -1;
    }
    char* nlbuf = static_cast<char*>(calloc(1, size));
    if (nlbuf == nullptr) {
        ALOGE("malloc nlmsghdr failed (%s)", strerror(errno));
        return -1;
    }
    struct nlmsghdr* nlh = reinterpret_cast<struct nlmsghdr*>(nlbuf);
    // The aligned size, not NLMSG_LENGTH: the module expects it this way.
    nlh->nlmsg_len = size;
    nlh->nlmsg_type = 0;
    nlh->nlmsg_flags = 0;
    nlh->nlmsg_seq = 0;
    nlh->nlmsg_pid = static_cast<__u32>(getpid());
    if (len > 0 && memcpy_s(nlbuf + kNlHeaderSize, len, buf, len) != EOK) {
        free(nlbuf);
        return -1;
    }

    struct sockaddr_nl dest;
    memset_s(&dest, sizeof(dest), 0, sizeof(dest));
    dest.nl_family = AF_NETLINK;
    dest.nl_pid = 0;
    dest.nl_groups = 0;
    struct iovec iov = {nlbuf, size};
    struct msghdr msg;
    memset_s(&msg, sizeof(msg), 0, sizeof(msg));
    msg.msg_name = &dest;
    msg.msg_namelen = sizeof(dest);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;

    if (mOps.sendmsg(mFd, &msg, 0) < 0) {
        ALOGE("Failed to sendmsg (%s)", strerror(errno));
        free(nlbuf);
        return -1;
    }
    if (bDebug) ALOGD("sendmsg to netlink(%d)", len);
    free(nlbuf);
    return 0;
}

int ChannelNetlink::processMessage(const char* buf, unsigned) {
    return buf != nullptr ? 0 : -1;
}

ChannelNetlinkFactory::ChannelNetlinkFactory(SocketOps& ops) : mOps(ops) {}

Channel* ChannelNetlinkFactory::createChannel() {
    return new ChannelNetlink(mOps);
}
