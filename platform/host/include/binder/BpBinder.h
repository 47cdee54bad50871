// Host binder: the proxy for an object living in another process. On the host a remote
// object is addressed by its process endpoint (an abstract AF_UNIX name) and an object id.
// Thread-safe.
#pragma once

#include <binder/IBinder.h>
#include <utils/Mutex.h>

#include <string>
#include <vector>

namespace android {

namespace hostbinder {
class Transport;
}

class BpBinder : public IBinder {
  public:
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

    virtual BpBinder* remoteBinder();

    // Process id of the process hosting the object, as seen from this process (0 if unknown).
    pid_t getDebugPid() const;

    // Host-only: where the object lives.
    const std::string& endpoint() const { return mEndpoint; }
    uint64_t objectId() const { return mId; }

    // Host-only: delivers binderDied to every linked recipient, once.
    void sendObituary();

  protected:
    virtual ~BpBinder();

  private:
    friend class hostbinder::Transport;
    BpBinder(const std::string& endpoint, uint64_t id, pid_t pid);

    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
        uint32_t flags;
    };

    const std::string mEndpoint;
    const uint64_t mId;
    const pid_t mPid;
    mutable Mutex mLock;
    mutable String16 mDescriptorCache;
    mutable bool mHaveDescriptor;
    bool mAlive;
    bool mObitsSent;
    bool mWatching;
    std::vector<Obituary> mObituaries;
};

}  // namespace android
