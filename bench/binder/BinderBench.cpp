// Host binder cost against the raw AF_UNIX traffic it rides on, measured in the same run:
//  - round trip of a null two-way transaction (empty parcel both ways): median and p99,
//    against a blocking ping-pong of the same number of bytes the transaction puts on the
//    wire each way, with a server in another process in both cases;
//  - throughput with 1, 2 and 4 client threads against as many raw ping-pong pairs;
//  - death notice delay after SIGKILL against a pidfd seeing the same death.
// Usage: bench_binder [iterations]   (default 20000 round trips per measurement)
#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace android;

namespace {

// A null transaction is one 48-byte header each way on the host transport.
constexpr size_t kWireBytes = 48;

double nowUs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e6 + ts.tv_nsec / 1e3;
}

bool readAll(int fd, void* buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = read(fd, static_cast<char*>(buf) + got, len - got);
        if (n <= 0) return false;
        got += size_t(n);
    }
    return true;
}

// Forks an echo process for one end of a socket pair; returns the client end.
int forkEcho(pid_t* pid) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return -1;
    *pid = fork();
    if (*pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // Other pairs' client ends must not stay open here, or their echoes never see EOF.
        for (int fd = 3; fd < 1024; fd++) {
            if (fd != sv[1]) close(fd);
        }
        char buf[kWireBytes];
        while (readAll(sv[1], buf, sizeof(buf))) {
            if (write(sv[1], buf, sizeof(buf)) != ssize_t(sizeof(buf))) break;
        }
        _exit(0);
    }
    close(sv[1]);
    return sv[0];
}

class NullService : public BBinder {
  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == FIRST_CALL_TRANSACTION) return NO_ERROR;
        return BBinder::onTransact(code, data, reply, flags);
    }
};

pid_t forkBinderServer(const char* name) {
    int ready[2];
    if (pipe(ready) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        defaultServiceManager()->addService(String16(name), new NullService());
        ProcessState::self()->startThreadPool();
        const char ok = 1;
        if (write(ready[1], &ok, 1) != 1) _exit(1);
        for (;;) pause();
    }
    close(ready[1]);
    char ok = 0;
    const ssize_t n = read(ready[0], &ok, 1);
    close(ready[0]);
    return n == 1 ? pid : -1;
}

struct Stats {
    double median;
    double p99;
    double mean;
};

Stats stats(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    double sum = 0;
    for (double x : v) sum += x;
    return Stats{v[v.size() / 2], v[std::min(v.size() - 1, v.size() * 99 / 100)],
                 sum / double(v.size())};
}

std::vector<double> rawLatencies(int fd, int iterations) {
    std::vector<double> out;
    out.reserve(size_t(iterations));
    char buf[kWireBytes] = {};
    for (int i = 0; i < iterations; i++) {
        const double t0 = nowUs();
        if (write(fd, buf, sizeof(buf)) != ssize_t(sizeof(buf)) || !readAll(fd, buf, sizeof(buf))) {
            break;
        }
        out.push_back(nowUs() - t0);
    }
    return out;
}

std::vector<double> binderLatencies(const sp<IBinder>& b, int iterations) {
    std::vector<double> out;
    out.reserve(size_t(iterations));
    for (int i = 0; i < iterations; i++) {
        Parcel data, reply;
        const double t0 = nowUs();
        if (b->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply) != NO_ERROR) break;
        out.push_back(nowUs() - t0);
    }
    return out;
}

double rawThroughput(int threads, int iterations) {
    std::vector<int> fds(static_cast<size_t>(threads));
    std::vector<pid_t> pids(static_cast<size_t>(threads));
    for (int i = 0; i < threads; i++) fds[size_t(i)] = forkEcho(&pids[size_t(i)]);
    std::vector<std::thread> ts;
    const double t0 = nowUs();
    for (int i = 0; i < threads; i++) {
        ts.emplace_back([&, i] { rawLatencies(fds[size_t(i)], iterations); });
    }
    for (auto& t : ts) t.join();
    const double elapsed = nowUs() - t0;
    for (int i = 0; i < threads; i++) {
        close(fds[size_t(i)]);
        waitpid(pids[size_t(i)], nullptr, 0);
    }
    return threads * double(iterations) / (elapsed / 1e6);
}

double binderThroughput(const sp<IBinder>& b, int threads, int iterations) {
    std::vector<std::thread> ts;
    const double t0 = nowUs();
    for (int i = 0; i < threads; i++) ts.emplace_back([&] { binderLatencies(b, iterations); });
    for (auto& t : ts) t.join();
    const double elapsed = nowUs() - t0;
    return threads * double(iterations) / (elapsed / 1e6);
}

