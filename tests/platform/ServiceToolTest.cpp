#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tests/platform/TestService.h"
#include "tests/support/ToolRunner.h"

using namespace platformtest;

namespace {

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

std::string hexWord(uint32_t v) {
    char buf[16];
    snprintf(buf, sizeof(buf), "%08x", v);
    return buf;
}

std::string chars(uint32_t v) {
    std::string s;
    for (int i = 0; i < 4; i++) {
        const unsigned char c = (v >> (8 * i)) & 0xff;
        s += (c >= ' ' && c < 127) ? char(c) : '.';
    }
    return s;
}

class ServiceToolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        useUniqueBinderNamespace();
        mServer = forkTestService("tool.svc");
        ASSERT_GT(mServer, 0);
    }
    void TearDown() override {
        kill(mServer, SIGKILL);
        waitpid(mServer, nullptr, 0);
    }
    ToolRun run(const std::string& args) {
        std::vector<std::string> argv;
        std::istringstream in(args);
        std::string word;
        while (in >> word) argv.push_back(word);
        qmedtest::ToolResult r = qmedtest::runTool("service", argv);
        return ToolRun{r.exitCode, r.out, r.err};
    }
    pid_t mServer = -1;
};

TEST_F(ServiceToolTest, CallPrintsReplyInPlatformHexForm) {
    ToolRun r = run("call tool.svc 1 i32 41");
    EXPECT_EQ(0, r.status);
    // The interface token's strict-mode word is what ECHO_PLUS_ONE reads.
    EXPECT_EQ("Result: Parcel(80000001    '....')\n", r.out);
    EXPECT_EQ("", r.err);

    // The call carries the interface token first; the service echoes what follows it.
    r = run("call tool.svc 12 i32 42");
    EXPECT_EQ("Result: Parcel(00000000 0000002a   '....*...')\n", r.out);

    r = run("call tool.svc 12 i32 1 i64 -2 s16 hi f 1.5 d 2.5 null");
    EXPECT_EQ(
            "Result: Parcel(\n"
            "  0x00000000: 00000000 00000001 fffffffe ffffffff '................'\n"
            "  0x00000010: 00000002 00690068 00000000 3fc00000 '....h.i........?'\n"
            "  0x00000020: 00000000 40040000 73622a85 00000000 '.......@.*bs....'\n"
            "  0x00000030: 00000000 00000000 00000000 00000000 '................')\n",
            r.out);
    EXPECT_EQ(0, r.status);

    r = run("call tool.svc 10");
    EXPECT_EQ("Result: Parcel(" + hexWord(uint32_t(mServer)) + "    '" + chars(mServer) + "')\n",
              r.out);
}

TEST_F(ServiceToolTest, FailedTransactPrintsNullResultAndStatus) {
    ToolRun r = run("call tool.svc 999");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Result: Parcel(NULL)\n", r.out);
    EXPECT_EQ("status: -74\n", r.err);

    r = run("call tool.svc 13 i32 -1");
    EXPECT_EQ("Result: Parcel(NULL)\n", r.out);
    EXPECT_EQ("status: -1\n", r.err);
}

TEST_F(ServiceToolTest, FdArgumentSendsAnOpenFile) {
    const std::string path = "/tmp/qmed-svc-fd-" + std::to_string(getpid());
    std::ofstream(path) << "abc";
    // TOKEN_ECHO returns the descriptor slot it received.
    ToolRun r = run("call tool.svc 12 fd " + path);
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("0x00000000: 00000000 66642a85")) << r.out;
    r = run("call tool.svc 12 fd /nonexistent/file");
    EXPECT_EQ(10, r.status);
    EXPECT_NE(std::string::npos, r.err.find("service: could not open '/nonexistent/file'"));
    unlink(path.c_str());
}

TEST_F(ServiceToolTest, MissingServiceListAndCheck) {
    ToolRun r = run("call no.such 1");
    EXPECT_EQ(10, r.status);
    EXPECT_EQ("service: Service no.such does not exist\n", r.err);
    EXPECT_EQ("", r.out);

    r = run("list");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Found 1 services:\n0\ttool.svc: [qmed.test.ITestService]\n", r.out);

    r = run("check tool.svc");
    EXPECT_EQ("Service tool.svc: found\n", r.out);
    r = run("check no.such");
    EXPECT_EQ("Service no.such: not found\n", r.out);

    r = run("call tool.svc 1 bogus 3");
    EXPECT_EQ(10, r.status);
    EXPECT_NE(std::string::npos, r.err.find("service: unknown option bogus"));
}

}  // namespace
