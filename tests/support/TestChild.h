#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace qmedtest {

// A forked child process for tests, killed and reaped on destruction.
class TestChild {
  public:
    enum class Kind { Busy, Sleep };

    // Forks a child that spins (Busy) or sleeps (Sleep). name is set with
    // PR_SET_NAME (15 chars max, may contain blanks or ')'); uid switches the
    // child's uid and gid when not 0; argv0 replaces /proc/PID/cmdline's first
    // argument when not empty: the child then execs yes(1) or sleep(1), whose
    // name is the program's, so name is only honoured without argv0.
    static TestChild spawn(Kind kind, const std::string& name = "", uid_t uid = 0,
                           const std::string& argv0 = "");
    // Forks a child that forks `children` children of the same kind, each
    // forking `grandchildren`; pids() lists the whole tree, root first.
    static TestChild spawnTree(Kind kind, int children, int grandchildren);
    // Forks a child that runs body and exits.
    static TestChild run(const std::function<void()>& body);

    TestChild() = default;
    TestChild(TestChild&& other) noexcept;
    TestChild& operator=(TestChild&& other) noexcept;
    TestChild(const TestChild&) = delete;
    TestChild& operator=(const TestChild&) = delete;
    ~TestChild();

    pid_t pid() const { return mPid; }
    const std::vector<pid_t>& pids() const { return mTree; }
    // Sends sig to the whole tree; SIGKILL thaws it first and reaps the root.
    void kill(int sig = 9);
    // Reaps the root without signalling; true when it has exited.
    bool reap(int timeoutMs);

  private:
    pid_t mPid = -1;
    std::vector<pid_t> mTree;
};

// /proc/PID/stat helpers; state is '?' and times -1 when the process is gone.
char procState(pid_t pid);
long procUtime(pid_t pid);     // user time in clock ticks
long procCpuTicks(pid_t pid);  // user + system time in clock ticks
bool processExists(pid_t pid);

}  // namespace qmedtest
