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

    // A child spinning (Busy) or sleeping, named name, running as uid when not 0;
    // with argv0 it execs yes(1) or sleep(1) under that argv[0] instead.
    static TestChild spawn(Kind kind, const std::string& name = "", uid_t uid = 0,
                           const std::string& argv0 = "");
    // A child with `children` children with `grandchildren` each; pids() lists all, root first.
    static TestChild spawnTree(Kind kind, int children, int grandchildren);
    static TestChild run(const std::function<void()>& body);  // runs body, then exits

    TestChild() = default;
    TestChild(TestChild&& other) noexcept { *this = std::move(other); }
    TestChild& operator=(TestChild&& other) noexcept;
    ~TestChild() { kill(); }

    pid_t pid() const { return mPid; }
    const std::vector<pid_t>& pids() const { return mTree; }
    // Sends sig to the whole tree; SIGKILL thaws it first and reaps the root.
    void kill(int sig = 9);
    bool reap(int timeoutMs);  // true when the root has exited

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
