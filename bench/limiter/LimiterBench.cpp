// Throttling accuracy and overhead of the limiter, measured in one run against
// cpulimit (same target, same busy workload) and the kernel's cgroup-v1 CPU
// bandwidth control as the physical reference, and how long a command waits for
// its answer while 1, 10 and 100 groups are limited. Needs root. Takes about 12
// minutes with the defaults; `bench_limiter SECONDS [accuracy|overhead|latency]`
// shortens the accuracy runs or picks one part.

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "limiter/ProcessLimiter.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kCpuCgroup = "/sys/fs/cgroup/cpu";
constexpr int kWarmupSeconds = 10;

pid_t spawn(bool light) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        prctl(PR_SET_NAME, light ? "benchlight" : "benchbusy");
        volatile unsigned long x = 0;
        if (!light) {
            for (;;) x = x + 1;
        }
        // About 1 % of a CPU: 1 ms of work every 100 ms.
        for (;;) {
            auto end = Clock::now() + std::chrono::milliseconds(1);
            while (Clock::now() < end) x = x + 1;
            usleep(99000);
        }
    }
    return pid;
}

void reap(pid_t pid) {
    kill(pid, SIGCONT);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

long long runNs(pid_t pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/schedstat", pid);
    FILE* f = fopen(path, "r");
    if (f == nullptr) return -1;
    long long run = -1;
    if (fscanf(f, "%lld", &run) != 1) run = -1;
    fclose(f);
    return run;
}

double procCpuSeconds(pid_t pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/stat", pid);
    FILE* f = fopen(path, "r");
    if (f == nullptr) return -1;
    char line[1024];
    double s = -1;
    if (fgets(line, sizeof(line), f) != nullptr) {
        const char* p = strrchr(line, ')');
        unsigned long ut = 0, st = 0;
        if (p != nullptr &&
            sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &ut, &st) == 2) {
            s = static_cast<double>(ut + st) / sysconf(_SC_CLK_TCK);
        }
    }
    fclose(f);
    return s;
}

double selfCpuSeconds() {
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
           (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// Per-second CPU share of one CPU, seconds [kWarmupSeconds, seconds).
std::vector<double> sampleLoad(pid_t pid, int seconds) {
    std::vector<double> out;
    auto t = Clock::now();
    long long last = runNs(pid);
    for (int i = 0; i < seconds; i++) {
        t += std::chrono::seconds(1);
        std::this_thread::sleep_until(t);
        long long now = runNs(pid);
        if (i >= kWarmupSeconds) out.push_back((now - last) / 1e9);
        last = now;
    }
    return out;
}

struct Accuracy {
    double mean;
    double mae;
};

Accuracy score(const std::vector<double>& load, double target) {
    double sum = 0, err = 0;
    for (double l : load) {
        sum += l;
        err += std::fabs(l - target);
    }
    return {sum / load.size(), err / load.size()};
}

bool writeText(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) return false;
    bool ok = fputs(text.c_str(), f) >= 0;
    return fclose(f) == 0 && ok;
}

// Exposes the cycle count so the cycle length can be reported.
// Exposes the cycle count, and holds the loop back while a set of groups is added: each add
// made while the loop runs waits out a stop phase that grows with every group.
class BenchLimiter : public ProcessLimiter {
  public:
    int cycles() const { return mCycle; }
    void hold(bool on) {
        mHold = on;
        if (!on && mHeld) ProcessLimiter::startSpearLoop();
        mHeld = false;
    }

  protected:
    void startSpearLoop() override {
        if (mHold)
            mHeld = true;
        else
            ProcessLimiter::startSpearLoop();
    }

  private:
    bool mHold = false, mHeld = false;
};

int ncpu() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_CONF));
}

// The limiter's rate is a share of the whole machine.
int limiterRate(int percentOfOneCpu) {
    return static_cast<int>(std::lround(static_cast<double>(percentOfOneCpu) / ncpu()));
}

std::vector<double> runLimiter(int percent, int seconds) {
    android::sp<ProcessLimiter> pl = ProcessLimiter::getInstance();
    pid_t child = spawn(false);
    pl->add2LimiterGroup(child, limiterRate(percent), 0, false);
    std::vector<double> load = sampleLoad(child, seconds);
    pl->quitLimit(child);
    reap(child);
    return load;
}

