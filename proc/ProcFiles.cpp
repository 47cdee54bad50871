#include "proc/ProcFiles.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr size_t kPathSize = 256;

bool showsOurPids(const char* root) {
    if (strcmp(root, ProcFiles::kProcRoot) != 0) return false;
    char self[32];
    ssize_t n = readlink("/proc/self", self, sizeof(self) - 1);
    if (n <= 0) return false;
    self[n] = '\0';
    return atoi(self) == getpid();
}

}  // namespace

ProcFiles::ProcFiles(const char* root)
    : mRoot(root != nullptr ? root : kProcRoot),
      mOurPids(showsOurPids(mRoot.c_str())),
      mRootFd(open(mRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

ProcFiles::~ProcFiles() {
    if (mRootFd >= 0) ::close(mRootFd);
}

bool ProcFiles::fullPath(const char* rel, char* buf, size_t size) const {
    size_t rootLen = mRoot.length(), relLen = strlen(rel);
    if (rootLen + 1 + relLen >= size) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(buf, mRoot.c_str(), rootLen);
    buf[rootLen] = '/';
    memcpy(buf + rootLen + 1, rel, relLen + 1);
    return true;
}

int ProcFiles::openRoot() {
    if (mRootFd >= 0) return openat(mRootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return open(mRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

ssize_t ProcFiles::readDir(int fd, void* buf, size_t size) {
    return syscall(__NR_getdents64, fd, buf, size);
}

int ProcFiles::openNode(const char* rel) {
    // Relative to the held root: the walk down to it is paid once, not per node.
    if (mRootFd >= 0) return openat(mRootFd, rel, O_RDONLY | O_CLOEXEC);
    char path[kPathSize];
    if (!fullPath(rel, path, sizeof(path))) return -1;
    return open(path, O_RDONLY | O_CLOEXEC);
}

ssize_t ProcFiles::read(int fd, void* buf, size_t size) {
    return TEMP_FAILURE_RETRY(::read(fd, buf, size));
}

int ProcFiles::close(int fd) {
    return ::close(fd);
}

int ProcFiles::ownerOf(const char* rel, uid_t* uid) {
    struct stat st;
    if (mRootFd >= 0) {
        if (fstatat(mRootFd, rel, &st, 0) != 0) return -1;
    } else {
        char path[kPathSize];
        if (!fullPath(rel, path, sizeof(path)) || stat(path, &st) != 0) return -1;
    }
    *uid = st.st_uid;
    return 0;
}

int ProcFiles::signalLeader(int tid) {
    return tgkill(tid, tid, 0);
}

long ProcFiles::realProcType() {
    struct statfs fs;
    if (statfs(kProcRoot, &fs) != 0) return -1;
    return static_cast<long>(fs.f_type);
}
