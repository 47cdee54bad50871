#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <limits.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <signal.h>

#include "daemon/QmedGlobals.h"
#include "sockdiag/SockDiag.h"
#include "tests/support/FakeSockets.h"

using qmed::host::LogCapture;
using qmedtest::FakeSockets;
using Ids = std::vector<std::string>;

namespace {

constexpr uint32_t kUid = 10001;

// A SockDiag opened on socket pairs whose other ends the test answers as the kernel would:
// socket 0 takes the dumps, socket 1 the destroys.
struct Kernel {
    FakeSockets os;
    SockDiag sd{os};
    Kernel() { signal(SIGPIPE, SIG_IGN), sd.open(); }
};

template <typename T>
std::string raw(const T& v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof(v));
}

std::string nlmsg(uint16_t type, const std::string& payload, uint32_t len = 0) {
    std::string m = raw(
            nlmsghdr{len ? len : uint32_t(NLMSG_HDRLEN + payload.size()), type, NLM_F_MULTI, 0, 0});
    return m += payload, m.resize(NLMSG_ALIGN(m.size()), '\0'), m;
}

std::string errorMsg(int code, size_t echoed = 0) {  // echoed: bytes of the request sent back
    return nlmsg(NLMSG_ERROR, raw(nlmsgerr{code, {}}) + std::string(echoed, '\0'));
}

std::string attr(uint16_t type, const std::string& payload, uint16_t len = 0) {
    std::string a = raw(rtattr{uint16_t(len ? len : RTA_LENGTH(payload.size())), type}) + payload;
    return a.resize(RTA_ALIGN(a.size()), '\0'), a;
}

inet_diag_msg diag(const char* src, const char* dst = "10.0.0.1", uint16_t sport = 1,
                   uint8_t state = 1, uint32_t uid = kUid, uint8_t family = 0) {
    inet_diag_msg m = {};
    m.idiag_family = family ? family : strchr(src, ':') ? AF_INET6 : AF_INET;
    m.idiag_state = state, m.idiag_uid = uid;
    m.id = {htons(sport), htons(80), {}, {}, 3, {0x11223344, 0x55667788}};
    inet_pton(m.idiag_family, src, m.id.idiag_src), inet_pton(m.idiag_family, dst, m.id.idiag_dst);
    return m;
}

std::string msg(const inet_diag_msg& m, const std::string& attrs = "") {
    return nlmsg(SOCK_DIAG_BY_FAMILY, raw(m) + attrs);
}

const std::string kOwner = attr(SockDiag::kAttrOwnerPid, raw(4242u));  // the pid asked for
const std::string kDone = nlmsg(NLMSG_DONE, std::string(4, '\0')), kEof = "eof", kGone = "gone";
const inet_diag_msg kEst = diag("10.0.0.2"), kTw = diag("10.0.0.2", "10.0.0.9", 2, 6),
                    kLo = diag("127.0.0.1", "127.0.0.1", 3),
                    kLater = diag("10.0.0.2", "10.0.0.1", 8);
// Sockets of the uid in both families, the loopback ones among them by each rule (the mapped
// forms compare the last byte, not the first IPv4 byte), one of another uid and a unix one.
// clang-format off
const Ids kDump = {
    msg(kEst) + msg(diag("10.0.0.2", "10.0.0.1", 9, 1, kUid + 1)) + msg(kLo) + msg(kTw) +
    msg(diag("127.9.9.9", "10.0.0.1", 20)) + msg(diag("10.0.0.1", "127.0.0.53", 21)) +
    msg(diag("10.0.0.1", "10.0.0.1", 22)) + msg(diag("10.0.0.127", "10.0.0.1", 23)) +
    msg(diag("1.127.0.0", "10.0.0.1", 24)) + msg(diag("", "", 25, 1, kUid, AF_UNIX)), kDone,
    msg(diag("fd00::2", "fd00::1", 4, 8)) + msg(diag("::ffff:10.0.0.127", "::ffff:10.0.0.1", 5)) +
    msg(diag("::ffff:127.0.0.1", "::ffff:10.0.0.1", 6)) + msg(diag("::1", "fd00::1", 30)) +
    msg(diag("fd00::1", "::1", 31)) + msg(diag("fd00::1", "fd00::1", 32)) +
    msg(diag("::7f", "fd00::1", 33)) + msg(diag("::1:ffff:10.0.0.127", "fd00::1", 34)) +
    msg(diag("::ffff:10.0.0.1", "::ffff:1.2.3.127", 35)) +
    msg(diag("::ffff:10.0.0.1", "::ffff:127.0.0.1", 36)) + kDone};
