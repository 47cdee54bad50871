#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace qmedtest {

// Folder holding the build's executables (the test binary's own folder).
std::string binDir();

// Absolute path of a build/bin tool.
std::string toolPath(const std::string& name);

// Prefix for every spawned build executable, e.g. "qemu-arm -L /x" under
// emulation; taken from env QMED_EMULATOR (empty natively).
std::vector<std::string> emulatorPrefix();

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

// Reads a whole file; empty when missing.
std::string readFile(const std::string& path);
bool writeFile(const std::string& path, const std::string& text);

// Polls pred every 10 ms until it is true or timeoutMs passes.
template <typename Pred>
bool waitUntil(Pred pred, int timeoutMs);

}  // namespace qmedtest

#include "tests/support/ToolRunner-inl.h"