pid_t startCpulimit(int percent, pid_t target) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int devnull = open("/dev/null", O_WRONLY);
        if (devnull >= 0) {
            dup2(devnull, 1);
            dup2(devnull, 2);
        }
        std::string l = std::to_string(percent);
        std::string p = std::to_string(target);
        execlp("cpulimit", "cpulimit", "-l", l.c_str(), "-p", p.c_str(), (char*)nullptr);
        _exit(127);
    }
    return pid;
}

std::vector<double> runCpulimit(int percent, int seconds) {
    pid_t child = spawn(false);
    pid_t cl = startCpulimit(percent, child);
    std::vector<double> load = sampleLoad(child, seconds);
    kill(cl, SIGTERM);
    waitpid(cl, nullptr, 0);
    reap(child);
    return load;
}

std::vector<double> runCgroup(int percent, int seconds) {
    std::string dir = std::string(kCpuCgroup) + "/qmed-bench-" + std::to_string(getpid());
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return {};
    pid_t child = spawn(false);
    std::vector<double> load;
    if (writeText(dir + "/cpu.cfs_period_us", "100000") &&
        writeText(dir + "/cpu.cfs_quota_us", std::to_string(percent * 1000)) &&
        writeText(dir + "/cgroup.procs", std::to_string(child))) {
        load = sampleLoad(child, seconds);
    }
    reap(child);
    rmdir(dir.c_str());
    return load;
}

void accuracy(int seconds) {
    printf("accuracy: %d s per run, first %d s excluded, %d CPUs, load in shares of one CPU\n",
           seconds, kWarmupSeconds, ncpu());
    {
        pid_t child = spawn(false);
        Accuracy free = score(sampleLoad(child, kWarmupSeconds + 5), 1.0);
        reap(child);
        printf("  unthrottled busy loop gets %.3f of a CPU on this machine now\n", free.mean);
    }
    printf("  %-8s %-10s %8s %8s\n", "target", "method", "mean", "MAE");
    for (int percent : {20, 40, 60}) {
        double target = percent / 100.0;
        Accuracy lim = score(runLimiter(percent, seconds), target);
        Accuracy cpl = score(runCpulimit(percent, seconds), target);
        std::vector<double> cg = runCgroup(percent, seconds);
        printf("  %-8d %-10s %8.3f %8.3f  (limiter rate %d%% of %d CPUs)\n", percent, "limiter",
               lim.mean, lim.mae, limiterRate(percent), ncpu());
        printf("  %-8d %-10s %8.3f %8.3f\n", percent, "cpulimit", cpl.mean, cpl.mae);
        if (!cg.empty()) {
            Accuracy c = score(cg, target);
            printf("  %-8d %-10s %8.3f %8.3f\n", percent, "cgroup", c.mean, c.mae);
            printf("  %-8d MAE ratio limiter/cpulimit %.2f, limiter/cgroup %.2f\n", percent,
                   lim.mae / cpl.mae, c.mae > 0 ? lim.mae / c.mae : 0.0);
        } else {
            printf("  %-8d MAE ratio limiter/cpulimit %.2f (no cgroup cpu controller)\n", percent,
                   lim.mae / cpl.mae);
        }
        fflush(stdout);
    }
}

double limiterOverhead(int groups, int seconds) {
    android::sp<BenchLimiter> pl = new BenchLimiter();
    std::vector<pid_t> children;
    pl->hold(true);
    for (int i = 0; i < groups; i++) {
        children.push_back(spawn(true));
        pl->add2LimiterGroup(children.back(), 4, 0, false);
    }
    pl->hold(false);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    double c0 = selfCpuSeconds();
    int cycles0 = pl->cycles();
    auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    double perSecond = (selfCpuSeconds() - c0) / wall;
    int cycles = pl->cycles() - cycles0;
    // Stop-phase sleeps subtract only the previous sleep, so many groups stretch the cycle.
    printf("  (%d groups: %d cycles in %.1f s, %.2f s per cycle, %.6f CPU s per group-cycle)\n",
           groups, cycles, wall, cycles > 0 ? wall / cycles : wall,
           cycles > 0 ? perSecond * wall / cycles / groups : 0.0);
    pl->quitLimitAll();
    for (pid_t c : children) reap(c);
    return perSecond;
}

