#define LOG_TAG "Qmed-IQmedBinderListenerService"

#include "listener/IQmedBinderListenerService.h"

#include <log/log.h>
#include <safe_lib.h>
#include <safe_mem_lib.h>
#include <safe_str_lib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "proc/ProcDir.h"

using android::IBinder;
using android::IInterface;
using android::Mutex;
using android::sp;
using android::String16;
using android::Vector;
using android::wp;

namespace {

sp<IQmedBinderListenerService> sInstance;

constexpr int kMaxType = 0x3FFFFFFF;
constexpr int kKindBinderCall = 16;
constexpr int kKindKilled = 8;
constexpr size_t kPayloadTextOffset = 16;
// A whole kernel-module message in the zero-padded layout the listeners are sent.
constexpr size_t kLocalPayload = 2048 * 4 + kPayloadTextOffset + 4;
constexpr size_t kReportTableMax = 20;
constexpr long kReportIntervalSec = 15;

}  // namespace

sp<IQmedBinderListenerService> IQmedBinderListenerService::getInstance() {
    if (sInstance == nullptr) sInstance = new IQmedBinderListenerService();
    return sInstance;
}

IQmedBinderListenerService::IQmedBinderListenerService()
    : mSystemServerPid(0), mCxspPid(0), mClock(time) {
    mFreezer = Freezer::getInstance();
    if (mFreezer == nullptr) ALOGE("Get Freezer Instance Error!!!");
    mSpear = Spear::getInstance();
    if (mSpear == nullptr) ALOGE("Get Spear Instance Error!!!");
}

IQmedBinderListenerService::IQmedBinderListenerService(const sp<Freezer>& freezer,
                                                       const sp<Spear>& spear)
    : mFreezer(freezer), mSystemServerPid(0), mCxspPid(0), mSpear(spear), mClock(time) {}

IQmedBinderListenerService::~IQmedBinderListenerService() {}

int IQmedBinderListenerService::registerListener(const sp<IQmedBinderListener>& listener,
                                                 int type) {
    if (listener == nullptr) return RESULT_NULL_LISTENER;
    if (type < 1 || type > kMaxType) return RESULT_INVALID_TYPE;
    Mutex::Autolock lock(mLock);
    if (getListenerIndex(listener) >= 0) return RESULT_ALREADY_REGISTERED;
    mListeners.add(listener, static_cast<unsigned int>(type));
    // The client registers when it (re)starts, which is when these pids may have changed.
    mSystemServerPid = getPidByName("system_server");
    mCxspPid = getPidByName("ekta.ZoOPServer");
    ALOGI("system server process id:%d cxsp:%d", mSystemServerPid, mCxspPid);
    return RESULT_OK;
}

int IQmedBinderListenerService::unregisterListener(const sp<IQmedBinderListener>& listener) {
    if (listener == nullptr) return RESULT_NULL_LISTENER;
    Mutex::Autolock lock(mLock);
    int index = getListenerIndex(listener);
    if (index < 0) return RESULT_NOT_REGISTERED;
    mListeners.removeItemsAt(static_cast<size_t>(index));
    return RESULT_OK;
}

int IQmedBinderListenerService::getListenerIndex(const sp<IQmedBinderListener>& listener) {
    sp<IBinder> binder = IInterface::asBinder(listener);
    for (size_t i = 0; i < mListeners.size(); i++) {
        if (IInterface::asBinder(mListeners.keyAt(i)) == binder) return static_cast<int>(i);
    }
    return -1;
}

// One step per slot even after a removal: the entry moved into the slot waits for the
// next death notice. Clients rely on nothing else, so the walk is kept as it always was.
void IQmedBinderListenerService::clearDeadListeners(const wp<IBinder>& who) {
    Mutex::Autolock lock(mLock);
    for (size_t i = 0; i < mListeners.size(); i++) {
        sp<IBinder> binder = IInterface::asBinder(mListeners.keyAt(i));
        bool dead;
        if (binder != nullptr) {
            dead = who.get_refs() == binder->getWeakRefs();
        } else {
            dead = who.unsafe_get() == nullptr;
        }
        if (dead) mListeners.removeItemsAt(i);
    }
}

