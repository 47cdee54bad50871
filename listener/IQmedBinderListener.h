#pragma once

#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/String16.h>
#include <utils/Vector.h>

// Callback interface implemented by clients and called by the daemon only.
// Proxy methods are synchronous and may be called from any thread.
class IQmedBinderListener : public android::IInterface {
  public:
    DECLARE_META_INTERFACE(QmedBinderListener)

    enum {
        ON_KSTATE_CALLBACK = android::IBinder::FIRST_CALL_TRANSACTION,
        ON_NETWORK_PACKET_CALLBACK = android::IBinder::FIRST_CALL_TRANSACTION + 1,
        ON_STOP_PROC_SPEAR_CALLBACK = android::IBinder::FIRST_CALL_TRANSACTION + 2,
        DUMP = 100,
    };

    // Sends len 32-bit words from data: the buffer must hold len * 4 bytes.
    virtual int onKstateCallback(int len, unsigned char* data) = 0;
    virtual int onNetworkPacketCallback(int count, const int* data) = 0;
    virtual int onStopProcSpearCallback(int pid, const char* reason) = 0;
    virtual int dump(int fd, const android::Vector<android::String16>& args) = 0;
};

class BpQmedBinderListener : public android::BpInterface<IQmedBinderListener> {
  public:
    explicit BpQmedBinderListener(const android::sp<android::IBinder>& impl);

    int onKstateCallback(int len, unsigned char* data) override;
    int onNetworkPacketCallback(int count, const int* data) override;
    int onStopProcSpearCallback(int pid, const char* reason) override;
    int dump(int fd, const android::Vector<android::String16>& args) override;
};
