#pragma once

// A scripted kernel behind the socket calls of the netlink users. Sockets are numbered in the
// order they were opened; each is /dev/null underneath, so select and poll on it return at once.

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "net/SocketOps.h"

namespace qmedtest {

class FakeSockets : public SocketOps {
  public:
    // Every call but the receiving ones: "name socket-number arguments", bytes in hex.
    std::vector<std::string> calls;
    // A call named here fails with the errno given, every time until erased.
    std::map<std::string, int> failing;

    ~FakeSockets() override {
        for (const auto& [fd, n] : mNumber) ::close(fd);
    }
    // The next datagram socket n receives; an empty one ends the stream for good.
    void reply(int n, const std::string& datagram) { mQueue[n].push_back(datagram); }
    // Calls that start with prefix, without it.
    std::vector<std::string> sent(const std::string& prefix) const {
        std::vector<std::string> out;
        for (const std::string& c : calls) {
            if (c.compare(0, prefix.size(), prefix) == 0) out.push_back(c.substr(prefix.size()));
        }
        return out;
    }
    static std::string hex(const void* data, size_t len) {
        std::string s;
        for (size_t i = 0; i < len; i++) {
            const uint8_t b = static_cast<const uint8_t*>(data)[i];
            s += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
        }
        return s;
    }

    int socket(int domain, int type, int protocol) override {
        if (fails("socket")) return -1;
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        mNumber[fd] = mOpened++;
        log("socket", fd,
            std::to_string(domain) + " " + std::to_string(type) + " " + std::to_string(protocol));
        return fd;
    }
    int bind(int fd, const sockaddr* addr, socklen_t len) override {
        log("bind", fd, hex(addr, len));
        return fails("bind") ? -1 : 0;
    }
    int connect(int fd, const sockaddr* addr, socklen_t len) override {
        log("connect", fd, hex(addr, len));
        return fails("connect") ? -1 : 0;
    }
    ssize_t sendmsg(int fd, const msghdr* msg, int flags) override {
        return record("sendmsg", fd, hex(msg->msg_name, msg->msg_namelen) + " ", msg->msg_iov,
                      static_cast<int>(msg->msg_iovlen), flags);
    }
    ssize_t write(int fd, const void* buf, size_t len) override {
        iovec iov = {const_cast<void*>(buf), len};
        return record("write", fd, "", &iov, 1, 0);
    }
    ssize_t writev(int fd, const iovec* iov, int iovcnt) override {
        return record("writev", fd, "", iov, iovcnt, 0);
    }
    ssize_t recvmsg(int fd, msghdr* msg, int flags) override {
        return take("recvmsg", fd, msg->msg_iov[0].iov_base, msg->msg_iov[0].iov_len, flags);
    }
    ssize_t recv(int fd, void* buf, size_t len, int flags) override {
        return take("recv", fd, buf, len, flags);
    }
    ssize_t read(int fd, void* buf, size_t len) override { return take("read", fd, buf, len, 0); }
    // Never waits: a socket with nothing queued times out at once.
    int poll(pollfd* fds, nfds_t nfds, int) override {
        if (fails("poll")) return -1;
        int ready = 0;
        for (nfds_t i = 0; i < nfds; i++) {
            fds[i].revents = mQueue[number(fds[i].fd)].empty() ? 0 : POLLIN;
            ready += fds[i].revents != 0;
        }
        return ready;
    }
    int close(int fd) override {
        log("close", fd, "");
        mNumber.erase(fd);
        return ::close(fd);
    }

  private:
    int number(int fd) const {
        auto it = mNumber.find(fd);
        return it != mNumber.end() ? it->second : -1;
    }
    void log(const char* name, int fd, const std::string& args) {
        calls.push_back(std::string(name) + " " + std::to_string(number(fd)) +
                        (args.empty() ? "" : " " + args));
    }
    bool fails(const std::string& name) {
        auto it = failing.find(name);
        if (it == failing.end()) return false;
        errno = it->second;
        return true;
    }
    ssize_t record(const char* name, int fd, const std::string& to, const iovec* iov, int iovcnt,
                   int flags) {
        std::string bytes;
        size_t total = 0;
        for (int i = 0; i < iovcnt; i++) {
            bytes += hex(iov[i].iov_base, iov[i].iov_len);
            total += iov[i].iov_len;
        }
        log(name, fd, (flags != 0 ? "flags=" + std::to_string(flags) + " " : "") + to + bytes);
        return fails(name) ? -1 : static_cast<ssize_t>(total);
    }
    // A datagram longer than the buffer is cut, as the kernel does without MSG_TRUNC.
    ssize_t take(const std::string& name, int fd, void* buf, size_t len, int flags) {
        if (fails(name)) return -1;
        std::deque<std::string>& q = mQueue[number(fd)];
        if (q.empty()) {
            if ((flags & MSG_DONTWAIT) == 0) return 0;
            errno = EAGAIN;
            return -1;
        }
        // The end of the stream stays, as after a shutdown.
        const std::string d = q.front();
        if ((flags & MSG_PEEK) == 0 && !d.empty()) q.pop_front();
        const size_t n = d.size() < len ? d.size() : len;
        memcpy(buf, d.data(), n);
        return static_cast<ssize_t>(n);
    }

    std::map<int, int> mNumber;  // descriptor -> socket number
    std::map<int, std::deque<std::string>> mQueue;
    int mOpened = 0;
};

}  // namespace qmedtest
