// A binder service run in a forked child for the host platform tests.
#pragma once

#include <binder/Binder.h>
#include <binder/IBinder.h>
#include <sys/types.h>

#include <string>

namespace platformtest {

constexpr const char* kTestDescriptor = "qmed.test.ITestService";

enum TestCode : uint32_t {
    ECHO_PLUS_ONE = 1,  // i32 -> i32 + 1
    WHO_CALLS = 2,      // -> calling uid, calling pid
    CALL_BACK = 3,      // binder, i32 -> result of calling ECHO_PLUS_ONE on the binder
    RETURN_BINDER = 4,  // binder -> the same binder
    RECORD = 5,         // i32 (one-way) -> stored
    GET_RECORDS = 6,    // -> count, sum of stored values
    BIG_REPLY = 7,      // i32 size -> that many bytes
    BARRIER = 8,        // i32 parties -> most calls seen inside at once
    FAIL_WITH = 9,      // i32 status -> returned from onTransact
    GET_PID = 10,       // -> server pid
    READ_FD = 11,       // fd -> bytes read from it as a String8
    TOKEN_ECHO = 12,    // interface token, then echoes the rest of the data
    TOKEN_FAIL = 13,    // interface token, i32 status -> returned from onTransact
};

// Forks a child that adds `name` and serves it with a started thread pool. Returns the
// child's pid once the service is registered.
pid_t forkTestService(const std::string& name);

// Uses a fresh abstract namespace for this process and its children.
void useUniqueBinderNamespace();

// A local object answering ECHO_PLUS_ONE, as a callback target.
class EchoBinder : public android::BBinder {
  public:
    int calls = 0;

  protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;
};

}  // namespace platformtest
