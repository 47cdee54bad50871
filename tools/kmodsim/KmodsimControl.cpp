#include "tools/kmodsim/KmodsimControl.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "tools/kmodsim/KmodsimWire.h"

namespace kmodsim {

bool Control::request(const std::string& line, std::string* reply) const {
    struct sockaddr_un addr;
    socklen_t len = makeAddress(mAddress.c_str(), &addr);
    if (len == 0) return false;
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), len) < 0 ||
        send(fd, line.data(), line.size(), MSG_NOSIGNAL) < 0) {
        close(fd);
        return false;
    }
    reply->clear();
    char buf[65536];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        reply->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return !reply->empty();
}

bool Control::ok(const std::string& line, std::string* out) const {
    std::string reply;
    if (!request(line, &reply) || reply.rfind("OK", 0) != 0) {
        if (out != nullptr) *out = reply;
        return false;
    }
    if (out != nullptr) {
        size_t eol = reply.find('\n');
        *out = eol == std::string::npos ? "" : reply.substr(eol + 1);
    }
    return true;
}

std::vector<std::vector<uint8_t>> Control::received() const {
    std::vector<std::vector<uint8_t>> messages;
    std::string out;
    if (!ok("dump-received", &out)) return messages;
    size_t pos = 0;
    while (pos < out.size()) {
        size_t eol = out.find('\n', pos);
        if (eol == std::string::npos) eol = out.size();
        std::string line = out.substr(pos, eol - pos);
        pos = eol + 1;
        size_t sp = line.rfind(' ');
        if (line.rfind("RX ", 0) != 0 || sp == std::string::npos) continue;
        std::vector<uint8_t> bytes;
        for (size_t i = sp + 1; i + 1 < line.size(); i += 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(line.substr(i, 2), nullptr, 16)));
        }
        messages.push_back(bytes);
    }
    return messages;
}

SimProcess::~SimProcess() {
    stop();
}

bool SimProcess::start(const std::string& binary, const std::string& sockAddress,
                       const std::string& ctlAddress, const std::string& identify,
                       const std::string& logPath, const std::vector<std::string>& prefix) {
    stop();
    mCtl = ctlAddress;
    mPid = fork();
    if (mPid < 0) return false;
    if (mPid == 0) {
        std::vector<std::string> args = prefix;
        for (const std::string& a :
             {binary, std::string("serve"), std::string("--sock"), sockAddress,
              std::string("--ctl"), ctlAddress, std::string("--identify"), identify}) {
            args.push_back(a);
        }
        if (!logPath.empty()) {
            args.push_back("--log");
            args.push_back(logPath);
        }
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    for (int i = 0; i < 500; ++i) {
        if (Control(mCtl).ok("status")) return true;
        int status;
        if (waitpid(mPid, &status, WNOHANG) == mPid) {
            mPid = -1;
            return false;
        }
        struct timespec ts = {0, 10 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
    stop();
    return false;
}

void SimProcess::stop() {
    if (mPid <= 0) return;
    Control(mCtl).ok("quit");
    int status;
    for (int i = 0; i < 100; ++i) {
        if (waitpid(mPid, &status, WNOHANG) == mPid) {
            mPid = -1;
            return;
        }
        struct timespec ts = {0, 10 * 1000 * 1000};
        nanosleep(&ts, nullptr);
    }
    kill(mPid, SIGKILL);
    waitpid(mPid, &status, 0);
    mPid = -1;
}

}  // namespace kmodsim
