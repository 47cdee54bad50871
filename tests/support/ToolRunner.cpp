#include "tests/support/ToolRunner.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace qmedtest {

std::string binDir() {
    const char* env = getenv("QMED_BIN_DIR");
    if (env && *env) return env;
    char buf[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) return ".";
    std::string p(buf, n);
    return p.substr(0, p.rfind('/'));
}

std::string toolPath(const std::string& name) {
    return binDir() + "/" + name;
}

std::vector<std::string> emulatorPrefix() {
    std::vector<std::string> out;
    const char* env = getenv("QMED_EMULATOR");
    if (!env) return out;
    std::istringstream in(env);
    std::string w;
    while (in >> w) out.push_back(w);
    return out;
}

static ToolResult spawnAndCollect(const std::vector<std::string>& argv, const RunOptions& opts) {
    ToolResult r;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) || pipe2(errPipe, O_CLOEXEC)) {
        r.err = "pipe failed";
        return r;
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        setpgid(0, 0);
        for (auto& kv : opts.env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
        if (opts.uid != 0) {
            if (setgid(opts.uid) || setuid(opts.uid)) _exit(126);
        }
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        fprintf(stderr, "exec %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);

    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(opts.timeoutMs);
    struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    int open = 2;
    bool killed = false;
    while (open > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
        if (left <= 0) {
            kill(-pid, SIGKILL);
            kill(pid, SIGKILL);
            killed = true;
            break;
        }
        if (poll(fds, 2, static_cast<int>(left)) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                (i == 0 ? r.out : r.err).append(buf, n);
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0) close(f.fd);
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status))
        r.exitCode = WEXITSTATUS(status);
    else if (WIFSIGNALED(status))
        r.exitCode = 128 + WTERMSIG(status);
    if (killed) r.err += "\n[qmedtest: killed after timeout]";
    return r;
}

ToolResult runTool(const std::string& tool, const std::vector<std::string>& args,
                   const RunOptions& opts) {
    std::vector<std::string> argv = emulatorPrefix();
    argv.push_back(toolPath(tool));
    argv.insert(argv.end(), args.begin(), args.end());
    return spawnAndCollect(argv, opts);
}

ToolResult runCommand(const std::vector<std::string>& argv, const RunOptions& opts) {
    return spawnAndCollect(argv, opts);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

}  // namespace qmedtest
