// Process queries and socket destruction through the real ykqmed, in the private namespaces
// of qmed-ns --net (veth qa/qb with 10.0.0.1, 10.0.0.2, fd00::1 and fd00::2).
#include <arpa/inet.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <utils/String8.h>

#include <map>
#include <sstream>

#include "daemon/IQmedBinderService.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/ProcTree.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;
using android::Parcel;
using android::String16;
using android::String8;
using Svc = IQmedBinderService;

namespace {

class ProcQueries : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        runCommand({"ip", "addr", "add", "10.0.0.127/24", "dev", "qa"});  // for the mapped rule
        DaemonOptions opts;
        opts.simulator = true;  // without a kernel module the hub ends the daemon
        sDaemon = new Daemon(opts);
        ASSERT_TRUE(sDaemon->start()) << sDaemon->log();
        setenv("BINDER_HOST_NS", sDaemon->binderNs().c_str(), 1);
    }
    static void TearDownTestSuite() {
        delete sDaemon;
        setenv("BINDER_HOST_NS", sBaseNs.c_str(), 1);  // the next daemon derives its own again
    }
    void TearDown() override { EXPECT_TRUE(sDaemon->running()) << sDaemon->log(); }

    // Sends code with an optional name and the ints; the reply past its status word.
    static void call(uint32_t code, const char* name, std::vector<int> ints, Parcel* reply) {
        Parcel data;
        data.writeInterfaceToken(Svc::descriptor);
        if (name != nullptr) data.writeString16(String16(name));
        for (int i : ints) data.writeInt32(i);
        auto service = android::defaultServiceManager()->checkService(String16("Binder.Qmed"));
        ASSERT_NE(service, nullptr);
        ASSERT_EQ(0, service->transact(code, data, reply));
        ASSERT_EQ(0, reply->readInt32());
    }
    static std::string text(uint32_t code, std::vector<int> ints) {
        Parcel reply;
        call(code, nullptr, ints, &reply);
        return String8(reply.readString16()).c_str();
    }
    static int number(uint32_t code, const char* name, std::vector<int> ints) {
        Parcel reply;
        call(code, name, ints, &reply);
        return reply.readInt32();
    }
    static inline Daemon* sDaemon = nullptr;
    static inline const std::string sBaseNs = getenv("BINDER_HOST_NS");
};

}  // namespace

TEST_F(ProcQueries, CpuTimeRecordsOfRealChildren) {
    TestChild blank = TestChild::spawn(TestChild::Kind::Busy, "qm integ blank");
    TestChild paren = TestChild::spawn(TestChild::Kind::Busy, "qm) integ (x)");
    TestChild sys = TestChild::spawn(TestChild::Kind::Busy, "", 1000, "com.qmed.integ.system");
    TestChild idle = TestChild::spawn(TestChild::Kind::Sleep, "qm integ idle");
    std::string want;
    for (TestChild* c : {&blank, &idle, &paren, &sys}) {
        if (c != &idle) waitUntil([&] { return procCpuTicks(c->pid()) > 0; }, 5000);
        c->kill(SIGSTOP);
        waitUntil([&] { return procState(c->pid()) == 'T'; }, 5000);
        if (procCpuTicks(c->pid()) == 0) continue;  // left out
        want += std::string(want.empty() ? "" : "\t") + (c == &sys ? "1000\t" : "0\t") +
                std::to_string(procCpuTicks(c->pid())) + "\t" +
                (c == &blank   ? "qm integ blank"
                 : c == &paren ? "qm) integ (x)"
                 : c == &sys   ? "com.qmed.integ.system"
                               : "qm integ idle");
    }
    EXPECT_NE(want.find("\tqm) integ (x)\t1000\t"), std::string::npos) << want;
    EXPECT_EQ(text(Svc::GET_PROC_CPU_TIME, {2, 4, blank.pid(), idle.pid(), paren.pid(), sys.pid()}),
              want);
    // By owner, and the whole walk with the one placeholder id a client sends.
    std::string bySys = text(Svc::GET_PROC_CPU_TIME, {1, 1, 1000});
    EXPECT_NE(bySys.find("com.qmed.integ.system"), std::string::npos);
    EXPECT_EQ(bySys.find("\tqm"), std::string::npos);
    EXPECT_NE(text(Svc::GET_PROC_CPU_TIME, {0, 1, 0}).find("\tqm) integ (x)"), std::string::npos);
}

