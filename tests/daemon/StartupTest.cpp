// Command line and debug property of the entry sequence.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "daemon/Zoqmed.h"

namespace {

// Runs parse_args on a fresh getopt state and returns what it printed.
int parse(std::vector<std::string> args, std::string* out) {
    args.insert(args.begin(), "ykqmed");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    optind = 0;  // full getopt reset
    opterr = 0;
    fflush(stdout);
    char path[] = "/tmp/qmed-args-XXXXXX";
    int fd = mkstemp(path);
    int saved = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    int result = parse_args(static_cast<int>(args.size()), argv.data());
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::ifstream in(path);
    out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    close(fd);
    unlink(path);
    return result;
}

class Startup : public ::testing::Test {
  protected:
    void TearDown() override {
        vp_type = 0;
        bDebug = false;
    }
};

TEST_F(Startup, VersionQueryPrintsOncePerFlag) {
    std::string out;
    EXPECT_EQ(-1, parse({"-v"}, &out));
    EXPECT_EQ("version 13.0.13\n", out);
    EXPECT_EQ(-1, parse({"-v", "-v"}, &out));
    EXPECT_EQ("version 13.0.13\nversion 13.0.13\n", out);
    EXPECT_EQ(0, parse({}, &out));
    EXPECT_EQ("", out);
}

TEST_F(Startup, TypeOptionInEitherOrderAndLastWins) {
    std::string out;
    EXPECT_EQ(-1, parse({"-v", "-t", "3"}, &out));
    EXPECT_EQ(3, vp_type);
    vp_type = 0;
    EXPECT_EQ(-1, parse({"-t", "3", "-v"}, &out));
    EXPECT_EQ(3, vp_type);
    EXPECT_EQ(0, parse({"-t", "1", "-t", "7"}, &out));
    EXPECT_EQ(7, vp_type);
    EXPECT_EQ(0, parse({"-t", "abc"}, &out));
    EXPECT_EQ(0, vp_type);
    EXPECT_EQ(0, parse({"-t", "-2"}, &out));
    EXPECT_EQ(-2, vp_type);
    EXPECT_EQ(0, parse({"-t5"}, &out));
    EXPECT_EQ(5, vp_type);
}

TEST_F(Startup, UnknownOptionsAreIgnored) {
    std::string out;
    EXPECT_EQ(0, parse({"-x", "-t", "4", "-q"}, &out));
    EXPECT_EQ(4, vp_type);
    EXPECT_EQ("", out);
    // -t without its argument changes nothing.
    vp_type = 9;
    EXPECT_EQ(0, parse({"-t"}, &out));
    EXPECT_EQ(9, vp_type);
}

TEST_F(Startup, TypeLogsOnlyWithDebug) {
    qmed::host::LogCapture logs;
    std::string out;
    parse({"-t", "6"}, &out);
    EXPECT_FALSE(logs.contains("vp_type=6"));
    bDebug = true;
    parse({"-t", "6"}, &out);
    EXPECT_TRUE(logs.contains("D/Qmed-Zoqmed: vp_type=6"));
}

TEST_F(Startup, OnlyExactLowerCaseTrueEnablesDebug) {
    char path[] = "/tmp/qmed-props-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    setenv("QMED_PROPERTY_FILE", path, 1);
    struct Case {
        const char* line;
        bool expected;
    };
    const std::vector<Case> cases = {
            {"persist.sys.qmed.debug=true\n", true},
            {"persist.sys.qmed.debug=True\n", false},
            {"persist.sys.qmed.debug=true \n", false},
            {"persist.sys.qmed.debug=true x\n", false},
            {"persist.sys.qmed.debug=true1\n", false},
            {"persist.sys.qmed.debug=TRUE\n", false},
            {"persist.sys.qmed.debug=1\n", false},
            {"persist.sys.qmed.debug=\n", false},
            {"", false},
    };
    for (const Case& c : cases) {
        std::ofstream(path, std::ios::trunc) << c.line;
        bDebug = !c.expected;
        readDebugProperty();
        EXPECT_EQ(c.expected, bDebug) << c.line;
    }
    unsetenv("QMED_PROPERTY_FILE");
    unlink(path);
}

}  // namespace
