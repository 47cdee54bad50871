#include "ProcFs.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>

namespace {

std::string slurp(const std::string& path) {
    std::string text;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return text;
    char buf[4096];
    for (ssize_t n; (n = TEMP_FAILURE_RETRY(read(fd, buf, sizeof(buf)))) > 0;) text.append(buf, n);
    close(fd);
    return text;
}

std::string baseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::vector<int> ProcFs::pids() const {
    std::vector<int> out;
    DIR* dir = opendir(mRoot.c_str());
    if (dir == nullptr) return out;
    while (dirent* e = readdir(dir)) {
        char* end = nullptr;
        long pid = strtol(e->d_name, &end, 10);
        if (*end == '\0' && pid > 0 && pid <= INT_MAX) out.push_back(static_cast<int>(pid));
    }
    closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

ProcFs::Stat ProcFs::stat(int pid) const {
    Stat st;
    // The name sits between the first '(' and the last ')': it may hold either.
    const std::string text = slurp(mRoot + "/" + std::to_string(pid) + "/stat");
    size_t open = text.find('('), close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open ||
        close + 2 >= text.size()) {
        return st;
    }
    st.name = text.substr(open + 1, close - open - 1);
    st.state = text[close + 2];
    return st;
}

int ProcFs::tgid(int pid) const {
    const std::string text = "\n" + slurp(mRoot + "/" + std::to_string(pid) + "/status");
    size_t at = text.find("\nTgid:");
    return at == std::string::npos ? -1 : atoi(text.c_str() + at + 6);
}

std::vector<int> ProcFs::pidsNamed(const std::string& name) const {
    std::vector<int> out;
    for (int pid : pids()) {
        const std::string own = stat(pid).name;
        bool named = own == name;
        // Under qemu-user the name is the emulator's; the program is one of its arguments.
        if (!named && own.rfind("qemu-", 0) == 0) {
            const std::string cmd = slurp(mRoot + "/" + std::to_string(pid) + "/cmdline");
            for (size_t at = cmd.find('\0'); !named && at != std::string::npos;
                 at = cmd.find('\0', at + 1)) {
                named = baseName(cmd.c_str() + at + 1) == name;
            }
        }
        if (named) out.push_back(pid);
    }
    return out;
}

std::string ProcFs::mountNs(int pid) const {
    char buf[PATH_MAX];
    std::string link = mRoot + "/" + std::to_string(pid) + "/ns/mnt";
    ssize_t n = readlink(link.c_str(), buf, sizeof(buf));
    return n > 0 ? std::string(buf, n) : std::string();
}