TEST_F(ProcQueries, CpuTimeTextStaysInsideItsBufferWithManyProcesses) {
    // Real processes cannot cheaply fill the buffer (each needs a clock tick of CPU), so the
    // daemon briefly sees a /proc of 1500 system-uid processes over the real one.
    ProcTree tree;
    const std::string name = "com.qmed.integ.bound." + std::string(43, 'b');
    for (int pid = 100; pid < 1600; pid++) {
        ASSERT_TRUE(tree.add(pid, 1000, statLine("main", 12, 30), name + '\0' + "x"));
    }
    ASSERT_EQ(mount(tree.root().c_str(), "/proc", nullptr, MS_BIND, nullptr), 0);
    std::string all = text(Svc::GET_PROC_CPU_TIME, {0, 1, 0});
    std::string bySys = text(Svc::GET_PROC_CPU_TIME, {1, 1, 1000});
    umount2("/proc", MNT_DETACH);
    // Whole records only, as many as fit before the final NUL.
    std::string want = "1000\t42\t" + name;
    while (want.size() + 73 < Svc::kCpuTimeBufferSize) want += "\t1000\t42\t" + name;
    EXPECT_TRUE(all == want && bySys == want) << all.size() << " " << bySys.size();
}

TEST_F(ProcQueries, CmdlineAndPidLookupsIncludingNotFound) {
    const std::string arg = "/opt/qmed/probe-with-a-rather-long-first-argument-0123456789";
    TestChild probe = TestChild::spawn(TestChild::Kind::Sleep, "qm probe) x");
    TestChild args = TestChild::spawn(TestChild::Kind::Sleep, "", 0, arg);
    TestChild sys = TestChild::spawn(TestChild::Kind::Sleep, "qm-sys-probe", 1000);
    EXPECT_EQ(text(Svc::GET_CMDLINE_BY_PID, {args.pid()}), arg.substr(0, 63));
    EXPECT_EQ(text(Svc::GET_CMDLINE_BY_PID, {999999}) + text(Svc::GET_CMDLINE_BY_PID, {-3}), "");
    const std::tuple<const char*, int, int> rows[] = {
            {"qm probe) x", -1, probe.pid()}, {"qm probe) x", 0, probe.pid()},
            {"qm probe) x", 1000, -1},        {"qm-sys-probe", 1000, sys.pid()},
            {"qm-no-such-process", -1, -1},   {"", -1, -1}};
    for (const auto& [name, uid, pid] : rows) {
        EXPECT_EQ(number(Svc::GET_PID_BY_NAME_AND_UID, name, {uid}), pid) << name << " " << uid;
    }
    EXPECT_TRUE(sDaemon->waitForLog("match uid: 1000, pid: " + std::to_string(sys.pid())));
}

namespace {

constexpr uid_t kUid = 54321;

// An address of either family; the IPv4-mapped forms stay IPv6.
struct Addr {
    sockaddr_storage ss = {};
    socklen_t len = sizeof(sockaddr_in6);
    explicit Addr(const std::string& text, uint16_t port = 0) {
        auto* a4 = reinterpret_cast<sockaddr_in*>(&ss);
        auto* a6 = reinterpret_cast<sockaddr_in6*>(&ss);
        if (inet_pton(AF_INET, text.c_str(), &a4->sin_addr) == 1) {
            a4->sin_family = AF_INET, a4->sin_port = htons(port), len = sizeof(*a4);
        } else {
            inet_pton(AF_INET6, text.c_str(), &a6->sin6_addr);
            a6->sin6_family = AF_INET6, a6->sin6_port = htons(port);
        }
    }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&ss); }
};

