#pragma once

#include <atomic>

// One message channel of the hub. Owned by ChannelManager once added.
// getMessage and processMessage run on the hub thread only; putMessage may be
// called from any thread and must not rely on shared per-channel state.
class Channel {
  public:
    // getMessage result meaning the peer is gone; the hub then drops the channel.
    static constexpr int kConnectionGone = -104;

    Channel();
    // Closes mFd when it is 1 or more: descriptor 0 is never ours to close.
    virtual ~Channel();

    virtual int init();
    // On entry *len is the capacity of buf, on success the message length.
    virtual int getMessage(char* buf, unsigned* len) = 0;
    virtual int putMessage(const char* buf, unsigned len);
    virtual int processMessage(const char* buf, unsigned len);

    int mFd;
    // Written by the hub thread when the peer identifies itself, read by
    // senders on binder threads: atomic so the hand-over is well defined.
    std::atomic<int> mId;
};

class ChannelFactory {
  public:
    virtual ~ChannelFactory();
    virtual Channel* createChannel() = 0;
};
