#pragma once

#include <sys/select.h>
#include <utils/List.h>
#include <utils/Mutex.h>
#include <utils/Thread.h>

#include "msghub/Channel.h"

// The kernel message hub: one thread selecting over every channel and routing
// each message by the dst of its TLV header.
// Threading: readyToRun/threadLoop/checkChannel/selectChannel/forwardMessage run
// on the hub thread; getChannelById is called from any thread and takes mLock;
// add takes mLock. Channels are added only on the hub thread (or before it runs).
class ChannelManager : public android::Thread {
  public:
    static constexpr int CHANNEL_MAX = 7;
    static constexpr unsigned kRecvBufferSize = 2048;

    static android::sp<ChannelManager> getInstance();

    // The factory of the first channel, added by readyToRun; null means the
    // netlink channel to the kernel module. Ownership passes to the manager.
    explicit ChannelManager(ChannelFactory* firstChannel = nullptr);
    ~ChannelManager() override;

    void start();
    bool addChannel(ChannelFactory* factory);
    int add(Channel* channel);
    int validateChannel(Channel* channel);
    Channel* getChannelById(int id);

    int selectChannel();
    void checkChannel();
    int forwardMessage(Channel* channel, const char* buf, unsigned len);
    int waitForMessage();

    // Number of listed channels; for diagnostics and tests.
    size_t channelCount();

  private:
    android::status_t readyToRun() override;
    bool threadLoop() override;
    bool isListed(Channel* channel);
    // Hub thread only: the one writer of mChannels reads it without the lock.
    android::List<Channel*>& hubChannels() NO_THREAD_SAFETY_ANALYSIS { return mChannels; }

    // Written only on the hub thread, under mLock.
    android::List<Channel*> mChannels GUARDED_BY(mLock);
    fd_set mReadFds;
    android::Mutex mLock;
    ChannelFactory* mFirstFactory;
};
