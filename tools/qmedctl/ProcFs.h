#pragma once

#include <string>
#include <vector>

// What a client can learn about processes from procfs. The root is injectable so tests
// can read a canned tree.
class ProcFs {
  public:
    struct Stat {
        char state = '?';  // '?' when the process is gone
        std::string name;  // its short command name, any bytes but NUL
    };

    explicit ProcFs(std::string root = "/proc") : mRoot(std::move(root)) {}

    const std::string& root() const { return mRoot; }
    std::vector<int> pids() const;  // processes only: threads have no entry of their own
    Stat stat(int pid) const;
    int tgid(int pid) const;  // -1 when gone; differs from pid for a thread
    // Processes named name, also when an emulator (qemu-*) runs them.
    std::vector<int> pidsNamed(const std::string& name) const;
    std::string mountNs(int pid) const;  // empty when unreadable

  private:
    std::string mRoot;
};
