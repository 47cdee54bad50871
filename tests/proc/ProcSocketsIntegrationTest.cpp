// The real ykqmed, in qmed-ns --net (veth qa/qb with 10.0.0.1, 10.0.0.2, fd00::1, fd00::2).
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <utils/String8.h>

#include "daemon/IQmedBinderService.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;
using Svc = IQmedBinderService;

namespace {

// A TCP socket owned by uid (sock_diag reports the creating thread's fsuid), bound to addr.
int bound(const char* addr, uid_t uid) {
    addrinfo hints = {AI_NUMERICHOST, 0, 0, 0, 0, nullptr, nullptr, nullptr}, *ai = nullptr;
    if (getaddrinfo(addr, "0", &hints, &ai) != 0) return -1;
    setfsuid(uid);
    int fd = socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setfsuid(0);
    bind(fd, ai->ai_addr, ai->ai_addrlen);
    freeaddrinfo(ai);
    return fd;
}

// A listener on dst owned by listenerUid and, given a src, a connection to it owned by uid.
struct Conn {
    int listener, client = -1, peer = -1;
    Conn(uid_t uid, const char* src, const char* dst, uid_t listenerUid = 0)
        : listener(bound(dst, listenerUid)) {
        sockaddr_storage to;
        socklen_t len = sizeof(to);
        getsockname(listener, reinterpret_cast<sockaddr*>(&to), &len);
        listen(listener, 4);
        client = src != nullptr ? bound(src, uid) : -1;
        if (src != nullptr && connect(client, reinterpret_cast<sockaddr*>(&to), len) == 0) {
            peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        }
    }
    ~Conn() { close(listener), close(client), close(peer); }
};

// EAGAIN for an idle connection, ENOTCONN for a listener, ECONNABORTED once destroyed.
int error(int fd) {
    char c;
    return recv(fd, &c, 1, MSG_DONTWAIT) < 0 ? errno : 0;
}

class ProcSockets : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        DaemonOptions opts;
        opts.simulator = true;  // without a kernel module the hub ends the daemon
        sDaemon = new Daemon(opts);
        ASSERT_TRUE(sDaemon->start()) << sDaemon->log();
        setenv("BINDER_HOST_NS", sDaemon->binderNs().c_str(), 1);
    }
    static void TearDownTestSuite() { delete sDaemon; }

    // The reply of code to an optional name and the ints, past its status word.
    static std::unique_ptr<android::Parcel> call(uint32_t code, std::vector<int> ints,
                                                 const char* name = nullptr) {
        android::Parcel data;
        auto reply = std::make_unique<android::Parcel>();
        data.writeInterfaceToken(Svc::descriptor);
        if (name != nullptr) data.writeString16(android::String16(name));
        for (int i : ints) data.writeInt32(i);
        auto svc = android::defaultServiceManager()->checkService(android::String16("Binder.Qmed"));
        EXPECT_TRUE(svc != nullptr && svc->transact(code, data, reply.get()) == 0);
        EXPECT_EQ(reply->readInt32(), 0);
        return reply;
    }
    static std::string text(uint32_t code, std::vector<int> ints) {
        return android::String8(call(code, ints)->readString16()).c_str();
    }
    static int destroy(int uid, int pid) {
        return call(Svc::DESTROY_SOCKETS, {uid, pid})->readInt32();
    }
    // How many sock_diag sockets the daemon holds; with redirect, they are pointed at a
    // netlink port nobody holds, so that its next request is refused.
    static int diagSockets(bool redirect = false) {
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, sDaemon->pid(), 0)), found = 0;
        sockaddr_nl nowhere = {AF_NETLINK, 0, 0x7ffffff0, 0};
        auto* to = reinterpret_cast<sockaddr*>(&nowhere);
        for (int fd = 0; fd < 256; fd++) {
            int dup = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, fd, 0)), proto = -1;
            socklen_t len = sizeof(proto);
            getsockopt(dup, SOL_SOCKET, SO_PROTOCOL, &proto, &len);
            found += proto == NETLINK_INET_DIAG &&
                     (!redirect || connect(dup, to, sizeof(nowhere)) == 0);
            close(dup);
        }
        close(pidfd);
        return found;
    }
    static inline Daemon* sDaemon = nullptr;
};

}  // namespace

