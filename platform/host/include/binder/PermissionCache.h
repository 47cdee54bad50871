// Host binder: permission checks.
//
// Host policy: uid 0 and this process's own pid are always granted, as on the platform.
// Any other caller is granted a permission when the file named by the environment variable
// QMED_PERMISSION_FILE holds a line "<permission> <uid>" for it (blank lines and lines
// starting with '#' are ignored). Without that variable, or when the file cannot be read,
// nobody else is granted anything. The file is read on every check, so nothing is cached.
// Thread-safe.
#pragma once

#include <sys/types.h>
#include <utils/String16.h>

namespace android {

class PermissionCache {
  public:
    PermissionCache();
    ~PermissionCache();

    bool checkCallingPermission(const String16& permission) const;
    static bool checkCallingPermission(const String16& permission, int32_t* outPid,
                                       int32_t* outUid);
    static bool checkPermission(const String16& permission, pid_t pid, uid_t uid);
    static void purgeCache();
};

}  // namespace android
