#define LOG_TAG "Qmed-ChannelManager"

#include "msghub/ChannelManager.h"

#include <errno.h>
#include <log/log.h>
#include <safe_mem_lib.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "daemon/QmedGlobals.h"
#include "msghub/ChannelNetlink.h"
#include "msghub/Kstate.h"
#include "msghub/TlvEncDec.h"

using android::Mutex;
using android::sp;

static Mutex sInstanceLock;
static sp<ChannelManager> sInstance GUARDED_BY(sInstanceLock);

// Always under the lock: an unlocked first test of a strong pointer would race
// with its creation on another thread.
sp<ChannelManager> ChannelManager::getInstance() {
    Mutex::Autolock lock(sInstanceLock);
    if (sInstance == nullptr) {
        sInstance = new ChannelManager();
    }
    return sInstance;
}

ChannelManager::ChannelManager(ChannelFactory* firstChannel)
    : Thread(false), mFirstFactory(firstChannel) {
    FD_ZERO(&mReadFds);
}

ChannelManager::~ChannelManager() {
    for (auto it = mChannels.begin(); it != mChannels.end(); ++it) {
        delete *it;
    }
    mChannels.clear();
    delete mFirstFactory;
}

void ChannelManager::start() {
    run("ChannelManager", 0, 0);
}

android::status_t ChannelManager::readyToRun() {
    if (bDebug) ALOGD("readyToRun\n");
    ChannelFactory* factory =
            mFirstFactory != nullptr ? mFirstFactory : new ChannelNetlinkFactory();
    mFirstFactory = nullptr;
    if (!addChannel(factory)) {
        ALOGE("Add netlink channel to ChannelManager failed\n");
    }
    return 0;
}

bool ChannelManager::threadLoop() {
    if (bDebug) ALOGD("threadLoop begin\n");
    if (waitForMessage() < 0) {
        ALOGE("waitForMessage error\n");
        sleep(1);
    }
    return true;
}

bool ChannelManager::addChannel(ChannelFactory* factory) {
    if (factory == nullptr) {
        ALOGE("ChannelManager::addChannel error\n");
        return false;
    }
    Channel* channel = factory->createChannel();
    if (add(channel) == 0) {
        delete factory;
        return true;
    }
    ALOGE("Add channel to ChannelManager failed\n");
    // Only a channel that never got listed may be freed here; one listed
    // whose identification request failed now belongs to the list.
    if (channel != nullptr && !isListed(channel)) {
        delete channel;
    }
    // The factory is deliberately kept on this path.
    return false;
}

bool ChannelManager::isListed(Channel* channel) {
    Mutex::Autolock lock(mLock);
    for (auto it = mChannels.begin(); it != mChannels.end(); ++it) {
        if (*it == channel) return true;
    }
    return false;
}

size_t ChannelManager::channelCount() {
    Mutex::Autolock lock(mLock);
    return mChannels.size();
}

int ChannelManager::add(Channel* channel) {
    if (channel == nullptr) {
        ALOGE("add, NULL == pChannel, return!\n");
        return -1;
    }
    Mutex::Autolock lock(mLock);
    if (mChannels.size() >= CHANNEL_MAX) {
        ALOGE("Exceed maximum channel number, retry later\n");
        return -1;
    }
    if (channel->init() < 0) {
        return -1;
    }
    mChannels.push_back(channel);
    if (bDebug)
        ALOGD("add, pChannel->mId: %d, pChannel->mFd: %d\n", channel->mId.load(), channel->mFd);
    if (channel->mId == 0 && validateChannel(channel) < 0) {
        ALOGE("Failed to validateChannel\n");
        return -1;
    }
    return 0;
}

int ChannelManager::validateChannel(Channel* channel) {
    if (channel == nullptr) {
        return -1;
    }
    char* buf = static_cast<char*>(calloc(1, sizeof(TLV_HEADER)));
    if (buf == nullptr) {
        return -1;
    }
    TLV_HEADER header = {TLV_TAG_REGISTER, 0, 0, 0};
    TlvEncDec codec;
    if (codec.headerEnc(header, buf, sizeof(TLV_HEADER)) < 0) {
        free(buf);
        return -1;
    }
    // The peer answers asynchronously on the hub thread; a failed send only
    // leaves the channel unidentified.
    channel->putMessage(buf, sizeof(TLV_HEADER));
    free(buf);
    return 0;
}

