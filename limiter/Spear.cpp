#define LOG_TAG "Qmed-Spear"

#include "limiter/Spear.h"

#include <errno.h>
#include <log/log.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "daemon/QmedGlobals.h"
#include "listener/IQmedBinderListenerService.h"

using android::sp;

sp<Spear> Spear::getInstance() {
    static sp<Spear> sInstance;
    if (sInstance == nullptr) {
        sInstance = new Spear();
    }
    return sInstance;
}

Spear::Spear() : mLimiter(nullptr), mInited(false) {
    initSpear();
}

Spear::Spear(const sp<ProcessLimiter>& limiter) : mLimiter(limiter), mInited(false) {
    initSpear();
}

Spear::~Spear() {
    mInited = false;
    mLimiter.clear();
}

void Spear::initSpear() {
    if (mLimiter == nullptr) mLimiter = ProcessLimiter::getInstance();
    if (mLimiter == nullptr) {
        ALOGE("Get process limiter Instance Error!!!");
        mInited = false;
        return;
    }
    if (!mLimiter->isProcessLimiterInited()) {
        ALOGE("Init process limiter Error!!!");
        mInited = false;
        return;
    }
    mInited = true;
}

bool Spear::isSpearInited() {
    return mInited;
}

void Spear::setProcLimiterBinder(sp<IQmedBinderListenerService> listener) {
    if (mLimiter != nullptr) mLimiter->binderListener(listener);
}

int Spear::doSpear(int pid, int rate, int type, bool includeChildren) {
    // Negated as unsigned: INT_MIN from a client must not overflow.
    int target = kill(pid, 0) == 0 ? pid : static_cast<int>(0u - static_cast<unsigned>(pid));
    int self = getpid();
    if (target == 0) {
        ALOGE("Sr P: %d not found!\n", pid);
        return -ENOENT;
    }
    if (target < 0) {
        // Also the answer for a process that does not exist: the probe cannot tell.
        ALOGE("Sr P found but you aren't allowed to control it! %s\n", strerror(errno));
        return -ESRCH;
    }
    if (target == self) {
        ALOGI("Target P: %d is qmed itself, checking abnormality!\n", target);
        if (mLimiter->checkAbnormal() == 0) {
            ALOGI("There are no abnormal in Sr loop, limit qmed load.\n");
        } else if (bDebug) {
            ALOGD("There are abnormal in Sr loop, already handled.\n");
        }
        return -EINTR;
    }
    if (mLimiter->islimitedPid(target)) {
        if (bDebug) ALOGD("Already Sr P: %d, change R to %d%%.\n", target, rate);
        return changeSpearParam(target, rate);
    }
    ALOGI("Sr P: %d, R: %d%%, C: %d.\n", target, rate, includeChildren ? 1 : 0);
    return mLimiter->add2LimiterGroup(target, rate, type, includeChildren);
}

int Spear::isSpeared(int pid) {
    return mLimiter->islimitedPid(pid);
}

int Spear::changeSpearParam(int pid, int rate) {
    if (!mLimiter->islimitedPid(pid)) {
        ALOGE("Can not change Sr param, because Sr empty now!\n");
        return -ENOENT;
    }
    mLimiter->changeParam(pid, rate);
    return 1;
}

int Spear::pauseSpear(int pid, int time) {
    if (!mLimiter->islimitedPid(pid)) {
        ALOGE("Can't pause Sr P: %d, because it's not be Sr now!\n", pid);
        return -ENOENT;
    }
    return mLimiter->pauseLimit(pid, time);
}

int Spear::stopSpear(int pid) {
    if (mLimiter->getPgroupNum() == 0) {
        // A daemon that died mid-cycle may have left the process stopped.
        ALOGE("Qmed may crash just now, resume process %d.\n", pid);
        return mLimiter->resumeProc(pid);
    }
    if (!mLimiter->islimitedPid(pid)) {
        ALOGE("Can't stop Sr P: %d, because it's not be Sr now!\n", pid);
        return -ENOENT;
    }
    return mLimiter->quitLimit(pid);
}

int Spear::stopSpearAll() {
    if (mLimiter->getPgroupNum() < 1) {
        ALOGE("Stop all Sr failed, because Sr empty now!\n");
        return -ENOENT;
    }
    return mLimiter->quitLimitAll();
}