double cpulimitOverhead(int seconds) {
    pid_t child = spawn(true);
    pid_t cl = startCpulimit(4, child);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    double c0 = procCpuSeconds(cl);
    auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    double perSecond =
            (procCpuSeconds(cl) - c0) / std::chrono::duration<double>(Clock::now() - t0).count();
    kill(cl, SIGTERM);
    waitpid(cl, nullptr, 0);
    reap(child);
    return perSecond;
}

void overhead(int seconds) {
    printf("overhead: own CPU seconds per second over %d s, light children (~1%% CPU each)\n",
           seconds);
    double cl = cpulimitOverhead(seconds);
    printf("  cpulimit, 1 process       %.5f\n", cl);
    for (int groups : {1, 10, 100}) {
        double l = limiterOverhead(groups, seconds);
        printf("  limiter, %3d groups       %.5f  per group %.5f  ratio per group vs cpulimit "
               "%.2f\n",
               groups, l, l / groups, cl > 0 ? (l / groups) / cl : 0.0);
        fflush(stdout);
    }
}

// Commands issued at random moments while `groups` light processes are limited at 50 %:
// a query (is it limited), a change of rate and a pause of no cycles, which releases the
// group's processes and so has to wait for the loop's stop phase to end; and the adds of the
// groups themselves, one after the other.
void commandWait(int groups, int seconds) {
    android::sp<BenchLimiter> pl = new BenchLimiter();
    std::vector<pid_t> children;
    std::vector<double> add, query, change, pause;
    for (int i = 0; i < groups; i++) {  // the loop runs from the first one on
        children.push_back(spawn(true));
        auto a = Clock::now();
        pl->add2LimiterGroup(children.back(), 50, 0, false);
        add.push_back(std::chrono::duration<double, std::milli>(Clock::now() - a).count());
    }
    std::mt19937 rng(groups);
    auto end = Clock::now() + std::chrono::seconds(seconds);
    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 200));
        pid_t target = children[rng() % children.size()];
        auto a = Clock::now();
        pl->islimitedPid(target);
        auto b = Clock::now();
        pl->changeParam(target, 50);
        auto c = Clock::now();
        pl->pauseLimit(target, 0);
        pause.push_back(std::chrono::duration<double, std::milli>(Clock::now() - c).count());
        query.push_back(std::chrono::duration<double, std::milli>(b - a).count());
        change.push_back(std::chrono::duration<double, std::milli>(c - b).count());
    }
    auto report = [&](const char* what, std::vector<double> v) {
        std::sort(v.begin(), v.end());
        printf("  command wait, %d groups, %-6s median %9.2f ms  max %9.2f ms  (%zu commands)\n",
               groups, what, v[v.size() / 2], v.back(), v.size());
    };
    report("add", add);
    report("query", query);
    report("change", change);
    report("pause", pause);
    printf("  (%d groups: %d cycles in %d s)\n", groups, pl->cycles(), seconds);
    fflush(stdout);
    pl->quitLimitAll();
    for (pid_t c : children) reap(c);
}

void latency(int longest) {
    printf("latency: commands at random moments, light children limited at 50 %%\n");
    for (int groups : {1, 10, 100}) commandWait(groups, groups < 100 ? 6 : longest);
}

}  // namespace

int main(int argc, char** argv) {
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    int seconds = argc > 1 ? atoi(argv[1]) : 60;
    if (seconds <= kWarmupSeconds) seconds = kWarmupSeconds + 1;
    if (getuid() != 0) {
        fprintf(stderr, "bench_limiter needs root (signals, cgroups)\n");
        return 1;
    }
    std::string only = argc > 2 ? argv[2] : "";
    if (only.empty() || only == "accuracy") accuracy(seconds);
    if (only.empty() || only == "overhead") overhead(20);
    // Long enough to span the stop phase of 100 groups at least once.
    if (only.empty() || only == "latency") latency(30);
    return 0;
}
