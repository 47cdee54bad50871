#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <limits.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "sockdiag/SockDiag.h"

using qmed::host::LogCapture;
using Ids = std::vector<std::string>;

namespace {

constexpr uint32_t kUid = 10001;

int pairOf(int* peer) {
    int sv[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv);
    *peer = sv[1];
    return sv[0];
}

void put(int fd, const std::string& d) {
    send(fd, d.data(), d.size(), 0);
}

// Every datagram written to the other end of peer so far.
Ids drain(int peer) {
    Ids out;
    char buf[4096];
    for (ssize_t n; (n = recv(peer, buf, sizeof(buf), MSG_DONTWAIT)) > 0;) out.emplace_back(buf, n);
    return out;
}

// A SockDiag on socket pairs whose other ends the test answers as the kernel would.
struct Kernel {
    int dump = -1, destroy = -1;
    SockDiag sd{pairOf(&dump), pairOf(&destroy)};
    ~Kernel() { close(dump), close(destroy); }
};

std::string bytes(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

std::string hex(const std::string& s) {
    std::string out;
    for (unsigned char c : s) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return out;
}

std::string nlmsg(uint16_t type, const std::string& payload, uint32_t len = 0) {
    nlmsghdr h = {len ? len : uint32_t(sizeof(h) + payload.size()), type, NLM_F_MULTI, 0, 0};
    std::string m = bytes(&h, sizeof(h)) + payload;
    return m.resize(NLMSG_ALIGN(m.size()), '\0'), m;
}

std::string errorMsg(int code) {
    nlmsgerr e = {code, {}};
    return nlmsg(NLMSG_ERROR, bytes(&e, sizeof(e)));
}

const std::string kDone = nlmsg(NLMSG_DONE, std::string(4, '\0')), kEof = "eof", kGone = "gone";

std::string attr(uint16_t type, const std::string& payload, uint16_t len = 0) {
    rtattr a = {uint16_t(len ? len : sizeof(rtattr) + payload.size()), type};
    std::string s = bytes(&a, sizeof(a)) + payload;
    return s.resize(RTA_ALIGN(s.size()), '\0'), s;
}

std::string pidAttr(uint32_t pid) {
    return attr(SockDiag::kAttrOwnerPid, bytes(&pid, 4));
}

inet_diag_msg diag(const char* src, const char* dst = "10.0.0.1", uint16_t sport = 1,
                   uint8_t state = 1, uint32_t uid = kUid) {
    inet_diag_msg m = {};
    m.idiag_family = strchr(src, ':') ? AF_INET6 : AF_INET;
    m.idiag_state = state;
    m.idiag_uid = uid;
    m.id = {htons(sport), htons(80), {}, {}, 3, {0x11223344, 0x55667788}};
    inet_pton(m.idiag_family, src, m.id.idiag_src);
    inet_pton(m.idiag_family, dst, m.id.idiag_dst);
    return m;
}

std::string msg(const inet_diag_msg& m, const std::string& attrs = "") {
    return nlmsg(SOCK_DIAG_BY_FAMILY, bytes(&m, sizeof(m)) + attrs);
}

std::string id(const inet_diag_msg& m) {
    return bytes(&m.id, sizeof(m.id));
}

const inet_diag_msg kEst = diag("10.0.0.2"), kTw = diag("10.0.0.2", "10.0.0.9", 2, 6),
                    kLo = diag("127.0.0.1", "127.0.0.1", 3), kV6 = diag("fd00::2", "fd00::1", 4, 8),
                    kMapped127 = diag("::ffff:10.0.0.127", "::ffff:10.0.0.1", 5),
                    kMappedLo = diag("::ffff:127.0.0.1", "::ffff:10.0.0.1", 6),
                    kOwned = diag("10.0.0.2", "10.0.0.1", 7),
                    kLater = diag("10.0.0.2", "10.0.0.1", 8);
const std::string kDump4 = msg(kEst) + msg(diag("10.0.0.2", "10.0.0.1", 9, 1, kUid + 1)) +
                           msg(kLo) + msg(kTw),
                  kDump6 = msg(kV6) + msg(kMapped127) + msg(kMappedLo) + kDone;

// One destroy call against a scripted kernel: what it is sent and what must come of it.
struct Script {
    int pid;  // 0: by uid
    bool excludeLoopback;
    Ids dump;  // kEof: the kernel stops writing; kGone: the kernel's end is closed
    std::string destroyReply;
    int ret;
    Ids destroyed;  // ids of the destroy requests, in order
    int count;
    Ids logs;  // lines that appear exactly once
};

}  // namespace

TEST(SockDiag, DestroyCallsAgainstScriptedDumps) {
    signal(SIGPIPE, SIG_IGN);
    const std::string kTwLine =
            "sockDestroy succ, uid=10001 family=2, idiag_state=6, src=10.0.0.2:2, dst=10.0.0.2:80";
    std::string echoed = errorMsg(-ENOENT) + std::string(56, '\0');  // the request echoed back
    reinterpret_cast<nlmsghdr*>(&echoed[0])->nlmsg_len = echoed.size();
    const inet_diag_msg kSyn = diag("10.0.0.2", "10.0.0.1", 2, 2);
    const uint16_t kDiag = SOCK_DIAG_BY_FAMILY, kPidAttr = SockDiag::kAttrOwnerPid;
    // clang-format off
    const Script scripts[] = {
        {0, true, {kDump4, kDone, kDump6}, "", 0, {id(kEst), id(kTw), id(kV6), id(kMappedLo)}, 4,
         {kTwLine, "Destroyed 4 sockets for uid:10001 in "}},
        {0, false, {kDump4, kDone, kDump6}, "", 0,
         {id(kEst), id(kLo), id(kTw), id(kV6), id(kMapped127), id(kMappedLo)}, 6,
         {kTwLine, "Destroyed 6 sockets for uid:10001 in "}},
        // A refused destroy is logged and the dump goes on.
        {0, true, {msg(kEst) + msg(kSyn) + kDone, kDone}, echoed, 0, {id(kEst), id(kSyn)}, 1,
         {"sockDestroy err, uid=10001 family=2, idiag_state=1, src=10.0.0.2:1, dst=10.0.0.2:80",
          "Destroyed 1 sockets for uid:10001"}},
        {4242, true, {msg(kOwned, pidAttr(4242)) +
                      msg(diag("10.0.0.2", "10.0.0.1", 10)) +                            // none
                      msg(diag("10.0.0.2", "10.0.0.1", 11), pidAttr(999)) +              // other
                      msg(diag("10.0.0.2", "10.0.0.1", 12), pidAttr(0)) +                // no owner
                      msg(kLater, attr(8, "\3") + pidAttr(4242)) +                       // 2nd attr
                      msg(diag("10.0.0.2", "10.0.0.1", 13, 1, kUid + 1), pidAttr(4242)) +
                      msg(diag("10.0.0.2", "10.0.0.1", 14), attr(1, "", 100) + pidAttr(4242)) +
                      msg(diag("10.0.0.2", "10.0.0.1", 15), attr(kPidAttr, "\x92\x10")) +
                      msg(diag("10.0.0.2", "10.0.0.1", 16), attr(2, "", 2) + pidAttr(4242)) +
                      msg(kLo, pidAttr(4242)) + kDone, kDone},
         "", 0, {id(kOwned), id(kLater)}, 2, {"Destroyed 2 sockets for uid:10001 pid:4242 in "}},
        // Each bad header ends its datagram; the next datagram is read as usual.
        {0, true, {nlmsg(kDiag, "", 8) + msg(kOwned),
                   msg(kEst) + nlmsg(kDiag, std::string(72, '\0'), 4000) + msg(kOwned),
                   nlmsg(kDiag, std::string(20, '\1')) + msg(kLater) + std::string(10, '\xff'),
                   std::string(12, '\0'), kDone, nlmsg(NLMSG_ERROR, "")},
         "", -EBADMSG, {id(kEst), id(kLater)}, 2, {"Failed to destroy IPv6 sockets for UID: Bad message"}},
        {0, true, {errorMsg(-EACCES)}, "", -EACCES, {}, 0,
         {"Failed to dump IPv4 sockets for UID: Permission denied"}},
        {0, true, {msg(kEst) + errorMsg(-ENOBUFS) + msg(kEst)}, "", -ENOBUFS, {id(kEst)}, 1,
         {"Failed to destroy IPv4 sockets for UID: No buffer space"}},
        {5, true, {kDone, msg(kV6) + errorMsg(-EIO)}, "", -EIO, {}, 0,
         {"Failed to destroy IPv6 sockets for PID: Input/output error"}},
        {5, true, {errorMsg(-EPERM)}, "", -EPERM, {}, 0,
         {"Failed to dump IPv4 sockets for PID: Operation not permitted"}},
        // The code comes from the peer, the most negative one included.
        {5, true, {errorMsg(INT_MIN)}, "", INT_MIN, {}, 0,
         {"Failed to dump IPv4 sockets for PID: Unknown error"}},
        // A dump that ends without NLMSG_DONE does not hold the caller; a lost kernel end fails.
        {0, true, {msg(kEst), kEof}, "", 0, {id(kEst)}, 1, {"Destroyed 1 sockets for uid:10001 in "}},
        {0, true, {kGone}, "", -EPIPE, {}, 0, {"Failed to dump IPv4 sockets for UID: Broken pipe"}},
    };
    // clang-format on
    for (const Script& s : scripts) {
        SCOPED_TRACE(s.logs.back());
        Kernel k;
        for (const std::string& d : s.dump) {
            if (d == kEof) shutdown(k.dump, SHUT_WR);
            if (d == kGone) close(k.dump), k.dump = -1;
            if (d != kEof && d != kGone) put(k.dump, d);
        }
        if (!s.destroyReply.empty()) put(k.destroy, s.destroyReply);
        LogCapture log;
        EXPECT_EQ(s.pid ? k.sd.destroySocketsPid(kUid, s.pid, s.excludeLoopback)
                        : k.sd.destroySocketsUid(kUid, s.excludeLoopback),
                  s.ret);
        Ids ids;
        for (const std::string& r : drain(k.destroy)) ids.push_back(r.substr(24, 48));
        EXPECT_EQ(ids, s.destroyed);
        EXPECT_EQ(k.sd.getDestroyedCount(), s.count);
        EXPECT_EQ(log.count("sockDestroy succ"), s.logs[0] == kTwLine ? 1u : 0u);
        for (const std::string& line : s.logs) EXPECT_EQ(log.count("Qmed: " + line), 1u) << line;
        // IPv6 is never asked for once IPv4 failed.
        if (k.dump >= 0) EXPECT_EQ(drain(k.dump).size(), s.dump.size() == 1 ? 1u : 2u);
    }
    // A uid without sockets destroys nothing and says nothing; a stalled dump times out.
    Kernel k;
    LogCapture log;
    put(k.dump, kDump4 + kDone), put(k.dump, kDone);
    EXPECT_EQ(k.sd.destroySocketsUid(4242, true), 0);
    EXPECT_EQ(k.sd.getDestroyedCount() + log.lines().size(), 0u);
    EXPECT_EQ(processNetlinkDump(
                      k.sd.getDumpSock(), [](nlmsghdr*) {}, 50),
              -ETIMEDOUT);
    EXPECT_EQ(checkError(-1), -EBADF);
}

TEST(SockDiag, RequestsHaveTheKernelLayout) {
    Kernel k;
    iovec iov[1];
    ASSERT_EQ(k.sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, SockDiag::kDestroyStates, iov, 1), 0);
    ASSERT_EQ(k.sd.sendDumpRequest(IPPROTO_TCP, AF_INET6, 0x12, 0x400, iov, 1), 0);
    inet_diag_msg tw = diag("fd00::2", "fd00::1", 0x1234, 6),
                  odd = diag("10.0.0.2", "10.0.0.1", 1, 40);
    ASSERT_EQ(k.sd.sockDestroy(IPPROTO_TCP, &tw) + k.sd.sockDestroy(IPPROTO_TCP, &odd), 0);
    EXPECT_EQ(k.sd.sockDestroy(IPPROTO_TCP, nullptr), 0);
    EXPECT_EQ(k.sd.getDestroyedCount(), 2);
    std::string zeros(96, '0');
    // States past 31 cannot be shifted into the mask.
    Ids dumps = drain(k.dump), destroys = drain(k.destroy);
    ASSERT_EQ(dumps.size() + destroys.size(), 4u);
    EXPECT_EQ(hex(dumps[0] + dumps[1] + destroys[0] + destroys[1]),
              "48000000140001030000000000000000020600007e030000" + zeros +
                      "480000001400010300000000000000000a06120000040000" + zeros +
                      "480000001500010000000000000000000a0600004000000012340050"
                      "fd000000000000000000000000000002fd000000000000000000000000000001"
                      "030000004433221188776655"
                      "48000000150001000000000000000000020600000000000000010050"
                      "0a0000020000000000000000000000000a000001000000000000000000000000"
                      "030000004433221188776655");
    // A write failure is only worth a line in debug mode.
    close(k.destroy), k.destroy = -1;
    LogCapture log;
    for (bool debug : {false, true}) {
        bool saved = bDebug;
        bDebug = debug;
        EXPECT_EQ(k.sd.sockDestroy(IPPROTO_TCP, &odd), -EPIPE);
        bDebug = saved;
    }
    EXPECT_EQ(log.count("sockDestroy write err, uid=10001 family=2, idiag_state=40, "
                        "src=10.0.0.2:1, dst=10.0.0.2:80"),
              1u);
}

