// Feeds the proc reader, and every user of it, a process tree served from memory through the
// reader's file-access seam: the stat, status and cmdline nodes and the directory records.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "limiter/ProcessLimiter.h"
#include "listener/IQmedBinderListenerService.h"
#include "proc/ParseProcInfo.h"
#include "proc/ProcDir.h"
#include "proc/ProcStat.h"

namespace {

// Process directories: plain pids, one too large for a short buffer, one that only starts
// with a digit; then entries that are no process at all.
const char* const kDirs[] = {"1", "2", "3", "40000", "5x"};
const char* const kOthers[] = {".", "..", "uptime", "self"};
const char* const kFiles[] = {"stat", "status", "cmdline"};
constexpr size_t kDirCount = sizeof(kDirs) / sizeof(kDirs[0]);
constexpr size_t kFileCount = sizeof(kFiles) / sizeof(kFiles[0]);
constexpr int kRootFd = 1000;
constexpr int kNodeFd = 2000;
const uid_t kOwners[] = {0, 1000, 10000, 2000};

class MemoryProc : public ProcFiles {
  public:
    // Empty until the first input: the limiter walks the tree while it is built.
    MemoryProc()
        : ProcFiles("/fuzz/proc"),
          mNodes(kDirCount * kFileCount),
          mPresent(kDirCount * kFileCount, false) {}

    void load(std::vector<std::vector<uint8_t>> nodes, std::vector<bool> present, uint8_t owners,
              uint8_t faults) {
        mNodes = std::move(nodes);
        mPresent = std::move(present);
        mOwners = owners;
        mFaults = faults;
        mRawDir.clear();
        if ((faults & 8) != 0 && mPresent[0]) mRawDir = mNodes[0];
    }

    int openRoot() override {
        mDirPos = 0;
        return kRootFd;
    }
    ssize_t readDir(int fd, void* buf, size_t size) override {
        if (fd != kRootFd) return errno = EBADF, -1;
        std::vector<uint8_t> out;
        if (!mRawDir.empty()) {
            // Records as a broken kernel might write them, once.
            if (mDirPos++ == 0) out = mRawDir;
        } else {
            for (; mDirPos < kDirCount + 4; mDirPos++) {
                const char* name =
                        mDirPos < kDirCount ? kDirs[mDirPos] : kOthers[mDirPos - kDirCount];
                size_t reclen = (19 + strlen(name) + 1 + 7) & ~size_t{7};
                if (out.size() + reclen > size) break;
                size_t at = out.size();
                out.resize(at + reclen, 0);
                uint16_t len16 = static_cast<uint16_t>(reclen);
                memcpy(&out[at + 16], &len16, sizeof(len16));
                out[at + 18] = 4;  // a directory
                memcpy(&out[at + 19], name, strlen(name));
            }
        }
        size_t n = out.size() < size ? out.size() : size;
        if (n > 0) memcpy(buf, out.data(), n);
        return static_cast<ssize_t>(n);
    }
    int openNode(const char* rel) override {
        for (size_t d = 0; d < kDirCount; d++) {
            size_t len = strlen(kDirs[d]);
            if (strncmp(rel, kDirs[d], len) != 0 || rel[len] != '/') continue;
            for (size_t f = 0; f < kFileCount; f++) {
                if (strcmp(rel + len + 1, kFiles[f]) == 0 && mPresent[d * kFileCount + f]) {
                    return kNodeFd + static_cast<int>(d * kFileCount + f);
                }
            }
        }
        return errno = ENOENT, -1;
    }
    ssize_t read(int fd, void* buf, size_t size) override {
        size_t slot = static_cast<size_t>(fd - kNodeFd);
        if (slot >= mNodes.size() || fail(4)) return errno = EIO, -1;
        size_t n = mNodes[slot].size() < size ? mNodes[slot].size() : size;
        if (n > 0) memcpy(buf, mNodes[slot].data(), n);
        return static_cast<ssize_t>(n);
    }
    int close(int) override { return fail(16) ? (errno = EIO, -1) : 0; }
    int ownerOf(const char* rel, uid_t* uid) override {
        for (size_t d = 0; d < kDirCount; d++) {
            if (strcmp(rel, kDirs[d]) == 0) {
                *uid = kOwners[(mOwners >> (2 * (d % 4))) & 3];
                return 0;
            }
        }
        return errno = ENOENT, -1;
    }
    int signalLeader(int) override { return errno = ESRCH, -1; }
    long realProcType() override { return 0x9FA0; }

