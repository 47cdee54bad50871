// Socket destruction through the real ykqmed, in the private network namespace of
// qmed-ns --net (lo up, veth qa/qb with 10.0.0.1, 10.0.0.2, fd00::1 and fd00::2).
#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/netlink.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "tests/sockdiag/NetnsSockets.h"
#include "tests/support/DaemonHarness.h"

using namespace qmedtest;

namespace {

constexpr uid_t kUid = 54321;

class Sockets : public ::testing::Test {
  protected:
    // qemu-user does not translate NETLINK_INET_DIAG, so an emulated daemon cannot reach it.
    static bool emulated() { return getenv("QMED_EMULATOR") != nullptr; }
    static void SetUpTestSuite() {
        if (emulated()) return;
        // The mapped-address rule needs an address whose last byte is 127.
        runCommand({"ip", "addr", "add", "10.0.0.127/24", "dev", "qa"});
        DaemonOptions opts;
        opts.simulator = true;  // without a kernel module the hub ends the daemon
        sDaemon = new Daemon(opts);
        ASSERT_TRUE(sDaemon->start()) << sDaemon->log();
    }
    static void TearDownTestSuite() {
        delete sDaemon;
        sDaemon = nullptr;
    }
    void SetUp() override {
        if (emulated()) GTEST_SKIP() << "no sock_diag netlink under emulation";
    }
    void TearDown() override {
        if (sDaemon != nullptr) {
            EXPECT_TRUE(sDaemon->running()) << sDaemon->log();
        }
    }

    // Inodes of the sock_diag sockets (netlink protocol 4) the daemon holds, with their fds.
    static std::map<std::string, int> diagSockets() {
        std::set<std::string> diagInodes;
        std::ifstream nl("/proc/net/netlink");
        std::string line;
        std::getline(nl, line);
        while (std::getline(nl, line)) {
            std::istringstream in(line);
            std::string sk, proto, pid, groups, rmem, wmem, dump, locks, drops, inode;
            in >> sk >> proto >> pid >> groups >> rmem >> wmem >> dump >> locks >> drops >> inode;
            if (proto == "4") diagInodes.insert(inode);
        }
        std::map<std::string, int> held;
        std::string fdDir = "/proc/" + std::to_string(sDaemon->pid()) + "/fd";
        DIR* dir = opendir(fdDir.c_str());
        while (dir != nullptr) {
            struct dirent* e = readdir(dir);
            if (e == nullptr) break;
            char target[PATH_MAX];
            ssize_t n = readlink((fdDir + "/" + e->d_name).c_str(), target, sizeof(target) - 1);
            if (n <= 0) continue;
            std::string t(target, n);
            if (t.rfind("socket:[", 0) == 0) {
                std::string ino = t.substr(8, t.size() - 9);
                if (diagInodes.count(ino)) held[ino] = atoi(e->d_name);
            }
        }
        if (dir != nullptr) closedir(dir);
        return held;
    }

    static Daemon* sDaemon;
};
Daemon* Sockets::sDaemon = nullptr;

}  // namespace

TEST_F(Sockets, ByUidClosesTheUidsSocketsButKeepsLoopbackAndListen) {
    Server v4(AF_INET, "0.0.0.0"), v6(AF_INET6, "::");
    Conn gone4 = Conn::open(AF_INET, kUid, "10.0.0.2", "10.0.0.1", v4);
    Conn gone127 = Conn::open(AF_INET, kUid, "10.0.0.127", "10.0.0.1", v4);
    Conn gone6 = Conn::open(AF_INET6, kUid, "fd00::2", "fd00::1", v6);
    Conn goneMapped = Conn::open(AF_INET6, kUid, "::ffff:10.0.0.2", "::ffff:10.0.0.1", v6);
    Conn lo4 = Conn::open(AF_INET, kUid, "127.0.0.1", "127.0.0.1", v4);
    Conn same4 = Conn::open(AF_INET, kUid, "10.0.0.1", "10.0.0.1", v4);
    Conn lo6 = Conn::open(AF_INET6, kUid, "::1", "::1", v6);
    Conn mapped127 = Conn::open(AF_INET6, kUid, "::ffff:10.0.0.127", "::ffff:10.0.0.1", v6);
    Conn mappedLo = Conn::open(AF_INET6, kUid, "::ffff:127.0.0.1", "::ffff:127.0.0.1", v6);
    Conn otherUid = Conn::open(AF_INET, kUid + 1, "10.0.0.2", "10.0.0.1", v4);
    Server listener(AF_INET, "10.0.0.2", kUid);
    Conn* gone[] = {&gone4, &gone127, &gone6, &goneMapped};
    Conn* kept[] = {&lo4, &same4, &lo6, &mapped127, &mappedLo, &otherUid};
    for (Conn* c : gone) ASSERT_TRUE(c->established()) << c->name;
    for (Conn* c : kept) ASSERT_TRUE(c->established()) << c->name;

    // Destruction by pid needs the owner attribute this kernel does not send: nothing goes.
    ToolResult r = sDaemon->qmedctl({"sockets", std::to_string(kUid), std::to_string(getpid())});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    for (Conn* c : gone) EXPECT_EQ(c->clientError(), EAGAIN) << c->name;

    r = sDaemon->qmedctl({"sockets", std::to_string(kUid)});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    for (Conn* c : gone) {
        EXPECT_EQ(c->clientError(), ECONNABORTED) << c->name;
        EXPECT_EQ(c->peerError(1000), ECONNRESET) << c->name;
    }
    for (Conn* c : kept) {
        EXPECT_EQ(c->clientError(), EAGAIN) << c->name;
        EXPECT_TRUE(c->roundTrip()) << c->name;
    }
    Conn late = Conn::open(AF_INET, 0, "10.0.0.1", "10.0.0.2", listener);
    EXPECT_TRUE(late.established()) << "the listening socket was touched";
    EXPECT_TRUE(sDaemon->waitForLog("Destroyed 4 sockets for uid:54321 in "));
}

