#define LOG_TAG "Qmed-IQmedBinderService"

#include "daemon/IQmedBinderService.h"

#include <binder/IPCThreadState.h>
#include <log/log.h>
#include <safe_mem_lib.h>
#include <stdlib.h>

#include "daemon/QmedGlobals.h"

using android::BBinder;
using android::IBinder;
using android::IPCThreadState;
using android::NO_ERROR;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;

// No proxy exists in the daemon, so the meta-interface pieces that need one are left out.
const String16 IQmedBinderService::descriptor(
        "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinder");

const String16& IQmedBinderService::getInterfaceDescriptor() const {
    return IQmedBinderService::descriptor;
}

IQmedBinderService::IQmedBinderService() {}

IQmedBinderService::~IQmedBinderService() {}

namespace {

constexpr uid_t kSystemUid = 1000;
constexpr uid_t kRootUid = 0;

// num - 1 as unsigned folds 0 and negatives into the refusal together with > 200.
bool listNumValid(int num) {
    return static_cast<unsigned>(num) - 1u < static_cast<unsigned>(IQmedBinderService::kMaxListNum);
}

int* readPids(const Parcel& data, int num) {
    int* pids = static_cast<int*>(malloc(sizeof(int) * static_cast<size_t>(num)));
    if (pids == nullptr) return nullptr;
    for (int i = 0; i < num; i++) pids[i] = data.readInt32();
    return pids;
}

// The device's long is 32 bits: only the low half of each 64-bit value reaches the operation.
long low32(int64_t value) {
    return static_cast<long>(static_cast<int32_t>(static_cast<uint64_t>(value) & 0xFFFFFFFFu));
}

}  // namespace

