#include "tests/support/FrzGroups.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>

#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

namespace qmedtest {

static std::vector<std::string> childDirs(const std::string& dir) {
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    while (struct dirent* e = d != nullptr ? readdir(d) : nullptr) {
        if (e->d_type == DT_DIR && e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
    }
    if (d != nullptr) closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

bool removeGroupTree(const std::string& path) {
    if (path.empty() || access(path.c_str(), F_OK) != 0) return true;
    for (const auto& c : childDirs(path)) removeGroupTree(c);
    writeFile(path + "/freezer.state", "THAWED");
    // Tasks move one by one; a task exiting meanwhile only makes its write fail.
    std::string parent = path.substr(0, path.rfind('/'));
    return waitUntil(
            [&] {
                for (pid_t p : groupPids(path))
                    writeFile(parent + "/cgroup.procs", std::to_string(p));
                return rmdir(path.c_str()) == 0 || access(path.c_str(), F_OK) != 0;
            },
            3000);
}

FrzTestRoot::FrzTestRoot() {
    static std::atomic<int> counter{0};
    for (std::string h : {"/sys/fs/cgroup/freezer", "/dev/frz"}) {
        if (access((h + "/cgroup.procs").c_str(), W_OK) != 0) continue;
        path = h + "/qmedtest-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
        removeGroupTree(path);
        if (mkdir(path.c_str(), 0755) != 0) path.clear();
        return;
    }
}

std::vector<std::string> frzGroups(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& g : childDirs(dir)) {
        std::string name = g.substr(dir.size() + 1);
        std::string head = name.substr(0, name.size() > 10 ? name.size() - 10 : 0);
        bool digits = !head.empty() &&
                      name.find_first_not_of("0123456789", head.size()) == std::string::npos;
        bool ends = head.size() >= 6 && head.compare(head.size() - 6, 6, "Group_") == 0;
        if (digits && (prefix.empty() ? ends : head == prefix)) out.push_back(g);
    }
    return out;
}

std::string frzGroupOf(const std::string& dir, pid_t pid) {
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

bool groupFrozen(const std::string& group) {
    return readFile(group + "/freezer.state") == "FROZEN\n";
}

bool waitFrozen(const std::string& dir, pid_t pid, int timeoutMs) {
    auto frozen = [&] { return groupFrozen(frzGroupOf(dir, pid)) && procState(pid) == 'D'; };
    return waitUntil(frozen, timeoutMs);
}

bool waitThawed(const std::string& dir, pid_t pid, int timeoutMs) {
    auto thawed = [&] { return frzGroupOf(dir, pid).empty() && procState(pid) != 'D'; };
    return waitUntil(thawed, timeoutMs);
}

bool progresses(pid_t pid, int timeoutMs) {
    long before = procUtime(pid);
    return waitUntil([&] { return procUtime(pid) > before; }, timeoutMs);
}

}  // namespace qmedtest
