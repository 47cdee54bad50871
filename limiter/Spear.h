#pragma once

#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include "limiter/ProcessLimiter.h"

class IQmedBinderListenerService;

// The limiter's face towards the service and the listener registry.
//
// Threading: called from binder threads and, for isSpeared(), from any thread
// posting to the registry (never from inside the registry's locked section).
// Spear locks nothing itself; every call is serialised by the limiter's lock.
class Spear : public android::RefBase {
  public:
    static android::sp<Spear> getInstance();

    Spear();
    // Uses the given limiter instead of the process-wide one.
    explicit Spear(const android::sp<ProcessLimiter>& limiter);
    ~Spear() override;

    void initSpear();
    bool isSpearInited();
    void setProcLimiterBinder(android::sp<IQmedBinderListenerService> listener);

    int doSpear(int pid, int rate, int type, bool includeChildren);
    int isSpeared(int pid);
    int changeSpearParam(int pid, int rate);
    int pauseSpear(int pid, int time);
    int stopSpear(int pid);
    int stopSpearAll();

  private:
    android::sp<ProcessLimiter> mLimiter;
    bool mInited;
};