// clang-format on

// One destroy call against a scripted kernel: the pid (0: by uid), the dump datagrams (kEof: the
// kernel stops writing; kGone: its end is closed), the reply to destroys, and what must come
// of it: the return, the count and the source ports of the destroy requests in order.
using Script = std::tuple<int, Ids, std::string, int, int, std::vector<int>>;

const std::string kKernelAddr = "100000000000000000000000", kDiagSocket = " 16 524290 4";

}  // namespace

TEST(SockDiag, DestroyCallsAgainstAScriptedKernel) {
    // clang-format off
    const Script scripts[] = {
        {0, kDump, "", 0, 10, {1, 2, 23, 24, 25, 4, 6, 33, 34, 36}},
        {0, {msg(diag("10.0.0.2", "10.0.0.1", 9, 1, kUid + 1)) + kDone, kDone}, "", 0, 0, {}},
        {0, {msg(kEst) + msg(kTw) + kDone, kDone}, errorMsg(-ENOENT, 56), 0, 1, {1, 2}},  // refused
        // The owner attribute: another pid, after another attribute, another uid, too short,
        // after a bad attribute, and loopback.
        {4242, {msg(kEst, kOwner) + msg(kTw, attr(SockDiag::kAttrOwnerPid, raw(999u))) +
                msg(kLater, attr(8, "\3") + kOwner) +
                msg(diag("10.0.0.2", "10.0.0.1", 13, 1, kUid + 1), kOwner) +
                msg(diag("10.0.0.2", "10.0.0.1", 15), attr(SockDiag::kAttrOwnerPid, "\x92\x10")) +
                msg(diag("10.0.0.2", "10.0.0.1", 16), attr(2, "", 2) + kOwner) +
                msg(kLo, kOwner) + kDone, kDone}, "", 0, 2, {1, 8}},
        // Each bad header ends its datagram; the next datagram is read as usual.
        {0, {nlmsg(SOCK_DIAG_BY_FAMILY, "", 8) + msg(kTw),
             msg(kEst) + nlmsg(SOCK_DIAG_BY_FAMILY, raw(kLater), 200) + msg(kTw),
             nlmsg(SOCK_DIAG_BY_FAMILY, "short") + msg(kLater) + std::string(10, '\xff'),
             std::string(12, '\0'), kDone, nlmsg(NLMSG_ERROR, "")}, "", -EBADMSG, 2, {1, 8}},
        // Errors end the call, in either family and either path; the code comes from the peer.
        {0, {msg(kEst) + errorMsg(-ENOBUFS) + msg(kTw)}, "", -ENOBUFS, 1, {1}},
        {5, {kDone, msg(kEst) + errorMsg(-EIO)}, "", -EIO, 0, {}},
        {5, {errorMsg(INT_MIN)}, "", INT_MIN, 0, {}},
        // A dump that ends without NLMSG_DONE does not hold the caller; a lost kernel end fails.
        {0, {msg(kEst), kEof}, "", 0, 1, {1}},
        {0, {kGone}, "", -EPIPE, 0, {}},
    };
    // clang-format on
    for (size_t i = 0; i < std::size(scripts); i++) {
        const auto& [pid, dump, reply, ret, count, want] = scripts[i];
        SCOPED_TRACE(i);
        Kernel k;
        for (const std::string& d : dump) {
            if (d == kGone) close(k.os.peers[0]), k.os.peers[0] = -1;
            if (d != kGone) k.os.reply(0, d == kEof ? "" : d);
        }
        if (!reply.empty()) k.os.reply(1, reply);
        LogCapture log;
        EXPECT_EQ(ret, pid ? k.sd.destroySocketsPid(kUid, pid, true)
                           : k.sd.destroySocketsUid(kUid, true));
        std::vector<int> ports;
        for (const std::string& r : k.os.sent(1))
            ports.push_back(std::stoi(r.substr(48, 4), 0, 16));
        EXPECT_EQ(ports, want);
        EXPECT_EQ(k.sd.getDestroyedCount(), count);
        EXPECT_EQ(log.count("Destroyed " + std::to_string(count) + " sockets for uid:10001 "),
                  ret == 0 && count > 0 ? 1u : 0u);
        // IPv6 is never asked for once IPv4 failed.
        EXPECT_EQ(k.os.sent(0).size(), ret == -EPIPE ? 0u : dump.size() == 1 ? 1u : 2u);
    }
}

