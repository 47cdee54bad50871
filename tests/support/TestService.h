// A binder service for the host platform tests, served from a forked child.
#pragma once

#include "tests/support/TestChild.h"

namespace qmedtest {

constexpr const char* kTestDescriptor = "qmed.test.ITestService";

enum TestCode : uint32_t {
    WHO_CALLS = 1,  // -> calling uid, calling pid
    RECORD,         // i32 -> adds it; count and (i64) sum of all added so far
    BIG_REPLY,      // i32 size -> that many bytes of 'Z'
    BARRIER,        // i32 parties -> most calls seen inside at once
    TOKEN_ECHO,     // interface token, rest -> no-exception marker, rest
};

// Serves the test service as `name` in a binder namespace of this test process. SIGTERM stops
// it cleanly (the service side writes its coverage counters), SIGKILL as a crash would.
TestChild serveTestService(const std::string& name);

}  // namespace qmedtest
