#pragma once

#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <stdint.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "listener/IQmedBinderListener.h"

// The daemon's command surface, served as "Binder.Qmed". Operations run on
// binder threads, several at once.
class IQmedBinderService : public android::IInterface {
  public:
    DECLARE_META_INTERFACE(QmedBinderService)

    // Wire codes. Pause (18) and stop (19) are swapped against the slot order
    // below; clients depend on these numbers.
    enum {
        REGISTER_LISTENER = 1,
        UNREGISTER_LISTENER = 2,
        DO_FREEZER = 3,
        SET_KSTATE_MASK = 4,
        GET_KSTATE_SYNC = 5,
        MONITOR_NET_PACKET = 6,
        UNUSED_7 = 7,
        GET_PROC_UTIME = 8,
        GET_PROC_CPU_TIME = 9,
        GET_CMDLINE_BY_PID = 10,
        GET_PID_BY_NAME_AND_UID = 11,
        KILL_PROCESS = 12,
        SET_KWAKELOCK = 13,
        DESTROY_SOCKETS = 14,
        SET_POWER_WATCHDOG = 15,
        WRITE_FILE_NODE = 16,
        DO_SPEAR = 17,
        PAUSE_SPEAR = 18,
        STOP_SPEAR = 19,
        STOP_SPEAR_ALL = 20,
        CHANGE_SPEAR_PARAM = 21,
        READ_FILE_NODE = 22,
    };

    static constexpr int kMaxListNum = 200;
    static constexpr size_t kCpuTimeBufferSize = 102400;
    static constexpr int kCmdLineBufferSize = 64;

    virtual int registerListener(const android::sp<IQmedBinderListener>& listener, int type) = 0;
    virtual int unregisterListener(const android::sp<IQmedBinderListener>& listener) = 0;
    virtual int doFreezer(int action, int* pids, int num) = 0;
    virtual int setKstateMask(int mask) = 0;
    virtual int setKWakelock(int cmd, const char* name, int timeout, unsigned int nameLength) = 0;
    virtual int getKstateSync(int command) = 0;
    virtual int getProcUTime(int pid) = 0;
    virtual int getProcCpuTime(char* buffer, int type, int* pids, int num) = 0;
    virtual int getCmdLineByPid(char* buffer, int pid, int bufferLength) = 0;
    virtual int getPidByNameAndUid(const char* name, int uid, int* outPid) = 0;
    virtual int killProcess(int* pids, int num) = 0;
    virtual int destroySockets(int uid, int pid) = 0;
    // long is 32 bits on the device; callers pass only the low 32 bits.
    virtual int setPowerWatchdog(int type, long first, long second,
                                 const android::String8& extend) = 0;
    virtual bool writeFileNode(const char* path, const char* content) = 0;
    virtual int doSpear(int pid, int rate, int type, bool includeChildren) = 0;
    virtual int stopSpear(int pid) = 0;
    virtual int pauseSpear(int pid, int time) = 0;
    virtual int stopSpearAll() = 0;
    virtual int changeSpearParam(int pid, int rate) = 0;
    virtual int readFileNode(const char* path, int def) = 0;
};

// Server side only; the managed client carries its own proxy.
class BnQmedBinderService : public android::BnInterface<IQmedBinderService> {
  public:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags = 0) override;
};
