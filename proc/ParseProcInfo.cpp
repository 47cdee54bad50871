#define LOG_TAG "Qmed-ParseProcInfo"

#include "proc/ParseProcInfo.h"

#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <utils/Mutex.h>

#include "daemon/QmedGlobals.h"
#include "proc/ProcDir.h"
#include "proc/ProcStat.h"

using android::Mutex;
using android::sp;

namespace {

constexpr size_t kPathSize = 1024;
constexpr size_t kCmdlineSize = 65;
constexpr size_t kRecordSize = 1024;
constexpr uid_t kSystemUid = 1000;

sp<ParseProcInfo> sInstance;
// Set once the first record of the current text is written: later ones start with a tab.
bool sFirstEntry = false;
// Set when a record did not fit: the text stays a prefix of the full listing.
bool sOutFull = false;
// The two flags above belong to one getProcCpuTime call at a time.
Mutex sScanLock;
char sEmpty[1] = {'\0'};

// Writes v in decimal ending just before `end`; returns where it starts.
char* decimalBefore(char* end, unsigned int v) {
    do {
        *--end = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    return end;
}

}  // namespace

sp<ParseProcInfo> ParseProcInfo::getInstance() {
    if (sInstance == nullptr) {
        sInstance = new ParseProcInfo();
    }
    return sInstance;
}

ParseProcInfo::ParseProcInfo(const char* procRoot) : mProc(procRoot ? procRoot : kProcRoot) {}

ParseProcInfo::ParseProcInfo(const ProcReader& proc) : mProc(proc) {}

ParseProcInfo::~ParseProcInfo() {}

char* ParseProcInfo::nexttoksep(char** cursor, const char* delimiters) {
    char* token = strsep(cursor, delimiters);
    return token == nullptr ? sEmpty : token;
}

char* ParseProcInfo::nexttok(char** cursor) {
    return nexttoksep(cursor, " ");
}

bool ParseProcInfo::matchId(int id, const int* ids, int num) {
    // A negative count matches everything; the service never sends one.
    if (num < 0) return true;
    if (ids == nullptr) return false;
    for (int i = 0; i < num; i++) {
        if (ids[i] == id) return true;
    }
    return false;
}

bool ParseProcInfo::logged(ssize_t result, int pid, const char* node, const char* what) {
    if (result >= 0) return true;
    char path[kPathSize];
    mProc.pathOf(pid, node, path, sizeof(path));
    ALOGE("%s failed, %s: %s", result == ProcReader::kOpenFailed ? "open" : "read", what, path);
    return false;
}

int ParseProcInfo::psLine(int pid, char* out, int type, int* ids, int num) {
    size_t used = out != nullptr ? strnlen(out, kCpuTimeBufferSize - 1) : 0;
    return appendRecord(pid, out, &used, type, ids, num);
}

int ParseProcInfo::appendRecord(int pid, char* out, size_t* used, int type, const int* ids,
                                int num) {
    // A vanished process reads as owner 0 and fails at the stat node. Only a selection by
    // owner needs it before the stat node; otherwise idle processes never cost the look-up.
    uid_t uid = 0;
    if (type == 1) {
        uid = mProc.ownerOf(pid);
        if (!matchId(static_cast<int>(uid), ids, num)) return 0;
    }

    ProcStat stat;
    if (!logged(stat.read(mProc, pid), pid, "stat", "statline")) return -1;
    stat.splitAtName();
    unsigned int cpuTime = static_cast<unsigned int>(atoi(stat.field(14))) +
                           static_cast<unsigned int>(atoi(stat.field(15)));
    // Idle processes are of no interest to the caller and would only fill the buffer.
    if (cpuTime == 0) return 0;

    if (type != 1) uid = mProc.ownerOf(pid);
    const int owner = static_cast<int>(uid);
    const char* name = stat.name();
    char cmdline[kCmdlineSize];
    if (uid == kSystemUid) {
        // System-uid apps all share short names like "main"; the caller needs the package.
        ssize_t n = mProc.read(pid, "cmdline", cmdline, sizeof(cmdline));
        if (!logged(n, pid, "cmdline", "cmdline")) return -1;
        name = cmdline;
    }

    if (out == nullptr || sOutFull) return 0;
    // "[\t]owner\tcpu\t" written backwards, then the name.
    char head[32];
    char* start = head + sizeof(head);
    *--start = '\t';
    start = decimalBefore(start, cpuTime);
    *--start = '\t';
    start = decimalBefore(start, owner < 0 ? 0u - uid : uid);
    if (owner < 0) *--start = '-';
    if (sFirstEntry) *--start = '\t';
    const size_t headLen = static_cast<size_t>(head + sizeof(head) - start);
    const size_t nameLen = strlen(name);
    const size_t len = headLen + nameLen;
    if (len >= kRecordSize) {
        if (bDebug) ALOGD("record of pid %d does not fit, skipped", pid);
        return 0;
    }
    if (len >= kCpuTimeBufferSize - *used) {
        sOutFull = true;
        if (bDebug) ALOGD("cpu time text full at pid %d", pid);
        return 0;
    }
    memcpy(out + *used, start, headLen);
    memcpy(out + *used + headLen, name, nameLen + 1);
    *used += len;
    sFirstEntry = true;
    return 0;
}

int ParseProcInfo::getProcCpuTime(char* out, int type, int* ids, int num) {
    ProcDir dir(mProc);
    if (!dir.isOpen()) return -1;

    Mutex::Autolock lock(sScanLock);
    sFirstEntry = false;
    sOutFull = false;
    size_t used = out != nullptr ? strnlen(out, kCpuTimeBufferSize - 1) : 0;
    if (type == 2) {
        for (int i = 0; ids != nullptr && i < num; i++) {
            appendRecord(ids[i], out, &used, 2, ids, num);
        }
        return 0;
    }
    int budget = kMaxWalkEntries + 1;
    while (true) {
        if (--budget == 0) {
            ALOGW("getProcCpuTime loop time reach max");
            break;
        }
        const char* entry = dir.next();
        if (entry == nullptr) break;
        int pid = ProcDir::pidOf(entry);
        if (pid != 0) appendRecord(pid, out, &used, type, ids, num);
    }
    return 0;
}

bool ParseProcInfo::matchNameAndUidByPid(const char* name, int uid, int pid) {
    if (name == nullptr) return false;
    if (uid != -1 && static_cast<int>(mProc.ownerOf(pid)) != uid) return false;
    ProcStat stat;
    if (!logged(stat.read(mProc, pid), pid, "stat", "statline")) return false;
    if (!stat.splitAtName() || strcmp(stat.name(), name) != 0) return false;
    ALOGI("match uid: %d, pid: %d", uid, pid);
    return true;
}

int ParseProcInfo::getPidByNameAndUid(const char* name, int uid, int* outPid) {
    if (name == nullptr) return -1;
    ProcDir dir(mProc);
    if (!dir.isOpen()) return -1;
    for (const char* entry = dir.next(); entry != nullptr; entry = dir.next()) {
        int pid = ProcDir::pidOf(entry);
        if (pid != 0 && matchNameAndUidByPid(name, uid, pid)) {
            if (outPid != nullptr) *outPid = pid;
            break;
        }
    }
    return 0;
}

int ParseProcInfo::getCmdLineByPid(char* buffer, int pid, int bufferLength) {
    if (buffer == nullptr || bufferLength < 1) return 0;
    mProc.read(pid, "cmdline", buffer, static_cast<size_t>(bufferLength));
    return 0;
}
