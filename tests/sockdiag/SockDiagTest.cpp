#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <limits.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "sockdiag/SockDiag.h"

using qmed::host::LogCapture;

namespace {

// One end handed to SockDiag, the other played by the test as the kernel.
struct Channel {
    int mine = -1;
    int peer = -1;
    Channel() {
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) == 0) {
            mine = sv[0];
            peer = sv[1];
        }
    }
    ~Channel() {
        if (peer >= 0) close(peer);
    }
    void send(const std::string& datagram) const {
        ASSERT_EQ(::send(peer, datagram.data(), datagram.size(), 0),
                  static_cast<ssize_t>(datagram.size()));
    }
    // Every request the daemon wrote so far, one per datagram.
    std::vector<std::string> received() const {
        std::vector<std::string> out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(peer, buf, sizeof(buf), MSG_DONTWAIT)) > 0) out.emplace_back(buf, n);
        return out;
    }
    bool empty() const {
        char c;
        return recv(mine, &c, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }
};

std::string bytes(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

std::string hex(const std::string& s) {
    static const char* d = "0123456789abcdef";
    std::string out;
    for (unsigned char c : s) {
        out += d[c >> 4];
        out += d[c & 15];
    }
    return out;
}

std::string nlmsg(uint16_t type, const std::string& payload, uint32_t lenOverride = 0) {
    nlmsghdr h = {};
    h.nlmsg_len = lenOverride ? lenOverride : sizeof(h) + payload.size();
    h.nlmsg_type = type;
    h.nlmsg_flags = NLM_F_MULTI;
    std::string m = bytes(&h, sizeof(h)) + payload;
    m.resize(NLMSG_ALIGN(m.size()), '\0');
    return m;
}

std::string errorMsg(int code) {
    nlmsgerr e = {};
    e.error = code;
    e.msg.nlmsg_len = 72;
    e.msg.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    return nlmsg(NLMSG_ERROR, bytes(&e, sizeof(e)));
}

std::string done() {
    int zero = 0;
    return nlmsg(NLMSG_DONE, bytes(&zero, sizeof(zero)));
}

std::string attr(uint16_t type, const std::string& payload, uint16_t lenOverride = 0) {
    rtattr a;
    a.rta_len = lenOverride ? lenOverride : sizeof(a) + payload.size();
    a.rta_type = type;
    std::string s = bytes(&a, sizeof(a)) + payload;
    s.resize(RTA_ALIGN(s.size()), '\0');
    return s;
}

std::string pidAttr(uint32_t pid) {
    return attr(SockDiag::kAttrOwnerPid, bytes(&pid, sizeof(pid)));
}

inet_diag_msg diag(uint8_t family, uint8_t state, uint32_t uid, const char* src, uint16_t sport,
                   const char* dst, uint16_t dport) {
    inet_diag_msg m = {};
    m.idiag_family = family;
    m.idiag_state = state;
    m.idiag_uid = uid;
    m.idiag_inode = 777;
    m.id.idiag_sport = htons(sport);
    m.id.idiag_dport = htons(dport);
    m.id.idiag_if = 3;
    m.id.idiag_cookie[0] = 0x11223344;
    m.id.idiag_cookie[1] = 0x55667788;
    inet_pton(family, src, m.id.idiag_src);
    inet_pton(family, dst, m.id.idiag_dst);
    return m;
}

std::string diagMsg(const inet_diag_msg& m, const std::string& attrs = "") {
    return nlmsg(SOCK_DIAG_BY_FAMILY, bytes(&m, sizeof(m)) + attrs);
}

// The socket id carried by a destroy request.
std::string requestId(const std::string& request) {
    return request.substr(24, 48);
}

std::string idOf(const inet_diag_msg& m) {
    return bytes(&m.id, sizeof(m.id));
}

constexpr uint32_t kUid = 10001;

}  // namespace

