#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "tests/support/ToolRunner.h"

namespace qmedtest {

// Occurrences of text in hay; listener output holds one event a line.
inline size_t countOf(const std::string& hay, const std::string& text) {
    size_t n = 0;
    for (size_t at = hay.find(text); at != std::string::npos; at = hay.find(text, at + 1)) ++n;
    return n;
}

// A build/bin tool running in the background (e.g. `qmedctl listen 1`), its
// stdout and stderr collected in a memory file.
class BackgroundTool {
  public:
    BackgroundTool(const std::string& tool, const std::vector<std::string>& args,
                   const RunOptions& opts = {});
    ~BackgroundTool() { kill(SIGKILL), close(mFd); }
    BackgroundTool(const BackgroundTool&) = delete;
    BackgroundTool& operator=(const BackgroundTool&) = delete;

    pid_t pid() const { return mPid; }
    std::string output() const { return readFile("/proc/self/fd/" + std::to_string(mFd)); }
    bool waitForLine(const std::string& text, int timeoutMs = 5000) const {
        return waitUntil([&] { return output().find(text) != std::string::npos; }, timeoutMs);
    }
    size_t countLines(const std::string& text) const { return countOf(output(), text); }
    void kill(int sig = 9) {  // SIGKILL also reaps it
        if (mPid > 0) ::kill(mPid, sig);
        if (sig == SIGKILL) reapWithin(mPid, 5000);
    }

  private:
    pid_t mPid = -1;
    int mFd;
};

struct DaemonOptions {
    std::vector<std::string> args;                                // e.g. {"-t", "3"}
    std::vector<std::pair<std::string, std::string>> properties;  // written to its property file
    std::map<std::string, std::string> env;                       // extra environment
    std::string logLevel = "d";                                   // QMED_LOG_LEVEL
    bool waitForService = true;  // start() waits until "Binder.Qmed" answers
    bool simulator = false;      // run under the kernel-module simulator
};

// The real build/bin/ykqmed, a child of the test run through tools/qmed-ns (for
// /dev/frz and /dev/power_watchdog). Its binder name prefix, work folder and logs
// are its own and outlive a restart.
class Daemon {
  public:
    explicit Daemon(DaemonOptions opts = {});
    ~Daemon();

    bool start(int timeoutMs = 10000);
    pid_t pid() const { return mPid; }
    bool running() const {
        if (mPid > 0 && waitpid(mPid, nullptr, WNOHANG) == mPid) mPid = -1;
        return mPid > 0;
    }
    void kill(int sig = 9) {  // SIGKILL also reaps it
        if (mPid > 0) ::kill(mPid, sig);
        if (sig == SIGKILL) waitExit(5000);
    }
    bool waitExit(int timeoutMs, int* status = nullptr) {
        return reapWithin(mPid, timeoutMs, status);
    }

    std::string log() const { return readFile(mWorkDir + "/daemon.log"); }  // its stderr
    std::string out() const { return readFile(mWorkDir + "/daemon.out"); }  // its stdout
    bool waitForLog(const std::string& text, int timeoutMs = 5000) const {
        return waitUntil([&] { return log().find(text) != std::string::npos; }, timeoutMs);
    }
    size_t countLog(const std::string& text) const { return countOf(log(), text); }

    const std::string& binderNs() const { return mBinderNs; }
    const std::string& workDir() const { return mWorkDir; }
    std::string propertyFile() const { return mWorkDir + "/properties"; }
    std::map<std::string, std::string> clientEnv() const {
        return {{"BINDER_HOST_NS", mBinderNs}, {"QMED_PROPERTY_FILE", propertyFile()}};
    }
    RunOptions clientOptions(uid_t uid = 0) const { return {uid, clientEnv()}; }
    ToolResult qmedctl(const std::vector<std::string>& args, uid_t uid = 0) const {
        return runTool("qmedctl", args, clientOptions(uid));
    }
    ToolResult service(const std::vector<std::string>& args, uid_t uid = 0) const {
        return runTool("service", args, clientOptions(uid));
    }
    DaemonOptions& options() { return mOpts; }

    // Kernel-module simulator: started by start() before the daemon, kept across
    // restarts. kmodsim() runs one control command (tools/kmodsim/README.md).
    bool startSimulator();
    void stopSimulator() { mSim.reset(); }
    ToolResult kmodsim(const std::vector<std::string>& args) const {
        std::vector<std::string> a = {"--ctl", simulatorCtl()};
        a.insert(a.end(), args.begin(), args.end());
        return runTool("kmodsim", a);
    }
    std::string simulatorSocket() const { return mWorkDir + "/km.sock"; }
    std::string simulatorCtl() const { return mWorkDir + "/km.ctl"; }

  private:
    std::unique_ptr<BackgroundTool> mSim;
    DaemonOptions mOpts;
    std::string mBinderNs;
    std::string mWorkDir;
    mutable pid_t mPid = -1;
};

}  // namespace qmedtest
