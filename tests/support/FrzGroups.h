#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

namespace qmedtest {

// Thaws and empties a freezer group tree, then removes it; true when it is gone.
bool removeGroupTree(const std::string& path);

// One test's private child group of the real freezer hierarchy; removed, so thawed, at the end.
struct FrzTestRoot {
    FrzTestRoot();
    ~FrzTestRoot() { removeGroupTree(path); }
    std::string path;  // empty when it could not be made
};

// Sorted paths of the child groups of dir named prefix and ten digits.
std::vector<std::string> frzGroups(const std::string& dir, const std::string& prefix = "Group_");
std::vector<pid_t> groupPids(const std::string& group);
inline bool groupFrozen(const std::string& group) {
    return readFile(group + "/freezer.state") == "FROZEN\n";
}
// Polled: pid sits in a frozen child group of dir, or (frozen false) in none.
bool waitFrozen(const std::string& dir, pid_t pid, bool frozen = true, int timeoutMs = 5000);
bool progresses(pid_t pid, int timeoutMs = 5000);  // user time grows within the timeout

}  // namespace qmedtest
