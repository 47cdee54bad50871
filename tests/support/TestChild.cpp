#include "tests/support/TestChild.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "tests/support/ToolRunner.h"

namespace qmedtest {

[[noreturn]] static void childBody(TestChild::Kind kind) {
    if (kind == TestChild::Kind::Busy) {
        volatile unsigned long x = 0;
        for (;;) x = x + 1;
    }
    for (;;) pause();
}

static void setupChild(const std::string& name, uid_t uid) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!name.empty()) prctl(PR_SET_NAME, name.c_str());
    if (uid != 0) {
        if (setgid(uid) || setuid(uid)) _exit(126);
    }
}

TestChild TestChild::spawn(Kind kind, const std::string& name, uid_t uid,
                           const std::string& argv0) {
    int sync[2];
    if (pipe2(sync, O_CLOEXEC)) return {};
    pid_t pid = fork();
    if (pid == 0) {
        close(sync[0]);
        setupChild(name, uid);
        if (!argv0.empty()) {
            // A real exec gives the child its own cmdline; sleep/yes keep it simple.
            const char* prog = kind == Kind::Busy ? "/usr/bin/yes" : "/bin/sleep";
            int devnull = open("/dev/null", O_WRONLY);
            if (devnull >= 0) dup2(devnull, 1);
            const char* arg1 = kind == Kind::Busy ? "y" : "100000";
            execl(prog, argv0.c_str(), arg1, (char*)nullptr);
            _exit(127);
        }
        close(sync[1]);
        childBody(kind);
    }
    close(sync[1]);
    char c;
    // The pipe closes on exec or when the child is set up.
    while (read(sync[0], &c, 1) < 0 && errno == EINTR) {
    }
    close(sync[0]);
    TestChild t;
    t.mPid = pid;
    t.mTree.push_back(pid);
    return t;
}

TestChild TestChild::spawnTree(Kind kind, int children, int grandchildren) {
    int report[2];
    if (pipe(report)) return {};
    // Each forked member reports its pid, then forks its own `n` children, all alike.
    std::function<void(int, int)> grow = [&](int n, int below) {
        for (int i = 0; i < n; ++i) {
            if (fork() != 0) continue;
            setupChild("qmedtree", 0);
            pid_t me = getpid();
            if (write(report[1], &me, sizeof(me)) != sizeof(me)) _exit(1);
            grow(below, 0);
            close(report[1]);
            childBody(kind);
        }
    };
    TestChild t;
    t.mPid = fork();
    if (t.mPid == 0) {
        close(report[0]);
        setupChild("qmedtree", 0);
        grow(children, grandchildren);
        close(report[1]);
        childBody(kind);
    }
    close(report[1]);
    t.mTree.push_back(t.mPid);
    for (pid_t p; t.mTree.size() <= size_t(children + children * grandchildren) &&
                  read(report[0], &p, sizeof(p)) == sizeof(p);)
        t.mTree.push_back(p);
    close(report[0]);
    return t;
}

TestChild TestChild::run(const std::function<void()>& body) {
    TestChild t;
    t.mPid = fork();
    if (t.mPid == 0) {
        setupChild("", 0);
        body();
        _exit(0);
    }
    t.mTree.push_back(t.mPid);
    return t;
}

// A frozen task ignores SIGKILL: thaw the daemon's groups under /dev/frz holding it.
static void thawGroupOf(pid_t pid) {
    DIR* d = opendir("/dev/frz");
    while (struct dirent* e = d ? readdir(d) : nullptr) {
        std::string g = std::string("/dev/frz/") + e->d_name;
        std::string tasks = "\n" + readFile(g + "/tasks");
        if (e->d_name[0] != '.' &&
            tasks.find("\n" + std::to_string(pid) + "\n") != std::string::npos)
            writeFile(g + "/freezer.state", "THAWED");
    }
    if (d) closedir(d);
}

TestChild::TestChild(TestChild&& o) noexcept : mPid(o.mPid), mTree(std::move(o.mTree)) {
    o.mPid = -1;
    o.mTree.clear();
}

TestChild& TestChild::operator=(TestChild&& o) noexcept {
    if (this != &o) {
        kill();
        mPid = o.mPid;
        mTree = std::move(o.mTree);
        o.mPid = -1;
        o.mTree.clear();
    }
    return *this;
}

TestChild::~TestChild() {
    kill();
}

void TestChild::kill(int sig) {
    if (mPid <= 0) return;
    for (auto it = mTree.rbegin(); it != mTree.rend(); ++it) {
        if (sig == SIGKILL) thawGroupOf(*it);
        ::kill(*it, SIGCONT);
        ::kill(*it, sig);
    }
    if (sig == SIGKILL && !reap(5000))
        fprintf(stderr, "qmedtest: child %d outlived SIGKILL\n", mPid);
}

bool TestChild::reap(int timeoutMs) {
    if (mPid <= 0) return true;
    bool done = waitUntil([&] { return waitpid(mPid, nullptr, WNOHANG) == mPid; }, timeoutMs);
    if (done) {
        mPid = -1;
        mTree.clear();
    }
    return done;
}

// /proc/PID/stat: state, and utime + stime scaled by (user, sys); '?' / -1 when gone.
static long statField(pid_t pid, int user, int sys, char* state = nullptr) {
    std::string s = readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = s.rfind(')');
    char st = '?';
    long ut = -1, sy = -1;
    // state ppid pgrp session tty tpgid flags minflt cminflt majflt cmajflt utime stime
    if (close == std::string::npos ||
        sscanf(s.c_str() + close + 1, " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &st,
               &ut, &sy) != 3)
        return (state && (*state = '?')), -1;
    if (state) *state = st;
    return user * ut + sys * sy;
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
    char st = procState(pid);
    return st != '?' && st != 'Z' && st != 'X';
}

}  // namespace qmedtest
