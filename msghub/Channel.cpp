#include "msghub/Channel.h"

#include <unistd.h>

Channel::Channel() : mFd(-1), mId(0) {}

Channel::~Channel() {
    if (mFd >= 1) {
        close(mFd);
        mFd = -1;
    }
}

int Channel::init() {
    return 0;
}

int Channel::putMessage(const char*, unsigned) {
    return 0;
}

int Channel::processMessage(const char*, unsigned) {
    return 0;
}

ChannelFactory::~ChannelFactory() {}
