// A binder service for the host platform tests, served from a forked child.
#pragma once

#include <binder/Binder.h>

#include <functional>
#include <string>

namespace qmedtest {

constexpr const char* kTestDescriptor = "qmed.test.ITestService";

enum TestCode : uint32_t {
    ECHO_PLUS_ONE = 1,  // i32 -> i32 + 1
    WHO_CALLS = 2,      // -> calling uid, calling pid
    CALL_BACK = 3,      // binder, i32 -> the reply of RECORD i32 on that binder
    RETURN_BINDER = 4,  // binder -> the same binder
    RECORD = 5,         // i32 -> adds it; count and (i64) sum of all added so far
    BIG_REPLY = 7,      // i32 size -> that many bytes of 0x5a
    BARRIER = 8,        // i32 parties -> most calls seen inside at once
    FAIL_WITH = 9,      // ..., i32 status -> 123, and the last word as the status
    TOKEN_ECHO = 12,    // interface token, rest -> no-exception marker, rest
};

android::sp<android::BBinder> newTestService();
void useUniqueBinderNamespace();  // for this process and the children it forks

// A forked child serving the test service as `name`; stopped and reaped on destruction.
class ServiceChild {
  public:
    explicit ServiceChild(const std::string& name);
    ~ServiceChild();
    void kill();  // SIGKILL, as a crash would

  private:
    pid_t mPid = -1;
};

// Runs fn in a forked child switched to uid (and gid); its exit code, -1 on crash or timeout.
int runInChild(uid_t uid, const std::function<int()>& fn, int timeoutMs = 10000);

}  // namespace qmedtest
