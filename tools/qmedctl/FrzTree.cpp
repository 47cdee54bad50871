#include "FrzTree.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

bool FrzTree::mounted() const {
    return access((mRoot + "/cgroup.procs").c_str(), F_OK) == 0;
}

bool FrzTree::isDaemonGroup(const std::string& name) {
    const char* rest = name.c_str();
    int type = 0, used = 0;
    // "VP%d_" carries the value of the daemon's -t option.
    if (sscanf(rest, "VP%d_%n", &type, &used) == 1 && used > 0) rest += used;
    return strlen(rest) == 16 && strncmp(rest, "Group_", 6) == 0 &&
           strspn(rest + 6, "0123456789") == 10;
}

std::vector<FrzTree::Group> FrzTree::groups() const {
    std::vector<Group> out;
    DIR* dir = opendir(mRoot.c_str());
    if (dir == nullptr) return out;
    while (dirent* e = readdir(dir)) {
        if (!isDaemonGroup(e->d_name)) continue;
        Group g{e->d_name, "", {}};
        const std::string path = mRoot + "/" + g.name;
        std::ifstream(path + "/freezer.state") >> g.state;
        std::ifstream procs(path + "/cgroup.procs");
        for (int pid; procs >> pid;) g.pids.push_back(pid);
        out.push_back(g);
    }
    closedir(dir);
    std::sort(out.begin(), out.end(),
              [](const Group& a, const Group& b) { return a.name < b.name; });
    return out;
}
