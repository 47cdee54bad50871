// A binder service for the host platform tests, served from a forked child.
#pragma once

#include <binder/Binder.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace qmedtest {

constexpr const char* kTestDescriptor = "qmed.test.ITestService";

enum TestCode : uint32_t {
    ECHO_PLUS_ONE = 1,  // i32 -> i32 + 1
    WHO_CALLS = 2,      // -> calling uid, calling pid
    CALL_BACK = 3,      // binder, i32 -> what RECORD of the i32 on that binder answered
    RETURN_BINDER = 4,  // binder -> the same binder
    RECORD = 5,         // i32 -> adds it; count and sum (i64) of all added so far
    BIG_REPLY = 7,      // i32 size -> that many bytes of 0x5a
    BARRIER = 8,        // i32 parties -> most calls seen inside at once
    FAIL_WITH = 9,      // ..., i32 status -> the last word, returned from onTransact
    TOKEN_ECHO = 12,    // interface token, rest -> no-exception marker, rest
};

// The service as a local object, e.g. a callback target.
android::sp<android::BBinder> newTestService();

// Gives this process and its children an abstract binder namespace of their own.
void useUniqueBinderNamespace();

// The test service registered as `name` by a forked child with a started thread pool;
// stopped (SIGTERM, then SIGKILL) and reaped on destruction.
class ServiceChild {
  public:
    explicit ServiceChild(const std::string& name);
    ~ServiceChild();
    pid_t pid() const { return mPid; }  // -1 when it did not come up
    void kill();                        // SIGKILL, as a crash would

  private:
    pid_t mPid = -1;
};

// Runs fn in a forked child switched to uid (and gid) when not 0. Returns its exit code, or
// -1 when it crashed or ran longer than timeoutMs.
int runInChild(uid_t uid, const std::function<int()>& fn, int timeoutMs = 10000);

}  // namespace qmedtest
