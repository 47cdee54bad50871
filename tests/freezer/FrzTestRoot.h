#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace frztest {

// A private child group of the real freezer hierarchy, used as the freezer root by one test,
// so parallel tests never see each other's groups. Removed on destruction (tasks moved to the
// parent first, which also thaws them).
class FrzTestRoot {
  public:
    FrzTestRoot();
    ~FrzTestRoot();
    FrzTestRoot(const FrzTestRoot&) = delete;
    FrzTestRoot& operator=(const FrzTestRoot&) = delete;

    bool ok() const { return !mPath.empty(); }
    const std::string& path() const { return mPath; }
    // The hierarchy this root lives in, or empty when none was found.
    static std::string hierarchy();

    // Names of the child directories, sorted.
    std::vector<std::string> groups() const;
    std::string group(const std::string& name) const { return mPath + "/" + name; }
    // Creates a child group by hand, optionally with pid inside and frozen.
    bool makeGroup(const std::string& name, pid_t pid = -1, bool freeze = false) const;

  private:
    std::string mPath;
};

// True when name is prefix followed by exactly ten decimal digits; an empty prefix accepts
// any prefix ending in "Group_".
bool isGroupName(const std::string& name, const std::string& prefix);
// Pids listed in a group's cgroup.procs.
std::vector<pid_t> groupPids(const std::string& groupPath);
// freezer.state without the newline.
std::string groupState(const std::string& groupPath);
// Polls until freezer.state reads `state`; the kernel passes through FREEZING on the way.
bool waitGroupState(const std::string& groupPath, const std::string& state, int timeoutMs = 3000);
// Removes a group tree whatever it holds; true when it is gone.
bool removeGroupTree(const std::string& path);

}  // namespace frztest
