#define LOG_TAG "Qmed-Vigil"

#include "daemon/Vigil.h"

#include <dlfcn.h>
#include <errno.h>
#include <log/log.h>
#include <pthread.h>
#include <string.h>
#include <utils/Mutex.h>

using android::Mutex;
using android::sp;

namespace {

Mutex sCreateLock;
sp<Vigil> sInstance GUARDED_BY(sCreateLock);
// Set up before main like the other module statics; nothing takes it.
pthread_mutex_t sModuleMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

sp<Vigil> Vigil::getInstance() {
    (void)sModuleMutex;
    Mutex::Autolock lock(sCreateLock);
    if (sInstance == nullptr) sInstance = new Vigil();
    return sInstance;
}

Vigil::Vigil(const char* library) : android::Thread(false), mLibrary(library) {}

void Vigil::start() {
    run("vigil", 0, 0);
}

bool Vigil::threadLoop() {
    void* handle = dlopen(mLibrary.c_str(), RTLD_LAZY);
    if (handle == nullptr) {
        // The errno text, not dlerror(): the log readers expect the short reason.
        ALOGE("not find libvigild.so err:%s", strerror(errno));
        return false;
    }
    typedef int (*EntryFn)();
    EntryFn entry = reinterpret_cast<EntryFn>(dlsym(handle, kEntry));
    if (entry == nullptr) {
        ALOGE("dlsym err:%s", dlerror());
        dlclose(handle);
        return false;
    }
    ALOGI("vigild_main begin\n");
    entry();
    dlclose(handle);
    return false;
}