// A TCP socket of uid bound to addr; sock_diag reports the creating thread's fsuid as owner.
int boundSocket(const std::string& addr, uid_t uid, uint16_t* port = nullptr) {
    Addr a(addr);
    setfsuid(uid);
    int fd = socket(a.ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0), zero = 0;
    setfsuid(0);
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof(zero));  // fails on IPv4: fine
    bind(fd, a.get(), a.len);
    if (port != nullptr && getsockname(fd, a.get(), &a.len) == 0) {
        *port = ntohs(reinterpret_cast<sockaddr_in*>(&a.ss)->sin_port);  // same offset in v6
    }
    return fd;
}

struct Listener {
    uint16_t port = 0;
    int fd;
    explicit Listener(const char* addr, uid_t uid = 0) : fd(boundSocket(addr, uid, &port)) {
        listen(fd, 64);
    }
    ~Listener() { close(fd); }
};

// The errno of a read after up to ms for data: 0 for a byte, EAGAIN when idle,
// ECONNABORTED once destroyed on this end, ECONNRESET on the other.
int readError(int fd, int ms) {
    pollfd p = {fd, POLLIN, 0};
    poll(&p, 1, ms);
    char c;
    ssize_t n = recv(fd, &c, 1, MSG_DONTWAIT);
    return n == 1 ? 0 : n == 0 ? -1 : errno;
}

struct Conn {
    int client = -1, peer = -1;
    ~Conn() { close(client), close(peer); }
    void open(uid_t uid, const std::string& src, const std::string& dst, const Listener& l) {
        client = boundSocket(src, uid);
        Addr to(dst, l.port);
        if (connect(client, to.get(), to.len) == 0) peer = accept4(l.fd, nullptr, nullptr, 0);
    }
    bool roundTrip() const {
        char c = 'q';
        return send(client, &c, 1, MSG_NOSIGNAL) == 1 && readError(peer, 1000) == 0 &&
               send(peer, &c, 1, MSG_NOSIGNAL) == 1 && readError(client, 1000) == 0;
    }
};

class Sockets : public ProcQueries {
  protected:
    void SetUp() override {
        // qemu-user does not translate NETLINK_INET_DIAG, so an emulated daemon cannot reach it.
        if (getenv("QMED_EMULATOR") != nullptr) GTEST_SKIP() << "no sock_diag under emulation";
    }
    static int destroy(int uid, int pid) {
        return number(Svc::DESTROY_SOCKETS, nullptr, {uid, pid});
    }
    // The daemon's sock_diag sockets (netlink protocol 4): inode to descriptor.
    static std::map<std::string, int> diagSockets() {
        std::istringstream netlink(readFile("/proc/net/netlink"));
        std::map<std::string, int> held;
        std::string line, f[10];
        while (std::getline(netlink, line)) {
            std::istringstream in(line);
            for (std::string& field : f) in >> field;
            for (int fd = 0; f[1] == "4" && fd < 256; fd++) {
                char target[64] = "";
                std::string link = "/proc/" + std::to_string(sDaemon->pid()) + "/fd/";
                readlink((link + std::to_string(fd)).c_str(), target, sizeof(target) - 1);
                if (target == "socket:[" + f[9] + "]") held[f[9]] = fd;
            }
        }
        return held;
    }
};

}  // namespace

