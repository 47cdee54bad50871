#include "tests/support/ToolRunner.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

#include "tests/support/TestChild.h"

namespace qmedtest {

std::string binDir() {
    char buf[PATH_MAX] = {};
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    std::string p(buf, n > 0 ? n : 0);
    return n <= 0 ? "." : p.substr(0, p.rfind('/'));
}

std::string toolPath(const std::string& name) {
    return binDir() + "/" + name;
}

std::vector<std::string> emulatorPrefix() {
    std::vector<std::string> out;
    std::istringstream in(getenv("QMED_EMULATOR") ? getenv("QMED_EMULATOR") : "");
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

static void setupChild(const std::string& name, uid_t uid) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!name.empty()) prctl(PR_SET_NAME, name.c_str());
    if (uid != 0 && (setgid(uid) || setuid(uid))) _exit(126);
}

pid_t forkExec(const std::vector<std::string>& argv, const RunOptions& opts, int out, int err) {
    pid_t pid = fork();
    if (pid != 0) return pid;
    setupChild("", opts.uid);
    setpgid(0, 0);
    int in = open("/dev/null", O_RDONLY);
    if (in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    for (auto& kv : opts.env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

bool reapWithin(pid_t& pid, int timeoutMs, int* status) {
    int st = 0;
    if (pid > 0 && !waitUntil([&] { return waitpid(pid, &st, WNOHANG) == pid; }, timeoutMs))
        return false;
    if (pid > 0 && status) *status = st;
    pid = -1;
    return true;
}

ToolResult runCommand(const std::vector<std::string>& argv, const RunOptions& opts) {
    // Output goes to memory files: a tool's lingering child cannot hold the result back.
    int o = memfd_create("out", MFD_CLOEXEC), e = memfd_create("err", MFD_CLOEXEC), st = 0;
    pid_t pid = o < 0 || e < 0 ? -1 : forkExec(argv, opts, o, e);
    bool forked = pid > 0, killed = false;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(opts.timeoutMs);
    for (; pid > 0 && waitpid(pid, &st, WNOHANG) != pid; usleep(1000)) {
        if (std::chrono::steady_clock::now() < end) continue;
        killed = true;
        kill(-pid, SIGKILL);
        reapWithin(pid, 5000, &st);
        break;
    }
    auto slurp = [](int fd) {
        return fd < 0 ? "" : readFile("/proc/self/fd/" + std::to_string(fd));
    };
    ToolResult r{!forked         ? -1
                 : WIFEXITED(st) ? WEXITSTATUS(st)
                                 : 128 + WTERMSIG(st),
                 slurp(o), slurp(e)};
    if (killed) r.err += "\n[qmedtest: killed after timeout]";
    close(o), close(e);
    return r;
}

std::vector<std::string> toolArgv(const std::string& tool, const std::vector<std::string>& args) {
    std::vector<std::string> argv = emulatorPrefix();
    argv.push_back(toolPath(tool));
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

ToolResult runTool(const std::string& tool, const std::vector<std::string>& args,
                   const RunOptions& opts) {
    return runCommand(toolArgv(tool, args), opts);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(out << text);
}

static std::mutex gSpawnLock;

[[noreturn]] static void childBody(TestChild::Kind kind) {
    for (volatile unsigned long x = 0; kind == TestChild::Kind::Busy;) x = x + 1;
    for (;;) pause();
}

TestChild TestChild::spawn(Kind kind, const std::string& name, uid_t uid,
                           const std::string& argv0) {
    // One spawn at a time: a child forked meanwhile would hold the other's pipe open.
    std::lock_guard<std::mutex> one(gSpawnLock);
    int sync[2];
    if (pipe2(sync, O_CLOEXEC)) return {};
    TestChild t = run([&] {
        setupChild(name, uid);
        bool busy = kind == Kind::Busy;
        if (!argv0.empty() && dup2(open("/dev/null", O_WRONLY), 1) == 1)
            execl(busy ? "/usr/bin/yes" : "/bin/sleep", argv0.c_str(), busy ? "y" : "100000",
                  nullptr);
        close(sync[1]);
        childBody(kind);
    });
    char c;
    close(sync[1]);
    TEMP_FAILURE_RETRY(read(sync[0], &c, 1));  // closed once the child is set up or exec'd
    close(sync[0]);
    return t;
}

TestChild TestChild::spawnTree(Kind kind, int children, int grandchildren) {
    std::lock_guard<std::mutex> one(gSpawnLock);
    int report[2];
    if (pipe(report)) return {};
    // Each member names itself, reports its pid (not the root), forks its own, then idles.
    std::function<void(int, int, bool)> member = [&](int n, int below, bool tell) {
        setupChild("qmedtree", 0);
        pid_t me = getpid();
        if (tell && write(report[1], &me, sizeof(me)) != sizeof(me)) _exit(1);
        for (int i = 0; i < n; ++i)
            if (fork() == 0) member(below, 0, true);
        close(report[1]);
        childBody(kind);
    };
    TestChild t = run([&] { member(children, grandchildren, false); });
    close(report[1]);
    for (pid_t p; t.mTree.size() <= size_t(children + children * grandchildren) &&
                  read(report[0], &p, sizeof(p)) == sizeof(p);)
        t.mTree.push_back(p);
    close(report[0]);
    return t;
}

TestChild TestChild::run(const std::function<void()>& body) {
    TestChild t;
    if ((t.mPid = fork()) == 0) {
        setupChild("", 0);
        body();
        _exit(0);
    }
    t.mTree.push_back(t.mPid);
    return t;
}

TestChild& TestChild::operator=(TestChild&& o) noexcept {
    if (this != &o) {
        kill();
        mPid = std::exchange(o.mPid, -1);
        mTree = std::exchange(o.mTree, {});
    }
    return *this;
}

void TestChild::kill(int sig) {
    if (mPid <= 0) return;
    for (auto it = mTree.rbegin(); it != mTree.rend(); ++it) {
        // A frozen task ignores SIGKILL: thaw any /dev/frz group holding it.
        std::error_code ec;
        auto groups = std::filesystem::directory_iterator(sig == SIGKILL ? "/dev/frz" : "", ec);
        for (const auto& g : groups) {
            std::string tasks = "\n" + readFile(g.path().string() + "/tasks");
            if (tasks.find("\n" + std::to_string(*it) + "\n") != tasks.npos)
                writeFile(g.path().string() + "/freezer.state", "THAWED");
        }
        ::kill(*it, SIGCONT);
        ::kill(*it, sig);
    }
    if (sig == SIGKILL && !reap(5000)) fprintf(stderr, "qmedtest: %d outlived SIGKILL\n", mPid);
}

bool TestChild::reap(int timeoutMs) {
    if (!reapWithin(mPid, timeoutMs)) return false;
    mTree.clear();
    return true;
}

// utime + stime of /proc/PID/stat scaled by (user, sys), and its state; '?' / -1 when gone.
static long statField(pid_t pid, int user, int sys, char* state = nullptr) {
    std::string s = readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = s.rfind(')');
    char st = '?';
    long ut = -1, sy = -1;
    // state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt utime stime
    bool ok = close != std::string::npos &&
              sscanf(s.c_str() + close + 1, " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld",
                     &st, &ut, &sy) == 3;
    if (state) *state = ok ? st : '?';
    return ok ? user * ut + sys * sy : -1;
}

char procState(pid_t pid) {
    char st;
    statField(pid, 0, 0, &st);
    return st;
}
long procUtime(pid_t pid) {
    return statField(pid, 1, 0);
}
long procCpuTicks(pid_t pid) {
    return statField(pid, 1, 1);
}
bool processExists(pid_t pid) {
    return strchr("?ZX", procState(pid)) == nullptr;
}

}  // namespace qmedtest
