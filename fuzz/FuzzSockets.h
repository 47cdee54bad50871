// Datagram sockets inside the fuzz process, behind the socket calls of the netlink users.
// Each descriptor hands out the datagrams a peer queued, as the kernel would: one per read,
// the rest of a long one dropped, a peek leaves it queued. No system call per input, and
// every byte the code under test sends or receives goes through instrumented copies.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "net/SocketOps.h"

class FuzzSockets : public SocketOps {
  public:
    enum Peer {
        kShutDown,  // reads past the last datagram return 0 bytes
        kOpen,      // reads past the last datagram would block for good: the run fails
        kSilent,    // as kOpen, and never readable to a real select (nothing may be queued)
    };
    // A descriptor of its own that outlives every input: the code under test closes it
    // through close() here, a no-op. /dev/null underneath, so a real select sees it
    // readable, or for kSilent the write end of a pipe, which it never does.
    int open(Peer peer) {
        Socket s;
        int p[2];
        if (peer != kSilent) {
            s.fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        } else if (pipe2(p, O_CLOEXEC) == 0) {
            s.fd = p[1];  // the read end stays open, unused
        }
        if (s.fd < 0) abort();
        s.blocksWhenEmpty = peer != kShutDown;
        mSockets.push_back(s);
        return s.fd;
    }
    // Datagrams stay in the caller's buffer; they must outlive the input's run.
    void queue(int fd, const uint8_t* data, size_t len) { find(fd)->queue.push_back({data, len}); }
    bool pending(int fd) { return !find(fd)->empty(); }
    void clear() {
        for (Socket& s : mSockets) {
            s.queue.clear();
            s.next = 0;
        }
    }

    ssize_t recvmsg(int fd, msghdr* msg, int flags) override {
        Socket* s = find(fd);
        if (s->empty() && s->blocksWhenEmpty) {
            if ((flags & MSG_DONTWAIT) != 0) {
                errno = EAGAIN;
                return -1;
            }
            fprintf(stderr, "read past the last datagram: a socket would block here\n");
            abort();
        }
        Datagram d = {nullptr, 0};
        if (!s->empty()) d = s->queue[(flags & MSG_PEEK) != 0 ? s->next : s->next++];
        size_t copied = 0;
        for (size_t i = 0; i < msg->msg_iovlen && copied < d.len; i++) {
            const size_t n = std::min(msg->msg_iov[i].iov_len, d.len - copied);
            memcpy(msg->msg_iov[i].iov_base, d.data + copied, n);
            copied += n;
        }
        msg->msg_namelen = 0;
        msg->msg_controllen = 0;
        msg->msg_flags = copied < d.len ? MSG_TRUNC : 0;
        return static_cast<ssize_t>(copied);
    }
    ssize_t recv(int fd, void* buf, size_t len, int flags) override {
        iovec iov = {buf, len};
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        return recvmsg(fd, &msg, flags);
    }
    ssize_t read(int fd, void* buf, size_t len) override { return recv(fd, buf, len, 0); }
    int poll(pollfd* fds, nfds_t nfds, int) override {
        int ready = 0;
        for (nfds_t i = 0; i < nfds; i++) {
            Socket* s = find(fds[i].fd);
            fds[i].revents = fds[i].events & POLLOUT;
            if ((fds[i].events & POLLIN) != 0 && (!s->empty() || !s->blocksWhenEmpty)) {
                fds[i].revents |= POLLIN;
            }
            if (fds[i].revents != 0) ready++;
        }
        // Nothing will ever arrive: the timeout is taken as passed.
        return ready;
    }
    ssize_t sendmsg(int fd, const msghdr* msg, int) override {
        find(fd);
        size_t total = 0;
        for (size_t i = 0; i < msg->msg_iovlen; i++) total += consume(msg->msg_iov[i]);
        return static_cast<ssize_t>(total);
    }
    ssize_t writev(int fd, const iovec* iov, int iovcnt) override {
        find(fd);
        size_t total = 0;
        for (int i = 0; i < iovcnt; i++) total += consume(iov[i]);
        return static_cast<ssize_t>(total);
    }
    ssize_t write(int fd, const void* buf, size_t len) override {
        iovec iov = {const_cast<void*>(buf), len};
        return writev(fd, &iov, 1);
    }
    int close(int fd) override {
        find(fd);
        return 0;
    }

  private:
    struct Datagram {
        const uint8_t* data;
        size_t len;
    };
    struct Socket {
        int fd = -1;
        bool blocksWhenEmpty = false;
        std::vector<Datagram> queue;
        size_t next = 0;
        bool empty() const { return next >= queue.size(); }
    };

    // A descriptor that is not one of ours reached a socket call: the harness is wrong.
    Socket* find(int fd) {
        for (Socket& s : mSockets) {
            if (s.fd == fd) return &s;
        }
        fprintf(stderr, "socket call on descriptor %d, not a fuzz socket\n", fd);
        abort();
    }
    static size_t consume(const iovec& iov) {
        fuzzTouch(iov.iov_base, iov.iov_len);
        return iov.iov_len;
    }

    std::vector<Socket> mSockets;
};
