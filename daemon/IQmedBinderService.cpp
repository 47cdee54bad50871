#define LOG_TAG "Qmed-IQmedBinderService"

#include "daemon/IQmedBinderService.h"

#include <binder/IPCThreadState.h>
#include <log/log.h>
#include <safe_mem_lib.h>
#include <stdlib.h>

#include <array>
#include <memory>
#include <new>

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

using Service = IQmedBinderService;

// A pid list as the list codes carry it: a count, then that many ints. A refused count leaves the
// list unread; pids missing from a short parcel read as 0.
struct PidList {
    int num = 0;
    bool accepted = false;
    std::array<int, Service::kMaxListNum> pids{};
};

PidList readPidList(const Parcel& data) {
    PidList list;
    list.num = data.readInt32();
    // num - 1 as unsigned folds 0 and negatives into the refusal together with > 200.
    list.accepted = static_cast<unsigned>(list.num) - 1u < static_cast<unsigned>(list.pids.size());
    for (int i = 0; list.accepted && i < list.num; i++) list.pids[i] = data.readInt32();
    return list;
}

// The device's long is 32 bits: only the low half of each 64-bit value reaches the operation.
long low32(int64_t value) {
    return static_cast<long>(static_cast<int32_t>(static_cast<uint64_t>(value) & 0xFFFFFFFFu));
}

void replyInt(Parcel* reply, int value) {
    reply->writeNoException();
    reply->writeInt32(value);
}

sp<IQmedBinderListener> readListener(const Parcel& data) {
    return IQmedBinderListener::asInterface(data.readStrongBinder());
}

void onRegisterListener(Service& s, const Parcel& data, Parcel* reply) {
    sp<IQmedBinderListener> listener = readListener(data);
    const int type = data.readInt32();
    replyInt(reply, s.registerListener(listener, type));
}

void onUnregisterListener(Service& s, const Parcel& data, Parcel* reply) {
    replyInt(reply, s.unregisterListener(readListener(data)));
}

void onDoFreezer(Service& s, const Parcel& data, Parcel* reply) {
    const int action = data.readInt32();
    PidList list = readPidList(data);
    ALOGI("****action is %d, pid num is %d***", action, list.num);
    if (!list.accepted) {
        replyInt(reply, -1);
        ALOGE("****doFreezer num is too larger. action is %d, pid num is %d***", action, list.num);
        return;
    }
    for (int i = 0; bDebug && i < list.num; i++) ALOGD("pid = %d", list.pids[i]);
    replyInt(reply, s.doFreezer(action, list.pids.data(), list.num));
}

void onSetKstateMask(Service& s, const Parcel& data, Parcel* reply) {
    const int mask = data.readInt32();
    if (bDebug) ALOGD("****mask is %d***", mask);
    replyInt(reply, s.setKstateMask(mask));
}

void onGetKstateSync(Service& s, const Parcel& data, Parcel* reply) {
    const int command = data.readInt32();
    if (bDebug) ALOGD("****command is %d***", command);
    replyInt(reply, s.getKstateSync(command));
}

void onGetProcUTime(Service& s, const Parcel& data, Parcel* reply) {
    const int pid = data.readInt32();
    if (bDebug) ALOGD("****pid is %d***", pid);
    replyInt(reply, s.getProcUTime(pid));
}

void onGetProcCpuTime(Service& s, const Parcel& data, Parcel* reply) {
    const int type = data.readInt32();
    PidList list = readPidList(data);
    reply->writeNoException();
    if (!list.accepted) {
        ALOGE("qm get proc num is bad, type: %d, num: %d.", type, list.num);
        return;
    }
    // 100 KB stays off the binder thread's stack; a failed allocation still gets a reply.
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[Service::kCpuTimeBufferSize]);
    if (buffer == nullptr) {
        reply->writeString16(String16());
        return;
    }
    const size_t size = Service::kCpuTimeBufferSize;
    if (memset_s(buffer.get(), size, 0, size) == EOK) {
        s.getProcCpuTime(buffer.get(), type, list.pids.data(), list.num);
    }
    // Whatever the parser did, the text ends inside the buffer.
    buffer[size - 1] = '\0';
    reply->writeString16(String16(buffer.get()));
}

