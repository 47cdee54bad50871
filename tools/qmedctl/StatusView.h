#pragma once

#include <string>
#include <vector>

#include "FrzTree.h"
#include "ProcFs.h"

// What the daemon holds, as an operator sees it: its pid, the processes in its freezer
// groups and the stopped processes. Reads procfs and the freezer hierarchy only; it
// talks to no service, so it works the same on a device and on a host.
class StatusView {
  public:
    explicit StatusView(ProcFs proc = ProcFs(), std::string frzRoot = "/dev/frz")
        : mProc(std::move(proc)), mFrzRoot(std::move(frzRoot)) {}

    // False when no freezer hierarchy was found; looked() then lists where.
    bool collect();
    const std::vector<std::string>& looked() const { return mLooked; }
    std::string table() const;
    std::string json() const;

    static std::string jsonString(const std::string& bytes);  // quoted, valid UTF-8
    static std::string shown(const std::string& bytes);       // control bytes as \xNN

  private:
    struct Row {
        std::string group;  // empty for a stopped process
        std::string state;
        int pid;
        std::string name;
    };

    ProcFs mProc;
    std::string mFrzRoot;
    std::vector<int> mDaemon;
    std::vector<std::string> mLooked;
    std::string mFrzPath;  // where the groups were read; empty when not found
    size_t mGroups = 0;
    std::vector<Row> mHeld;
    std::vector<Row> mStopped;
};
