#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

// The socket calls of the netlink users, behind virtual methods so that tests can see every
// byte sent and script every reply in-process. The default makes the system calls unchanged.
//
// Threading: the real one is stateless and safe from any thread.
class SocketOps {
  public:
    // Process-wide and never destroyed: the hub thread may still use it during exit.
    static SocketOps& real();

    virtual ~SocketOps();

    virtual int socket(int domain, int type, int protocol);
    virtual int bind(int fd, const sockaddr* addr, socklen_t len);
    virtual int connect(int fd, const sockaddr* addr, socklen_t len);
    virtual ssize_t sendmsg(int fd, const msghdr* msg, int flags);
    virtual ssize_t write(int fd, const void* buf, size_t len);
    virtual ssize_t writev(int fd, const iovec* iov, int iovcnt);
    virtual ssize_t recvmsg(int fd, msghdr* msg, int flags);
    virtual ssize_t recv(int fd, void* buf, size_t len, int flags);
    virtual ssize_t read(int fd, void* buf, size_t len);
    virtual int poll(pollfd* fds, nfds_t nfds, int timeoutMs);
    virtual int close(int fd);
};
