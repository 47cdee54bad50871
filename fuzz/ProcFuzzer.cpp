// Feeds the /proc parsers (stat, status, cmdline) a canned proc tree built from the input.
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "fuzz/FuzzScratch.h"
#include "limiter/ProcessLimiter.h"
#include "listener/IQmedBinderListenerService.h"
#include "proc/ParseProcInfo.h"

namespace {

// Process directories of the canned tree: plain pids, one too large for a short buffer, one
// that only starts with a digit (the walkers take it for pid 5).
const char* const kDirs[] = {"1", "2", "3", "40000", "5x"};
const char* const kFiles[] = {"stat", "status", "cmdline"};
constexpr size_t kDirCount = sizeof(kDirs) / sizeof(kDirs[0]);
constexpr size_t kFileCount = sizeof(kFiles) / sizeof(kFiles[0]);
const uid_t kOwners[] = {0, 1000, 10000, 2000};

std::string sRoot;
android::sp<ProcessLimiter> sLimiter;

std::string nodePath(size_t dir, size_t file) {
    return sRoot + "/" + kDirs[dir] + "/" + kFiles[file];
}

void makeTree() {
    sRoot = fuzzScratchDir("procfuzz");
    for (const char* d : kDirs) mkdir((sRoot + "/" + d).c_str(), 0755);
    // Not a directory, not a pid: every walker must step over it.
    int fd = open((sRoot + "/uptime").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
}

void writeNode(size_t dir, size_t file, const std::vector<uint8_t>& content) {
    int fd = open(nodePath(dir, file).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return;
    if (!content.empty() && write(fd, content.data(), content.size()) < 0) {
        // A short tree is still a valid input.
    }
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    makeTree();
    sLimiter = new ProcessLimiter(sRoot.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sRoot.empty()) LLVMFuzzerInitialize(nullptr, nullptr);
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
    bDebug = (in.u8() & 1) != 0;

    std::vector<std::vector<uint8_t>> nodes(kDirCount * kFileCount);
    std::vector<bool> present(nodes.size(), false);
    while (!in.empty()) {
        size_t slot = in.u8() % nodes.size();
        nodes[slot] = in.chunk(4096);
        present[slot] = true;
    }
    for (size_t d = 0; d < kDirCount; d++) {
        // Ownership only changes when we may; the parsers run either way.
        if (chown((sRoot + "/" + kDirs[d]).c_str(), kOwners[(owners >> (2 * (d % 4))) & 3], 0)) {
        }
        for (size_t f = 0; f < kFileCount; f++) {
            size_t slot = d * kFileCount + f;
            if (present[slot]) {
                writeNode(d, f, nodes[slot]);
            } else {
                unlink(nodePath(d, f).c_str());
            }
        }
    }

    android::sp<ParseProcInfo> parser = new ParseProcInfo(sRoot.c_str());
    std::vector<char> out(ParseProcInfo::kCpuTimeBufferSize, 0);
    parser->getProcCpuTime(out.data(), type, num < 0 ? nullptr : ids, num);
    if (out.back() != '\0') abort();

    char cmdline[65];
    memset(cmdline, 'x', sizeof(cmdline));
    const int pid = num > 0 ? ids[0] : 1;
    parser->getCmdLineByPid(cmdline, pid, cmdlineLength);
    if (cmdlineLength > 0 && memchr(cmdline, '\0', cmdlineLength) == nullptr) abort();

    int found = -7;
    parser->getPidByNameAndUid(name.c_str(), uid, &found);
    parser->matchNameAndUidByPid(name.c_str(), -1, pid);
    getPidByName(name.c_str(), sRoot.c_str());

    // The limiter reads the same nodes with parsers of its own.
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
        // The tree holds five entries: a walk that yields more is looping.
        int yielded = 0;
        while (sLimiter->getNextProcess(&it, &info) == 0) {
            if (++yielded > 5) abort();
        }
        sLimiter->closeProcessIterator(&it);
    }
    bDebug = false;
    return 0;
}