bool IQmedBinderListenerService::shouldReport(int callerPid, int targetPid) {
    if (mSystemServerPid < 1 || callerPid != mSystemServerPid) return false;
    long now = static_cast<long>(mClock(nullptr));
    bool result;
    ssize_t index = mReportTime.indexOfKey(targetPid);
    if (index >= 0) {
        long elapsed = now - mReportTime.valueAt(static_cast<size_t>(index));
        if (elapsed > kReportIntervalSec - 1) {
            mReportTime.removeItem(targetPid);
            mReportTime.add(targetPid, now);
        }
        result = elapsed >= kReportIntervalSec;
    } else {
        mReportTime.add(targetPid, now);
        result = true;
    }
    if (mReportTime.size() >= kReportTableMax) {
        ALOGI("clear process report time");
        mReportTime.clear();
    }
    return result;
}

void IQmedBinderListenerService::handleMessage(int type, Message msg) {
    if (type < 1 || type > kMaxType) {
        if (bDebug) ALOGD("Invalid TYPE");
        return;
    }

    // The payload is copied into a zero-filled buffer four times its length: the proxy
    // sends len words, and the text at offset 16 is then always terminated, whatever the
    // kernel sent. Payloads from the kernel module fit the stack buffer.
    unsigned char local[kLocalPayload];
    unsigned char* payload = nullptr;
    int payloadLen = 0;
    bool limited = false;
    if (type == TYPE_LISTENER_onKstateCallback) {
        if (msg.arg1 == 0 || msg.arg2 < 1 || msg.arg2 > kMaxKstatePayload) {
            ALOGE("kstate message dropped, len %ld", static_cast<long>(msg.arg2));
            return;
        }
        payloadLen = static_cast<int>(msg.arg2);
        const size_t len = static_cast<size_t>(payloadLen);
        const size_t size = len * 4 + kPayloadTextOffset + 4;
        payload = size <= sizeof(local) ? local : static_cast<unsigned char*>(malloc(size));
        if (payload == nullptr) {
            ALOGE("kstate message dropped, no memory for %zu bytes", size);
            return;
        }
        if (memcpy_s(payload, size, reinterpret_cast<const void*>(msg.arg1), len) != EOK) {
            if (payload != local) free(payload);
            return;
        }
        memset_s(payload + len, size - len, 0, size - len);
        int kind;
        memcpy(&kind, payload, sizeof(kind));
        if (kind == kKindBinderCall && mSpear != nullptr) {
            int target = 0, caller = 0;
            sscanf_s(reinterpret_cast<const char*>(payload + kPayloadTextOffset),
                     "[TPID %d CALLED][PID %d]", &target, &caller);
            if (mSpear->isSpeared(target)) {
                limited = true;
                if (bDebug) ALOGD("Spear process %d is binder call by %d", target, caller);
            }
        }
    }

    Mutex::Autolock lock(mLock);
    switch (type) {
        case TYPE_LISTENER_onStopProcSpearCallback: {
            if (bDebug) ALOGD("TYPE_LISTENER_onStopProcSpearCallback");
            int pid = static_cast<int>(msg.arg1);
            const char* reason = reinterpret_cast<const char*>(msg.arg2);
            for (size_t i = 0; i < mListeners.size(); i++) {
                if (mListeners.valueAt(i) & TYPE_LISTENER_onStopProcSpearCallback) {
                    mListeners.keyAt(i)->onStopProcSpearCallback(pid, reason);
                }
            }
            break;
        }
        case TYPE_LISTENER_onNetworkPacketCallback: {
            if (bDebug) ALOGD("TYPE_LISTENER_onNetworkPacketCallback");
            int count = static_cast<int>(msg.arg2);
            const int* values = reinterpret_cast<const int*>(msg.arg1);
            for (size_t i = 0; i < mListeners.size(); i++) {
                if (mListeners.valueAt(i) & TYPE_LISTENER_onNetworkPacketCallback) {
                    mListeners.keyAt(i)->onNetworkPacketCallback(count, values);
                }
            }
            break;
        }
        case TYPE_LISTENER_onKstateCallback:
            if (bDebug) ALOGD("TYPE_LISTENER_onKstateCallback");
            handleKstate(payloadLen, payload, limited);
            break;
        default:
            if (bDebug) ALOGD("nothing");
            break;
    }
    if (payload != local) free(payload);
}