TEST(SockDiag, RequestsHaveTheKernelLayout) {
    Channel dump, destroy;
    SockDiag sd(dump.mine, destroy.mine);
    iovec iov[1];
    ASSERT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, SockDiag::kDestroyStates, iov, 1), 0);
    ASSERT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET6, 0x12, 0x400, iov, 1), 0);
    std::vector<std::string> reqs = dump.received();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(hex(reqs[0]),
              "48000000"
              "1400"
              "0103"
              "00000000"
              "00000000"
              "02060000"
              "7e030000" +
                      std::string(96, '0'));
    EXPECT_EQ(hex(reqs[1]),
              "48000000"
              "1400"
              "0103"
              "00000000"
              "00000000"
              "0a061200"
              "00040000" +
                      std::string(96, '0'));

    inet_diag_msg tw = diag(AF_INET6, 6, kUid, "fd00::2", 0x1234, "fd00::1", 80);
    ASSERT_EQ(sd.sockDestroy(IPPROTO_TCP, &tw), 0);
    inet_diag_msg odd = diag(AF_INET, 40, kUid, "10.0.0.2", 1, "10.0.0.1", 2);
    ASSERT_EQ(sd.sockDestroy(IPPROTO_TCP, &odd), 0);
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, nullptr), 0);
    reqs = destroy.received();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(hex(reqs[0]),
              "48000000"
              "1500"
              "0100"
              "00000000"
              "00000000"
              "0a060000"
              "40000000"
              "12340050"
              "fd000000000000000000000000000002"
              "fd000000000000000000000000000001"
              "03000000"
              "4433221188776655");
    // States past 31 cannot be shifted into the mask.
    EXPECT_EQ(hex(reqs[1].substr(16, 8)), "0206000000000000");
    EXPECT_EQ(requestId(reqs[1]), idOf(odd));
    EXPECT_EQ(sd.getDestroyedCount(), 2);
}

TEST(SockDiag, CheckErrorConsumesOnlyErrorReplies) {
    Channel c;
    EXPECT_EQ(checkError(c.mine), 0);

    c.send(errorMsg(-EPERM));
    EXPECT_EQ(checkError(c.mine), -EPERM);
    EXPECT_TRUE(c.empty());

    // The kernel echoes the whole request after the code: still an error, still consumed.
    std::string longError = errorMsg(-ENOENT) + std::string(56, '\0');
    reinterpret_cast<nlmsghdr*>(&longError[0])->nlmsg_len = longError.size();
    c.send(longError);
    EXPECT_EQ(checkError(c.mine), -ENOENT);
    EXPECT_TRUE(c.empty());

    c.send(errorMsg(0));
    EXPECT_EQ(checkError(c.mine), 0);
    EXPECT_TRUE(c.empty());

    // 36 bytes of another type and short messages stay for the dump reader.
    std::string other = errorMsg(-EPERM);
    reinterpret_cast<nlmsghdr*>(&other[0])->nlmsg_type = SOCK_DIAG_BY_FAMILY;
    c.send(other);
    EXPECT_EQ(checkError(c.mine), 0);
    EXPECT_FALSE(c.empty());
    ASSERT_EQ(recv(c.mine, &other[0], other.size(), 0), 36);
    c.send(errorMsg(-EPERM).substr(0, 20));
    EXPECT_EQ(checkError(c.mine), 0);
    EXPECT_FALSE(c.empty());

    EXPECT_EQ(checkError(-1), -EBADF);
    close(c.mine);
}

TEST(SockDiag, DestroysTheUidsSocketsFromADump) {
    Channel dump, destroy;
    SockDiag sd(dump.mine, destroy.mine);
    inet_diag_msg est = diag(AF_INET, 1, kUid, "10.0.0.2", 40000, "10.0.0.1", 443);
    inet_diag_msg other = diag(AF_INET, 1, kUid + 1, "10.0.0.2", 40001, "10.0.0.1", 443);
    inet_diag_msg lo = diag(AF_INET, 1, kUid, "127.0.0.1", 40002, "127.0.0.1", 443);
    inet_diag_msg tw = diag(AF_INET, 6, kUid, "10.0.0.2", 5000, "10.0.0.9", 80);
    inet_diag_msg v6 = diag(AF_INET6, 8, kUid, "fd00::2", 40003, "fd00::1", 443);
    inet_diag_msg mapped127 =
            diag(AF_INET6, 1, kUid, "::ffff:10.0.0.127", 40004, "::ffff:10.0.0.1", 443);
    inet_diag_msg mappedLo =
            diag(AF_INET6, 1, kUid, "::ffff:127.0.0.1", 40005, "::ffff:10.0.0.1", 443);
    dump.send(diagMsg(est) + diagMsg(other) + diagMsg(lo) + diagMsg(tw));
    dump.send(done());
    dump.send(diagMsg(v6) + diagMsg(mapped127) + diagMsg(mappedLo) + done());

    LogCapture log;
    ASSERT_EQ(sd.destroySocketsUid(kUid, true), 0);
    EXPECT_EQ(sd.getDestroyedCount(), 4);
    std::vector<std::string> reqs = destroy.received();
    ASSERT_EQ(reqs.size(), 4u);
    EXPECT_EQ(requestId(reqs[0]), idOf(est));
    EXPECT_EQ(requestId(reqs[1]), idOf(tw));
    EXPECT_EQ(requestId(reqs[2]), idOf(v6));
    EXPECT_EQ(requestId(reqs[3]), idOf(mappedLo));
    EXPECT_EQ(dump.received().size(), 2u);
    // Only the TIME_WAIT one is worth a line; its "dst" shows the source address.
    EXPECT_EQ(log.count("sockDestroy succ"), 1u) << ::testing::PrintToString(log.lines());
    EXPECT_EQ(log.count("Qmed: sockDestroy succ, uid=10001 family=2, idiag_state=6, "
                        "src=10.0.0.2:5000, dst=10.0.0.2:80"),
              1u);
    EXPECT_EQ(log.count("Qmed: Destroyed 4 sockets for uid:10001 in "), 1u);

    // Without the loopback exclusion the kept ones go too.
    dump.send(diagMsg(est) + diagMsg(lo) + done());
    dump.send(diagMsg(mapped127) + done());
    ASSERT_EQ(sd.destroySocketsUid(kUid, false), 0);
    EXPECT_EQ(sd.getDestroyedCount(), 3);
    EXPECT_EQ(destroy.received().size(), 3u);

    // A uid without sockets destroys nothing and says nothing.
    dump.send(diagMsg(est) + done());
    dump.send(done());
    ASSERT_EQ(sd.destroySocketsUid(4242, true), 0);
    EXPECT_EQ(sd.getDestroyedCount(), 0);
    EXPECT_EQ(log.count("uid:4242"), 0u);
}