TEST_F(Sockets, SocketsStayOpenBetweenCallsAndRootIsRefused) {
    ToolResult r = sDaemon->service({"call", "Binder.Qmed", "14", "i32", "54399", "i32", "0"});
    EXPECT_NE(r.out.find("00000000 00000000"), std::string::npos) << r.out << r.err;
    std::map<std::string, int> first = diagSockets();
    EXPECT_EQ(first.size(), 2u);

    Server v4(AF_INET, "0.0.0.0");
    Conn c = Conn::open(AF_INET, 54399, "10.0.0.2", "10.0.0.1", v4);
    ASSERT_TRUE(c.established());
    r = sDaemon->service({"call", "Binder.Qmed", "14", "i32", "54399", "i32", "-4"});
    EXPECT_NE(r.out.find("00000000 00000000"), std::string::npos) << r.out << r.err;
    EXPECT_EQ(c.clientError(), ECONNABORTED);
    EXPECT_EQ(diagSockets(), first);

    r = sDaemon->service({"call", "Binder.Qmed", "14", "i32", "0", "i32", "0"});
    EXPECT_NE(r.out.find("00000000 ffffffff"), std::string::npos) << r.out << r.err;
    r = sDaemon->qmedctl({"sockets", "0"});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_EQ(sDaemon->countLog("destroySockets Params format is not correct"), 2u);
}

TEST_F(Sockets, AFailedDestroyClosesBothSocketsAndTheNextCallReopens) {
    ToolResult r = sDaemon->qmedctl({"sockets", "54398"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::map<std::string, int> before = diagSockets();
    ASSERT_EQ(before.size(), 2u);

    // Point the daemon's sockets at a netlink port nobody holds: its next request is refused.
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, sDaemon->pid(), 0));
    ASSERT_GE(pidfd, 0) << strerror(errno);
    std::vector<int> stolen;
    for (const auto& entry : before) {
        int fd = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, entry.second, 0));
        ASSERT_GE(fd, 0) << strerror(errno);
        sockaddr_nl nowhere = {};
        nowhere.nl_family = AF_NETLINK;
        nowhere.nl_pid = 0x7ffffff0;
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&nowhere), sizeof(nowhere)), 0);
        stolen.push_back(fd);
    }
    close(pidfd);

    r = sDaemon->qmedctl({"sockets", "54398"});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(sDaemon->waitForLog("Error:destroySockets 54398 0"));
    EXPECT_TRUE(sDaemon->waitForLog("Failed to dump IPv4 sockets for UID: Connection refused"));
    EXPECT_TRUE(diagSockets().empty());
    for (int fd : stolen) close(fd);

    Server v4(AF_INET, "0.0.0.0");
    Conn c = Conn::open(AF_INET, 54398, "10.0.0.2", "10.0.0.1", v4);
    ASSERT_TRUE(c.established());
    r = sDaemon->qmedctl({"sockets", "54398"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(c.clientError(), ECONNABORTED);
    std::map<std::string, int> after = diagSockets();
    EXPECT_EQ(after.size(), 2u);
    for (const auto& entry : after) EXPECT_EQ(before.count(entry.first), 0u);
}
