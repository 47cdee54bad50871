#pragma once

#include <binder/BinderService.h>
#include <binder/IBinder.h>
#include <utils/Mutex.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include "daemon/IQmedBinderService.h"
#include "sockdiag/SockDiag.h"

class IQmedBinderListenerService;
class Freezer;
class Kstate;
class Spear;

// The daemon's one service object. Operations run on binder threads, several at
// once; it takes no lock of its own except around the shared socket destroyer.
// The engines lock for themselves.
class QmedBinderService : public android::BinderService<QmedBinderService>,
                          public BnQmedBinderService,
                          public android::IBinder::DeathRecipient {
  public:
    static constexpr const char* kPowerWatchdogPath = "/dev/power_watchdog";

    static const char* getServiceName() { return "Binder.Qmed"; }

    // Acquires the registry, the freezer, the kernel-state bridge and the limiter
    // facade, in that order. The watchdog path is injectable for tests.
    explicit QmedBinderService(const char* powerWatchdogPath = kPowerWatchdogPath);
    ~QmedBinderService() override;

    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags = 0) override;
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override;
    void binderDied(const android::wp<android::IBinder>& who) override;

    int registerListener(const android::sp<IQmedBinderListener>& listener, int type) override;
    int unregisterListener(const android::sp<IQmedBinderListener>& listener) override;
    int doFreezer(int action, int* pids, int num) override;
    int setKstateMask(int mask) override;
    int setKWakelock(int cmd, const char* name, int timeout, unsigned int nameLength) override;
    int getKstateSync(int command) override;
    int getProcUTime(int pid) override;
    int getProcCpuTime(char* buffer, int type, int* pids, int num) override;
    int getCmdLineByPid(char* buffer, int pid, int bufferLength) override;
    int getPidByNameAndUid(const char* name, int uid, int* outPid) override;
    int killProcess(int* pids, int num) override;
    int destroySockets(int uid, int pid) override;
    int setPowerWatchdog(int type, long first, long second,
                         const android::String8& extend) override;
    bool writeFileNode(const char* path, const char* content) override;
    int doSpear(int pid, int rate, int type, bool includeChildren) override;
    int stopSpear(int pid) override;
    int pauseSpear(int pid, int time) override;
    int stopSpearAll() override;
    int changeSpearParam(int pid, int rate) override;
    int readFileNode(const char* path, int def) override;

  private:
    android::sp<IQmedBinderListenerService> mListenerService;
    android::sp<Freezer> mFreezer;
    android::sp<Kstate> mKstate;
    // Concurrent destroySockets calls would otherwise interleave on one pair of sockets.
    android::Mutex mSockDiagLock;
    SockDiag mSockDiag GUARDED_BY(mSockDiagLock);
    android::sp<Spear> mSpear;
    android::String8 mPowerWatchdogPath;
};
