// Batch freeze and thaw of N real processes through the daemon's binder service, against
// the bare cgroup writes on pre-created groups and against a naive freezer that makes a
// directory per freeze; plus the time until every group reads FROZEN. Each N (default 50,
// 200 and 800) is a block of its own over the first N of one set of processes.
// Run through qmed-ns:  build/bin/qmed-ns build/bin/bench_freezer [-r ROUNDS] [--busy] [N...]

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "freezer/Freezer.h"
#include "msghub/ChannelManager.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"
#include "tools/kmodsim/KmodsimControl.h"

using android::defaultServiceManager;
using android::IBinder;
using android::Parcel;
using android::ProcessState;
using android::sp;
using android::String16;
using android::String8;
using qmedtest::TestChild;

namespace {

const std::string kFrz = "/dev/frz";

double nowMs() {
    return std::chrono::duration<double, std::milli>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
}

bool put(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == (ssize_t)text.size();
    close(fd);
    return ok;
}

std::string state(const std::string& group) {
    char buf[32] = {0};
    int fd = open((group + "/freezer.state").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    ssize_t n = read(fd, buf, sizeof(buf) - 1);
    close(fd);
    std::string s(buf, n > 0 ? n : 0);
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

// The freezer group of pid under /dev/frz, from /proc/PID/cgroup. /dev/frz may be a child
// group of the hierarchy, so leading components are dropped until the path exists under it.
std::string groupOf(pid_t pid) {
    std::string text = qmedtest::readFile("/proc/" + std::to_string(pid) + "/cgroup");
    size_t at = text.find(":freezer:");
    if (at == std::string::npos) return "";
    size_t end = text.find('\n', at);
    std::string path = text.substr(at + 9, end - at - 9);
    struct stat st;
    while (!path.empty()) {
        if (stat((kFrz + path + "/freezer.state").c_str(), &st) == 0) return kFrz + path;
        size_t next = path.find('/', 1);
        if (next == std::string::npos) break;
        path = path.substr(next);
    }
    return "";
}

// Milliseconds from `start` until every pid's group reads FROZEN; -1 after 10 s.
double untilAllFrozen(const std::vector<int>& pids, double start) {
    std::vector<std::string> groups;
    for (int p : pids) groups.push_back(groupOf(p));
    for (;;) {
        bool all = true;
        for (const auto& g : groups) {
            if (state(g) != "FROZEN") {
                all = false;
                break;
            }
        }
        if (all) return nowMs() - start;
        if (nowMs() - start > 10000) return -1;
        usleep(200);
    }
}

double best(const std::vector<double>& v) {
    return v.empty() ? 0 : *std::min_element(v.begin(), v.end());
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

struct Result {
    std::vector<double> freezeThaw;  // request time of the freeze plus that of the thaw
    std::vector<double> toFrozen;    // from the freeze request until all read FROZEN
};

// The in-process engine's waiting-binder commands go, as the daemon's do, through a hub
// channel to a simulator of its own: this binary carries the interposer (KmodShim.cpp).
bool startOwnHub(kmodsim::SimProcess* sim) {
    std::string tag = "@qmedbench-km-" + std::to_string(getpid());
    if (!sim->start(qmedtest::toolPath("kmodsim"), tag, tag + "-ctl")) return false;
    setenv("KMODSIM_SOCKET", tag.c_str(), 1);
    ChannelManager::getInstance()->start();
    return qmedtest::waitUntil(
            [] { return ChannelManager::getInstance()->getChannelById(4) != nullptr; }, 5000);
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 5;
    bool busy = false;
    std::vector<int> sizes;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--busy") == 0) {
            busy = true;
        } else if (strcmp(argv[i], "-r") == 0 && i + 1 < argc) {
            rounds = std::max(1, atoi(argv[++i]));
        } else if (atoi(argv[i]) > 0) {
            sizes.push_back(atoi(argv[i]));
        }
    }
    if (sizes.empty()) sizes = {50, 200, 800};
    const int most = *std::max_element(sizes.begin(), sizes.end());
    if (access((kFrz + "/cgroup.procs").c_str(), F_OK) != 0) {
        fprintf(stderr, "bench_freezer: no freezer at %s; run through qmed-ns\n", kFrz.c_str());
        return 1;
    }

    // The daemon below logs warnings only; so does the in-process engine.
    __android_log_set_minimum_priority(ANDROID_LOG_WARN);
    std::vector<TestChild> children;
    std::vector<int> all;
    for (int i = 0; i < most; i++) {
        children.push_back(TestChild::spawn(busy ? TestChild::Kind::Busy : TestChild::Kind::Sleep));
        all.push_back(children.back().pid());
    }

    qmedtest::DaemonOptions opts;
    opts.simulator = true;
    opts.logLevel = "w";
    qmedtest::Daemon daemon(opts);
    if (!daemon.start()) {
        fprintf(stderr, "bench_freezer: daemon did not start:\n%s\n", daemon.log().c_str());
        return 1;
    }
    daemon.kmodsim({"wait-identified", "5000"});
    for (auto& kv : daemon.clientEnv()) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    ProcessState::self()->startThreadPool();
    sp<IBinder> service = defaultServiceManager()->getService(String16("Binder.Qmed"));
    if (service == nullptr) {
        fprintf(stderr, "bench_freezer: no Binder.Qmed\n");
        return 1;
    }
    kmodsim::SimProcess sim;
    if (!startOwnHub(&sim)) {
        fprintf(stderr, "bench_freezer: no simulator for the in-process engine\n");
        return 1;
    }

    auto doFreezer = [&](int action, const std::vector<int>& list) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        data.writeInt32(action);
        data.writeInt32((int32_t)list.size());
        for (int p : list) data.writeInt32(p);
        if (service->transact(IQmedBinderService::DO_FREEZER, data, &reply) != android::NO_ERROR)
            return -1;
        if (reply.readInt32() != 0) return -1;
        return (int)reply.readInt32();
    };

    // Pre-created groups for the bare writes; a scratch folder for the naive freezer.
    std::string base = kFrz + "/qmedbench-" + std::to_string(getpid());
    mkdir(base.c_str(), 0755);
    std::vector<std::string> raw, naive;
    for (int i = 0; i < most; i++) {
        raw.push_back(base + "/r" + std::to_string(i));
        mkdir(raw.back().c_str(), 0774);
        naive.push_back(base + "/n" + std::to_string(i));
    }
    const std::string rootProcs = kFrz + "/cgroup.procs";

    // The daemon's engine in this process, on a private subtree, without binder.
    std::string engineRoot = base + "/engine";
    mkdir(engineRoot.c_str(), 0755);
    sp<Freezer> engine = new Freezer(String8(engineRoot.c_str()));

    bool ok = true;
    for (int n : sizes) {
        std::vector<int> pids(all.begin(), all.begin() + n);
        // A batch holds at most 200 entries including the -1 terminator.
        const int batch = IQmedBinderService::kMaxListNum - 1;
        auto binderFreeze = [&] {
            for (int from = 0; from < n; from += batch) {
                std::vector<int> list(pids.begin() + from,
                                      pids.begin() + std::min(n, from + batch));
                list.push_back(-1);
                if (doFreezer(1, list) != 0) return false;
            }
            return true;
        };
        auto binderThaw = [&] {
            for (int from = 0; from < n; from += IQmedBinderService::kMaxListNum) {
                std::vector<int> list(
                        pids.begin() + from,
                        pids.begin() + std::min(n, from + IQmedBinderService::kMaxListNum));
                if (doFreezer(2, list) != 0) return false;
            }
            return true;
        };
        auto rawFreeze = [&](const std::vector<std::string>& groups) {
            for (int i = 0; i < n; i++) {
                put(groups[i] + "/cgroup.procs", std::to_string(pids[i]));
                put(groups[i] + "/freezer.state", "FROZEN");
            }
        };
        auto rawThaw = [&](const std::vector<std::string>& groups) {
            for (int i = 0; i < n; i++) {
                put(groups[i] + "/freezer.state", "THAWED");
                put(rootProcs, std::to_string(pids[i]));
            }
        };

        Result viaBinder, bare, naiveDir, inProcess;
        for (int r = 0; r < rounds && ok; r++) {
            double t0 = nowMs();
            ok = binderFreeze();
            double t1 = nowMs();
            viaBinder.toFrozen.push_back(untilAllFrozen(pids, t0));
            double t2 = nowMs();
            ok = ok && binderThaw();
            viaBinder.freezeThaw.push_back((t1 - t0) + (nowMs() - t2));

            t0 = nowMs();
            rawFreeze(raw);
            t1 = nowMs();
            bare.toFrozen.push_back(untilAllFrozen(pids, t0));
            t2 = nowMs();
            rawThaw(raw);
            bare.freezeThaw.push_back((t1 - t0) + (nowMs() - t2));

            t0 = nowMs();
            for (int i = 0; i < n; i++) mkdir(naive[i].c_str(), 0774);
            rawFreeze(naive);
            t1 = nowMs();
            naiveDir.toFrozen.push_back(untilAllFrozen(pids, t0));
            t2 = nowMs();
            rawThaw(naive);
            for (int i = 0; i < n; i++) rmdir(naive[i].c_str());
            naiveDir.freezeThaw.push_back((t1 - t0) + (nowMs() - t2));

            if (engine->isFrzInited()) {
                std::vector<int> list = pids;
                list.push_back(-1);
                t0 = nowMs();
                engine->freezeProcess(1, list.data(), (int)list.size());
                t1 = nowMs();
                inProcess.toFrozen.push_back(untilAllFrozen(pids, t0));
                t2 = nowMs();
                engine->freezeProcess(2, pids.data(), n);
                inProcess.freezeThaw.push_back((t1 - t0) + (nowMs() - t2));
            }
        }
        if (!ok) break;

        printf("freezer: %d %s processes, %d rounds; median (best) in ms\n", n,
               busy ? "busy" : "sleeping", rounds);
        auto row = [](const char* what, const Result& r) {
            printf("  %-34s %8.2f (%8.2f)   to all FROZEN %8.2f (%8.2f)\n", what,
                   median(r.freezeThaw), best(r.freezeThaw), median(r.toFrozen), best(r.toFrozen));
        };
        row("freeze+thaw through binder", viaBinder);
        row("freeze+thaw, in-process Freezer", inProcess);
        row("bare cgroup writes (pre-created)", bare);
        row("naive (directory per freeze)", naiveDir);
        auto ratio = [](double a, double b) { return b > 0 ? a / b : 0; };
        printf("  per process, through binder     %8.1f us\n",
               median(viaBinder.freezeThaw) * 1000 / n);
        printf("  ratio binder / bare writes, %d processes   %5.2f (best %5.2f)   target <= 1.2\n",
               n, ratio(median(viaBinder.freezeThaw), median(bare.freezeThaw)),
               ratio(best(viaBinder.freezeThaw), best(bare.freezeThaw)));
        printf("  ratio binder / naive, %d processes         %5.2f (best %5.2f)   target <= 0.7\n",
               n, ratio(median(viaBinder.freezeThaw), median(naiveDir.freezeThaw)),
               ratio(best(viaBinder.freezeThaw), best(naiveDir.freezeThaw)));
        fflush(stdout);
    }
    engine->thawAll(false);
    engine.clear();
    daemon.qmedctl({"thaw-all"});
    for (int i = 0; i < most; i++) {
        put(raw[i] + "/freezer.state", "THAWED");
        put(rootProcs, std::to_string(all[i]));
        rmdir(raw[i].c_str());
        rmdir(naive[i].c_str());
    }
    rmdir(engineRoot.c_str());
    rmdir(base.c_str());
    if (!ok) {
        fprintf(stderr, "bench_freezer: a binder freeze or thaw failed\n%s\n",
                daemon.log().c_str());
        return 1;
    }
    return 0;
}
