#define LOG_TAG "Qmed-CGroup"

#include "freezer/CGroup.h"

#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/QmedGlobals.h"

using android::String8;

bool CGroup::sFrzMounted = false;

static String8 joinPath(const String8& base, const char* file) {
    String8 path(base);
    path.append("/");
    path.append(file);
    return path;
}

CGroup::CGroup(String8 name, String8 root) : mName(name), mUsed(false), mRoot(root) {
    mPath = joinPath(mRoot, mName.c_str());
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
    String8 value = String8::format("%d", pid);
    String8 target = joinPath(attach ? mPath : mRoot, kProcsFile);
    bool ok = writeFile(target, value);
    if (attach) {
        if (!ok) {
            ALOGI("attach pid fail, pid: %s", value.c_str());
        } else if (bDebug) {
            ALOGD("attach pid ok, pid: %s", value.c_str());
        }
    } else {
        if (!ok) {
            ALOGI("detach pid fail, pid: %s", value.c_str());
        } else if (bDebug) {
            ALOGD("detach pid ok, pid: %s", value.c_str());
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
    String8 path = joinPath(mPath, node.c_str());
    if (!writeFile(path, value)) {
        ALOGI("set group node fail, node name: %s, value:%s", path.c_str(), value.c_str());
        return false;
    }
    if (bDebug) ALOGD("set group node ok, node name: %s, value:%s", path.c_str(), value.c_str());
    return true;
}

bool CGroup::writeFile(String8& path, String8& value) {
    // Control files always exist: opening without O_CREAT|O_TRUNC spares kernfs a setattr on
    // every write, and the stack buffer spares stdio an fstat and an allocation.
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    FILE* fp = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (fp == nullptr) {
        int err = errno;
        if (fd >= 0) close(fd);
        ALOGE("open file fail:%s, error:%s", path.c_str(), strerror(err));
        return false;
    }
    char buffer[256];
    setvbuf(fp, buffer, _IOFBF, sizeof(buffer));
    if (fprintf(fp, "%s", value.c_str()) < 0) {
        ALOGE("write file fail:%s, error:%s", path.c_str(), strerror(errno));
        fclose(fp);
        return false;
    }
    // The cgroup write happens here, so this is where the kernel's refusal shows up.
    if (fflush(fp) != 0) {
        ALOGE("flush file fail:%s, error:%s", path.c_str(), strerror(errno));
        fclose(fp);
        return false;
    }
    fclose(fp);
    return true;
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
