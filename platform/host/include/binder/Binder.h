// Host binder: BBinder and BpRefBase as in the Android 13 libbinder.
#pragma once

#include <binder/IBinder.h>

namespace android {

// The default onTransact answers the interface query, ping and dump transactions.
// onTransact runs on a binder pool thread; several may run at once.
class BBinder : public IBinder {
  public:
    BBinder();

    virtual const String16& getInterfaceDescriptor() const;
    virtual bool isBinderAlive() const;
    virtual status_t pingBinder();
    virtual status_t dump(int fd, const Vector<String16>& args);

    // NOLINTNEXTLINE(google-default-arguments)
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) final;

    // NOLINTNEXTLINE(google-default-arguments)
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0);
    // NOLINTNEXTLINE(google-default-arguments)
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr);

    virtual BBinder* localBinder();

  protected:
    virtual ~BBinder();

    // NOLINTNEXTLINE(google-default-arguments)
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);

  private:
    BBinder(const BBinder& o);
    BBinder& operator=(const BBinder& o);
};

class BpRefBase : public virtual RefBase {
  protected:
    explicit BpRefBase(const sp<IBinder>& o);
    virtual ~BpRefBase();
    virtual void onFirstRef();
    virtual void onLastStrongRef(const void* id);
    virtual bool onIncStrongAttempted(uint32_t flags, const void* id);

    inline IBinder* remote() const { return mRemote.get(); }
    inline sp<IBinder> remoteStrong() const { return mRemote; }

  private:
    BpRefBase(const BpRefBase& o);
    BpRefBase& operator=(const BpRefBase& o);

    sp<IBinder> mRemote;
};

}  // namespace android