TEST(SockDiag, LoopbackRules) {
    // The mapped forms compare the last byte, not the first IPv4 byte.
    // clang-format off
    const std::pair<std::string, bool> rows[] = {
        {"127.0.0.1 127.0.0.1", true}, {"127.9.9.9 10.0.0.1", true}, {"10.0.0.1 127.0.0.53", true},
        {"10.0.0.1 10.0.0.1", true}, {"10.0.0.2 10.0.0.1", false}, {"10.0.0.127 10.0.0.1", false},
        {"1.127.0.0 10.0.0.1", false}, {"::1 fd00::1", true}, {"fd00::1 ::1", true},
        {"fd00::1 fd00::1", true}, {"fd00::1 fd00::2", false}, {"::7f fd00::1", false},
        {"::ffff:10.0.0.127 ::ffff:10.0.0.1", true}, {"::ffff:10.0.0.1 ::ffff:1.2.3.127", true},
        {"::ffff:127.0.0.1 ::ffff:10.0.0.1", false}, {"::ffff:10.0.0.1 ::ffff:127.0.0.1", false},
        {"::ffff:10.0.0.1 ::ffff:10.0.0.1", true}, {"::1:ffff:10.0.0.127 fd00::1", false}};
    // clang-format on
    for (const auto& [addrs, loopback] : rows) {
        size_t blank = addrs.find(' ');
        inet_diag_msg m = diag(addrs.substr(0, blank).c_str(), addrs.substr(blank + 1).c_str());
        EXPECT_EQ(SockDiag::isLoopbackSocket(&m), loopback) << addrs;
    }
    inet_diag_msg local = diag("127.0.0.1", "127.0.0.1");
    local.idiag_family = AF_UNIX;
    EXPECT_FALSE(SockDiag::isLoopbackSocket(&local));
}

TEST(SockDiag, OpenKeepsAValidPairAndReopensAfterClose) {
    Kernel k;
    int dump = k.sd.getDumpSock(), destroy = k.sd.getDestroySock();
    EXPECT_TRUE(k.sd.open());
    EXPECT_EQ(k.sd.getDumpSock(), dump);
    k.sd.closeSockets();
    EXPECT_EQ(k.sd.getDumpSock() + k.sd.getDestroySock(), -2);
    EXPECT_EQ(fcntl(dump, F_GETFD) + fcntl(destroy, F_GETFD), -2);
    SockDiag fresh;
    EXPECT_EQ(fresh.getDumpSock() + fresh.getDestroyedCount(), -1);
    // Emulators without NETLINK_INET_DIAG refuse the socket; the pair stays closed.
    bool opened = fresh.open();
    int fd = fresh.getDumpSock();
    EXPECT_EQ(opened, std::min(fd, fresh.getDestroySock()) >= 0);
    if (!opened) GTEST_SKIP() << "no sock_diag netlink here";
    EXPECT_TRUE(fresh.open());
    EXPECT_EQ(fresh.getDumpSock(), fd);
}
