#define LOG_TAG "Qmed-CGroup"

#include "freezer/CGroup.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <safe_str_lib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "daemon/QmedGlobals.h"

using android::String8;

bool CGroup::sFrzMounted = false;

namespace {

constexpr int kMaxCachedFds = 4096;
// The stdio buffer the files were once written through: a longer value failed in the write
// itself, a shorter one only when flushed, and the log says which.
constexpr size_t kStdioBuffer = 256;

std::atomic<int> sCachedFds{0};

// The root's cgroup.procs, shared by every group of that root; tests switch roots.
std::mutex sRootLock;
std::string sRootPath;
int sRootFd = -1;

bool writeAll(int fd, const char* value, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd, value + done, len - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n == 0) {
            errno = EIO;
            return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace

static String8 joinPath(const String8& base, const char* file) {
    String8 path(base);
    path.append("/");
    path.append(file);
    return path;
}

CGroup::CGroup(String8 name, String8 root)
    : mName(name), mUsed(false), mRoot(root), mProcsFd(-1), mStateFd(-1) {
    mPath = joinPath(mRoot, mName.c_str());
}

CGroup::~CGroup() {
    closeCached();
}

int CGroup::cachedFdBudget() {
    // Frozen groups are not bounded, descriptors are: the rest of the daemon keeps the bulk.
    static const int budget = [] {
        struct rlimit rl;
        if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY)
            return kMaxCachedFds;
        rlim_t quarter = rl.rlim_cur / 4;
        return quarter < static_cast<rlim_t>(kMaxCachedFds) ? static_cast<int>(quarter)
                                                            : kMaxCachedFds;
    }();
    return budget;
}

void CGroup::closeCached() {
    for (int* fd : {&mProcsFd, &mStateFd}) {
        if (*fd < 0) continue;
        close(*fd);
        *fd = -1;
        sCachedFds--;
    }
}

bool CGroup::initCGroup(const String8& root) {
    String8 probe = joinPath(root, kProcsFile);
    if (access(probe.c_str(), F_OK) == 0) {
        sFrzMounted = true;
        if (bDebug) ALOGD("freezer group is mounted");
        return true;
    }
    ALOGW("freezer group is not mounted");
    return false;
}

bool CGroup::createCGroup() {
    if (!sFrzMounted) {
        ALOGW("freezer group is not mounted");
        return false;
    }
    if (mkdir(mPath.c_str(), 0774) != 0) {
        ALOGE("create group fail, name: %s, error:%s", mName.c_str(), strerror(errno));
        return false;
    }
    // mkdir honours the umask; the group must end up 0774 whatever the daemon inherited.
    if (chmod(mPath.c_str(), 0774) != 0) {
        ALOGW("chmod grouppath fail, name: %s, error:%s", mPath.c_str(), strerror(errno));
    }
    return true;
}

bool CGroup::deleteCGroup() {
    closeCached();
    String8 procs = joinPath(mPath, kProcsFile);
    FILE* fp = fopen(procs.c_str(), "r");
    if (fp != nullptr) {
        char line[20];
        for (;;) {
            memset(line, 0, sizeof(line));
            if (fgets(line, sizeof(line), fp) == nullptr) break;
            detachPid(atoi(line));
        }
        fclose(fp);
    }
    if (rmdir(mPath.c_str()) != 0) {
        ALOGE("delete group fail, group name: %s, error:%s", mName.c_str(), strerror(errno));
        return false;
    }
    if (bDebug) ALOGD("delete group ok, group name: %s", mName.c_str());
    return true;
}

bool CGroup::movePid(int pid, bool attach) {
    if (!sFrzMounted) {
        ALOGW("freezer group is not mounted");
        return false;
    }
    if (pid < 0) {
        ALOGE("pid is not valid");
        return false;
    }
    char value[16];
    snprintf_s(value, sizeof(value), "%d", pid);
    bool ok;
    if (attach) {
        ok = writeControl(&mProcsFd, true, mPath, kProcsFile, value);
    } else {
        std::lock_guard<std::mutex> lock(sRootLock);
        if (sRootFd >= 0 && sRootPath != mRoot.c_str()) {
            close(sRootFd);
            sRootFd = -1;
        }
        sRootPath = mRoot.c_str();
        ok = writeControl(&sRootFd, false, mRoot, kProcsFile, value);
    }
    if (attach) {
        if (!ok) {
            ALOGI("attach pid fail, pid: %s", value);
        } else if (bDebug) {
            ALOGD("attach pid ok, pid: %s", value);
        }
    } else {
        if (!ok) {
            ALOGI("detach pid fail, pid: %s", value);
        } else if (bDebug) {
            ALOGD("detach pid ok, pid: %s", value);
        }
    }
    return ok;
}

bool CGroup::attachPid(int pid) {
    return movePid(pid, true);
}

bool CGroup::detachPid(int pid) {
    return movePid(pid, false);
}

bool CGroup::setCGroup(String8 node, String8 value) {
    if (!sFrzMounted) {
        ALOGW("freezer group is not mounted");
        return false;
    }
    if (node.isEmpty() || value.isEmpty()) {
        ALOGE("Params are not valid");
        return false;
    }
    int* cache = strcmp(node.c_str(), kStateFile) == 0 ? &mStateFd : nullptr;
    bool ok = writeControl(cache, true, mPath, node.c_str(), value.c_str());
    if (!ok || bDebug) {
        String8 path = joinPath(mPath, node.c_str());
        if (!ok) {
            ALOGI("set group node fail, node name: %s, value:%s", path.c_str(), value.c_str());
        } else {
            ALOGD("set group node ok, node name: %s, value:%s", path.c_str(), value.c_str());
        }
    }
    return ok;
}

bool CGroup::writeFile(String8& path, String8& value) {
    return writeControl(nullptr, false, path, nullptr, value.c_str());
}

bool CGroup::writeControl(int* cache, bool budgeted, const String8& dir, const char* file,
                          const char* value) {
    int fd = cache != nullptr ? *cache : -1;
    bool kept = fd >= 0;
    if (!kept) {
        String8 path = file != nullptr ? joinPath(dir, file) : dir;
        // Control files always exist: opening without O_CREAT|O_TRUNC spares kernfs a setattr.
        fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd < 0) {
            ALOGE("open file fail:%s, error:%s", path.c_str(), strerror(errno));
            return false;
        }
        if (cache != nullptr && budgeted && ++sCachedFds > cachedFdBudget()) {
            sCachedFds--;
        } else if (cache != nullptr) {
            *cache = fd;
            kept = true;
        }
    }
    size_t len = strlen(value);
    // The kernel acts on the write itself, so this is where its refusal shows up.
    bool ok = writeAll(fd, value, len);
    int err = errno;
    if (!ok || !kept) {
        close(fd);
        if (kept) {
            *cache = -1;
            if (budgeted) sCachedFds--;
        }
    }
    if (!ok) {
        String8 path = file != nullptr ? joinPath(dir, file) : dir;
        if (len >= kStdioBuffer) {
            ALOGE("write file fail:%s, error:%s", path.c_str(), strerror(err));
        } else {
            ALOGE("flush file fail:%s, error:%s", path.c_str(), strerror(err));
        }
    }
    return ok;
}

bool CGroup::isUsed() {
    return mUsed;
}

void CGroup::setUsed(bool used) {
    mUsed = used;
}

String8 CGroup::getName() {
    return mName;
}
