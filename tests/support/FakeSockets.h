#pragma once

// The socket calls of the netlink users on socket pairs: every socket the code opens is one end
// of a pair, and the test plays the kernel at the other (peers, in the order opened). Addresses
// are recorded, not used; a call named in failing fails with its errno.

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "net/SocketOps.h"

namespace qmedtest {

class FakeSockets : public SocketOps {
  public:
    std::vector<std::string> calls;  // "socket|bind|connect|sendmsg|close number [args in hex]"
    std::map<std::string, int> failing;
    std::vector<int> peers;

    ~FakeSockets() override {
        for (int p : peers) ::close(p);
    }
    // An empty datagram ends the stream.
    void reply(int n, const std::string& d) {
        if (d.empty()) ::shutdown(peers[n], SHUT_WR);
        if (!d.empty()) ::send(peers[n], d.data(), d.size(), 0);
    }
    // What socket n sent since last asked, a datagram each, in hex.
    std::vector<std::string> sent(int n) {
        std::vector<std::string> out;
        char buf[8192];
        for (ssize_t len; (len = ::recv(peers[n], buf, sizeof(buf), MSG_DONTWAIT)) > 0;)
            out.push_back(hex(buf, static_cast<size_t>(len)));
        return out;
    }
    static std::string hex(const void* data, size_t len) {
        std::string s;
        for (const uint8_t* b = static_cast<const uint8_t*>(data); len-- > 0; b++)
            s += {"0123456789abcdef"[*b >> 4], "0123456789abcdef"[*b & 15]};
        return s;
    }

    int socket(int domain, int type, int protocol) override {
        int sv[2];
        if (fails("socket") || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0)
            return -1;
        mNumber[sv[0]] = static_cast<int>(peers.size());
        peers.push_back(sv[1]);
        log("socket", sv[0],
            std::to_string(domain) + " " + std::to_string(type) + " " + std::to_string(protocol));
        return sv[0];
    }
    int bind(int fd, const sockaddr* a, socklen_t len) override {
        return log("bind", fd, hex(a, len));
    }
    int connect(int fd, const sockaddr* a, socklen_t len) override {
        return log("connect", fd, hex(a, len));
    }
    // A connected pair ignores the address.
    ssize_t sendmsg(int fd, const msghdr* m, int flags) override {
        if (log("sendmsg", fd, hex(m->msg_name, m->msg_namelen)) < 0) return -1;
        return SocketOps::sendmsg(fd, m, flags);
    }
    ssize_t recvmsg(int fd, msghdr* m, int flags) override {
        return fails("recvmsg") ? -1 : SocketOps::recvmsg(fd, m, flags);
    }
    ssize_t recv(int fd, void* buf, size_t len, int flags) override {
        return fails("recv") ? -1 : SocketOps::recv(fd, buf, len, flags);
    }
    int close(int fd) override {
        log("close", fd, "");
        return SocketOps::close(fd);
    }

  private:
    bool fails(const std::string& name) {
        auto it = failing.find(name);
        if (it == failing.end()) return false;
        errno = it->second;
        return true;
    }
    int log(const std::string& name, int fd, const std::string& args) {
        calls.push_back(name + " " + std::to_string(mNumber[fd]) + (args.empty() ? "" : " ") +
                        args);
        return fails(name) ? -1 : 0;
    }

    std::map<int, int> mNumber;  // descriptor -> socket number
};

}  // namespace qmedtest