TEST(SockDiag, DestroysByPidOnlyWithAMatchingOwnerAttribute) {
    Channel dump, destroy;
    SockDiag sd(dump.mine, destroy.mine);
    const uint32_t pid = 4242;
    auto sock = [](uint16_t port, uint32_t uid = kUid) {
        return diag(AF_INET, 1, uid, "10.0.0.2", port, "10.0.0.1", 443);
    };
    inet_diag_msg owned = sock(1), afterOther = sock(2);
    std::string shutdownAttr = attr(8, std::string(1, '\3'));
    dump.send(diagMsg(owned, pidAttr(pid)) +                                 // destroyed
              diagMsg(sock(3)) +                                             // no attribute
              diagMsg(sock(4), pidAttr(999)) +                               // other process
              diagMsg(sock(5), pidAttr(0)) +                                 // no owner
              diagMsg(afterOther, shutdownAttr + pidAttr(pid)) +             // destroyed
              diagMsg(sock(6, kUid + 1), pidAttr(pid)) +                     // other uid
              diagMsg(sock(7), attr(1, "", 100) + pidAttr(pid)) +            // broken walk
              diagMsg(sock(8), attr(SockDiag::kAttrOwnerPid, "\x92\x10")) +  // short payload
              diagMsg(sock(9), attr(2, "", 2) + pidAttr(pid)) +              // attr below 4
              diagMsg(diag(AF_INET, 1, kUid, "127.0.0.1", 10, "127.0.0.1", 443), pidAttr(pid)) +
              done());
    dump.send(done());

    LogCapture log;
    ASSERT_EQ(sd.destroySocketsPid(kUid, pid, true), 0);
    EXPECT_EQ(sd.getDestroyedCount(), 2);
    std::vector<std::string> reqs = destroy.received();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(requestId(reqs[0]), idOf(owned));
    EXPECT_EQ(requestId(reqs[1]), idOf(afterOther));
    EXPECT_EQ(log.count("Qmed: Destroyed 2 sockets for uid:10001 pid:4242 in "), 1u);
}