class DeathWaiter : public IBinder::DeathRecipient {
  public:
    void binderDied(const wp<IBinder>&) override {
        std::lock_guard<std::mutex> l(mLock);
        mAt = nowUs();
        mCond.notify_all();
    }
    double wait() {
        std::unique_lock<std::mutex> l(mLock);
        mCond.wait_for(l, std::chrono::seconds(5), [&] { return mAt > 0; });
        return mAt;
    }
    std::mutex mLock;
    std::condition_variable mCond;
    double mAt = 0;
};

// Delay from SIGKILL to binderDied, and to a pidfd turning readable for the same death.
bool deathDelays(int round, double* binderUs, double* pidfdUs) {
    const std::string name = "bench.death." + std::to_string(round);
    const pid_t pid = forkBinderServer(name.c_str());
    if (pid < 0) return false;
    sp<IBinder> b = defaultServiceManager()->checkService(String16(name.c_str()));
    sp<DeathWaiter> w = new DeathWaiter();
    if (b == nullptr || b->linkToDeath(w) != NO_ERROR) return false;
    const int pidfd = int(syscall(SYS_pidfd_open, pid, 0));
    std::atomic<double> pidfdAt{0};
    std::thread watcher([&] {
        struct pollfd p = {pidfd, POLLIN, 0};
        if (pidfd >= 0 && poll(&p, 1, 5000) == 1) pidfdAt = nowUs();
    });
    usleep(20 * 1000);
    const double killedAt = nowUs();
    kill(pid, SIGKILL);
    const double diedAt = w->wait();
    watcher.join();
    waitpid(pid, nullptr, 0);
    if (pidfd >= 0) close(pidfd);
    *binderUs = diedAt - killedAt;
    *pidfdUs = pidfdAt.load() - killedAt;
    return diedAt > 0 && pidfdAt.load() > 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int iterations = argc > 1 ? std::max(100, atoi(argv[1])) : 20000;
    const std::string ns = "bench-binder-" + std::to_string(getpid());
    setenv("BINDER_HOST_NS", ns.c_str(), 1);
    signal(SIGPIPE, SIG_IGN);

    const pid_t server = forkBinderServer("bench.null");
    sp<IBinder> b = defaultServiceManager()->checkService(String16("bench.null"));
    if (server < 0 || b == nullptr) {
        fprintf(stderr, "cannot start the binder server\n");
        return 1;
    }
    pid_t echoPid = -1;
    const int rawFd = forkEcho(&echoPid);

    // Warm up both paths, then interleave the two measurements so load shifts hit both.
    rawLatencies(rawFd, iterations / 10);
    binderLatencies(b, iterations / 10);
    std::vector<double> raw, bnd;
    for (int part = 0; part < 4; part++) {
        auto r = rawLatencies(rawFd, iterations / 4);
        auto x = binderLatencies(b, iterations / 4);
        raw.insert(raw.end(), r.begin(), r.end());
        bnd.insert(bnd.end(), x.begin(), x.end());
    }
    close(rawFd);
    waitpid(echoPid, nullptr, 0);
    const Stats rs = stats(raw), bs = stats(bnd);
    printf("null two-way round trip, %d calls (raw: %zu-byte AF_UNIX ping-pong to another "
           "process)\n",
           iterations, kWireBytes);
    printf("  median: binder %.1f us, raw %.1f us, ratio %.2f (target <= 1.30)\n", bs.median,
           rs.median, bs.median / rs.median);
    printf("  p99:    binder %.1f us, raw %.1f us, ratio %.2f\n", bs.p99, rs.p99, bs.p99 / rs.p99);
    printf("  mean:   binder %.1f us, raw %.1f us, ratio %.2f\n", bs.mean, rs.mean,
           bs.mean / rs.mean);

    printf("throughput, %d calls per client thread, median of 3 alternating rounds\n",
           iterations / 2);
    for (int threads : {1, 2, 4}) {
        std::vector<double> r, x;
        for (int round = 0; round < 3; round++) {
            r.push_back(rawThroughput(threads, iterations / 2));
            x.push_back(binderThroughput(b, threads, iterations / 2));
        }
        std::sort(r.begin(), r.end());
        std::sort(x.begin(), x.end());
        printf("  %d thread%s: binder %.0f calls/s, raw %.0f calls/s, ratio %.2f%s\n", threads,
               threads == 1 ? " " : "s", x[1], r[1], x[1] / r[1],
               threads == 1 ? "" : " (target >= 0.80)");
    }
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);

    std::vector<double> bd, pd;
    for (int round = 0; round < 5; round++) {
        double x = 0, p = 0;
        if (deathDelays(round, &x, &p)) {
            bd.push_back(x);
            pd.push_back(p);
        }
    }
    if (!bd.empty()) {
        const Stats ds = stats(bd), ps = stats(pd);
        printf("death notice after SIGKILL, median of %zu: binder %.0f us, pidfd %.0f us, "
               "ratio %.2f (target: binder < 100000 us)\n",
               bd.size(), ds.median, ps.median, ds.median / ps.median);
    }
    return 0;
}
