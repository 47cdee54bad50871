#include "net/SocketOps.h"

#include <unistd.h>

SocketOps& SocketOps::real() {
    static SocketOps* const sReal = new SocketOps();
    return *sReal;
}

SocketOps::~SocketOps() {}

int SocketOps::socket(int domain, int type, int protocol) {
    return ::socket(domain, type, protocol);
}

int SocketOps::bind(int fd, const sockaddr* addr, socklen_t len) {
    return ::bind(fd, addr, len);
}

int SocketOps::connect(int fd, const sockaddr* addr, socklen_t len) {
    return ::connect(fd, addr, len);
}

ssize_t SocketOps::sendmsg(int fd, const msghdr* msg, int flags) {
    return ::sendmsg(fd, msg, flags);
}

ssize_t SocketOps::write(int fd, const void* buf, size_t len) {
    return ::write(fd, buf, len);
}

ssize_t SocketOps::writev(int fd, const iovec* iov, int iovcnt) {
    return ::writev(fd, iov, iovcnt);
}

ssize_t SocketOps::recvmsg(int fd, msghdr* msg, int flags) {
    return ::recvmsg(fd, msg, flags);
}

ssize_t SocketOps::recv(int fd, void* buf, size_t len, int flags) {
    return ::recv(fd, buf, len, flags);
}

ssize_t SocketOps::read(int fd, void* buf, size_t len) {
    return ::read(fd, buf, len);
}

int SocketOps::poll(pollfd* fds, nfds_t nfds, int timeoutMs) {
    return ::poll(fds, nfds, timeoutMs);
}

int SocketOps::close(int fd) {
    return ::close(fd);
}