status_t BnQmedBinderService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                         uint32_t flags) {
    const uid_t uid = IPCThreadState::self()->getCallingUid();
    if (uid != kSystemUid && uid != kRootUid) {
        return BBinder::onTransact(code, data, reply, flags);
    }

    switch (code) {
        case REGISTER_LISTENER: {
            if (bDebug) ALOGD("registerListener in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            sp<IQmedBinderListener> listener =
                    IQmedBinderListener::asInterface(data.readStrongBinder());
            int type = data.readInt32();
            int result = registerListener(listener, type);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case UNREGISTER_LISTENER: {
            if (bDebug) ALOGD("unregisterListener in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            sp<IQmedBinderListener> listener =
                    IQmedBinderListener::asInterface(data.readStrongBinder());
            int result = unregisterListener(listener);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case DO_FREEZER: {
            if (bDebug) ALOGD("doFreezer in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int action = data.readInt32();
            int num = data.readInt32();
            ALOGI("****action is %d, pid num is %d***", action, num);
            if (!listNumValid(num)) {
                reply->writeNoException();
                reply->writeInt32(-1);
                ALOGE("****doFreezer num is too larger. action is %d, pid num is %d***", action,
                      num);
                return NO_ERROR;
            }
            int* pids = readPids(data, num);
            if (bDebug && pids != nullptr) {
                for (int i = 0; i < num; i++) ALOGD("pid = %d", pids[i]);
            }
            int result = pids != nullptr ? doFreezer(action, pids, num) : -1;
            free(pids);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case SET_KSTATE_MASK: {
            if (bDebug) ALOGD("setKstateMask in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int mask = data.readInt32();
            if (bDebug) ALOGD("****mask is %d***", mask);
            int result = setKstateMask(mask);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case GET_KSTATE_SYNC: {
            if (bDebug) ALOGD("getKstateSync in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int command = data.readInt32();
            if (bDebug) ALOGD("****command is %d***", command);
            int result = getKstateSync(command);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case MONITOR_NET_PACKET:
            ALOGE("monitorNetPacket not support now!!!");
            return BBinder::onTransact(code, data, reply, flags);
        case GET_PROC_UTIME: {
            if (bDebug) ALOGD("getProcUTime in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int pid = data.readInt32();
            if (bDebug) ALOGD("****pid is %d***", pid);
            int result = getProcUTime(pid);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case GET_PROC_CPU_TIME: {
            if (!data.checkInterface(this)) return -1;
            int type = data.readInt32();
            int num = data.readInt32();
            if (!listNumValid(num)) {
                reply->writeNoException();
                ALOGE("qm get proc num is bad, type: %d, num: %d.", type, num);
                return NO_ERROR;
            }
            int* pids = readPids(data, num);
            char* buffer = static_cast<char*>(malloc(kCpuTimeBufferSize));
            if (buffer == nullptr) {
                free(pids);
                reply->writeNoException();
                reply->writeString16(String16());
                return NO_ERROR;
            }
            if (memset_s(buffer, kCpuTimeBufferSize, 0, kCpuTimeBufferSize) == EOK &&
                pids != nullptr) {
                getProcCpuTime(buffer, type, pids, num);
            }
            // Whatever the parser did, the text ends inside the buffer.
            buffer[kCpuTimeBufferSize - 1] = '\0';
            reply->writeNoException();
            reply->writeString16(String16(buffer));
            free(buffer);
            free(pids);
            return NO_ERROR;
        }
        case GET_CMDLINE_BY_PID: {
            if (!data.checkInterface(this)) return -1;
            int pid = data.readInt32();
            char buffer[kCmdLineBufferSize] = {0};
            getCmdLineByPid(buffer, pid, kCmdLineBufferSize);
            buffer[kCmdLineBufferSize - 1] = '\0';
            reply->writeNoException();
            reply->writeString16(String16(buffer));
            return NO_ERROR;
        }
        case GET_PID_BY_NAME_AND_UID: {
            if (!data.checkInterface(this)) return -1;
            String8 name(data.readString16());
            int uid = data.readInt32();
            int pid = -1;
            getPidByNameAndUid(name.c_str(), uid, &pid);
            reply->writeNoException();
            reply->writeInt32(pid);
            return NO_ERROR;
        }
        case KILL_PROCESS: {
            if (bDebug) ALOGD("killProcess in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int num = data.readInt32();
            ALOGI("****killProcess, pid num is %d***", num);
            if (!listNumValid(num)) {
                reply->writeNoException();
                reply->writeInt32(-1);
                ALOGE("****killProcess num is too larger. pid num is %d***", num);
                return NO_ERROR;
            }
            int* pids = readPids(data, num);
            if (bDebug && pids != nullptr) {
                for (int i = 0; i < num; i++) ALOGD("killProcess pid = %d", pids[i]);
            }
            int result = pids != nullptr ? killProcess(pids, num) : -1;
            free(pids);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case SET_KWAKELOCK: {
            if (bDebug) ALOGD("setKWakelock in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int cmd = data.readInt32();
            String8 name(data.readString16());
            int timeout = data.readInt32();
            if (bDebug) ALOGD("****cmd is %d, %s, %d***", cmd, name.c_str(), timeout);
            int result = setKWakelock(cmd, name.c_str(), timeout,
                                      static_cast<unsigned int>(name.size()));
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case DESTROY_SOCKETS: {
            if (bDebug) ALOGD("destroySockets in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int uid = data.readInt32();
            int pid = data.readInt32();
            if (bDebug) ALOGD("****uid is %d pid is %d***", uid, pid);
            int result = destroySockets(uid, pid);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case SET_POWER_WATCHDOG: {
            if (bDebug) ALOGD("setPowerWatchdog in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int type = data.readInt32();
            long first = low32(data.readInt64());
            long second = low32(data.readInt64());
            String8 extend(data.readString16());
            if (bDebug) {
                ALOGD("****type is %d hold is %ld duration is %ld***", type, first, second);
            }
            int result = setPowerWatchdog(type, first, second, extend);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case WRITE_FILE_NODE: {
            if (bDebug) ALOGD("writeFileNode in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            String8 path(data.readString16());
            String8 content(data.readString16());
            if (bDebug) ALOGD("****path is %s, content is %s****", path.c_str(), content.c_str());
            bool result = writeFileNode(path.c_str(), content.c_str());
            reply->writeNoException();
            reply->writeInt32(result ? 1 : 0);
            return NO_ERROR;
        }
        case DO_SPEAR: {
            if (bDebug) ALOGD("doSpear in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int pid = data.readInt32();
            int rate = data.readInt32();
            int type = data.readInt32();
            bool includeChildren = data.readInt32() != 0;
            if (bDebug) {
                ALOGD("****Spear process, pid is %d, rate is %d%%, spear type is %d, include "
                      "children %d***",
                      pid, rate, type, includeChildren);
            }
            int result = doSpear(pid, rate, type, includeChildren);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case PAUSE_SPEAR: {
            // Shares the stop wording; log readers match on it.
            if (bDebug) ALOGD("stopSpear in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int pid = data.readInt32();
            int time = data.readInt32();
            if (bDebug) ALOGD("****Pause Spear process, pid is %d, time is %d***", pid, time);
            int result = pauseSpear(pid, time);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case STOP_SPEAR: {
            if (bDebug) ALOGD("stopSpear in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int pid = data.readInt32();
            if (bDebug) ALOGD("****Stop Spear process, pid is %d***", pid);
            int result = stopSpear(pid);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case STOP_SPEAR_ALL: {
            if (bDebug) ALOGD("stopSpearAll in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int result = stopSpearAll();
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case CHANGE_SPEAR_PARAM: {
            if (bDebug) ALOGD("changeSpearParam in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            int pid = data.readInt32();
            int rate = data.readInt32();
            if (bDebug) {
                ALOGD("****Change Spear target rate load, pid: %d new rate is %d%%***", pid, rate);
            }
            int result = changeSpearParam(pid, rate);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        case READ_FILE_NODE: {
            if (bDebug) ALOGD("readFileNode in BnQmedBinderService");
            if (!data.checkInterface(this)) return -1;
            String8 path(data.readString16());
            int def = data.readInt32();
            if (bDebug) ALOGD("****path is %s, def is %d****", path.c_str(), def);
            int result = readFileNode(path.c_str(), def);
            reply->writeNoException();
            reply->writeInt32(result);
            return NO_ERROR;
        }
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}
