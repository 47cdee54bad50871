// Kernel-module simulator: the peer of the daemon's protocol-30 netlink socket
// (reached through libkmodshim.so), driven over a text control socket.
// See README.md.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "tools/kmodsim/KmodsimControl.h"
#include "tools/kmodsim/KmodsimWire.h"

using namespace kmodsim;

namespace {

constexpr int kKernelId = 4;
constexpr int kKstateId = 8;
constexpr int kTagRegister = 1;
constexpr int kTagKstate = 4;
constexpr int kKindBinderCall = 16;
constexpr int kKindKill = 8;

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string hex(const unsigned char* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(n * 2);
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

bool unhex(const std::string& text, std::vector<unsigned char>* out) {
    std::string digits;
    for (char c : text) {
        if (c == ':' || c == ' ' || c == '_') continue;
        if (!isxdigit(static_cast<unsigned char>(c))) return false;
        digits += c;
    }
    if (digits.size() % 2 != 0) return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        out->push_back(
                static_cast<unsigned char>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

void appendLe32(std::vector<unsigned char>* v, uint32_t x) {
    unsigned char b[4];
    putLe32(b, x);
    v->insert(v->end(), b, b + 4);
}

// A netlink message as the module frames it: nlmsg_len = 16 + payload.
std::vector<unsigned char> netlinkMessage(const std::vector<unsigned char>& payload) {
    std::vector<unsigned char> m;
    appendLe32(&m, static_cast<uint32_t>(16 + payload.size()));
    appendLe32(&m, 0);  // type, flags
    appendLe32(&m, 0);  // seq
    appendLe32(&m, 0);  // pid: the kernel
    m.insert(m.end(), payload.begin(), payload.end());
    return m;
}

std::vector<unsigned char> tlv(int tag, int src, int dst, int len,
                               const std::vector<unsigned char>& payload) {
    std::vector<unsigned char> m;
    appendLe32(&m, static_cast<uint32_t>(tag));
    appendLe32(&m, static_cast<uint32_t>(src));
    appendLe32(&m, static_cast<uint32_t>(dst));
    appendLe32(&m, static_cast<uint32_t>(len));
    m.insert(m.end(), payload.begin(), payload.end());
    return m;
}

std::vector<unsigned char> eventPayload(int kind, const std::string& text) {
    std::vector<unsigned char> p;
    appendLe32(&p, static_cast<uint32_t>(kind));
    p.resize(16, 0);
    p.insert(p.end(), text.begin(), text.end());
    p.push_back(0);
    return p;
}

std::vector<unsigned char> eventMessage(int kind, const std::string& text) {
    std::vector<unsigned char> p = eventPayload(kind, text);
    return netlinkMessage(tlv(kTagKstate, kKernelId, kKstateId, static_cast<int>(p.size()), p));
}

int listenOn(const std::string& name) {
    // A path appears only once it accepts connections: bound under a temporary
    // name and renamed after listen(), so a waiter polling for it never races.
    const bool abstract = name[0] == '@';
    const std::string bindName = abstract ? name : name + ".tmp";
    struct sockaddr_un addr;
    socklen_t len = makeAddress(bindName.c_str(), &addr);
    if (len == 0) {
        fprintf(stderr, "kmodsim: bad address %s\n", name.c_str());
        return -1;
    }
    if (!abstract) {
        unlink(bindName.c_str());
        unlink(name.c_str());
    }
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr*>(&addr), len) < 0 ||
        listen(fd, 64) < 0 ||
        (!abstract &&
         (chmod(bindName.c_str(), 0666) < 0 || rename(bindName.c_str(), name.c_str()) < 0))) {
        fprintf(stderr, "kmodsim: cannot listen on %s: %s\n", name.c_str(), strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

struct Waiter {
    int fd;
    int64_t deadline;
    size_t count;  // wait-received: number of records; wait-connected: 0
    bool forConnect;
    bool forIdentify;
};

class Simulator {
  public:
    Simulator(int dataFd, int ctlFd, FILE* log, const std::string& identifyMode, int delayMs)
        : mDataFd(dataFd), mCtlFd(ctlFd), mLog(log), mMode(identifyMode), mDelayMs(delayMs) {}

    void run() {
        for (;;) {
            std::vector<struct pollfd> fds;
            fds.push_back({mDataFd, POLLIN, 0});
            fds.push_back({mCtlFd, POLLIN, 0});
            if (mClient >= 0) fds.push_back({mClient, POLLIN, 0});
            int timeout = nextTimeout();
            int n = poll(fds.data(), fds.size(), timeout);
            if (n < 0 && errno != EINTR) {
                perror("kmodsim: poll");
                return;
            }
            if (n > 0) {
                if (fds[0].revents & POLLIN) acceptClient();
                if (fds[1].revents & POLLIN) serveControl();
                if (fds.size() > 2 && fds[2].revents) readClient();
            }
            runTimers();
            if (mQuit) return;
        }
    }

  private:
    int nextTimeout() {
        int64_t next = -1;
        if (mIdentifyAt > 0) next = mIdentifyAt;
        for (const Waiter& w : mWaiters) {
            if (next < 0 || w.deadline < next) next = w.deadline;
        }
        if (next < 0) return -1;
        int64_t delta = next - nowMs();
        return delta < 0 ? 0 : static_cast<int>(delta);
    }

    void runTimers() {
        if (mIdentifyAt > 0 && nowMs() >= mIdentifyAt) {
            mIdentifyAt = 0;
            sendIdentification();
        }
        for (size_t i = 0; i < mWaiters.size();) {
            Waiter& w = mWaiters[i];
            bool done = w.forConnect    ? mClient >= 0
                        : w.forIdentify ? mIdentified
                                        : mReceived.size() >= w.count;
            if (done || nowMs() >= w.deadline) {
                std::ostringstream reply;
                reply << (done ? "OK " : "ERR timeout ") << mReceived.size() << "\n";
                writeReply(w.fd, reply.str());
                close(w.fd);
                mWaiters.erase(mWaiters.begin() + i);
            } else {
                ++i;
            }
        }
    }

    void acceptClient() {
        int fd = accept4(mDataFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        // One daemon at a time: a new connection replaces the old one.
        if (mClient >= 0) close(mClient);
        mClient = fd;
        mClientPid = 0;
        mBoundPid = 0;
        mIdentified = false;
        struct ucred cred;
        socklen_t len = sizeof(cred);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) mClientPid = cred.pid;
        note("CONNECT pid=%d", mClientPid);
    }

    void readClient() {
        std::vector<unsigned char> buf(kMaxRecord);
        ssize_t n = recv(mClient, buf.data(), buf.size(), 0);
        if (n <= 0) {
            note("DISCONNECT pid=%d", mClientPid);
            close(mClient);
            mClient = -1;
            mIdentified = false;
            return;
        }
        if (static_cast<size_t>(n) < kRecordHeader) return;
        uint32_t op = getLe32(buf.data());
        uint32_t arg = getLe32(buf.data() + 4);
        const unsigned char* bytes = buf.data() + kRecordHeader;
        size_t len = static_cast<size_t>(n) - kRecordHeader;
        switch (op) {
            case OP_HELLO:
                mClientPid = static_cast<int>(arg);
                note("HELLO pid=%u", arg);
                break;
            case OP_BIND:
                mBoundPid = arg;
                note("BIND nl_pid=%u groups=%u", arg, len >= 4 ? getLe32(bytes) : 0);
                break;
            case OP_SEND:
                receive(arg, bytes, len);
                break;
            default:
                break;
        }
    }

    void receive(uint32_t dest, const unsigned char* bytes, size_t len) {
        std::string line = "RX to=" + std::to_string(dest) + " len=" + std::to_string(len) + " " +
                           hex(bytes, len);
        mReceived.push_back(line);
        if (mLog != nullptr) {
            fprintf(mLog, "%s\n", line.c_str());
            fflush(mLog);
        }
        // An identification request: TLV tag 1 right after the netlink header.
        if (len >= 32 && getLe32(bytes + 16) == static_cast<uint32_t>(kTagRegister)) {
            if (mMode == "auto") {
                sendIdentification();
            } else if (mMode == "delay") {
                mIdentifyAt = nowMs() + mDelayMs;
            }
        }
    }

    bool deliver(const std::vector<unsigned char>& message) {
        if (mClient < 0) return false;
        std::vector<unsigned char> rec;
        appendLe32(&rec, OP_DELIVER);
        appendLe32(&rec, 0);
        rec.insert(rec.end(), message.begin(), message.end());
        for (;;) {
            if (send(mClient, rec.data(), rec.size(), MSG_NOSIGNAL) >= 0) return true;
            if (errno != EAGAIN && errno != EINTR && errno != ENOBUFS) return false;
        }
    }

    void sendIdentification() {
        if (deliver(netlinkMessage(tlv(kTagRegister, kKernelId, 0, 0, {})))) {
            mIdentified = true;
            note("IDENTIFIED");
        }
    }

    void note(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        if (mLog == nullptr) return;
        va_list ap;
        va_start(ap, fmt);
        fprintf(mLog, "# ");
        vfprintf(mLog, fmt, ap);
        fprintf(mLog, "\n");
        fflush(mLog);
        va_end(ap);
    }

    static void writeReply(int fd, const std::string& reply) {
        // SEQPACKET: one reply per message, split only if very large.
        size_t off = 0;
        do {
            size_t chunk = reply.size() - off < 60000 ? reply.size() - off : 60000;
            if (send(fd, reply.data() + off, chunk, MSG_NOSIGNAL) < 0) return;
            off += chunk;
        } while (off < reply.size());
    }

    void serveControl() {
        int fd = accept4(mCtlFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        struct timeval tv = {2, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        char buf[65536];
        ssize_t n = recv(fd, buf, sizeof(buf) - 1, 0);
        if (n <= 0) {
            close(fd);
            return;
        }
        buf[n] = '\0';
        std::istringstream in(buf);
        std::vector<std::string> args;
        std::string word;
        while (in >> word) args.push_back(word);
        std::string reply;
        if (!command(fd, args, &reply)) return;  // deferred reply
        writeReply(fd, reply);
        close(fd);
        if (!mStampedEvent.empty()) {
            // Stamped events leave only after the answer, so the caller is
            // already waiting and nothing else of ours competes with the delivery.
            std::vector<unsigned char> msg;
            std::string ignored;
            if (makeEvent(mStampedEvent, 1, &msg, &ignored) && deliver(msg)) ++mSent;
            mStampedEvent.clear();
        }
    }

    static bool toInt(const std::string& s, long* out) {
        char* end = nullptr;
        errno = 0;
        long v = strtol(s.c_str(), &end, 0);
        if (errno != 0 || end == s.c_str() || *end != '\0') return false;
        *out = v;
        return true;
    }

    bool makeEvent(const std::vector<std::string>& a, size_t at, std::vector<unsigned char>* msg,
                   std::string* error) {
        long x, y;
        if (a.size() >= at + 3 && a[at] == "binder-call" && toInt(a[at + 1], &x) &&
            toInt(a[at + 2], &y)) {
            char text[64];
            snprintf(text, sizeof(text), "[TPID %ld CALLED][PID %ld]", x, y);
            *msg = eventMessage(kKindBinderCall, text);
            return true;
        }
        if (a.size() >= at + 3 && a[at] == "kill" && toInt(a[at + 1], &x) && toInt(a[at + 2], &y)) {
            char text[64];
            snprintf(text, sizeof(text), "[PID %ld KILLED][SIG %ld]", x, y);
            *msg = eventMessage(kKindKill, text);
            return true;
        }
        if (a.size() >= at + 2 && a[at] == "kind" && toInt(a[at + 1], &x)) {
            std::string text;
            for (size_t i = at + 2; i < a.size(); ++i) text += (i > at + 2 ? " " : "") + a[i];
            // "@now": the CLOCK_MONOTONIC time of sending in ns, for latency measurements.
            size_t at = text.find("@now");
            if (at != std::string::npos) {
                struct timespec ts;
                clock_gettime(CLOCK_MONOTONIC, &ts);
                text.replace(
                        at, 4,
                        std::to_string(static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec));
            }
            *msg = eventMessage(static_cast<int>(x), text);
            return true;
        }
        *error = "usage: binder-call TARGET CALLER | kill PID SIG | kind KIND [TEXT...]";
        return false;
    }

    // Returns false when the reply is deferred (the waiter owns fd).
    bool command(int fd, const std::vector<std::string>& a, std::string* reply) {
        std::string error;
        long x = 0, y = 0, z = 0, w = 0;
        const std::string cmd = a.empty() ? "" : a[0];
        auto needClient = [&]() {
            if (mClient < 0) error = "no daemon connected";
            return mClient >= 0;
        };
        std::ostringstream out;
        if (cmd == "status") {
            out << "connected=" << (mClient >= 0) << " pid=" << mClientPid << " bound=" << mBoundPid
                << " identified=" << mIdentified << " received=" << mReceived.size()
                << " sent=" << mSent << " mode=" << mMode << "\n";
        } else if (cmd == "identify") {
            if (needClient()) sendIdentification();
        } else if (cmd == "identify-mode" && a.size() >= 2 &&
                   (a[1] == "auto" || a[1] == "hold" ||
                    (a[1] == "delay" && a.size() >= 3 && toInt(a[2], &x)))) {
            mMode = a[1];
            if (a[1] == "delay") mDelayMs = static_cast<int>(x);
        } else if (cmd == "event") {
            std::vector<unsigned char> msg;
            bool stamped = false;
            for (const std::string& word : a)
                stamped = stamped || word.find("@now") != std::string::npos;
            if (makeEvent(a, 1, &msg, &error) && needClient() && stamped) {
                mStampedEvent = a;
            } else if (error.empty()) {
                if (deliver(msg))
                    ++mSent;
                else
                    error = "send failed";
            }
        } else if (cmd == "flood" && a.size() >= 2 && toInt(a[1], &x) && x > 0) {
            std::vector<unsigned char> msg;
            if (makeEvent(a, 2, &msg, &error) && needClient()) {
                long i = 0;
                for (; i < x && deliver(msg); ++i) ++mSent;
                out << "sent " << i << "\n";
            }
        } else if (cmd == "send" && a.size() >= 4 && toInt(a[1], &x) && toInt(a[2], &y) &&
                   toInt(a[3], &z)) {
            std::vector<unsigned char> payload;
            if (a.size() >= 5 && !unhex(a[4], &payload)) {
                error = "bad hex";
            } else if (needClient()) {
                deliver(netlinkMessage(tlv(static_cast<int>(x), static_cast<int>(y),
                                           static_cast<int>(z), static_cast<int>(payload.size()),
                                           payload)));
                ++mSent;
            }
        } else if (cmd == "send-tlv" && a.size() >= 5 && toInt(a[1], &x) && toInt(a[2], &y) &&
                   toInt(a[3], &z) && toInt(a[4], &w)) {
            std::vector<unsigned char> payload;
            if (a.size() >= 6 && !unhex(a[5], &payload)) {
                error = "bad hex";
            } else if (needClient()) {
                deliver(netlinkMessage(tlv(static_cast<int>(x), static_cast<int>(y),
                                           static_cast<int>(z), static_cast<int>(w), payload)));
                ++mSent;
            }
        } else if (cmd == "raw" && a.size() >= 2) {
            std::vector<unsigned char> bytes;
            if (!unhex(a[1], &bytes)) {
                error = "bad hex";
            } else if (needClient()) {
                deliver(bytes);
                ++mSent;
            }
        } else if (cmd == "dump-received") {
            for (const std::string& line : mReceived) out << line << "\n";
        } else if (cmd == "clear") {
            mReceived.clear();
        } else if ((cmd == "wait-received" && a.size() >= 2 && toInt(a[1], &x)) ||
                   cmd == "wait-connected" || cmd == "wait-identified") {
            long timeout = 5000;
            size_t t = cmd == "wait-received" ? 2 : 1;
            if (a.size() > t && !toInt(a[t], &timeout)) timeout = 5000;
            mWaiters.push_back({fd, nowMs() + timeout, static_cast<size_t>(x),
                                cmd == "wait-connected", cmd == "wait-identified"});
            return false;
        } else if (cmd == "quit") {
            mQuit = true;
        } else {
            error = "unknown command; see tools/kmodsim/README.md";
        }
        *reply = error.empty() ? "OK\n" + out.str() : "ERR " + error + "\n";
        return true;
    }

    int mDataFd;
    int mCtlFd;
    FILE* mLog;
    std::string mMode;
    int mDelayMs;
    int mClient = -1;
    int mClientPid = 0;
    uint32_t mBoundPid = 0;
    bool mIdentified = false;
    int64_t mIdentifyAt = 0;
    long mSent = 0;
    bool mQuit = false;
    std::vector<std::string> mReceived;
    std::vector<Waiter> mWaiters;
    std::vector<std::string> mStampedEvent;  // an event sent after the answer
};

const char* envOr(const char* name, const char* fallback) {
    const char* v = getenv(name);
    return v != nullptr && v[0] != '\0' ? v : fallback;
}

int usage() {
    fprintf(stderr,
            "usage: kmodsim serve [--sock ADDR] [--ctl ADDR] [--log FILE]\n"
            "                     [--identify auto|hold|delay:MS]\n"
            "       kmodsim [--ctl ADDR] COMMAND [ARGS...]   (see README.md)\n"
            "ADDR: a path, or @name for the abstract namespace. Defaults from\n"
            "KMODSIM_SOCKET and KMODSIM_CTL.\n");
    return 2;
}

int serve(int argc, char** argv) {
    std::string sock = envOr("KMODSIM_SOCKET", "@kmodsim");
    std::string ctl = envOr("KMODSIM_CTL", "@kmodsim-ctl");
    std::string logPath;
    std::string mode = "auto";
    int delayMs = 0;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc) return usage();
        std::string v = argv[++i];
        if (a == "--sock")
            sock = v;
        else if (a == "--ctl")
            ctl = v;
        else if (a == "--log")
            logPath = v;
        else if (a == "--identify") {
            if (v.rfind("delay:", 0) == 0) {
                mode = "delay";
                delayMs = atoi(v.c_str() + 6);
            } else if (v == "auto" || v == "hold") {
                mode = v;
            } else {
                return usage();
            }
        } else {
            return usage();
        }
    }
    signal(SIGPIPE, SIG_IGN);
    FILE* log = nullptr;
    if (!logPath.empty()) {
        log = fopen(logPath.c_str(), "a");
        if (log == nullptr) {
            fprintf(stderr, "kmodsim: cannot open %s: %s\n", logPath.c_str(), strerror(errno));
            return 1;
        }
    }
    int dataFd = listenOn(sock);
    int ctlFd = listenOn(ctl);
    if (dataFd < 0 || ctlFd < 0) return 1;
    Simulator sim(dataFd, ctlFd, log, mode, delayMs);
    sim.run();
    if (sock[0] != '@') unlink(sock.c_str());
    if (ctl[0] != '@') unlink(ctl.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    if (strcmp(argv[1], "serve") == 0) return serve(argc - 2, argv + 2);
    std::string ctl = envOr("KMODSIM_CTL", "@kmodsim-ctl");
    int first = 1;
    if (strcmp(argv[1], "--ctl") == 0) {
        if (argc < 4) return usage();
        ctl = argv[2];
        first = 3;
    }
    std::string line;
    for (int i = first; i < argc; ++i) line += (i > first ? " " : "") + std::string(argv[i]);
    std::string reply;
    if (!kmodsim::Control(ctl).request(line, &reply)) {
        fprintf(stderr, "kmodsim: no simulator at %s\n", ctl.c_str());
        return 1;
    }
    bool ok = reply.rfind("OK", 0) == 0;
    size_t eol = reply.find('\n');
    std::string rest = eol == std::string::npos ? "" : reply.substr(eol + 1);
    fputs(ok ? rest.c_str() : reply.c_str(), ok ? stdout : stderr);
    return ok ? 0 : 1;
}
