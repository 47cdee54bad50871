#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace qmedtest {

std::string binDir();  // the build's executables: the test binary's own folder
std::string toolPath(const std::string& name);  // absolute path of a build/bin tool
// Prefix for spawned build executables, env QMED_EMULATOR (e.g. "qemu-arm -L /x").
std::vector<std::string> emulatorPrefix();
// The command line of a build/bin tool: the emulator prefix, its path, args.
std::vector<std::string> toolArgv(const std::string& tool, const std::vector<std::string>& args);

struct ToolResult {
    int exitCode = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};

struct RunOptions {
    uid_t uid = 0;                           // switch to this uid (and gid) before exec when not 0
    std::map<std::string, std::string> env;  // added to the inherited environment
    int timeoutMs = 15000;                   // SIGKILL after this long
};

// Runs a build/bin tool (through the emulator prefix) and collects its output.
ToolResult runTool(const std::string& tool, const std::vector<std::string>& args,
                   const RunOptions& opts = {});
// Runs any command found on PATH (no emulator prefix).
ToolResult runCommand(const std::vector<std::string>& argv, const RunOptions& opts = {});
// Forks and execs argv in its own process group, stdin from /dev/null; it dies with the test.
pid_t forkExec(const std::vector<std::string>& argv, const RunOptions& opts, int out, int err);
// Reaps pid within timeoutMs; on success sets pid to -1 and *status to its wait status.
bool reapWithin(pid_t& pid, int timeoutMs, int* status = nullptr);

std::string readFile(const std::string& path);  // the whole file; empty when missing
bool writeFile(const std::string& path, const std::string& text);

// Polls pred every 10 ms until it is true or timeoutMs passes.
template <typename Pred>
bool waitUntil(Pred pred, int timeoutMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
    }
}

}  // namespace qmedtest
