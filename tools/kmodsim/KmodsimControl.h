#pragma once

// Client side of the simulator's control socket, for tools, tests and benchmarks.

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kmodsim {

class Control {
  public:
    explicit Control(const std::string& ctlAddress) : mAddress(ctlAddress) {}

    // Sends one command line; *reply gets the whole answer ("OK\n..." or "ERR ...").
    bool request(const std::string& line, std::string* reply) const;
    // True when the answer starts with OK; *out gets the lines after it.
    bool ok(const std::string& line, std::string* out = nullptr) const;
    // Every message the daemon sent so far, as raw netlink bytes.
    std::vector<std::vector<uint8_t>> received() const;

  private:
    std::string mAddress;
};

// A simulator process started for a test or a benchmark; stopped on destruction.
class SimProcess {
  public:
    SimProcess() = default;
    ~SimProcess();
    SimProcess(const SimProcess&) = delete;
    SimProcess& operator=(const SimProcess&) = delete;

    // identify: "auto", "hold" or "delay:MS". prefix runs the binary through an
    // emulator. Waits until the control socket answers.
    bool start(const std::string& binary, const std::string& sockAddress,
               const std::string& ctlAddress, const std::string& identify = "auto",
               const std::string& logPath = "", const std::vector<std::string>& prefix = {});
    void stop();
    pid_t pid() const { return mPid; }
    Control control() const { return Control(mCtl); }

  private:
    pid_t mPid = -1;
    std::string mCtl;
};

}  // namespace kmodsim