void onGetCmdLineByPid(Service& s, const Parcel& data, Parcel* reply) {
    const int pid = data.readInt32();
    char buffer[Service::kCmdLineBufferSize] = {0};
    s.getCmdLineByPid(buffer, pid, Service::kCmdLineBufferSize);
    buffer[Service::kCmdLineBufferSize - 1] = '\0';
    reply->writeNoException();
    reply->writeString16(String16(buffer));
}

void onGetPidByNameAndUid(Service& s, const Parcel& data, Parcel* reply) {
    const String8 name(data.readString16());
    const int uid = data.readInt32();
    int pid = -1;
    s.getPidByNameAndUid(name.c_str(), uid, &pid);
    replyInt(reply, pid);
}

void onKillProcess(Service& s, const Parcel& data, Parcel* reply) {
    PidList list = readPidList(data);
    ALOGI("****killProcess, pid num is %d***", list.num);
    if (!list.accepted) {
        replyInt(reply, -1);
        ALOGE("****killProcess num is too larger. pid num is %d***", list.num);
        return;
    }
    for (int i = 0; bDebug && i < list.num; i++) ALOGD("killProcess pid = %d", list.pids[i]);
    replyInt(reply, s.killProcess(list.pids.data(), list.num));
}

void onSetKWakelock(Service& s, const Parcel& data, Parcel* reply) {
    const int cmd = data.readInt32();
    const String8 name(data.readString16());
    const int timeout = data.readInt32();
    if (bDebug) ALOGD("****cmd is %d, %s, %d***", cmd, name.c_str(), timeout);
    replyInt(reply,
             s.setKWakelock(cmd, name.c_str(), timeout, static_cast<unsigned int>(name.size())));
}

void onDestroySockets(Service& s, const Parcel& data, Parcel* reply) {
    const int uid = data.readInt32();
    const int pid = data.readInt32();
    if (bDebug) ALOGD("****uid is %d pid is %d***", uid, pid);
    replyInt(reply, s.destroySockets(uid, pid));
}

void onSetPowerWatchdog(Service& s, const Parcel& data, Parcel* reply) {
    const int type = data.readInt32();
    const long first = low32(data.readInt64());
    const long second = low32(data.readInt64());
    const String8 extend(data.readString16());
    if (bDebug) ALOGD("****type is %d hold is %ld duration is %ld***", type, first, second);
    replyInt(reply, s.setPowerWatchdog(type, first, second, extend));
}

void onWriteFileNode(Service& s, const Parcel& data, Parcel* reply) {
    const String8 path(data.readString16());
    const String8 content(data.readString16());
    if (bDebug) ALOGD("****path is %s, content is %s****", path.c_str(), content.c_str());
    replyInt(reply, s.writeFileNode(path.c_str(), content.c_str()) ? 1 : 0);
}

void onDoSpear(Service& s, const Parcel& data, Parcel* reply) {
    const int pid = data.readInt32();
    const int rate = data.readInt32();
    const int type = data.readInt32();
    const bool includeChildren = data.readInt32() != 0;
    if (bDebug) {
        ALOGD("****Spear process, pid is %d, rate is %d%%, spear type is %d, include children "
              "%d***",
              pid, rate, type, includeChildren);
    }
    replyInt(reply, s.doSpear(pid, rate, type, includeChildren));
}

void onPauseSpear(Service& s, const Parcel& data, Parcel* reply) {
    const int pid = data.readInt32();
    const int time = data.readInt32();
    if (bDebug) ALOGD("****Pause Spear process, pid is %d, time is %d***", pid, time);
    replyInt(reply, s.pauseSpear(pid, time));
}