TEST(SockDiag, DumpErrorsEndTheOperationWithTheirCode) {
    signal(SIGPIPE, SIG_IGN);
    LogCapture log;
    {
        // Refused at the request: IPv6 is never asked for.
        Channel dump, destroy;
        SockDiag sd(dump.mine, destroy.mine);
        dump.send(errorMsg(-EACCES));
        EXPECT_EQ(sd.destroySocketsUid(kUid, true), -EACCES);
        EXPECT_EQ(dump.received().size(), 1u);
        EXPECT_EQ(log.count("Qmed: Failed to dump IPv4 sockets for UID: Permission denied"), 1u);
    }
    {
        // An error inside the stream, after a socket that is still destroyed.
        Channel dump, destroy;
        SockDiag sd(dump.mine, destroy.mine);
        inet_diag_msg est = diag(AF_INET, 1, kUid, "10.0.0.2", 1, "10.0.0.1", 2);
        dump.send(diagMsg(est) + errorMsg(-ENOBUFS) + diagMsg(est));
        EXPECT_EQ(sd.destroySocketsUid(kUid, true), -ENOBUFS);
        EXPECT_EQ(destroy.received().size(), 1u);
        EXPECT_EQ(dump.received().size(), 1u);
        EXPECT_EQ(log.count("Qmed: Failed to destroy IPv4 sockets for UID: No buffer space"), 1u);
    }
    {
        Channel dump, destroy;
        SockDiag sd(dump.mine, destroy.mine);
        inet_diag_msg keep = diag(AF_INET6, 1, kUid, "fd00::2", 1, "fd00::1", 2);
        dump.send(done());
        dump.send(diagMsg(keep) + errorMsg(-EIO));
        EXPECT_EQ(sd.destroySocketsPid(kUid, 5, true), -EIO);
        EXPECT_EQ(log.count("Qmed: Failed to destroy IPv6 sockets for PID: Input/output error"),
                  1u);
        dump.send(errorMsg(-EPERM));
        EXPECT_EQ(sd.destroySocketsPid(kUid, 5, true), -EPERM);
        // Whatever code the peer sends comes back as it is, the most negative one included.
        dump.send(errorMsg(INT_MIN));
        EXPECT_EQ(sd.destroySocketsPid(kUid, 5, true), INT_MIN);
        EXPECT_EQ(log.count("Qmed: Failed to dump IPv4 sockets for PID: Operation not permitted"),
                  1u);
    }
    {
        // A closed kernel end fails the request write.
        Channel dump, destroy;
        SockDiag sd(dump.mine, destroy.mine);
        close(dump.peer);
        dump.peer = -1;
        EXPECT_EQ(sd.destroySocketsUid(kUid, true), -EPIPE);
    }
}

TEST(SockDiag, MalformedDumpRepliesAreSkippedSafely) {
    Channel dump, destroy;
    SockDiag sd(dump.mine, destroy.mine);
    inet_diag_msg a = diag(AF_INET, 1, kUid, "10.0.0.2", 1, "10.0.0.1", 2);
    inet_diag_msg b = diag(AF_INET, 1, kUid, "10.0.0.2", 3, "10.0.0.1", 4);
    inet_diag_msg c = diag(AF_INET, 1, kUid, "10.0.0.2", 5, "10.0.0.1", 6);
    std::string tooShort = nlmsg(SOCK_DIAG_BY_FAMILY, "", 8);
    std::string tooLong = nlmsg(SOCK_DIAG_BY_FAMILY, std::string(72, '\0'), 4000);
    // Each bad header ends its datagram; the next datagram is read as usual.
    dump.send(tooShort + diagMsg(a));
    dump.send(diagMsg(b) + tooLong + diagMsg(a));
    dump.send(nlmsg(SOCK_DIAG_BY_FAMILY, std::string(20, '\1')) + diagMsg(c) +
              std::string(10, '\xff'));
    dump.send(std::string(12, '\0'));
    dump.send(done());
    dump.send(nlmsg(NLMSG_ERROR, ""));  // an error without its code
    ASSERT_EQ(sd.destroySocketsUid(kUid, true), -EBADMSG);
    std::vector<std::string> reqs = destroy.received();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(requestId(reqs[0]), idOf(b));
    EXPECT_EQ(requestId(reqs[1]), idOf(c));

    // A stream that ends without NLMSG_DONE, or that stalls, does not hold the caller.
    Channel eof;
    eof.send(diagMsg(a));
    close(eof.peer);
    eof.peer = -1;
    int seen = 0;
    EXPECT_EQ(processNetlinkDump(eof.mine, [&](nlmsghdr*) { seen++; }), 0);
    EXPECT_EQ(seen, 1);
    close(eof.mine);
    Channel stall;
    EXPECT_EQ(processNetlinkDump(
                      stall.mine, [&](nlmsghdr*) {}, 50),
              -ETIMEDOUT);
    close(stall.mine);
}

