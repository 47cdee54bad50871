#define LOG_TAG "Qmed-QmedBinderService"

#include "daemon/QmedBinderService.h"

#include <binder/IPCThreadState.h>
#include <binder/PermissionCache.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <safe_lib.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "msghub/Kstate.h"
#include "proc/ParseProcInfo.h"
#include "proc/ProcReader.h"

using android::IBinder;
using android::IInterface;
using android::IPCThreadState;
using android::Mutex;
using android::Parcel;
using android::PermissionCache;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;
using android::Vector;
using android::wp;

namespace {

const String16 sDumpPermission("android.permission.DUMP");

constexpr uid_t kShellUid = 2000;

}  // namespace

QmedBinderService::QmedBinderService(const char* powerWatchdogPath)
    : mPowerWatchdogPath(powerWatchdogPath) {
    mListenerService = IQmedBinderListenerService::getInstance();
    if (mListenerService == nullptr) ALOGE("Get IQmedBinderListenerService Instance Error!!!");

    mFreezer = Freezer::getInstance();
    if (mFreezer == nullptr) {
        ALOGE("Get Freezer Instance Error!!!");
    } else if (!mFreezer->isFrzInited()) {
        ALOGE("Init Freezer Error!!!");
    }

    mKstate = Kstate::getInstance();
    if (mKstate == nullptr) ALOGE("Get Kstate Instance Error!!!");
    if (mKstate != nullptr && mListenerService != nullptr) {
        mKstate->binderListener(mListenerService);
    } else {
        ALOGE("Error:Kstate or ListenerService is NULL !");
    }

    mSpear = Spear::getInstance();
    if (mSpear == nullptr) {
        ALOGE("Get Spear Instance Error!!!");
        return;
    }
    bool spearInited = mSpear->isSpearInited();
    if (!spearInited) ALOGE("Init Spear Error!!!");
    if (spearInited && mListenerService != nullptr) {
        mSpear->setProcLimiterBinder(mListenerService);
    } else {
        ALOGE("Error:ProcessLimiter or ListenerService is NULL !");
    }
}

QmedBinderService::~QmedBinderService() {
    mSpear.clear();
    mSockDiag.closeSockets();
    mKstate.clear();
    mFreezer.clear();
    mListenerService.clear();
}

status_t QmedBinderService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                       uint32_t flags) {
    return BnQmedBinderService::onTransact(code, data, reply, flags);
}

int QmedBinderService::registerListener(const sp<IQmedBinderListener>& listener, int type) {
    if (mListenerService == nullptr) {
        ALOGE("Error:ListenerService is NULL in registerListener.");
        return -1;
    }
    int result = mListenerService->registerListener(listener, type);
    if (result != 0) return result;
    IInterface::asBinder(listener)->linkToDeath(this, nullptr, 0);
    return 0;
}

int QmedBinderService::unregisterListener(const sp<IQmedBinderListener>& listener) {
    if (mListenerService == nullptr) {
        ALOGE("Error:ListenerService is NULL in unregisterListener.");
        return -1;
    }
    int result = mListenerService->unregisterListener(listener);
    if (result != 0) return result;
    IInterface::asBinder(listener)->unlinkToDeath(this, nullptr, 0, nullptr);
    return 0;
}

int QmedBinderService::doFreezer(int action, int* pids, int num) {
    if (mFreezer == nullptr) {
        ALOGE("Error:Freezer is NULL in doFreezer.");
        return -1;
    }
    return mFreezer->freezeProcess(action, pids, num);
}

int QmedBinderService::setKstateMask(int mask) {
    if (mKstate == nullptr) {
        ALOGE("Error:Kstate is NULL in setKstateMask.");
        return -1;
    }
    return mKstate->setMask(mask, IPCThreadState::self()->getCallingPid());
}

int QmedBinderService::setKWakelock(int cmd, const char* name, int timeout,
                                    unsigned int nameLength) {
    if (mKstate == nullptr) {
        ALOGE("Error:Kstate is NULL in setKWakelock.");
        return -1;
    }
    return mKstate->setKWakelock(cmd, name, timeout, nameLength);
}

int QmedBinderService::getKstateSync(int command) {
    if (mKstate == nullptr) {
        ALOGE("Error:Kstate is NULL in getKstateSync.");
        return -1;
    }
    return mKstate->getSync(command);
}

int QmedBinderService::getProcUTime(int pid) {
    static const ProcReader sProc;
    char buf[ProcReader::kNodeSize];
    ssize_t n = sProc.read(pid, "stat", buf, sizeof(buf));
    if (n == ProcReader::kOpenFailed) {
        char path[100];
        sProc.pathOf(pid, "stat", path, sizeof(path));
        ALOGE("open %s fail", path);
        return -1;
    }
    if (n < 0) {
        ALOGE("read %d fail", pid);
        return -1;
    }
    // The name is taken as one blank-free token, as the client has always seen it.
    int utime = 0;
    sscanf_s(buf, "%*d %*s %*c %*d %*d %*d %*d %*d %*d %*d %*d %*d %*d %d", &utime);
    ALOGI("Proc: %d utime:%d", pid, utime);
    return utime;
}

int QmedBinderService::getProcCpuTime(char* buffer, int type, int* pids, int num) {
    return ParseProcInfo::getInstance()->getProcCpuTime(buffer, type, pids, num);
}

int QmedBinderService::getCmdLineByPid(char* buffer, int pid, int bufferLength) {
    return ParseProcInfo::getInstance()->getCmdLineByPid(buffer, pid, bufferLength);
}

int QmedBinderService::getPidByNameAndUid(const char* name, int uid, int* outPid) {
    return ParseProcInfo::getInstance()->getPidByNameAndUid(name, uid, outPid);
}

