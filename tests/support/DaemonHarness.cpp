#include "tests/support/DaemonHarness.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>

namespace qmedtest {

Daemon::Daemon(DaemonOptions opts) : mOpts(std::move(opts)) {
    static std::atomic<int> counter{0};
    const char* base = getenv("BINDER_HOST_NS");
    mBinderNs = std::string(base ? base : "qt") + "d" + std::to_string(getpid()) + "-" +
                std::to_string(counter++) + ".";
    char tmpl[] = "/tmp/qmedd.XXXXXX";
    mWorkDir = mkdtemp(tmpl) ? tmpl : "/tmp";
}

Daemon::~Daemon() {
    // TERM first: a coverage build's daemon writes its counters on it.
    kill(SIGTERM);
    if (!waitExit(2000)) kill(SIGKILL);
    mSim.reset();
    if (!getenv("QMED_KEEP_LOGS") && mWorkDir != "/tmp") runCommand({"rm", "-rf", mWorkDir});
}

bool Daemon::startSimulator() {
    if (mSim) return true;
    unlink(simulatorSocket().c_str());
    unlink(simulatorCtl().c_str());
    std::vector<std::string> args = {"serve",        "--sock", simulatorSocket(),        "--ctl",
                                     simulatorCtl(), "--log",  mWorkDir + "/kmodsim.log"};
    mSim = std::make_unique<BackgroundTool>("kmodsim", args);
    return waitUntil([&] { return access(simulatorCtl().c_str(), F_OK) == 0; }, 5000);
}

bool Daemon::start(int timeoutMs) {
    if (running()) return true;
    std::string props;
    for (auto& kv : mOpts.properties) props += kv.first + "=" + kv.second + "\n";
    writeFile(propertyFile(), props);
    if (mOpts.simulator && !startSimulator()) return false;
    RunOptions o = clientOptions();
    o.env["QMED_LOG_LEVEL"] = mOpts.logLevel;
    if (mOpts.simulator) {
        std::string shim = toolPath("libkmodshim.so");
        o.env["KMODSIM_SOCKET"] = simulatorSocket();
        // Under qemu-user the preload must reach the guest, not qemu itself.
        bool emulated = !emulatorPrefix().empty();
        o.env[emulated ? "QEMU_SET_ENV" : "LD_PRELOAD"] = emulated ? "LD_PRELOAD=" + shim : shim;
        // The shim is loaded ahead of the sanitizer runtime.
        const char* asan = getenv("ASAN_OPTIONS");
        o.env["ASAN_OPTIONS"] = std::string(asan ? asan : "") + ":verify_asan_link_order=0";
    }
    for (auto& kv : mOpts.env) o.env[kv.first] = kv.second;
    int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    int err = open((mWorkDir + "/daemon.log").c_str(), flags, 0644);
    int out = open((mWorkDir + "/daemon.out").c_str(), flags, 0644);
    mPid = err < 0 || out < 0 ? -1 : forkExec(toolArgv("ykqmed", mOpts.args), o, out, err);
    close(err);
    close(out);
    auto answers = [&] {
        std::string r = service({"check", "Binder.Qmed"}).out;
        return !running() ||
               (r.find("found") != std::string::npos && r.find("not found") == r.npos);
    };
    return !mOpts.waitForService || (waitUntil(answers, timeoutMs) && running());
}

BackgroundTool::BackgroundTool(const std::string& tool, const std::vector<std::string>& args,
                               const RunOptions& opts)
    : mFd(memfd_create("out", MFD_CLOEXEC)) {
    if (mFd >= 0) mPid = forkExec(toolArgv(tool, args), opts, mFd, mFd);
}

}  // namespace qmedtest
