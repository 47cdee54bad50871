#pragma once

// Real TCP connections between test addresses in a private network namespace, owned by a
// chosen uid. Header-only so the benchmarks can share it.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace qmedtest {

// Runs body in a forked child inside a new network namespace whose lo carries 10.0.0.1,
// 10.0.0.2, 10.0.0.127, fd00::1 and fd00::2. Returns body's text, or why it did not run.
inline std::string runInNetns(const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string result;
        if (unshare(CLONE_NEWNET) != 0) {
            result = std::string("unshare: ") + strerror(errno);
        } else if (system("ip link set lo up && ip addr add 10.0.0.1/24 dev lo && "
                          "ip addr add 10.0.0.2/24 dev lo && ip addr add 10.0.0.127/24 dev lo && "
                          "ip -6 addr add fd00::1/64 dev lo nodad && "
                          "ip -6 addr add fd00::2/64 dev lo nodad") != 0) {
            result = "cannot set up test addresses";
        } else {
            result = body();
        }
        ssize_t off = 0;
        while (off < static_cast<ssize_t>(result.size())) {
            ssize_t n = write(fds[1], result.data() + off, result.size() - off);
            if (n <= 0) break;
            off += n;
        }
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) out.append(buf, n);
    }
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) out += "namespace child died\n";
    return out;
}

// Binds a socket address of family for text and port.
inline socklen_t makeAddr(int family, const char* text, uint16_t port, sockaddr_storage* ss) {
    memset(ss, 0, sizeof(*ss));
    if (family == AF_INET) {
        auto* a = reinterpret_cast<sockaddr_in*>(ss);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        inet_pton(AF_INET, text, &a->sin_addr);
        return sizeof(*a);
    }
    auto* a = reinterpret_cast<sockaddr_in6*>(ss);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(port);
    inet_pton(AF_INET6, text, &a->sin6_addr);
    return sizeof(*a);
}

// A TCP socket whose owner, as sock_diag reports it, is uid: the kernel takes the socket's
// owner from the creating thread's fsuid.
inline int socketAs(int family, uid_t uid) {
    setfsuid(uid);
    int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setfsuid(0);
    return fd;
}

class Server {
  public:
    Server(int family, const char* addr, uid_t uid = 0) {
        mFd = socketAs(family, uid);
        int one = 1, zero = 0;
        setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        if (family == AF_INET6) setsockopt(mFd, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof(zero));
        sockaddr_storage ss;
        socklen_t len = makeAddr(family, addr, 0, &ss);
        bind(mFd, reinterpret_cast<sockaddr*>(&ss), len);
        listen(mFd, 4096);
        len = sizeof(ss);
        getsockname(mFd, reinterpret_cast<sockaddr*>(&ss), &len);
        mPort = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&ss)->sin_port
                                        : reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
    }
    ~Server() { close(mFd); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    int fd() const { return mFd; }
    uint16_t port() const { return mPort; }

  private:
    int mFd = -1;
    uint16_t mPort = 0;
};

class Conn {
  public:
    std::string name;

    static Conn open(int family, uid_t uid, const char* src, const char* dst, const Server& s) {
        Conn c;
        c.name = std::string(src) + "->" + dst;
        c.mClient = socketAs(family, uid);
        sockaddr_storage ss;
        socklen_t len = makeAddr(family, src, 0, &ss);
        if (bind(c.mClient, reinterpret_cast<sockaddr*>(&ss), len) != 0) return c;
        len = makeAddr(family, dst, s.port(), &ss);
        if (connect(c.mClient, reinterpret_cast<sockaddr*>(&ss), len) != 0) return c;
        pollfd p = {s.fd(), POLLIN, 0};
        if (poll(&p, 1, 1000) == 1) c.mPeer = accept4(s.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        return c;
    }
    Conn() = default;
    Conn(Conn&& o) noexcept : name(std::move(o.name)), mClient(o.mClient), mPeer(o.mPeer) {
        o.mClient = o.mPeer = -1;
    }
    Conn& operator=(Conn&& o) noexcept {
        std::swap(name, o.name);
        std::swap(mClient, o.mClient);
        std::swap(mPeer, o.mPeer);
        return *this;
    }
    ~Conn() {
        if (mClient >= 0) close(mClient);
        if (mPeer >= 0) close(mPeer);
    }
    bool established() const { return mClient >= 0 && mPeer >= 0; }
    int client() const { return mClient; }
    // errno of a non-blocking read on the client: ECONNABORTED once destroyed, EAGAIN if alive.
    int clientError() const { return readError(mClient, 0); }
    // The same on the accepting side, waiting up to timeoutMs for the reset to arrive.
    int peerError(int timeoutMs) const { return readError(mPeer, timeoutMs); }
    bool roundTrip() const {
        char c = 'q';
        if (send(mClient, &c, 1, MSG_NOSIGNAL) != 1) return false;
        if (readError(mPeer, 1000) != 0) return false;
        if (send(mPeer, &c, 1, MSG_NOSIGNAL) != 1) return false;
        return readError(mClient, 1000) == 0;
    }

  private:
    static int readError(int fd, int timeoutMs) {
        if (fd < 0) return EBADF;
        pollfd p = {fd, POLLIN, 0};
        poll(&p, 1, timeoutMs);
        char c;
        ssize_t n = recv(fd, &c, 1, MSG_DONTWAIT);
        return n == 1 ? 0 : n == 0 ? -1 : errno;
    }
    int mClient = -1;
    int mPeer = -1;
};

}  // namespace qmedtest