// Every request byte for byte, and the line each destroy leaves: both addresses in it are the
// source. States past 31 cannot be shifted into the mask.
TEST(SockDiag, OpensConnectedPairAndSendsGoldenRequests) {
    const std::string v4 = "0a000002" + std::string(24, '0') + "0a000001" + std::string(24, '0'),
                      v6 = "fd000000000000000000000000000002fd000000000000000000000000000001",
                      mapped = "00000000000000000000ffff0a00000200000000000000000000ffff0a000001";
    const inet_diag_msg odd = diag("10.0.0.2", "10.0.0.1", 0x1234, 40);
    const std::string oddLine =
            "uid=10001 family=2, idiag_state=40, src=10.0.0.2:4660, dst=10.0.0.2:80";
    // {socket, the reply to its destroy or the call that fails, result, mask, addresses, line}
    const std::tuple<inet_diag_msg, std::string, int, const char*, std::string, std::string>
            rows[] = {{odd, "", 0, "00000000", v4, "I/Qmed: sockDestroy succ, " + oddLine},
                      {diag("fd00::2", "fd00::1", 0x1234, 6), "", 0, "40000000", v6,
                       "I/Qmed: sockDestroy succ, uid=10001 family=10, idiag_state=6, "
                       "src=fd00::2:4660, dst=fd00::2:80"},
                      {diag("::ffff:10.0.0.2", "::ffff:10.0.0.1", 0x1234, 1), "", 0, "02000000",
                       mapped, ""},
                      {diag("::ffff:10.0.0.2", "::ffff:10.0.0.1", 0x1234, 9), errorMsg(-ENOENT, 56),
                       -ENOENT, "00020000", mapped,
                       "E/Qmed: sockDestroy err, uid=10001 family=10, idiag_state=9, "
                       "src=::ffff:10.0.0.2:4660, dst=::ffff:10.0.0.2:80"},
                      {odd, "recv", -EBADF, "00000000", v4, "E/Qmed: sockDestroy err, " + oddLine},
                      {odd, "write", -EPIPE, "00000000", v4,
                       "E/Qmed: sockDestroy write err, " + oddLine}};
    Kernel k;
    EXPECT_TRUE(k.sd.open());  // already open: nothing to do
    EXPECT_EQ(k.os.calls, Ids({"socket 0" + kDiagSocket, "socket 1" + kDiagSocket,
                               "connect 0 " + kKernelAddr, "connect 1 " + kKernelAddr}));
    iovec iov[1];
    for (uint8_t family : {AF_INET, AF_INET6}) {
        ASSERT_EQ(k.sd.sendDumpRequest(IPPROTO_TCP, family, 0, SockDiag::kDestroyStates, iov, 1),
                  0);
    }
    const std::string head = "48000000140001030000000000000000",
                      tail = "0600007e030000" + std::string(96, '0');
    EXPECT_EQ(k.os.sent(0), Ids({head + "02" + tail, head + "0a" + tail}));
    bDebug = true;  // a failed write is worth a line only then
    for (const auto& [m, reply, result, mask, addresses, line] : rows) {
        LogCapture log;
        k.os.failing.clear();
        if (reply == "recv") k.os.failing[reply] = -result;
        if (reply == "write") close(k.os.peers[1]), k.os.peers[1] = -1;
        if (reply.size() > 5) k.os.reply(1, reply);
        EXPECT_EQ(k.sd.sockDestroy(IPPROTO_TCP, &m), result);
        const std::string family = FakeSockets::hex(&m.idiag_family, 1),
                          request = "48000000150001000000000000000000" + family + "060000" + mask +
                                    "12340050" + addresses + "030000004433221188776655";
        EXPECT_EQ(k.os.sent(1), result == -EPIPE ? Ids() : Ids({request}));
        EXPECT_EQ(log.lines(), line.empty() ? Ids() : Ids({line}));
    }
    bDebug = false;
    LogCapture log;
    EXPECT_EQ(k.sd.sockDestroy(IPPROTO_TCP, &odd), -EPIPE);
    EXPECT_EQ(log.lines(), Ids());
    // A socket or connection that fails leaves nothing open.
    const std::pair<const char*, Ids> failures[] = {
            {"socket", {}},
            {"connect",
             {"socket 2" + kDiagSocket, "socket 3" + kDiagSocket, "connect 2 " + kKernelAddr,
              "close 2", "close 3"}}};
    for (const auto& [call, calls] : failures) {
        k.sd.closeSockets();
        k.os.calls.clear(), k.os.failing = {{call, EPROTONOSUPPORT}};
        EXPECT_FALSE(k.sd.open());
        EXPECT_EQ(k.os.calls, calls);
        EXPECT_EQ(k.sd.getDumpSock() + k.sd.getDestroySock(), -2);
    }
}