  private:
    bool fail(uint8_t bit) const { return (mFaults & bit) != 0; }

    std::vector<std::vector<uint8_t>> mNodes;
    std::vector<bool> mPresent;
    std::vector<uint8_t> mRawDir;
    uint8_t mOwners = 0;
    uint8_t mFaults = 0;
    size_t mDirPos = 0;
};

android::sp<MemoryProc> sFiles;
android::sp<ProcessLimiter> sLimiter;
std::vector<char> sOut;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    sFiles = new MemoryProc();
    sLimiter = new ProcessLimiter(ProcReader(sFiles));
    sOut.resize(ParseProcInfo::kCpuTimeBufferSize);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sFiles == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    FuzzInput in(data, size);

    const int type = in.u8() % 3;
    const uint8_t idCount = in.u8();
    // 255 stands for a negative count, which matches every id.
    const int num = idCount == 255 ? -1 : idCount % 9;
    int ids[8] = {0};
    for (int i = 0; i < num; i++) ids[i] = in.i32();
    const int uid = in.i32();
    const std::string name = in.str(64);
    const int cmdlineLength = in.u8() % 65;
    const uint8_t owners = in.u8();
    const uint8_t flags = in.u8();
    bDebug = (flags & 1) != 0;

    std::vector<std::vector<uint8_t>> nodes(kDirCount * kFileCount);
    std::vector<bool> present(nodes.size(), false);
    while (!in.empty()) {
        size_t slot = in.u8() % nodes.size();
        nodes[slot] = in.chunk(4096);
        present[slot] = true;
    }
    // Read and close failures (flag values 4 and 16) only when asked, so most inputs reach the
    // parsers.
    sFiles->load(std::move(nodes), std::move(present), owners, (flags & 0x80) ? flags : flags & 8);
    const ProcReader proc(sFiles);

    android::sp<ParseProcInfo> parser = new ParseProcInfo(proc);
    memset(sOut.data(), 0, sOut.size());
    parser->getProcCpuTime(sOut.data(), type, num < 0 ? nullptr : ids, num);
    if (sOut.back() != '\0') abort();

    char cmdline[65];
    memset(cmdline, 'x', sizeof(cmdline));
    const int pid = num > 0 ? ids[0] : 1;
    parser->getCmdLineByPid(cmdline, pid, cmdlineLength);
    if (cmdlineLength > 0 && memchr(cmdline, '\0', cmdlineLength) == nullptr) abort();

    int found = -7;
    parser->getPidByNameAndUid(name.c_str(), uid, &found);
    parser->matchNameAndUidByPid(name.c_str(), -1, pid);
    getPidByName(name.c_str(), proc);
    int tgid = 0;
    proc.threadGroupOf(pid, &tgid);
    char shortName[51];
    if (proc.statusName(pid, shortName, sizeof(shortName)) &&
        memchr(shortName, '\0', sizeof(shortName)) == nullptr) {
        abort();
    }

    process info;
    sLimiter->readProcessInfo(pid, &info);
    sLimiter->getPpidOf(pid);
    sLimiter->isPidEqualTgid(pid);
    char package[PACKAGE_NAME_SIZE];
    if (sLimiter->getProcName(pid, package) == 0 &&
        memchr(package, '\0', sizeof(package)) == nullptr) {
        abort();
    }
    processFilter filter = {(owners & 1) != 0 ? 0 : pid, (owners & 2) != 0};
    processIterator it;
    if (sLimiter->initProcessIterator(&it, &filter) == 0) {
        // The tree holds four process directories, raw records at most one per 20 bytes: a walk
        // that yields more is looping.
        const int most = (flags & 8) != 0 ? 4096 / 20 : 4;
        int yielded = 0;
        while (sLimiter->getNextProcess(&it, &info) == 0) {
            if (++yielded > most) abort();
        }
        sLimiter->closeProcessIterator(&it);
    }
    bDebug = false;
    return 0;
}