void onStopSpear(Service& s, const Parcel& data, Parcel* reply) {
    const int pid = data.readInt32();
    if (bDebug) ALOGD("****Stop Spear process, pid is %d***", pid);
    replyInt(reply, s.stopSpear(pid));
}

void onStopSpearAll(Service& s, const Parcel&, Parcel* reply) {
    replyInt(reply, s.stopSpearAll());
}

void onChangeSpearParam(Service& s, const Parcel& data, Parcel* reply) {
    const int pid = data.readInt32();
    const int rate = data.readInt32();
    if (bDebug) ALOGD("****Change Spear target rate load, pid: %d new rate is %d%%***", pid, rate);
    replyInt(reply, s.changeSpearParam(pid, rate));
}

void onReadFileNode(Service& s, const Parcel& data, Parcel* reply) {
    const String8 path(data.readString16());
    const int def = data.readInt32();
    if (bDebug) ALOGD("****path is %s, def is %d****", path.c_str(), def);
    replyInt(reply, s.readFileNode(path.c_str(), def));
}

struct Route {
    uint32_t code;
    const char* name;  // of the debug line "<name> in BnQmedBinderService"; null: none
    void (*handle)(Service& s, const Parcel& data, Parcel* reply);
};

const Route kRoutes[] = {
        {Service::REGISTER_LISTENER, "registerListener", onRegisterListener},
        {Service::UNREGISTER_LISTENER, "unregisterListener", onUnregisterListener},
        {Service::DO_FREEZER, "doFreezer", onDoFreezer},
        {Service::SET_KSTATE_MASK, "setKstateMask", onSetKstateMask},
        {Service::GET_KSTATE_SYNC, "getKstateSync", onGetKstateSync},
        {Service::GET_PROC_UTIME, "getProcUTime", onGetProcUTime},
        {Service::GET_PROC_CPU_TIME, nullptr, onGetProcCpuTime},
        {Service::GET_CMDLINE_BY_PID, nullptr, onGetCmdLineByPid},
        {Service::GET_PID_BY_NAME_AND_UID, nullptr, onGetPidByNameAndUid},
        {Service::KILL_PROCESS, "killProcess", onKillProcess},
        {Service::SET_KWAKELOCK, "setKWakelock", onSetKWakelock},
        {Service::DESTROY_SOCKETS, "destroySockets", onDestroySockets},
        {Service::SET_POWER_WATCHDOG, "setPowerWatchdog", onSetPowerWatchdog},
        {Service::WRITE_FILE_NODE, "writeFileNode", onWriteFileNode},
        {Service::DO_SPEAR, "doSpear", onDoSpear},
        // Pause shares the stop wording; log readers match on it.
        {Service::PAUSE_SPEAR, "stopSpear", onPauseSpear},
        {Service::STOP_SPEAR, "stopSpear", onStopSpear},
        {Service::STOP_SPEAR_ALL, "stopSpearAll", onStopSpearAll},
        {Service::CHANGE_SPEAR_PARAM, "changeSpearParam", onChangeSpearParam},
        {Service::READ_FILE_NODE, "readFileNode", onReadFileNode},
};

const Route* findRoute(uint32_t code) {
    for (const Route& route : kRoutes) {
        if (route.code == code) return &route;
    }
    return nullptr;
}

}  // namespace

status_t BnQmedBinderService::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                         uint32_t flags) {
    const uid_t uid = IPCThreadState::self()->getCallingUid();
    if (uid != kSystemUid && uid != kRootUid) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (code == MONITOR_NET_PACKET) ALOGE("monitorNetPacket not support now!!!");
    const Route* route = findRoute(code);
    if (route == nullptr) return BBinder::onTransact(code, data, reply, flags);
    if (bDebug && route->name != nullptr) ALOGD("%s in BnQmedBinderService", route->name);
    if (!data.checkInterface(this)) return -1;
    route->handle(*this, data, reply);
    return NO_ERROR;
}
