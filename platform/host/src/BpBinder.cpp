#define LOG_TAG "HostBinder"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <log/log.h>

#include "Transport.h"

namespace android {

using hostbinder::Transport;

BpBinder::BpBinder(const std::string& endpoint, uint64_t id, pid_t pid)
    : mEndpoint(endpoint),
      mId(id),
      mPid(pid),
      mHaveDescriptor(false),
      mAlive(true),
      mObitsSent(false),
      mWatching(false) {}

BpBinder::~BpBinder() {
    Transport::get().forgetProxy(this);
}

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        AutoMutex l(mLock);
        if (mHaveDescriptor) return mDescriptorCache;
    }
    Parcel data, reply;
    status_t err = const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply);
    AutoMutex l(mLock);
    if (!mHaveDescriptor && err == NO_ERROR) {
        mDescriptorCache = reply.readString16();
        mHaveDescriptor = true;
    }
    if (mHaveDescriptor) return mDescriptorCache;
    static const String16* sEmpty = new String16();
    return *sEmpty;
}

bool BpBinder::isBinderAlive() const {
    AutoMutex l(mLock);
    return mAlive;
}

status_t BpBinder::pingBinder() {
    Parcel data, reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel send, reply;
    send.writeFileDescriptor(fd);
    const size_t numArgs = args.size();
    send.writeInt32(int32_t(numArgs));
    for (size_t i = 0; i < numArgs; i++) send.writeString16(args[i]);
    return transact(DUMP_TRANSACTION, send, &reply);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    {
        AutoMutex l(mLock);
        if (!mAlive) return DEAD_OBJECT;
    }
    status_t err = Transport::get().transact(this, code, data, reply, flags);
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
    bool startWatch = false;
    {
        AutoMutex l(mLock);
        if (mObitsSent || !mAlive) return DEAD_OBJECT;
        mObituaries.push_back(Obituary{recipient, cookie, flags});
        if (!mWatching) {
            mWatching = true;
            startWatch = true;
        }
    }
    if (startWatch && Transport::get().watch(this) != NO_ERROR) {
        AutoMutex l(mLock);
        mAlive = false;
        mWatching = false;
        mObituaries.clear();
        return DEAD_OBJECT;
    }
    return NO_ERROR;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                                 wp<DeathRecipient>* outRecipient) {
    AutoMutex l(mLock);
    if (mObitsSent) return DEAD_OBJECT;
    for (size_t i = 0; i < mObituaries.size(); i++) {
        const Obituary& obit = mObituaries[i];
        if ((obit.recipient == recipient || (recipient == nullptr && obit.cookie == cookie)) &&
            obit.flags == flags) {
            if (outRecipient != nullptr) *outRecipient = obit.recipient;
            mObituaries.erase(mObituaries.begin() + i);
            return NO_ERROR;
        }
    }
    return NAME_NOT_FOUND;
}

BpBinder* BpBinder::remoteBinder() {
    return this;
}

pid_t BpBinder::getDebugPid() const {
    return mPid;
}

void BpBinder::sendObituary() {
    std::vector<Obituary> obits;
    {
        AutoMutex l(mLock);
        mAlive = false;
        if (mObitsSent) return;
        mObitsSent = true;
        obits.swap(mObituaries);
    }
    const wp<IBinder> who(this);
    for (const auto& obit : obits) {
        sp<DeathRecipient> recipient = obit.recipient.promote();
        if (recipient != nullptr) recipient->binderDied(who);
    }
}

}  // namespace android
