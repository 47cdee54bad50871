#define LOG_TAG "Qmed-ParseProcInfo"

#include "proc/ParseProcInfo.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utils/Mutex.h>

#include "daemon/QmedGlobals.h"

using android::Mutex;
using android::sp;

namespace {

constexpr size_t kPathSize = 1024;
constexpr size_t kStatSize = 1024;
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

// Reads at most size - 1 bytes with a single read and terminates at the count.
ssize_t readSmallFile(const char* path, char* buf, size_t size, bool* openFailed) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *openFailed = true;
        return -1;
    }
    *openFailed = false;
    ssize_t n = TEMP_FAILURE_RETRY(read(fd, buf, size - 1));
    close(fd);
    buf[n < 0 ? 0 : n] = '\0';
    return n;
}

}  // namespace

sp<ParseProcInfo> ParseProcInfo::getInstance() {
    if (sInstance == nullptr) {
        sInstance = new ParseProcInfo();
    }
    return sInstance;
}

ParseProcInfo::ParseProcInfo(const char* procRoot) : mRoot(procRoot ? procRoot : kProcRoot) {}

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

bool ParseProcInfo::readStatLine(int pid, char* buf, size_t size) {
    char path[kPathSize];
    snprintf_s(path, sizeof(path), "%s/%d/stat", mRoot.c_str(), pid);
    bool openFailed = false;
    if (readSmallFile(path, buf, size, &openFailed) < 0) {
        if (openFailed) {
            ALOGE("open failed, statline: %s", path);
        } else {
            ALOGE("read failed, statline: %s", path);
        }
        return false;
    }
    return true;
}

char* ParseProcInfo::splitName(char* statLine, char** cursor) {
    *cursor = statLine;
    nexttok(cursor);
    if (*cursor == nullptr || **cursor == '\0') {
        *cursor = nullptr;
        return sEmpty;
    }
    // The short name may itself hold blanks and ')', so it ends at the last ')'.
    char* name = *cursor + 1;
    char* end = strrchr(name, ')');
    if (end == nullptr) {
        *cursor = nullptr;
        return name;
    }
    *end = '\0';
    *cursor = end[1] == '\0' ? end + 1 : end + 2;
    return name;
}

int ParseProcInfo::psLine(int pid, char* out, int type, int* ids, int num) {
    char path[kPathSize];
    snprintf_s(path, sizeof(path), "%s/%d", mRoot.c_str(), pid);
    struct stat st;
    memset_s(&st, sizeof(st), 0, sizeof(st));
    // A vanished process reads as owner 0 here and fails at the stat node below.
    stat(path, &st);
    int owner = static_cast<int>(st.st_uid);
    if (type == 1 && !matchId(owner, ids, num)) return 0;

    char statLine[kStatSize];
    if (!readStatLine(pid, statLine, sizeof(statLine))) return -1;

    char* cursor = nullptr;
    char* name = splitName(statLine, &cursor);
    for (int i = 0; i < 11; i++) nexttok(&cursor);
    unsigned int utime = static_cast<unsigned int>(atoi(nexttok(&cursor)));
    unsigned int stime = static_cast<unsigned int>(atoi(nexttok(&cursor)));
    unsigned int cpuTime = utime + stime;
    // Idle processes are of no interest to the caller and would only fill the buffer.
    if (cpuTime == 0) return 0;

    char cmdline[kCmdlineSize];
    if (st.st_uid == kSystemUid) {
        // System-uid apps all share short names like "main"; the caller needs the package.
        snprintf_s(path, sizeof(path), "%s/%d/cmdline", mRoot.c_str(), pid);
        bool openFailed = false;
        if (readSmallFile(path, cmdline, sizeof(cmdline), &openFailed) < 0) {
            if (openFailed) {
                ALOGE("open failed, cmdline: %s", path);
            } else {
                ALOGE("read failed, cmdline: %s", path);
            }
            return -1;
        }
        name = cmdline;
    }

    if (out == nullptr || sOutFull) return 0;
    char record[kRecordSize];
    int len = sprintf_s(record, sizeof(record), sFirstEntry ? "\t%d\t%u\t%s" : "%d\t%u\t%s", owner,
                        cpuTime, name);
    if (len < 0) {
        if (bDebug) ALOGD("record of pid %d does not fit, skipped", pid);
        return 0;
    }
    size_t used = strnlen(out, kCpuTimeBufferSize - 1);
    size_t room = kCpuTimeBufferSize - used;
    if (static_cast<size_t>(len) >= room) {
        sOutFull = true;
        if (bDebug) ALOGD("cpu time text full at pid %d", pid);
        return 0;
    }
    memcpy_s(out + used, room, record, static_cast<size_t>(len) + 1);
    sFirstEntry = true;
    return 0;
}

int ParseProcInfo::getProcCpuTime(char* out, int type, int* ids, int num) {
    DIR* dir = opendir(mRoot.c_str());
    if (dir == nullptr) return -1;

    Mutex::Autolock lock(sScanLock);
    sFirstEntry = false;
    sOutFull = false;
    if (type == 2) {
        for (int i = 0; ids != nullptr && i < num; i++) {
            psLine(ids[i], out, 2, ids, num);
        }
    } else {
        int budget = kMaxWalkEntries + 1;
        while (true) {
            if (--budget == 0) {
                ALOGW("getProcCpuTime loop time reach max");
                break;
            }
            struct dirent* de = readdir(dir);
            if (de == nullptr) break;
            if (de == reinterpret_cast<struct dirent*>(-1)) {
                ALOGE("getProcCpuTime err: %s", strerror(errno));
                continue;
            }
            if (!isdigit(static_cast<unsigned char>(de->d_name[0]))) continue;
            psLine(atoi(de->d_name), out, type, ids, num);
        }
    }
    closedir(dir);
    return 0;
}

bool ParseProcInfo::matchNameAndUidByPid(const char* name, int uid, int pid) {
    if (name == nullptr) return false;
    char path[kPathSize];
    snprintf_s(path, sizeof(path), "%s/%d", mRoot.c_str(), pid);
    struct stat st;
    memset_s(&st, sizeof(st), 0, sizeof(st));
    stat(path, &st);
    if (uid != -1 && static_cast<int>(st.st_uid) != uid) return false;

    char statLine[kStatSize];
    if (!readStatLine(pid, statLine, sizeof(statLine))) return false;
    char* cursor = nullptr;
    if (strcmp(splitName(statLine, &cursor), name) != 0) return false;
    ALOGI("match uid: %d, pid: %d", uid, pid);
    return true;
}

int ParseProcInfo::getPidByNameAndUid(const char* name, int uid, int* outPid) {
    if (name == nullptr) return -1;
    DIR* dir = opendir(mRoot.c_str());
    if (dir == nullptr) return -1;
    struct dirent* de;
    while ((de = readdir(dir)) != nullptr) {
        if (!isdigit(static_cast<unsigned char>(de->d_name[0]))) continue;
        int pid = atoi(de->d_name);
        if (matchNameAndUidByPid(name, uid, pid)) {
            if (outPid != nullptr) *outPid = pid;
            break;
        }
    }
    closedir(dir);
    return 0;
}

int ParseProcInfo::getCmdLineByPid(char* buffer, int pid, int bufferLength) {
    if (buffer == nullptr || bufferLength < 1) return 0;
    char path[kPathSize];
    snprintf_s(path, sizeof(path), "%s/%d/cmdline", mRoot.c_str(), pid);
    bool openFailed = false;
    readSmallFile(path, buffer, static_cast<size_t>(bufferLength), &openFailed);
    if (openFailed) buffer[0] = '\0';
    return 0;
}
