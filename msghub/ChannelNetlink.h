#pragma once

#include "msghub/Channel.h"
#include "net/SocketOps.h"

// Raw netlink socket (protocol 30) to the kernel module; one TLV message per
// netlink message. putMessage is safe from any thread (own buffer per call).
class ChannelNetlink : public Channel {
  public:
    static constexpr int kNetlinkProtocol = 30;
    static constexpr unsigned kNlHeaderSize = 16;

    // Bytes of a netlink message carrying a payload of len bytes: the aligned
    // size, which is also what the daemon puts into nlmsg_len.
    static constexpr unsigned nlSpace(unsigned len) { return (len + 19) & ~3u; }

    // ops must outlive the channel.
    explicit ChannelNetlink(SocketOps& ops = SocketOps::real());
    ~ChannelNetlink() override;

    int init() override;
    int getMessage(char* buf, unsigned* len) override;
    int putMessage(const char* buf, unsigned len) override;
    int processMessage(const char* buf, unsigned len) override;

  private:
    SocketOps& mOps;
};

class ChannelNetlinkFactory : public ChannelFactory {
  public:
    explicit ChannelNetlinkFactory(SocketOps& ops = SocketOps::real());
    Channel* createChannel() override;

  private:
    SocketOps& mOps;
};