// Called with mLock held; payload holds len * 4 + 20 bytes, zero beyond len.
void IQmedBinderListenerService::handleKstate(int len, const unsigned char* payload, bool limited) {
    int kind;
    memcpy(&kind, payload, sizeof(kind));
    const char* text = reinterpret_cast<const char*>(payload + kPayloadTextOffset);

    if (kind == kKindBinderCall && mFreezer != nullptr) {
        int target = 0, caller = 0;
        sscanf_s(text, "[TPID %d CALLED][PID %d]", &target, &caller);
        if (bDebug) ALOGD("TYPE_LISTENER_onKstateCallback %d binder call %d", caller, target);
        if (caller != mSystemServerPid) mFreezer->recordBinderCallTime(caller, target);
        if (target == mCxspPid) {
            if (caller == mSystemServerPid) {
                ALOGI("systemserver:%d binder_call cxsp:%d frzed:%d", caller, target,
                      mFreezer->isFreezed(target));
            } else {
                ALOGI("other:%d binder_call cxsp:%d frzed:%d", caller, target,
                      mFreezer->isFreezed(target));
            }
        }
        bool frozen = mFreezer->isFreezed(target);
        if (!frozen && !limited) {
            if (!shouldReport(caller, target)) return;
        } else if (caller == -1) {
            mFreezer->freezeProcess(Freezer::FREEZE_CMD_THAW, &target, 1);
            ALOGI("%d async call %d, thawed in zoqmed", caller, target);
        }
    } else if (kind == kKindKilled) {
        if (bDebug) ALOGD("TYPE_LISTENER_onKstateCallback freezer mask, data:%s", text);
        if (mFreezer != nullptr) {
            int pid = 0, sig = -1;
            if (sscanf_s(text, "[PID %d KILLED][SIG %d]", &pid, &sig) == 2 && sig == 0 &&
                mFreezer->isFreezed(pid)) {
                mFreezer->freezeProcess(Freezer::FREEZE_CMD_THAW, &pid, 1);
                ALOGI("pid %d   be killed by lowmemkiller, thawed in zoqmed", pid);
            }
        }
    }

    for (size_t i = 0; i < mListeners.size(); i++) {
        if (mListeners.valueAt(i) & TYPE_LISTENER_onKstateCallback) {
            mListeners.keyAt(i)->onKstateCallback(len, const_cast<unsigned char*>(payload));
        }
    }
}

int IQmedBinderListenerService::dump(int fd, const Vector<String16>& args) {
    Mutex::Autolock lock(mLock);
    for (size_t i = 0; i < mListeners.size(); i++) {
        if (mListeners.valueAt(i) & TYPE_LISTENER_dump) mListeners.keyAt(i)->dump(fd, args);
    }
    return 0;
}

size_t IQmedBinderListenerService::listenerCount() {
    Mutex::Autolock lock(mLock);
    return mListeners.size();
}

size_t IQmedBinderListenerService::reportTimeCount() {
    Mutex::Autolock lock(mLock);
    return mReportTime.size();
}

int getPidByName(const char* name, const ProcReader& proc) {
    if (name == nullptr) return 0;
    ProcDir dir(proc);
    for (const char* entry = dir.next(); entry != nullptr; entry = dir.next()) {
        int pid = ProcDir::pidOf(entry);
        // Only the short command name of the first line counts: at most 15 characters.
        char procName[51];
        if (pid != 0 && proc.statusName(pid, procName, sizeof(procName)) &&
            strcmp(procName, name) == 0) {
            return pid;
        }
    }
    return 0;
}
