#include "proc/ProcReader.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr long kProcSuperMagic = 0x9FA0;
constexpr size_t kRelSize = 48;

// "pid/node", or "pid" for a null node, without the formatting machinery: this runs once per
// process in a full scan.
bool relPath(int pid, const char* node, char* buf, size_t size) {
    char digits[12];
    size_t n = 0;
    unsigned int v = pid < 0 ? 0u - static_cast<unsigned int>(pid) : static_cast<unsigned int>(pid);
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    size_t nodeLen = node != nullptr ? strlen(node) + 1 : 0;
    if ((pid < 0) + n + nodeLen >= size) return false;
    char* p = buf;
    if (pid < 0) *p++ = '-';
    while (n > 0) *p++ = digits[--n];
    if (node != nullptr) {
        *p++ = '/';
        memcpy(p, node, nodeLen - 1);
        p += nodeLen - 1;
    }
    *p = '\0';
    return true;
}

}  // namespace

ProcReader::ProcReader(const char* root) : mFiles(new ProcFiles(root)) {}

ProcReader::ProcReader(const android::sp<ProcFiles>& files)
    : mFiles(files != nullptr ? files : new ProcFiles()) {}

void ProcReader::pathOf(int pid, const char* node, char* buf, size_t size) const {
    snprintf(buf, size, "%s/%d/%s", root(), pid, node);
}

ssize_t ProcReader::read(int pid, const char* node, char* buf, size_t size) const {
    buf[0] = '\0';
    char rel[kRelSize];
    if (!relPath(pid, node, rel, sizeof(rel))) {
        errno = ENAMETOOLONG;
        return kOpenFailed;
    }
    int fd = mFiles->openNode(rel);
    if (fd < 0) return kOpenFailed;
    ssize_t n = mFiles->read(fd, buf, size - 1);
    int readErrno = errno;
    mFiles->close(fd);
    if (n < 0) {
        errno = readErrno;
        return kReadFailed;
    }
    buf[n] = '\0';
    return n;
}

uid_t ProcReader::ownerOf(int pid) const {
    char rel[kRelSize];
    uid_t uid = 0;
    if (relPath(pid, nullptr, rel, sizeof(rel)) && mFiles->ownerOf(rel, &uid) == 0) return uid;
    return 0;
}

bool ProcReader::threadGroupOf(int tid, int* tgid) const {
    // Signal 0 reaches a leader (or its zombie) by (tgid, tid) only when tid is its own tgid;
    // threads, vanished pids and refusals take the status node as before.
    if (mFiles->describesOurPids() && mFiles->signalLeader(tid) == 0) {
        *tgid = tid;
        return true;
    }
    *tgid = -1;
    char buf[kNodeSize];
    ssize_t n = read(tid, "status", buf, sizeof(buf));
    if (n == kOpenFailed) return false;
    for (const char* line = buf; n > 0 && *line != '\0';) {
        if (strncmp(line, "Tgid:\t", 6) == 0 && line[6] != '\0') {
            *tgid = atoi(line + 6);
            break;
        }
        line = strchr(line, '\n');
        if (line == nullptr) break;
        line++;
    }
    return true;
}

bool ProcReader::statusName(int pid, char* name, size_t size) const {
    char buf[kNodeSize];
    if (size == 0 || read(pid, "status", buf, sizeof(buf)) < 0) return false;
    char* end = strchr(buf, '\n');
    if (end != nullptr) *end = '\0';
    char* p = buf;
    for (int word = 0; word < 2; word++) {
        while (isspace(static_cast<unsigned char>(*p))) p++;
        if (*p == '\0') return false;
        if (word == 0) {
            while (*p != '\0' && !isspace(static_cast<unsigned char>(*p))) p++;
        }
    }
    size_t len = 0;
    while (len + 1 < size && p[len] != '\0' && !isspace(static_cast<unsigned char>(p[len]))) {
        name[len] = p[len];
        len++;
    }
    name[len] = '\0';
    return true;
}

bool ProcReader::procfsMounted() const {
    return mFiles->realProcType() == kProcSuperMagic;
}
