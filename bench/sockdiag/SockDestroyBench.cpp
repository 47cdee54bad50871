// Destroying the established TCP sockets of one uid with SockDiag against `ss -K` destroying
// the same set, both in one private network namespace in this run, for each count of sockets
// (default 100, 1000 and 4000).
// Run through qmed-ns --net:  bench_sockdiag [-r ROUNDS] [COUNT...]
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "bench/sockdiag/NetnsSockets.h"
#include "sockdiag/SockDiag.h"

using namespace qmedtest;

namespace {

constexpr uid_t kUid = 54321;

double nowMs() {
    return std::chrono::duration<double, std::milli>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

std::vector<Conn> connect(const Server& server, int count) {
    std::vector<Conn> conns;
    conns.reserve(count);
    for (int i = 0; i < count; i++) {
        conns.push_back(Conn::open(AF_INET, kUid, "10.0.0.2", "10.0.0.1", server));
    }
    return conns;
}

int aborted(const std::vector<Conn>& conns) {
    int n = 0;
    for (const Conn& c : conns) n += c.clientError() == ECONNABORTED;
    return n;
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 5;
    std::vector<int> counts;
    for (int i = 1; i < argc; i++) {
        if (std::string(argv[i]) == "-r" && i + 1 < argc) {
            rounds = std::max(1, atoi(argv[++i]));
        } else if (atoi(argv[i]) > 0) {
            counts.push_back(atoi(argv[i]));
        }
    }
    if (counts.empty()) counts = {100, 1000, 4000};
    SockDiag probe;
    if (!probe.open()) {
        fprintf(stderr, "no sock_diag netlink here\n");
        return 1;
    }
    std::string report = runInNetns([&]() -> std::string {
        rlimit rl = {65536, 65536};
        setrlimit(RLIMIT_NOFILE, &rl);
        Server server(AF_INET, "10.0.0.1");
        // A few sockets of other uids and loopback ones that both must leave alone.
        Conn other = Conn::open(AF_INET, kUid + 1, "10.0.0.127", "10.0.0.1", server);
        Conn lo = Conn::open(AF_INET, kUid, "10.0.0.1", "10.0.0.1", server);
        std::string all;
        for (int count : counts) {
            double oursMs = 0, ssMs = 0;
            int oursDone = 0, ssDone = 0;
            std::string filter = "ss -K -t -n state established src 10.0.0.2 dport = :" +
                                 std::to_string(server.port()) + " >/dev/null";
            for (int r = 0; r < rounds; r++) {
                std::vector<Conn> a = connect(server, count);
                SockDiag sd;
                double t0 = nowMs();
                if (!sd.open() || sd.destroySocketsUid(kUid, true) != 0) return "destroy failed\n";
                oursMs += nowMs() - t0;
                oursDone += aborted(a);

                std::vector<Conn> b = connect(server, count);
                t0 = nowMs();
                if (system(filter.c_str()) != 0) return "ss -K failed\n";
                ssMs += nowMs() - t0;
                ssDone += aborted(b);
            }
            char out[512];
            snprintf(out, sizeof(out),
                     "socket destruction: %d established sockets of one uid, %d rounds\n"
                     "  destroySocketsUid: %8.3f ms per batch (%d/%d aborted)\n"
                     "  ss -K:             %8.3f ms per batch (%d/%d aborted)\n"
                     "  ratio ss/destroySocketsUid, %d sockets: %.2fx (target >= 1x)\n"
                     "  other uid kept: %s, loopback kept: %s\n",
                     count, rounds, oursMs / rounds, oursDone, count * rounds, ssMs / rounds,
                     ssDone, count * rounds, count, ssMs / oursMs,
                     other.clientError() == EAGAIN ? "yes" : "NO",
                     lo.clientError() == EAGAIN ? "yes" : "NO");
            all += out;
        }
        return all;
    });
    fputs(report.c_str(), stdout);
    return 0;
}
