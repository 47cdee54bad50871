#include "tests/support/DaemonHarness.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <sstream>

namespace qmedtest {

static std::atomic<int> gDaemonCounter{0};

// Forks and execs argv with stdin from /dev/null; the child dies with the test.
static pid_t forkExec(const std::vector<std::string>& argv,
                      const std::map<std::string, std::string>& env, uid_t uid, int out, int err,
                      bool ownGroup) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (ownGroup) setpgid(0, 0);
    int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    for (auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    if (uid != 0 && (setgid(uid) || setuid(uid))) _exit(126);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

Daemon::Daemon(DaemonOptions opts) : mOpts(std::move(opts)) {
    int n = gDaemonCounter++;
    const char* base = getenv("BINDER_HOST_NS");
    mBinderNs = std::string(base ? base : "qt") + "d" + std::to_string(getpid()) + "-" +
                std::to_string(n) + ".";
    char tmpl[] = "/tmp/qmedd.XXXXXX";
    const char* dir = mkdtemp(tmpl);
    mWorkDir = dir ? dir : "/tmp";
}

Daemon::~Daemon() {
    // TERM first: a coverage build's daemon writes its counters on it.
    kill(SIGTERM);
    if (!waitExit(2000)) kill(SIGKILL);
    mSim.reset();
    if (getenv("QMED_KEEP_LOGS") == nullptr && mWorkDir.rfind("/tmp/qmedd.", 0) == 0) {
        runCommand({"rm", "-rf", mWorkDir});
    }
}

void Daemon::writeProperties() const {
    std::string text;
    for (auto& kv : mOpts.properties) text += kv.first + "=" + kv.second + "\n";
    writeFile(propertyFile(), text);
}

std::map<std::string, std::string> Daemon::clientEnv() const {
    std::map<std::string, std::string> env;
    env["BINDER_HOST_NS"] = mBinderNs;
    env["QMED_PROPERTY_FILE"] = propertyFile();
    return env;
}

RunOptions Daemon::clientOptions(uid_t uid) const {
    RunOptions o;
    o.uid = uid;
    o.env = clientEnv();
    return o;
}

ToolResult Daemon::qmedctl(const std::vector<std::string>& args, uid_t uid) const {
    return runTool("qmedctl", args, clientOptions(uid));
}

ToolResult Daemon::service(const std::vector<std::string>& args, uid_t uid) const {
    return runTool("service", args, clientOptions(uid));
}

bool Daemon::startSimulator(const std::vector<std::string>& serveArgs) {
    if (mSim) return true;
    unlink(simulatorSocket().c_str());
    unlink(simulatorCtl().c_str());
    std::vector<std::string> args = {"serve",        "--sock", simulatorSocket(),        "--ctl",
                                     simulatorCtl(), "--log",  mWorkDir + "/kmodsim.log"};
    args.insert(args.end(), serveArgs.begin(), serveArgs.end());
    mSim = std::make_unique<BackgroundTool>("kmodsim", args);
    return waitUntil([&] { return access(simulatorCtl().c_str(), F_OK) == 0; }, 5000);
}

void Daemon::stopSimulator() {
    mSim.reset();
}

ToolResult Daemon::kmodsim(const std::vector<std::string>& args) const {
    std::vector<std::string> a = {"--ctl", simulatorCtl()};
    a.insert(a.end(), args.begin(), args.end());
    return runTool("kmodsim", a);
}

bool Daemon::start(int timeoutMs) {
    if (running()) return true;
    writeProperties();
    if (mOpts.simulator && !startSimulator()) return false;
    std::string logPath = mWorkDir + "/daemon.log";
    std::string outPath = mWorkDir + "/daemon.out";
    std::vector<std::string> argv = emulatorPrefix();
    argv.push_back(toolPath("ykqmed"));
    argv.insert(argv.end(), mOpts.args.begin(), mOpts.args.end());

    std::map<std::string, std::string> env = clientEnv();
    env["QMED_LOG_LEVEL"] = mOpts.logLevel;
    if (mOpts.simulator) {
        std::string shim = toolPath("libkmodshim.so");
        env["KMODSIM_SOCKET"] = simulatorSocket();
        // Under qemu-user the preload must reach the guest, not qemu itself.
        bool emulated = !emulatorPrefix().empty();
        env[emulated ? "QEMU_SET_ENV" : "LD_PRELOAD"] = emulated ? "LD_PRELOAD=" + shim : shim;
        // The shim is loaded ahead of the sanitizer runtime.
        const char* asan = getenv("ASAN_OPTIONS");
        env["ASAN_OPTIONS"] = std::string(asan ? asan : "") + ":verify_asan_link_order=0";
    }
    for (auto& kv : mOpts.env) env[kv.first] = kv.second;
    int err = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_t pid = err < 0 || out < 0 ? -1 : forkExec(argv, env, 0, out, err, true);
    close(err);
    close(out);
    mPid = pid;
    if (!mOpts.waitForService) return true;
    return waitUntil(
                   [&] {
                       if (!running()) return true;
                       ToolResult r = service({"check", "Binder.Qmed"});
                       return r.exitCode == 0 && r.out.find("not found") == std::string::npos &&
                              r.out.find("found") != std::string::npos;
                   },
                   timeoutMs) &&
           running();
}

bool Daemon::running() const {
    if (mPid <= 0) return false;
    int status;
    pid_t r = waitpid(mPid, &status, WNOHANG | __WNOTHREAD);
    if (r == mPid) {
        const_cast<Daemon*>(this)->mPid = -1;
        return false;
    }
    return ::kill(mPid, 0) == 0;
}

void Daemon::kill(int sig) {
    if (mPid <= 0) return;
    ::kill(mPid, sig);
    if (sig == SIGKILL) waitExit(5000);
}

bool Daemon::waitExit(int timeoutMs, int* status) {
    if (mPid <= 0) return true;
    int st = 0;
    bool done = waitUntil([&] { return waitpid(mPid, &st, WNOHANG) == mPid; }, timeoutMs);
    if (done) {
        mPid = -1;
        if (status) *status = st;
    }
    return done;
}

std::string Daemon::log() const {
    return readFile(mWorkDir + "/daemon.log");
}
std::string Daemon::out() const {
    return readFile(mWorkDir + "/daemon.out");
}

bool Daemon::waitForLog(const std::string& text, int timeoutMs) const {
    return waitUntil([&] { return log().find(text) != std::string::npos; }, timeoutMs);
}

size_t Daemon::countLog(const std::string& text) const {
    std::string l = log();
    size_t n = 0;
    for (size_t pos = l.find(text); pos != std::string::npos; pos = l.find(text, pos + 1)) ++n;
    return n;
}

BackgroundTool::BackgroundTool(const std::string& tool, const std::vector<std::string>& args,
                               const RunOptions& opts) {
    int pipeFd[2];
    if (pipe2(pipeFd, O_CLOEXEC)) return;
    std::vector<std::string> argv = emulatorPrefix();
    argv.push_back(toolPath(tool));
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = forkExec(argv, opts.env, opts.uid, pipeFd[1], pipeFd[1], false);
    close(pipeFd[1]);
    mPid = pid;
    int fd = pipeFd[0];
    mReader = std::thread([this, fd] { readLoop(fd); });
}

BackgroundTool::~BackgroundTool() {
    kill(SIGKILL);
    if (mReader.joinable()) mReader.join();
}

void BackgroundTool::readLoop(int fd) {
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::lock_guard<std::mutex> g(mLock);
        mOut.append(buf, n);
    }
    close(fd);
}

std::string BackgroundTool::output() const {
    std::lock_guard<std::mutex> g(mLock);
    return mOut;
}

std::vector<std::string> BackgroundTool::lines() const {
    std::vector<std::string> out;
    std::istringstream in(output());
    std::string l;
    while (std::getline(in, l)) out.push_back(l);
    return out;
}

bool BackgroundTool::waitForLine(const std::string& text, int timeoutMs) const {
    return waitUntil([&] { return output().find(text) != std::string::npos; }, timeoutMs);
}

size_t BackgroundTool::countLines(const std::string& text) const {
    size_t n = 0;
    for (auto& l : lines())
        if (l.find(text) != std::string::npos) ++n;
    return n;
}

void BackgroundTool::kill(int sig) {
    if (mPid <= 0 || mReaped) return;
    ::kill(mPid, sig);
    if (sig == SIGKILL) waitExit(5000);
}

bool BackgroundTool::waitExit(int timeoutMs, int* status) {
    if (mPid <= 0 || mReaped) return true;
    int st = 0;
    bool done = waitUntil([&] { return waitpid(mPid, &st, WNOHANG) == mPid; }, timeoutMs);
    if (done) {
        mReaped = true;
        if (status) *status = st;
    }
    return done;
}

}  // namespace qmedtest
