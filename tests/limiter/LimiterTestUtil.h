#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace qmedtest {

// A private folder laid out like procfs: <root>/<pid>/stat and status.
class FakeProc {
  public:
    FakeProc() {
        char tmpl[] = "/tmp/limiter-proc-XXXXXX";
        mRoot = mkdtemp(tmpl);
    }
    ~FakeProc() { system(("rm -rf " + mRoot).c_str()); }
    const char* root() const { return mRoot.c_str(); }

    void writeRaw(int pid, const std::string& file, const std::string& text) {
        std::string dir = mRoot + "/" + std::to_string(pid);
        mkdir(dir.c_str(), 0755);
        FILE* f = fopen((dir + "/" + file).c_str(), "w");
        fputs(text.c_str(), f);
        fclose(f);
    }
    // A stat line with the fields the limiter reads; the others are zero.
    void writeStat(int pid, const std::string& comm, int ppid, long utime, long stime,
                   long startTicks) {
        std::string s = std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid);
        for (int field = 5; field <= 13; field++) s += " 0";
        s += " " + std::to_string(utime) + " " + std::to_string(stime);
        for (int field = 16; field <= 21; field++) s += " 0";
        s += " " + std::to_string(startTicks);
        for (int field = 23; field <= 52; field++) s += " 0";
        writeRaw(pid, "stat", s + "\n");
        writeRaw(pid, "status", "Name:\t" + comm + "\nTgid:\t" + std::to_string(pid) + "\n");
    }
    void mkdirEntry(const std::string& name) { mkdir((mRoot + "/" + name).c_str(), 0755); }

  private:
    std::string mRoot;
};

}  // namespace qmedtest
