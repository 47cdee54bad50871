#pragma once

#include <string>
#include <vector>

// The daemon's groups in a cgroup-v1 freezer hierarchy: "Group_" or "VP<n>_Group_" followed
// by ten digits. The root is injectable; the daemon's is /dev/frz.
class FrzTree {
  public:
    struct Group {
        std::string name;
        std::string state;      // freezer.state without its newline
        std::vector<int> pids;  // cgroup.procs
    };

    explicit FrzTree(std::string root = "/dev/frz") : mRoot(std::move(root)) {}

    const std::string& root() const { return mRoot; }
    bool mounted() const;               // the same probe as the daemon's: the root's cgroup.procs
    std::vector<Group> groups() const;  // sorted by name
    static bool isDaemonGroup(const std::string& name);

  private:
    std::string mRoot;
};
