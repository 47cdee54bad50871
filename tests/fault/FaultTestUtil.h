#pragma once

// Helpers shared by the fault tests: process and freezer state, daemon memory, durations.

#include <sys/types.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

namespace faulttest {

// Multiplies the long durations (flood, load); env QMED_FAULT_SCALE, default 1.
double scale();

// ASAN_OPTIONS for a daemon under the simulator's preloaded shim, with a small quarantine so
// its resident size shows what it keeps, not what the sanitizer holds back.
std::string daemonAsanOptions();

// VmRSS of a process in kB, -1 when unreadable.
long rssKb(pid_t pid);

// Pids inside a FROZEN or FREEZING group under root.
std::vector<pid_t> frozenPids(const std::string& root = "/dev/frz");

// Those of pids that sit in a frozen group or show state T at any sample
// taken over ms (a limiter's stop phase lasts at most a second).
std::vector<pid_t> heldDuring(const std::vector<pid_t>& pids, int ms);

// True when pid shows state T at some point within timeoutMs.
bool seenStopped(pid_t pid, int timeoutMs);

// True when pid used CPU time within timeoutMs.
bool progresses(pid_t pid, int timeoutMs);

// Thaws every group under root, so frozen children can be killed and reaped.
void thawAll(const std::string& root = "/dev/frz");

std::string join(const std::vector<pid_t>& pids);

// A real daemon under the simulator, and the children a test spawned; tear-down leaves
// nothing frozen or stopped.
class DaemonFixture : public ::testing::Test {
  protected:
    void startDaemon(const std::string& logLevel = "d");
    void TearDown() override;

    std::vector<qmedtest::TestChild> mChildren;
    std::unique_ptr<qmedtest::Daemon> mDaemon;
};

}  // namespace faulttest
