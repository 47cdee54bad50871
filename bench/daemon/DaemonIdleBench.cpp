// Idle cost of ykqmed: private memory (smaps_rollup) and wake-ups per second (context
// switches of all its threads), against the same binary parked by its kill switch, which
// maps the same libraries but starts nothing. Run through qmed-ns.

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "tests/support/DaemonHarness.h"
#include "tests/support/ToolRunner.h"

using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::readFile;

namespace {

// Sum of the Private_* lines of smaps_rollup, in kB.
long privateKb(pid_t pid) {
    std::istringstream in(readFile("/proc/" + std::to_string(pid) + "/smaps_rollup"));
    std::string line;
    long total = 0;
    while (std::getline(in, line)) {
        if (line.compare(0, 8, "Private_") != 0) continue;
        total += atol(line.c_str() + line.find(':') + 1);
    }
    return total;
}

long contextSwitches(pid_t pid) {
    std::string taskDir = "/proc/" + std::to_string(pid) + "/task";
    DIR* dir = opendir(taskDir.c_str());
    if (dir == nullptr) return -1;
    long total = 0;
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::istringstream in(readFile(taskDir + "/" + e->d_name + "/status"));
        std::string line;
        while (std::getline(in, line)) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                total += atol(line.c_str() + line.find(':') + 1);
            }
        }
    }
    closedir(dir);
    return total;
}

int threads(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr) return -1;
    int n = 0;
    while (struct dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
    return n;
}

double ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 5;
    DaemonOptions full;
    full.simulator = true;
    full.logLevel = "i";
    DaemonOptions parked;
    parked.simulator = true;
    parked.logLevel = "i";
    parked.waitForService = false;
    parked.properties = {{"ro.config.qm_disable_qm", "true"}};

    Daemon daemon(full);
    Daemon baseline(parked);
    if (!daemon.start() || !baseline.start() || !baseline.waitForLog("qm is disabled")) {
        fprintf(stderr, "daemon did not start (run through qmed-ns)\n%s\n", daemon.log().c_str());
        return 1;
    }
    // Let start-up settle (pool creation, plug-in thread, identification).
    sleep(1);

    const long cs0 = contextSwitches(daemon.pid());
    const long bs0 = contextSwitches(baseline.pid());
    sleep(seconds);
    const long cs1 = contextSwitches(daemon.pid());
    const long bs1 = contextSwitches(baseline.pid());

    const long mem = privateKb(daemon.pid());
    const long baseMem = privateKb(baseline.pid());
    const double wakeups = double(cs1 - cs0) / seconds;
    const double baseWakeups = double(bs1 - bs0) / seconds;

    printf("daemon idle over %d s (%d threads; kill-switch baseline %d threads)\n", seconds,
           threads(daemon.pid()), threads(baseline.pid()));
    printf("private memory: %ld kB, baseline %ld kB, ratio %.2f, target < 2048 kB: %s\n", mem,
           baseMem, ratio(mem, baseMem), mem < 2048 ? "met" : "missed");
    printf("wake-ups: %.2f /s, baseline %.2f /s, difference %.2f /s, target 0: %s\n", wakeups,
           baseWakeups, wakeups - baseWakeups, wakeups == 0 ? "met" : "missed");
    return 0;
}