Channel* ChannelManager::getChannelById(int id) {
    Mutex::Autolock lock(mLock);
    for (auto it = mChannels.begin(); it != mChannels.end(); ++it) {
        if ((*it)->mId == id) {
            return *it;
        }
    }
    return nullptr;
}

int ChannelManager::waitForMessage() {
    if (selectChannel() < 0) {
        ALOGE("selectChannel failed");
        return -1;
    }
    checkChannel();
    return 0;
}

int ChannelManager::selectChannel() {
    if (hubChannels().empty()) {
        ALOGE("Nothing to select, ignored\n");
        return -1;
    }
    FD_ZERO(&mReadFds);
    int maxFd = 0;
    for (auto it = hubChannels().begin(); it != hubChannels().end(); ++it) {
        int fd = (*it)->mFd;
        // FD_SET past the 1024-bit set would write outside it.
        if (fd < 0 || fd >= FD_SETSIZE) {
            continue;
        }
        FD_SET(fd, &mReadFds);
        if (fd > maxFd) maxFd = fd;
    }
    int ret = select(maxFd + 1, &mReadFds, nullptr, nullptr, nullptr);
    if (ret > 0) {
        return 0;
    }
    ALOGE("select() failed (%s)", strerror(errno));
    return -1;
}

void ChannelManager::checkChannel() {
    if (hubChannels().empty()) {
        ALOGE("Nothing to check, ignored");
        return;
    }
    char buffer[kRecvBufferSize];
    auto it = hubChannels().begin();
    while (it != hubChannels().end()) {
        Channel* channel = *it;
        if (channel->mFd < 0 || channel->mFd >= FD_SETSIZE || !FD_ISSET(channel->mFd, &mReadFds)) {
            ++it;
            continue;
        }
        memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
        unsigned length = sizeof(buffer);
        int ret = channel->getMessage(buffer, &length);
        if (bDebug) ALOGD("checkChannel, getMessage, ret: %d", ret);
        if (ret == Channel::kConnectionGone) {
            Mutex::Autolock lock(mLock);
            delete channel;
            it = mChannels.erase(it);
            continue;
        }
        if (ret < 0) {
            // Read the same channel again at once until it yields a message.
            continue;
        }
        if (length > sizeof(buffer)) {
            length = sizeof(buffer);
        }
        if (channel->processMessage(buffer, length) < 0) {
            ALOGE("Failed to processMessage");
        }
        if (forwardMessage(channel, buffer, length) < 0) {
            ALOGE("Failed to forwardMessage");
        }
        ++it;
    }
}

int ChannelManager::forwardMessage(Channel* channel, const char* buf, unsigned len) {
    if (channel == nullptr || buf == nullptr) {
        ALOGE("forwardMessage, NULL == buf || NULL == pChannel!");
        return -1;
    }
    if (channel->mId == TLV_ID_HUB) {
        ALOGI("Message is from local server, ignore forwarding");
        return 0;
    }
    // The header is read from a buffer of at least 16 bytes even when the
    // message was shorter: missing bytes read as zero.
    char headerBytes[sizeof(TLV_HEADER)] = {};
    memcpy_s(headerBytes, sizeof(headerBytes), buf,
             len < sizeof(headerBytes) ? len : sizeof(headerBytes));
    TLV_HEADER header;
    TlvEncDec codec;
    if (codec.headerDec(&header, headerBytes, sizeof(headerBytes)) < 0) {
        ALOGE("Message TLV header decode error");
        return -1;
    }
    if (bDebug)
        ALOGD("forwardMessage, pChannel->mId: %d, header.tag: %d, header.src: %d, header.dst: %d",
              channel->mId.load(), header.tag, header.src, header.dst);
    if (header.tag == TLV_TAG_REGISTER && header.src != 0) {
        channel->mId = header.src;
        if (bDebug) ALOGD("Channel %d is %d", channel->mFd, header.src);
    }
    if (header.dst == 0) {
        return 0;
    }
    if (header.dst == TLV_ID_KSTATE) {
        return Kstate::getInstance()->processClientData(buf, len);
    }
    if (header.dst != channel->mId) {
        Channel* target = getChannelById(header.dst);
        if (target == nullptr) {
            ALOGE("Failed to get channel by id, ignore forwarding");
            return -1;
        }
        if (bDebug) ALOGD("forwardMessage len:%d, fd:%d", len, channel->mFd);
        if (target->putMessage(buf, len) < 0) {
            ALOGE("Failed to forward message when sending");
            return -1;
        }
    }
    return 0;
}
