#include "tests/freezer/FrzTestRoot.h"

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <sstream>

#include "tests/support/ToolRunner.h"

namespace frztest {

static std::atomic<int> gCounter{0};

static bool isDir(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string FrzTestRoot::hierarchy() {
    const char* env = getenv("QMED_TEST_FRZ_HIERARCHY");
    std::vector<std::string> candidates;
    if (env != nullptr && *env) candidates.push_back(env);
    candidates.push_back("/sys/fs/cgroup/freezer");
    candidates.push_back("/dev/frz");
    for (const auto& c : candidates) {
        if (access((c + "/cgroup.procs").c_str(), W_OK) == 0) return c;
    }
    return "";
}

FrzTestRoot::FrzTestRoot() {
    std::string h = hierarchy();
    if (h.empty()) return;
    std::string p = h + "/qmedtest-" + std::to_string(getpid()) + "-" + std::to_string(gCounter++);
    removeGroupTree(p);
    if (mkdir(p.c_str(), 0755) == 0) mPath = p;
}

FrzTestRoot::~FrzTestRoot() {
    if (!mPath.empty()) removeGroupTree(mPath);
}

std::vector<std::string> FrzTestRoot::groups() const {
    std::vector<std::string> out;
    DIR* d = opendir(mPath.c_str());
    if (d == nullptr) return out;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        if (isDir(mPath + "/" + e->d_name)) out.push_back(e->d_name);
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

bool FrzTestRoot::makeGroup(const std::string& name, pid_t pid, bool freeze) const {
    std::string g = group(name);
    if (mkdir(g.c_str(), 0755) != 0) return false;
    if (pid > 0 && !qmedtest::writeFile(g + "/cgroup.procs", std::to_string(pid))) return false;
    if (freeze) {
        if (!qmedtest::writeFile(g + "/freezer.state", "FROZEN")) return false;
        return waitGroupState(g, "FROZEN");
    }
    return true;
}

bool isGroupName(const std::string& name, const std::string& prefix) {
    if (name.size() < 10) return false;
    std::string head = name.substr(0, name.size() - 10);
    for (size_t i = head.size(); i < name.size(); i++) {
        if (name[i] < '0' || name[i] > '9') return false;
    }
    if (prefix.empty()) {
        return head.size() >= 6 && head.compare(head.size() - 6, 6, "Group_") == 0;
    }
    return head == prefix;
}

std::vector<pid_t> groupPids(const std::string& groupPath) {
    std::vector<pid_t> out;
    std::ifstream in(groupPath + "/cgroup.procs");
    pid_t p;
    while (in >> p) out.push_back(p);
    return out;
}

std::string groupState(const std::string& groupPath) {
    std::string s = qmedtest::readFile(groupPath + "/freezer.state");
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

bool waitGroupState(const std::string& groupPath, const std::string& state, int timeoutMs) {
    return qmedtest::waitUntil([&] { return groupState(groupPath) == state; }, timeoutMs);
}

bool removeGroupTree(const std::string& path) {
    if (!isDir(path)) return true;
    std::string parent = path.substr(0, path.rfind('/'));
    DIR* d = opendir(path.c_str());
    if (d != nullptr) {
        std::vector<std::string> children;
        while (struct dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
            if (isDir(path + "/" + e->d_name)) children.push_back(e->d_name);
        }
        closedir(d);
        for (const auto& c : children) removeGroupTree(path + "/" + c);
    }
    qmedtest::writeFile(path + "/freezer.state", "THAWED");
    // Tasks move one by one; a task exiting meanwhile only makes its write fail.
    return qmedtest::waitUntil(
            [&] {
                for (pid_t p : groupPids(path)) {
                    qmedtest::writeFile(parent + "/cgroup.procs", std::to_string(p));
                }
                return rmdir(path.c_str()) == 0 || !isDir(path);
            },
            3000);
}

}  // namespace frztest
