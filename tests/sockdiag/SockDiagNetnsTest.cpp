// Real destruction by the kernel, in a private network namespace with test addresses on lo.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "sockdiag/SockDiag.h"
#include "tests/proc/LogLines.h"
#include "tests/sockdiag/NetnsSockets.h"

using namespace qmedtest;

namespace {

constexpr uid_t kUid = 54321;

bool haveSockDiag() {
    SockDiag probe;
    return probe.open();
}

}  // namespace

TEST(SockDiagNetns, DestroysEstablishedSocketsOfTheUidButNotLoopbackOrListen) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
    if (!haveSockDiag()) GTEST_SKIP() << "no sock_diag netlink here";
    std::string failures = runInNetns([]() -> std::string {
        std::string err;
        auto check = [&](bool ok, const std::string& what) {
            if (!ok) err += what + "\n";
        };
        Server v4(AF_INET, "0.0.0.0"), v6(AF_INET6, "::");
        Conn gone4 = Conn::open(AF_INET, kUid, "10.0.0.2", "10.0.0.1", v4);
        Conn gone127 = Conn::open(AF_INET, kUid, "10.0.0.127", "10.0.0.1", v4);
        Conn gone6 = Conn::open(AF_INET6, kUid, "fd00::2", "fd00::1", v6);
        Conn goneMapped = Conn::open(AF_INET6, kUid, "::ffff:127.0.0.1", "::ffff:10.0.0.1", v6);
        Conn lo4 = Conn::open(AF_INET, kUid, "127.0.0.1", "127.0.0.1", v4);
        Conn same4 = Conn::open(AF_INET, kUid, "10.0.0.1", "10.0.0.1", v4);
        Conn lo6 = Conn::open(AF_INET6, kUid, "::1", "::1", v6);
        Conn mapped127 = Conn::open(AF_INET6, kUid, "::ffff:10.0.0.127", "::ffff:10.0.0.1", v6);
        Conn otherUid = Conn::open(AF_INET, kUid + 1, "10.0.0.2", "10.0.0.1", v4);
        Server listener(AF_INET, "10.0.0.2", kUid);
        for (Conn* c :
             {&gone4, &gone127, &gone6, &goneMapped, &lo4, &same4, &lo6, &mapped127, &otherUid}) {
            check(c->established(), "not established: " + c->name);
        }
        if (!err.empty()) return err;

        LogLines log;
        SockDiag sd;
        check(sd.open(), "open");
        // This kernel does not name the owning pid, so by pid nothing goes.
        check(sd.destroySocketsPid(kUid, getpid(), true) == 0, "by pid failed");
        check(sd.getDestroyedCount() == 0, "by pid destroyed something");
        int ret = sd.destroySocketsUid(kUid, true);
        check(ret == 0, "by uid returned " + std::to_string(ret));
        check(sd.getDestroyedCount() == 4,
              "destroyed " + std::to_string(sd.getDestroyedCount()) + " instead of 4");
        check(log.count("Qmed: Destroyed 4 sockets for uid:54321 in ") == 1, log.all());
        for (Conn* c : {&gone4, &gone127, &gone6, &goneMapped}) {
            check(c->clientError() == ECONNABORTED, "client not aborted: " + c->name);
            check(c->peerError(1000) == ECONNRESET, "peer not reset: " + c->name);
        }
        for (Conn* c : {&lo4, &same4, &lo6, &mapped127, &otherUid}) {
            check(c->clientError() == EAGAIN, "kept socket broken: " + c->name);
            check(c->roundTrip(), "kept socket cannot talk: " + c->name);
        }
        Conn late = Conn::open(AF_INET, 0, "10.0.0.1", "10.0.0.2", listener);
        check(late.established(), "listening socket was touched");
        // Nothing of the uid is left, so a second pass is quiet.
        check(sd.destroySocketsUid(kUid, true) == 0 && sd.getDestroyedCount() == 0, "rerun");
        return err;
    });
    EXPECT_EQ(failures, "");
}

TEST(SockDiagNetns, WithoutLoopbackExclusionEverySocketOfTheUidGoes) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace";
    if (!haveSockDiag()) GTEST_SKIP() << "no sock_diag netlink here";
    std::string failures = runInNetns([]() -> std::string {
        std::string err;
        Server v4(AF_INET, "0.0.0.0"), v6(AF_INET6, "::");
        Conn lo4 = Conn::open(AF_INET, kUid, "127.0.0.1", "127.0.0.1", v4);
        Conn lo6 = Conn::open(AF_INET6, kUid, "::1", "::1", v6);
        SockDiag sd;
        if (!sd.open()) return "open";
        if (sd.destroySocketsUid(kUid, false) != 0) err += "by uid failed\n";
        if (sd.getDestroyedCount() != 2) err += "count " + std::to_string(sd.getDestroyedCount());
        if (lo4.clientError() != ECONNABORTED) err += "lo4 kept\n";
        if (lo6.clientError() != ECONNABORTED) err += "lo6 kept\n";
        return err;
    });
    EXPECT_EQ(failures, "");
}
