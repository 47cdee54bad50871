#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/ToolRunner.h"

namespace qmedtest {

struct DaemonOptions {
    std::vector<std::string> args;                                // e.g. {"-t", "3"}
    std::vector<std::pair<std::string, std::string>> properties;  // written to its property file
    std::map<std::string, std::string> env;                       // extra environment
    std::string logLevel = "d";                                   // QMED_LOG_LEVEL
    bool waitForService = true;  // start() waits until "Binder.Qmed" answers
    bool simulator = false;      // run under the kernel-module simulator (see Simulator)
};

// The real build/bin/ykqmed, started as a child of the test. Run the test
// binary through tools/qmed-ns so /dev/frz and /dev/power_watchdog exist.
// Each Daemon gets its own binder name prefix, work folder and log file; a
// restart keeps them, so clients and logs carry over.
class Daemon {
  public:
    explicit Daemon(DaemonOptions opts = {});
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool start(int timeoutMs = 10000);
    pid_t pid() const { return mPid; }
    bool running() const;
    void kill(int sig = 9);
    // Waits for the daemon to exit; true when it did. status gets the wait status.
    bool waitExit(int timeoutMs, int* status = nullptr);

    std::string log() const;  // everything the daemon wrote to stderr so far
    std::string out() const;  // everything it wrote to stdout
    bool waitForLog(const std::string& text, int timeoutMs = 5000) const;
    size_t countLog(const std::string& text) const;

    const std::string& binderNs() const { return mBinderNs; }
    const std::string& workDir() const { return mWorkDir; }
    std::string propertyFile() const { return mWorkDir + "/properties"; }

    // Environment a client of this daemon needs (binder prefix, simulator, ...).
    std::map<std::string, std::string> clientEnv() const;
    RunOptions clientOptions(uid_t uid = 0) const;
    ToolResult qmedctl(const std::vector<std::string>& args, uid_t uid = 0) const;
    ToolResult service(const std::vector<std::string>& args, uid_t uid = 0) const;

    DaemonOptions& options() { return mOpts; }

    // Kernel-module simulator (DaemonOptions::simulator): started by start()
    // before the daemon, kept across daemon restarts. kmodsim() runs one
    // control command (see tools/kmodsim/README.md), e.g.
    // kmodsim({"event", "binder-call", "123", "-1"}).
    bool startSimulator(const std::vector<std::string>& serveArgs = {});
    void stopSimulator();
    ToolResult kmodsim(const std::vector<std::string>& args) const;
    std::string simulatorSocket() const { return mWorkDir + "/km.sock"; }
    std::string simulatorCtl() const { return mWorkDir + "/km.ctl"; }

  private:
    void writeProperties() const;
    std::unique_ptr<class BackgroundTool> mSim;

    DaemonOptions mOpts;
    std::string mBinderNs;
    std::string mWorkDir;
    pid_t mPid = -1;
};

// A build/bin tool running in the background (e.g. `qmedctl listen 1`), its
// stdout collected line by line.
class BackgroundTool {
  public:
    BackgroundTool(const std::string& tool, const std::vector<std::string>& args,
                   const RunOptions& opts = {});
    ~BackgroundTool();
    BackgroundTool(const BackgroundTool&) = delete;
    BackgroundTool& operator=(const BackgroundTool&) = delete;

    pid_t pid() const { return mPid; }
    std::vector<std::string> lines() const;
    std::string output() const;
    bool waitForLine(const std::string& text, int timeoutMs = 5000) const;
    size_t countLines(const std::string& text) const;
    void kill(int sig = 9);
    bool waitExit(int timeoutMs, int* status = nullptr);

  private:
    void readLoop(int fd);

    pid_t mPid = -1;
    std::thread mReader;
    mutable std::mutex mLock;
    std::string mOut;
    bool mReaped = false;
};

}  // namespace qmedtest