TEST_F(Sockets, ByUidClosesTheUidsSocketsButKeepsLoopbackAndListen) {
    Listener v4("0.0.0.0"), v6("::"), listening("10.0.0.2", kUid);
    // clang-format off
    const std::tuple<uid_t, const char*, const char*, bool> rows[] = {  // destroyed?
        {kUid, "10.0.0.2", "10.0.0.1", true}, {kUid, "10.0.0.127", "10.0.0.1", true},
        {kUid, "fd00::2", "fd00::1", true}, {kUid, "::ffff:10.0.0.2", "::ffff:10.0.0.1", true},
        {kUid, "127.0.0.1", "127.0.0.1", false}, {kUid, "10.0.0.1", "10.0.0.1", false},
        {kUid, "::1", "::1", false}, {kUid, "::ffff:10.0.0.127", "::ffff:10.0.0.1", false},
        {kUid, "::ffff:127.0.0.1", "::ffff:127.0.0.1", false},
        {kUid + 1, "10.0.0.2", "10.0.0.1", false}};
    // clang-format on
    Conn conns[std::size(rows)];
    for (size_t i = 0; i < std::size(rows); i++) {
        auto [uid, src, dst, gone] = rows[i];
        conns[i].open(uid, src, dst, strchr(dst, ':') ? v6 : v4);
        ASSERT_GE(conns[i].peer, 0) << src;
    }
    // Destruction by pid needs the owner attribute this kernel does not send: nothing goes.
    EXPECT_EQ(destroy(kUid, getpid()), 0);
    EXPECT_EQ(readError(conns[0].client, 0), EAGAIN);
    EXPECT_EQ(destroy(kUid, 0), 0);
    for (size_t i = 0; i < std::size(rows); i++) {
        auto [uid, src, dst, gone] = rows[i];
        EXPECT_EQ(readError(conns[i].client, 0), gone ? ECONNABORTED : EAGAIN) << src;
        EXPECT_TRUE(gone ? readError(conns[i].peer, 1000) == ECONNRESET : conns[i].roundTrip())
                << src;
    }
    Conn late;
    late.open(0, "10.0.0.1", "10.0.0.2", listening);
    EXPECT_GE(late.peer, 0) << "the listening socket was touched";
    EXPECT_TRUE(sDaemon->waitForLog("Destroyed 4 sockets for uid:54321 in "));
}

TEST_F(Sockets, SocketsStayOpenBetweenCallsAndRootIsRefused) {
    EXPECT_EQ(destroy(54399, 0), 0);
    std::map<std::string, int> first = diagSockets();
    EXPECT_EQ(first.size(), 2u);
    Listener v4("0.0.0.0");
    Conn c;
    c.open(54399, "10.0.0.2", "10.0.0.1", v4);
    EXPECT_EQ(destroy(54399, -4), 0);
    EXPECT_EQ(readError(c.client, 0), ECONNABORTED);
    EXPECT_EQ(diagSockets(), first);
    EXPECT_EQ(destroy(0, 0), -1);
    EXPECT_EQ(sDaemon->countLog("destroySockets Params format is not correct"), 1u);
}

TEST_F(Sockets, AFailedDestroyClosesBothSocketsAndTheNextCallReopens) {
    ASSERT_EQ(destroy(54398, 0), 0);
    std::map<std::string, int> before = diagSockets();
    ASSERT_EQ(before.size(), 2u);
    // Point the daemon's sockets at a netlink port nobody holds: its next request is refused.
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, sDaemon->pid(), 0));
    std::vector<int> stolen;
    for (const auto& [inode, fd] : before) {
        stolen.push_back(static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, fd, 0)));
        sockaddr_nl nowhere = {AF_NETLINK, 0, 0x7ffffff0, 0};
        EXPECT_EQ(connect(stolen.back(), reinterpret_cast<sockaddr*>(&nowhere), sizeof(nowhere)),
                  0);
    }
    close(pidfd);
    EXPECT_EQ(destroy(54398, 0), -1);
    EXPECT_TRUE(sDaemon->waitForLog("Error:destroySockets 54398 0"));
    EXPECT_TRUE(sDaemon->waitForLog("Failed to dump IPv4 sockets for UID: Connection refused"));
    EXPECT_TRUE(diagSockets().empty());
    for (int fd : stolen) close(fd);
    Listener v4("0.0.0.0");
    Conn c;
    c.open(54398, "10.0.0.2", "10.0.0.1", v4);
    EXPECT_EQ(destroy(54398, 0), 0);
    EXPECT_EQ(readError(c.client, 0), ECONNABORTED);
    std::map<std::string, int> after = diagSockets();
    EXPECT_EQ(after.size(), 2u);
    for (const auto& [inode, fd] : after) EXPECT_EQ(before.count(inode), 0u);
}