TEST(SockDiag, RefusedDestroyIsLoggedAndTheDumpGoesOn) {
    signal(SIGPIPE, SIG_IGN);
    Channel dump, destroy;
    SockDiag sd(dump.mine, destroy.mine);
    inet_diag_msg a = diag(AF_INET, 1, kUid, "10.0.0.2", 1000, "10.0.0.1", 2000);
    inet_diag_msg b = diag(AF_INET, 2, kUid, "10.0.0.2", 1001, "10.0.0.1", 2000);
    destroy.send(errorMsg(-ENOENT));
    dump.send(diagMsg(a) + diagMsg(b) + done());
    dump.send(done());
    LogCapture log;
    ASSERT_EQ(sd.destroySocketsUid(kUid, true), 0);
    EXPECT_EQ(sd.getDestroyedCount(), 1);
    EXPECT_EQ(destroy.received().size(), 2u);
    EXPECT_EQ(log.count("Qmed: sockDestroy err, uid=10001 family=2, idiag_state=1, "
                        "src=10.0.0.2:1000, dst=10.0.0.2:2000"),
              1u);
    EXPECT_EQ(log.count("Destroyed 1 sockets for uid:10001"), 1u);

    // A write failure is only worth a line in debug mode.
    close(destroy.peer);
    destroy.peer = -1;
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &a), -EPIPE);
    EXPECT_EQ(log.count("sockDestroy write err"), 0u);
    bool saved = bDebug;
    bDebug = true;
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &a), -EPIPE);
    bDebug = saved;
    EXPECT_EQ(log.count("Qmed: sockDestroy write err, uid=10001 family=2, idiag_state=1, "
                        "src=10.0.0.2:1000, dst=10.0.0.2:2000"),
              1u);
}

TEST(SockDiag, LoopbackRules) {
    struct Case {
        uint8_t family;
        const char* src;
        const char* dst;
        bool loopback;
    } cases[] = {
            {AF_INET, "127.0.0.1", "127.0.0.1", true},
            {AF_INET, "127.9.9.9", "10.0.0.1", true},
            {AF_INET, "10.0.0.1", "127.0.0.53", true},
            {AF_INET, "10.0.0.1", "10.0.0.1", true},
            {AF_INET, "10.0.0.2", "10.0.0.1", false},
            {AF_INET, "10.0.0.127", "10.0.0.1", false},
            {AF_INET, "1.127.0.0", "10.0.0.1", false},
            {AF_INET6, "::1", "fd00::1", true},
            {AF_INET6, "fd00::1", "::1", true},
            {AF_INET6, "fd00::1", "fd00::1", true},
            {AF_INET6, "fd00::1", "fd00::2", false},
            // The mapped forms compare the last byte, not the first IPv4 byte.
            {AF_INET6, "::ffff:10.0.0.127", "::ffff:10.0.0.1", true},
            {AF_INET6, "::ffff:10.0.0.1", "::ffff:1.2.3.127", true},
            {AF_INET6, "::ffff:127.0.0.1", "::ffff:10.0.0.1", false},
            {AF_INET6, "::ffff:10.0.0.1", "::ffff:127.0.0.1", false},
            {AF_INET6, "::ffff:10.0.0.1", "::ffff:10.0.0.1", true},
            {AF_INET6, "::7f", "fd00::1", false},
            {AF_INET6, "::1:ffff:10.0.0.127", "fd00::1", false},
    };
    for (const Case& c : cases) {
        inet_diag_msg m = diag(c.family, 1, kUid, c.src, 1, c.dst, 2);
        EXPECT_EQ(SockDiag::isLoopbackSocket(&m), c.loopback) << c.src << " -> " << c.dst;
    }
    inet_diag_msg local = diag(AF_INET, 1, kUid, "127.0.0.1", 1, "127.0.0.1", 2);
    local.idiag_family = AF_UNIX;
    EXPECT_FALSE(SockDiag::isLoopbackSocket(&local));
}

TEST(SockDiag, OpenKeepsAValidPairAndReopensAfterClose) {
    Channel dump, destroy;
    int d = dump.mine, x = destroy.mine;
    SockDiag sd(d, x);
    EXPECT_TRUE(sd.open());
    EXPECT_EQ(sd.getDumpSock(), d);
    EXPECT_EQ(sd.getDestroySock(), x);
    sd.closeSockets();
    EXPECT_EQ(sd.getDumpSock(), -1);
    EXPECT_EQ(sd.getDestroySock(), -1);
    EXPECT_EQ(fcntl(d, F_GETFD), -1);
    EXPECT_EQ(fcntl(x, F_GETFD), -1);

    SockDiag fresh;
    EXPECT_EQ(fresh.getDumpSock(), -1);
    EXPECT_EQ(fresh.getDestroyedCount(), 0);
    if (!fresh.open()) {
        // Emulators without NETLINK_INET_DIAG refuse the socket; the pair stays closed.
        EXPECT_EQ(fresh.getDumpSock(), -1);
        EXPECT_EQ(fresh.getDestroySock(), -1);
        GTEST_SKIP() << "no sock_diag netlink here";
    }
    int opened = fresh.getDumpSock();
    EXPECT_GE(opened, 0);
    EXPECT_GE(fresh.getDestroySock(), 0);
    EXPECT_TRUE(fresh.open());
    EXPECT_EQ(fresh.getDumpSock(), opened);
}
