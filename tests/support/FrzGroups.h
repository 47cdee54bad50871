#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qmedtest {

// Thaws and empties a freezer group tree, then removes it; true when it is gone.
bool removeGroupTree(const std::string& path);

// A private child group of the real freezer hierarchy, one test's freezer root, so parallel
// tests never see each other's groups. Removed, and so thawed, on destruction.
struct FrzTestRoot {
    FrzTestRoot();
    ~FrzTestRoot() { removeGroupTree(path); }
    std::string path;  // empty when no writable hierarchy was found
};

// Paths of the child groups of dir named prefix and ten digits, sorted; an empty prefix takes
// any prefix ending in "Group_".
std::vector<std::string> frzGroups(const std::string& dir, const std::string& prefix = "");
std::string frzGroupOf(const std::string& dir, pid_t pid);  // empty when in no child group
std::vector<pid_t> groupPids(const std::string& group);
bool groupFrozen(const std::string& group);
// Polled: pid sits in a frozen child group of dir and sleeps in D; or in none and not in D.
bool waitFrozen(const std::string& dir, pid_t pid, int timeoutMs = 5000);
bool waitThawed(const std::string& dir, pid_t pid, int timeoutMs = 5000);
// pid's user time grows within the timeout.
bool progresses(pid_t pid, int timeoutMs = 5000);

}  // namespace qmedtest
