#pragma once

// A canned /proc in tmpfs: process folders with a stat node, maybe a cmdline node, an owner;
// any other node or folder through node().
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "tests/support/ToolRunner.h"

namespace qmedtest {

inline std::string statLine(const std::string& name, unsigned utime, unsigned stime) {
    return "1 (" + name + ") S 1 1 1 0 -1 4194560 0 0 0 0 " + std::to_string(utime) + " " +
           std::to_string(stime) + " 0 0 20 0 1 0 100 0 0\n";
}

class ProcTree {
  public:
    ProcTree() {
        char tmpl[] = "/dev/shm/qmed-proc-XXXXXX";
        mRoot = mkdtemp(tmpl) ? tmpl : "";
    }
    ~ProcTree() { runCommand({"rm", "-rf", mRoot}); }
    bool add(int pid, uid_t uid, const std::string& stat,
             const std::optional<std::string>& cmdline = std::nullopt) const {
        std::string dir = mRoot + "/" + std::to_string(pid);
        return mkdir(dir.c_str(), 0755) == 0 && writeFile(dir + "/stat", stat) &&
               (!cmdline || writeFile(dir + "/cmdline", *cmdline)) &&
               (uid == 0 || chown(dir.c_str(), uid, uid) == 0);
    }
    // Writes root/path after making its folder; a path ending in '/' makes a folder only.
    bool node(const std::string& path, const std::string& text = "") const {
        runCommand({"mkdir", "-p", mRoot + "/" + path.substr(0, path.rfind('/'))});
        return path.back() == '/' || writeFile(mRoot + "/" + path, text);
    }
    const std::string& root() const { return mRoot; }

  private:
    std::string mRoot;
};

}  // namespace qmedtest
