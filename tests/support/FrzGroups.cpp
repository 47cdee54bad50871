#include "tests/support/FrzGroups.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>

namespace qmedtest {

static std::vector<std::string> childDirs(const std::string& dir) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
        if (e.is_directory(ec)) out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
}

bool removeGroupTree(const std::string& path) {
    if (path.empty() || access(path.c_str(), F_OK) != 0) return true;
    for (const auto& c : childDirs(path)) removeGroupTree(c);
    writeFile(path + "/freezer.state", "THAWED");
    // Tasks move one by one; a task exiting meanwhile only makes its write fail.
    std::string parent = path.substr(0, path.rfind('/'));
    auto gone = [&] {
        for (pid_t p : groupPids(path)) writeFile(parent + "/cgroup.procs", std::to_string(p));
        return rmdir(path.c_str()) == 0 || access(path.c_str(), F_OK) != 0;
    };
    return waitUntil(gone, 3000);
}

FrzTestRoot::FrzTestRoot() {
    static std::atomic<int> counter{0};
    path = "/sys/fs/cgroup/freezer/qmedtest-" + std::to_string(getpid() * 100L + counter++);
    if (mkdir(path.c_str(), 0755) != 0) path.clear();
}

std::vector<std::string> frzGroups(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& g : childDirs(dir)) {
        std::string name = g.substr(dir.size() + 1);
        if (name.size() == prefix.size() + 10 && name.compare(0, prefix.size(), prefix) == 0 &&
            name.find_first_not_of("0123456789", prefix.size()) == std::string::npos)
            out.push_back(g);
    }
    return out;
}

static std::string frzGroupOf(const std::string& dir, pid_t pid) {
    for (const auto& g : childDirs(dir)) {
        auto pids = groupPids(g);
        if (std::find(pids.begin(), pids.end(), pid) != pids.end()) return g;
    }
    return "";
}

std::vector<pid_t> groupPids(const std::string& group) {
    std::vector<pid_t> out;
    std::ifstream in(group + "/cgroup.procs");
    for (pid_t p; in >> p;) out.push_back(p);
    return out;
}

bool waitFrozen(const std::string& dir, pid_t pid, bool frozen, int timeoutMs) {
    auto in = [&] { return frzGroupOf(dir, pid); };
    return waitUntil([&] { return frozen ? groupFrozen(in()) : in().empty(); }, timeoutMs);
}

bool progresses(pid_t pid, int timeoutMs) {
    long before = procUtime(pid);
    return waitUntil([&] { return procUtime(pid) > before; }, timeoutMs);
}

}  // namespace qmedtest
