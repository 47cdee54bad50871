#include "proc/ProcDir.h"

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace {

// Enough for a few thousand processes per system call.
constexpr size_t kBatchSize = 32768;

// The kernel's record, as getdents64 writes it.
struct Dirent64 {
    uint64_t ino;
    int64_t off;
    unsigned short reclen;
    unsigned char type;
    char name[1];
};

}  // namespace

ProcDir::ProcDir(const ProcReader& proc) : mFiles(&proc.files()), mFd(mFiles->openRoot()) {
    mBuf = mFd >= 0 ? new char[kBatchSize] : nullptr;
}

ProcDir::~ProcDir() {
    close();
}

int ProcDir::close() {
    int ret = 0;
    if (mFd >= 0) ret = mFiles->close(mFd);
    mFd = -1;
    delete[] mBuf;
    mBuf = nullptr;
    return ret;
}

const char* ProcDir::next() {
    const size_t header = offsetof(Dirent64, name);
    while (mFd >= 0 && !mDone) {
        if (mPos >= mLen) {
            ssize_t n = mFiles->readDir(mFd, mBuf, kBatchSize);
            if (n <= 0 || static_cast<size_t>(n) > kBatchSize) break;
            mLen = static_cast<size_t>(n);
            mPos = 0;
        }
        // A record that claims more than the batch holds ends the walk.
        Dirent64 d;
        if (mLen - mPos <= header) break;
        memcpy(&d, mBuf + mPos, header);
        if (d.reclen <= header || d.reclen > mLen - mPos) break;
        char* name = mBuf + mPos + header;
        mPos += d.reclen;
        if (memchr(name, '\0', d.reclen - header) != nullptr) return name;
    }
    mDone = true;
    return nullptr;
}

int ProcDir::pidOf(const char* name) {
    if (name[0] < '1' || name[0] > '9') return 0;
    long long v = 0;
    for (const char* p = name; *p != '\0'; p++) {
        if (*p < '0' || *p > '9') return 0;
        v = v * 10 + (*p - '0');
        if (v > INT_MAX) return 0;
    }
    return static_cast<int>(v);
}