int QmedBinderService::killProcess(int* pids, int num) {
    if (pids == nullptr || num < 1) {
        ALOGE("killProcess Params format is not correct");
        return -1;
    }
    for (int i = 0; i < num; i++) {
        // -1 terminates the list: never a pid to signal (it would mean every process).
        if (pids[i] == -1) break;
        if (kill(pids[i], SIGKILL) != 0) {
            ALOGE("kill %d error", pids[i]);
        } else {
            ALOGI("kill %d succ", pids[i]);
        }
    }
    return 0;
}

int QmedBinderService::destroySockets(int uid, int pid) {
    if (uid < 1) {
        ALOGE("destroySockets Params format is not correct");
        return -1;
    }
    Mutex::Autolock lock(mSockDiagLock);
    if (!mSockDiag.open()) {
        ALOGE("Could not open SOCK_DIAG socket");
        return -1;
    }
    int result = pid > 0 ? mSockDiag.destroySocketsPid(uid, pid, true)
                         : mSockDiag.destroySocketsUid(uid, true);
    if (result != 0) {
        mSockDiag.closeSockets();
        ALOGE("Error:destroySockets %d %d", uid, pid);
        return -1;
    }
    return 0;
}

// DURATION takes the first value and HOLDTIME the second although the binder layer
// labels them the other way round; the watchdog reads them in this order.
int QmedBinderService::setPowerWatchdog(int type, long first, long second, const String8& extend) {
    // Sized to the text: an extend of any length goes out whole in the one write.
    const String8 record = String8::format("TYPE=%d DURATION=%ld HOLDTIME=%ld EXTEND=%s", type,
                                           first, second, extend.c_str());
    const ssize_t len = static_cast<ssize_t>(record.size());
    int fd = open(mPowerWatchdogPath.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        ALOGE("Failed to open %s", strerror(errno));
        return -1;
    }
    ssize_t written = write(fd, record.c_str(), record.size());
    if (written != len) {
        ALOGE("Failed to write %d %d: %s", fd, static_cast<int>(written), strerror(errno));
    }
    close(fd);
    return 0;
}

bool QmedBinderService::writeFileNode(const char* path, const char* content) {
    if (path == nullptr || content == nullptr) {
        ALOGE("writeFileNode params are not valid");
        return false;
    }
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        ALOGE("Failed to open %s", strerror(errno));
        return false;
    }
    size_t len = strlen(content);
    ssize_t written = write(fd, content, len);
    close(fd);
    if (written < 0 || static_cast<size_t>(written) != len) {
        ALOGE("Failed to write %d %d: %s", fd, static_cast<int>(len), strerror(errno));
        return false;
    }
    return true;
}

int QmedBinderService::doSpear(int pid, int rate, int type, bool includeChildren) {
    if (mSpear == nullptr) {
        ALOGE("Error:Spear is NULL in doSpear.");
        return -1;
    }
    return mSpear->doSpear(pid, rate, type, includeChildren);
}

int QmedBinderService::stopSpear(int pid) {
    if (mSpear == nullptr) {
        ALOGE("Error:Spear is NULL in stopSpear.");
        return -1;
    }
    return mSpear->stopSpear(pid);
}

int QmedBinderService::pauseSpear(int pid, int time) {
    if (mSpear == nullptr) {
        ALOGE("Error:Spear is NULL in pauseSpear.");
        return -1;
    }
    return mSpear->pauseSpear(pid, time);
}

int QmedBinderService::stopSpearAll() {
    if (mSpear == nullptr) {
        ALOGE("Error:Spear is NULL in stopSpear.");
        return -1;
    }
    return mSpear->stopSpearAll();
}

int QmedBinderService::changeSpearParam(int pid, int rate) {
    if (mSpear == nullptr) {
        ALOGE("Error:Spear is NULL in changeSpearParam.");
        return -1;
    }
    return mSpear->changeSpearParam(pid, rate);
}

int QmedBinderService::readFileNode(const char* path, int def) {
    if (path == nullptr) {
        ALOGE("readFileNode params are not valid");
        return def;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ALOGE("Failed to open %s", strerror(errno));
        return def;
    }
    // One spare byte keeps the text terminated for atoi.
    char buf[21] = {0};
    ssize_t n = read(fd, buf, 20);
    close(fd);
    if (n < 0) {
        ALOGE("Failed to read %d: %s", fd, strerror(errno));
        return def;
    }
    return atoi(buf);
}

status_t QmedBinderService::dump(int fd, const Vector<String16>& args) {
    IPCThreadState* self = IPCThreadState::self();
    const int pid = self->getCallingPid();
    const int uid = self->getCallingUid();
    String8 result;
    bool allowed = uid == kShellUid || PermissionCache::checkPermission(sDumpPermission, pid, uid);
    if (!allowed) {
        result.appendFormat("Permission Denial: can't dump QmedBinderService from pid=%d, uid=%d\n",
                            pid, uid);
    } else {
        if (args.size() == 1 && args[0] == String16("debug")) bDebug = true;
        if (mListenerService != nullptr) mListenerService->dump(fd, args);
    }
    if (result.size() > 0) write(fd, result.c_str(), result.size());
    return 0;
}

void QmedBinderService::binderDied(const wp<IBinder>& who) {
    ALOGE("Binder client died !!! do fixing");
    if (mFreezer != nullptr) mFreezer->thawAll(true);
    if (mListenerService == nullptr || mKstate == nullptr || mFreezer == nullptr) {
        ALOGE("Error:mListenerService or mKstateb or mFreezer is NULL in binderDied.");
        return;
    }
    mListenerService->clearDeadListeners(who);
    mKstate->setMask(0, IPCThreadState::self()->getCallingPid());
}
