#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <log/log.h>
#include <stdlib.h>
#include <unistd.h>
#include <yklog/yklog.h>

#include <fstream>
#include <string>

#include "tests/support/ToolRunner.h"

namespace {

class PropertiesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/qmed-props-XXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        close(fd);
        mPath = path;
        setenv("QMED_PROPERTY_FILE", mPath.c_str(), 1);
    }
    void TearDown() override {
        unlink(mPath.c_str());
        unsetenv("QMED_PROPERTY_FILE");
    }
    void writeFile(const std::string& text) { std::ofstream(mPath) << text; }
    std::string get(const char* key, const char* def = "dflt") {
        char value[PROPERTY_VALUE_MAX];
        memset(value, 'Z', sizeof(value));
        const int len = property_get(key, value, def);
        EXPECT_EQ(size_t(len), strlen(value));
        return value;
    }
    std::string mPath;
};

TEST_F(PropertiesTest, MissingFileAndMissingKeyGiveDefault) {
    unlink(mPath.c_str());
    EXPECT_EQ("dflt", get("persist.sys.qmed.debug"));
    EXPECT_EQ("", get("persist.sys.qmed.debug", nullptr));
    writeFile("a.b=1\n");
    EXPECT_EQ("dflt", get("a.c"));
    EXPECT_EQ("dflt", get("a"));
    EXPECT_EQ(1, property_get_bool("a.c", 1));
    EXPECT_EQ(0, property_get_bool("a.c", 0));
}

TEST_F(PropertiesTest, ValuesAreReadFromTheFileOnEveryCall) {
    writeFile("# comment\n\n  persist.sys.qmed.debug=true\nro.x=first\nro.x=second\nempty=\n"
              "blank=true \r\n");
    EXPECT_EQ("true", get("persist.sys.qmed.debug"));
    // Values are taken as written: a trailing blank is part of the value.
    EXPECT_EQ("true ", get("blank"));
    EXPECT_EQ("second", get("ro.x"));
    // An empty value counts as unset, as on the platform.
    EXPECT_EQ("dflt", get("empty"));
    writeFile("persist.sys.qmed.debug=false\n");
    EXPECT_EQ("false", get("persist.sys.qmed.debug"));
}

TEST_F(PropertiesTest, ValueLengthLimitIsNinetyOneCharacters) {
    const std::string v91(91, 'v');
    const std::string v92(92, 'w');
    writeFile("ok=" + v91 + "\nlong=" + v92 + "\nro.long=" + v92 + "\n");
    EXPECT_EQ(v91, get("ok"));
    // Too long to be set on the platform: reads as unset.
    EXPECT_EQ("dflt", get("long"));
    // Read-only names may be longer there, but cannot be read this way.
    EXPECT_EQ("Must use __system_property_read_callback() to read", get("ro.long"));
    // Defaults are cut at 91 characters too.
    EXPECT_EQ(std::string(91, 'w'), get("missing", v92.c_str()));
}

TEST_F(PropertiesTest, BoolSpellingsMatchThePlatform) {
    writeFile(
            "t1=1\nt2=y\nt3=yes\nt4=true\nt5=on\n"
            "f1=0\nf2=n\nf3=no\nf4=false\nf5=off\n"
            "x1=TRUE\nx2=Y\nx3=2\nx4=yess\nx5=of\n");
    for (const char* k : {"t1", "t2", "t3", "t4", "t5"}) {
        EXPECT_EQ(1, property_get_bool(k, 0)) << k;
    }
    for (const char* k : {"f1", "f2", "f3", "f4", "f5"}) {
        EXPECT_EQ(0, property_get_bool(k, 1)) << k;
    }
    for (const char* k : {"x1", "x2", "x3", "x4", "x5"}) {
        EXPECT_EQ(1, property_get_bool(k, 1)) << k;
        EXPECT_EQ(0, property_get_bool(k, 0)) << k;
    }
}

TEST_F(PropertiesTest, IntegerValuesWithRangeChecks) {
    writeFile("i=42\nh=0x10\nneg=-5\nbig=3000000000\nbad=12ab\n");
    EXPECT_EQ(42, property_get_int32("i", -1));
    EXPECT_EQ(16, property_get_int32("h", -1));
    EXPECT_EQ(-5, property_get_int32("neg", -1));
    EXPECT_EQ(-1, property_get_int32("big", -1));
    EXPECT_EQ(3000000000LL, property_get_int64("big", -1));
    EXPECT_EQ(-1, property_get_int32("bad", -1));
    EXPECT_EQ(-1, property_get_int32("none", -1));
}

TEST(HostLogTest, CaptureSeesAllPrioritiesAndKernelLogRecords) {
    qmed::host::LogCapture capture;
    __android_log_print(ANDROID_LOG_DEBUG, "Qmed-Test", "debug %d", 1);
    __android_log_print(ANDROID_LOG_ERROR, "Qmed-Test", "error %s", "two");
    EXPECT_EQ(9, __yklog_write_kernel_printf(1, 2, "Qmed-PL", "rec %d %d", 10, 20));
    EXPECT_TRUE(capture.contains("D/Qmed-Test: debug 1"));
    EXPECT_TRUE(capture.contains("E/Qmed-Test: error two"));
    EXPECT_TRUE(capture.contains("I/Qmed-PL: rec 10 20"));
    EXPECT_EQ(1u, capture.count("Qmed-Test: error"));
    capture.clear();
    EXPECT_TRUE(capture.lines().empty());
}

TEST(HostLogTest, LogLevelComesFromEnvironmentBeforeMain) {
    // Runs the test binary again with a level set; its initialiser must have applied it.
    const char* level = getenv("QMED_LOG_LEVEL");
    if (level != nullptr && level[0] == 'e') {
        EXPECT_EQ(ANDROID_LOG_ERROR, __android_log_get_minimum_priority());
        return;
    }
    if (level == nullptr) {
        EXPECT_EQ(ANDROID_LOG_INFO, __android_log_get_minimum_priority());
    }
    qmedtest::RunOptions opts;
    opts.env["QMED_LOG_LEVEL"] = "e";
    qmedtest::ToolResult r = qmedtest::runTool(
            "platform_properties_test",
            {"--gtest_filter=HostLogTest.LogLevelComesFromEnvironmentBeforeMain"}, opts);
    EXPECT_EQ(0, r.exitCode) << r.out << r.err;
}

}  // namespace