TEST_F(ProcSockets, QueriesOverRealChildren) {
    const std::string arg = "/opt/qmed/probe/with/a/first/argument/longer/than/64/bytes/0123456789";
    TestChild idle = TestChild::spawn(TestChild::Kind::Sleep, "qm integ idle");  // first: no tab
    TestChild paren = TestChild::spawn(TestChild::Kind::Busy, "qm) integ (x)");
    TestChild sys = TestChild::spawn(TestChild::Kind::Busy, "", 1000, arg);
    const std::tuple<TestChild*, std::string, std::string> kids[] = {
            {&idle, "0", "qm integ idle"},
            {&paren, "0", "qm) integ (x)"},
            {&sys, "1000", arg.substr(0, 64)}};
    std::string want;
    for (const auto& [c, uid, name] : kids) {
        if (c != &idle) waitUntil([&] { return procCpuTicks(c->pid()) > 0; }, 5000);
        c->kill(SIGSTOP);
        waitUntil([&] { return procState(c->pid()) == 'T'; }, 5000);
        long ticks = procCpuTicks(c->pid());  // none: left out
        if (ticks > 0)
            want += (want.empty() ? "" : "\t") + uid + "\t" + std::to_string(ticks) + "\t" + name;
    }
    EXPECT_NE(want.find("\tqm) integ (x)\t1000\t"), std::string::npos) << want;
    EXPECT_EQ(text(Svc::GET_PROC_CPU_TIME, {2, 3, idle.pid(), paren.pid(), sys.pid()}), want);
    // By owner: only the system uid's.
    std::string bySys = text(Svc::GET_PROC_CPU_TIME, {1, 1, 1000});
    EXPECT_TRUE(bySys.find(arg.substr(0, 64)) != bySys.npos && bySys.find("\tqm") == bySys.npos);
    EXPECT_EQ(text(Svc::GET_CMDLINE_BY_PID, {sys.pid()}), arg.substr(0, 63));
    EXPECT_EQ(text(Svc::GET_CMDLINE_BY_PID, {999999}) + text(Svc::GET_CMDLINE_BY_PID, {-3}), "");
    // clang-format off
    const std::tuple<const char*, int, int> rows[] = {
        {"qm) integ (x)", -1, paren.pid()}, {"qm) integ (x)", 0, paren.pid()},
        {"qm) integ (x)", 1000, -1}, {"qm) integ", -1, -1}, {"qm integ idle", 0, idle.pid()}};
    // clang-format on
    for (const auto& [name, uid, pid] : rows) {
        EXPECT_EQ(call(Svc::GET_PID_BY_NAME_AND_UID, {uid}, name)->readInt32(), pid) << name << uid;
    }
}

TEST_F(ProcSockets, DestroyByUidClosesTheUidsSocketsButKeepsLoopbackListenAndFailsOver) {
    if (getenv("QMED_EMULATOR") != nullptr) GTEST_SKIP() << "qemu-user lacks NETLINK_INET_DIAG";
    constexpr uid_t kUid = 54321;
    // One of each kind against the kernel; every loopback rule is in the in-process test.
    // clang-format off
    const std::tuple<uid_t, const char*, const char*, bool> rows[] = {  // destroyed?
        {kUid, "10.0.0.2", "10.0.0.1", true}, {kUid, "fd00::2", "fd00::1", true},
        {kUid, "127.0.0.1", "127.0.0.1", false}, {kUid + 1, "10.0.0.2", "10.0.0.1", false}};
    // clang-format on
    std::vector<std::unique_ptr<Conn>> conns;
    for (const auto& [uid, src, dst, gone] : rows) {
        conns.push_back(std::make_unique<Conn>(uid, src, dst));
        ASSERT_GE(conns.back()->peer, 0) << src;
    }
    Conn listening(0, nullptr, "10.0.0.2", kUid);
    EXPECT_EQ(destroy(kUid, 0), 0);
    for (size_t i = 0; i < std::size(rows); i++) {
        EXPECT_EQ(error(conns[i]->client), std::get<3>(rows[i]) ? ECONNABORTED : EAGAIN) << i;
    }
    EXPECT_EQ(error(listening.listener), ENOTCONN);
    EXPECT_TRUE(sDaemon->waitForLog("Destroyed 2 sockets for uid:54321 in "));
    // One pair of sock_diag sockets serves every call until one fails; the next call opens anew.
    EXPECT_EQ(diagSockets(), 2);
    EXPECT_EQ(destroy(0, 0), -1);  // root's are never destroyed
    ASSERT_EQ(diagSockets(true), 2);
    EXPECT_EQ(destroy(kUid + 1, 0), -1);
    EXPECT_EQ(diagSockets(), 0);
    EXPECT_EQ(destroy(kUid + 1, -4), 0);  // a pid below 1 means by uid
    EXPECT_EQ(error(conns[3]->client), ECONNABORTED);
    EXPECT_EQ(diagSockets(), 2);
}
