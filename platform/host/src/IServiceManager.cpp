#define LOG_TAG "HostBinder"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/PermissionCache.h>
#include <log/log.h>
#include <unistd.h>

#include <mutex>

#include "Transport.h"

namespace android {

using hostbinder::Transport;

const String16 IServiceManager::descriptor("android.os.IServiceManager");
sp<IServiceManager> IServiceManager::default_impl;

IServiceManager::IServiceManager() {}
IServiceManager::~IServiceManager() {}

const String16& IServiceManager::getInterfaceDescriptor() const {
    return IServiceManager::descriptor;
}

sp<IServiceManager> IServiceManager::asInterface(const sp<IBinder>& obj) {
    if (obj == nullptr) return nullptr;
    sp<IInterface> local = obj->queryLocalInterface(IServiceManager::descriptor);
    return static_cast<IServiceManager*>(local.get());
}

bool IServiceManager::setDefaultImpl(sp<IServiceManager> impl) {
    if (impl) {
        default_impl = std::move(impl);
        return true;
    }
    return false;
}

const sp<IServiceManager>& IServiceManager::getDefaultImpl() {
    return default_impl;
}

namespace {

// The host has no service manager process: every request goes straight to the transport.
class HostServiceManager : public BnInterface<IServiceManager> {
  public:
    sp<IBinder> getService(const String16& name) const override {
        const String8 n(name);
        sp<IBinder> svc = Transport::get().checkService(n.string());
        // Like the platform, wait a while for a service that is still starting.
        for (int i = 0; svc == nullptr && i < 50; i++) {
            if (i == 10) ALOGI("Waiting for service '%s'...", n.string());
            usleep(100 * 1000);
            svc = Transport::get().checkService(n.string());
        }
        return svc;
    }

    sp<IBinder> checkService(const String16& name) const override {
        return Transport::get().checkService(String8(name).string());
    }

    status_t addService(const String16& name, const sp<IBinder>& service, bool /*allowIsolated*/,
                        int /*dumpsysFlags*/) override {
        return Transport::get().addService(String8(name).string(), service);
    }

    Vector<String16> listServices(int /*dumpsysFlags*/) override {
        Vector<String16> out;
        for (const auto& n : Transport::get().listServices()) out.add(String16(n.c_str()));
        return out;
    }

    sp<IBinder> waitForService(const String16& name) override {
        const String8 n(name);
        for (;;) {
            sp<IBinder> svc = Transport::get().checkService(n.string());
            if (svc != nullptr) return svc;
            usleep(100 * 1000);
        }
    }

    bool isDeclared(const String16& name) override { return checkService(name) != nullptr; }
};

std::mutex* gDefaultLock = new std::mutex;
sp<IServiceManager>* gDefault = nullptr;

}  // namespace

sp<IServiceManager> defaultServiceManager() {
    std::lock_guard<std::mutex> l(*gDefaultLock);
    if (gDefault == nullptr) gDefault = new sp<IServiceManager>(new HostServiceManager());
    return *gDefault;
}

void setDefaultServiceManager(const sp<IServiceManager>& sm) {
    std::lock_guard<std::mutex> l(*gDefaultLock);
    if (gDefault == nullptr) {
        gDefault = new sp<IServiceManager>(sm);
    } else {
        *gDefault = sm;
    }
}

bool checkCallingPermission(const String16& permission) {
    return checkCallingPermission(permission, nullptr, nullptr);
}

bool checkCallingPermission(const String16& permission, int32_t* outPid, int32_t* outUid) {
    IPCThreadState* ipc = IPCThreadState::self();
    const pid_t pid = ipc->getCallingPid();
    const uid_t uid = ipc->getCallingUid();
    if (outPid) *outPid = pid;
    if (outUid) *outUid = int32_t(uid);
    return checkPermission(permission, pid, uid);
}

bool checkPermission(const String16& permission, pid_t pid, uid_t uid) {
    return PermissionCache::checkPermission(permission, pid, uid);
}

}  // namespace android
