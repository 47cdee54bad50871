#define LOG_TAG "HostBinder"

#include <binder/IPCThreadState.h>
#include <binder/PermissionCache.h>
#include <log/log.h>
#include <stdlib.h>
#include <unistd.h>
#include <utils/String8.h>

#include <fstream>
#include <sstream>
#include <string>

namespace android {

PermissionCache::PermissionCache() {}
PermissionCache::~PermissionCache() {}

bool PermissionCache::checkCallingPermission(const String16& permission) const {
    return PermissionCache::checkCallingPermission(permission, nullptr, nullptr);
}

bool PermissionCache::checkCallingPermission(const String16& permission, int32_t* outPid,
                                             int32_t* outUid) {
    IPCThreadState* ipc = IPCThreadState::self();
    const pid_t pid = ipc->getCallingPid();
    const uid_t uid = ipc->getCallingUid();
    if (outPid) *outPid = pid;
    if (outUid) *outUid = int32_t(uid);
    return checkPermission(permission, pid, uid);
}

bool PermissionCache::checkPermission(const String16& permission, pid_t pid, uid_t uid) {
    if (uid == 0 || pid == getpid()) return true;
    const char* path = getenv("QMED_PERMISSION_FILE");
    if (path == nullptr || *path == '\0') return false;
    std::ifstream in(path);
    if (!in) return false;
    const std::string want(String8(permission).string());
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::string perm;
        long grantedUid = -1;
        if (!(ls >> perm) || perm.empty() || perm[0] == '#') continue;
        if (!(ls >> grantedUid)) continue;
        if (perm == want && grantedUid >= 0 && uid_t(grantedUid) == uid) return true;
    }
    ALOGW("Permission failure: %s from uid=%d pid=%d", want.c_str(), int(uid), int(pid));
    return false;
}

void PermissionCache::purgeCache() {}

}  // namespace android
