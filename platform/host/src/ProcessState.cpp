#define LOG_TAG "HostBinder"

#include <binder/ProcessState.h>
#include <pthread.h>
#include <unistd.h>

#include <mutex>

#include "Transport.h"

namespace android {

using hostbinder::Transport;

sp<ProcessState> ProcessState::self() {
    // Held for the life of the process: pool threads never stop.
    static sp<ProcessState>* sProcess = nullptr;
    static std::mutex* sLock = new std::mutex;
    std::lock_guard<std::mutex> l(*sLock);
    if (sProcess == nullptr) sProcess = new sp<ProcessState>(new ProcessState());
    return *sProcess;
}

sp<ProcessState> ProcessState::selfOrNull() {
    return self();
}

sp<ProcessState> ProcessState::initWithDriver(const char* /*driver*/) {
    return self();
}

ProcessState::ProcessState() : mThreadPoolStarted(false), mMaxThreads(15), mThreadPoolSeq(1) {}

ProcessState::~ProcessState() {}

sp<IBinder> ProcessState::getContextObject(const sp<IBinder>& /*caller*/) {
    return nullptr;
}

void ProcessState::startThreadPool() {
    AutoMutex l(mLock);
    mThreadPoolStarted = true;
    // Always passed on: a forked child has a fresh transport but inherits this flag.
    Transport::get().startPool();
}

void ProcessState::spawnPooledThread(bool /*isMain*/) {
    Transport::get().startPool();
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    AutoMutex l(mLock);
    mMaxThreads = maxThreads;
    return Transport::get().setMaxThreads(maxThreads);
}

size_t ProcessState::getThreadPoolMaxTotalThreadCount() const {
    return Transport::get().maxThreads();
}

void ProcessState::giveThreadPoolName() {
    char name[16];
    snprintf(name, sizeof(name), "binder:%d_0", int(getpid()));
    pthread_setname_np(pthread_self(), name);
}

String8 ProcessState::getDriverName() {
    return String8("/dev/binder");
}

bool ProcessState::isThreadPoolStarted() const {
    AutoMutex l(mLock);
    return mThreadPoolStarted;
}

String8 ProcessState::makeBinderThreadName() {
    return String8::format("binder:%d_%X", int(getpid()), int(mThreadPoolSeq++));
}

}  // namespace android
