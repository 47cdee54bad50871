#include "tests/fault/FaultTestUtil.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>

#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

namespace faulttest {

double scale() {
    const char* s = getenv("QMED_FAULT_SCALE");
    if (s == nullptr || *s == '\0') return 1.0;
    double v = atof(s);
    return v > 0 ? v : 1.0;
}

std::string daemonAsanOptions() {
    const char* asan = getenv("ASAN_OPTIONS");
    return std::string(asan ? asan : "") + ":verify_asan_link_order=0:quarantine_size_mb=4";
}

long rssKb(pid_t pid) {
    std::istringstream in(qmedtest::readFile("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) return atol(line.c_str() + 6);
    }
    return -1;
}

std::vector<pid_t> frozenPids(const std::string& root) {
    std::vector<pid_t> out;
    DIR* d = opendir(root.c_str());
    if (d == nullptr) return out;
    while (struct dirent* e = readdir(d)) {
        if (e->d_type != DT_DIR || e->d_name[0] == '.') continue;
        std::string g = root + "/" + e->d_name;
        std::string state = qmedtest::readFile(g + "/freezer.state");
        if (state.compare(0, 6, "FROZEN") != 0 && state.compare(0, 8, "FREEZING") != 0) continue;
        std::istringstream procs(qmedtest::readFile(g + "/cgroup.procs"));
        pid_t p;
        while (procs >> p) out.push_back(p);
    }
    closedir(d);
    return out;
}

std::vector<pid_t> heldDuring(const std::vector<pid_t>& pids, int ms) {
    std::vector<pid_t> held;
    auto note = [&](pid_t p) {
        if (std::find(held.begin(), held.end(), p) == held.end()) held.push_back(p);
    };
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    do {
        std::vector<pid_t> frozen = frozenPids();
        for (pid_t p : pids) {
            if (qmedtest::procState(p) == 'T') note(p);
            if (std::find(frozen.begin(), frozen.end(), p) != frozen.end()) note(p);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < end);
    return held;
}

bool seenStopped(pid_t pid, int timeoutMs) {
    return qmedtest::waitUntil([&] { return qmedtest::procState(pid) == 'T'; }, timeoutMs);
}

bool progresses(pid_t pid, int timeoutMs) {
    long before = qmedtest::procCpuTicks(pid);
    return qmedtest::waitUntil([&] { return qmedtest::procCpuTicks(pid) > before; }, timeoutMs);
}

void thawAll(const std::string& root) {
    DIR* d = opendir(root.c_str());
    if (d == nullptr) return;
    while (struct dirent* e = readdir(d)) {
        if (e->d_type != DT_DIR || e->d_name[0] == '.') continue;
        qmedtest::writeFile(root + "/" + e->d_name + "/freezer.state", "THAWED");
    }
    closedir(d);
}

std::string join(const std::vector<pid_t>& pids) {
    std::string s;
    for (pid_t p : pids) s += (s.empty() ? "" : " ") + std::to_string(p);
    return s;
}

void DaemonFixture::startDaemon(const std::string& logLevel) {
    ASSERT_EQ(0, access("/dev/frz/cgroup.procs", F_OK)) << "run through qmed-ns";
    qmedtest::DaemonOptions opts;
    opts.simulator = true;
    opts.env["ASAN_OPTIONS"] = daemonAsanOptions();
    opts.logLevel = logLevel;
    mDaemon.reset(new qmedtest::Daemon(opts));
    ASSERT_TRUE(mDaemon->start()) << mDaemon->log();
    ASSERT_EQ(0, mDaemon->kmodsim({"wait-identified", "5000"}).exitCode);
}

void DaemonFixture::TearDown() {
    if (mDaemon && mDaemon->running()) {
        mDaemon->qmedctl({"stop-all"});
        mDaemon->qmedctl({"thaw-all"});
    }
    thawAll();
    for (qmedtest::TestChild& c : mChildren) c.kill(SIGKILL);
}

}  // namespace faulttest
