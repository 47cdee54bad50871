#include <android/log.h>
#include <binder/PermissionCache.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <unistd.h>
#include <yklog/yklog.h>

#include "tests/support/ToolRunner.h"

namespace {

const std::string kFile = "/tmp/qmed-props-" + std::to_string(getpid());

std::string get(const char* key, const char* def = "dflt") {
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'Z', sizeof(value));
    const int len = property_get(key, value, def);
    EXPECT_EQ(size_t(len), strlen(value)) << key;
    return value;
}

TEST(PropertiesTest, ValuesComeFromTheFileOnEveryCallAsThePlatformReadsThem) {
    setenv("QMED_PROPERTY_FILE", kFile.c_str(), 1);
    unlink(kFile.c_str());
    EXPECT_EQ("dflt", get("persist.sys.qmed.debug"));
    EXPECT_EQ("", get("persist.sys.qmed.debug", nullptr));
    const std::string v91(91, 'v'), v92(92, 'w');
    qmedtest::writeFile(
            kFile,
            "# comment\n\n  a.b=1\nro.x=first\nro.x=second\nempty=\n"
            "blank=true \r\nok=" +
                    v91 + "\nlong=" + v92 + "\nro.long=" + v92 +
                    "\nt1=1\nt2=y\nt3=yes\nt4=true\nt5=on\nf1=0\nf2=n\nf3=no\nf4=false\n"
                    "f5=off\nx1=TRUE\nx2=Y\nx3=2\nx4=yess\nx5=of\ni=42\nh=0x10\nneg=-5\n"
                    "big=3000000000\nbad=12ab\n");
    const struct {
        const char* key;
        std::string want;
    } rows[] = {
            {"a.b", "1"},
            {"a.c", "dflt"},
            {"a", "dflt"},
            {"ro.x", "second"},
            {"empty", "dflt"},   // an empty value counts as unset, as on the platform
            {"blank", "true "},  // values are taken as written
            {"ok", v91},
            {"long", "dflt"},  // too long to be set on the platform
            // Read-only names may be longer there, but cannot be read this way.
            {"ro.long", "Must use __system_property_read_callback() to read"},
    };
    for (const auto& r : rows) EXPECT_EQ(r.want, get(r.key)) << r.key;
    EXPECT_EQ(std::string(91, 'w'), get("missing", v92.c_str()));  // defaults are cut too
    for (const char* k : {"t1", "t2", "t3", "t4", "t5"}) EXPECT_EQ(1, property_get_bool(k, 0)) << k;
    for (const char* k : {"f1", "f2", "f3", "f4", "f5"}) EXPECT_EQ(0, property_get_bool(k, 1)) << k;
    for (const char* k : {"x1", "x2", "x3", "x4", "x5", "a.c"}) {
        EXPECT_EQ(1, property_get_bool(k, 1)) << k;
        EXPECT_EQ(0, property_get_bool(k, 0)) << k;
    }
    const std::pair<const char*, int> ints[] = {{"i", 42},   {"h", 16},   {"neg", -5},
                                                {"big", -1}, {"bad", -1}, {"none", -1}};
    for (const auto& [k, v] : ints) EXPECT_EQ(v, property_get_int32(k, -1)) << k;
    EXPECT_EQ(3000000000LL, property_get_int64("big", -1));
    qmedtest::writeFile(kFile, "ro.x=third\n");
    EXPECT_EQ("third", get("ro.x"));
    unlink(kFile.c_str());
}

TEST(PermissionCacheTest, RootAndOwnPidAlwaysOthersFromTheGrantsFileReadOnEveryCheck) {
    using android::PermissionCache;
    const android::String16 dump("android.permission.DUMP"), other("other.PERM");
    unsetenv("QMED_PERMISSION_FILE");
    EXPECT_TRUE(PermissionCache::checkPermission(dump, 1, 0));
    EXPECT_TRUE(PermissionCache::checkPermission(dump, getpid(), 1000));
    EXPECT_FALSE(PermissionCache::checkPermission(dump, 1, 1000));
    setenv("QMED_PERMISSION_FILE", kFile.c_str(), 1);
    qmedtest::writeFile(kFile, "# grants\n\nandroid.permission.DUMP 1000\nother.PERM 2000\n");
    EXPECT_TRUE(PermissionCache::checkPermission(dump, 1, 1000));
    EXPECT_FALSE(PermissionCache::checkPermission(dump, 1, 2000));
    EXPECT_TRUE(PermissionCache::checkPermission(other, 1, 2000));
    EXPECT_FALSE(
            PermissionCache::checkPermission(android::String16("android.permission"), 1, 1000));
    qmedtest::writeFile(kFile, "android.permission.DUMP 2000\n");
    EXPECT_FALSE(PermissionCache::checkPermission(dump, 1, 1000));
    EXPECT_TRUE(PermissionCache::checkPermission(dump, 1, 2000));
    unlink(kFile.c_str());
}

TEST(HostLogTest, CaptureSeesAllPrioritiesAndKernelLogRecordsAndLevelComesFromEnvironment) {
    // Runs this test again with a level set; its initialiser must have applied it before main.
    const char* level = getenv("QMED_LOG_LEVEL");
    if (level != nullptr && level[0] == 'e') {
        EXPECT_EQ(ANDROID_LOG_ERROR, __android_log_get_minimum_priority());
        return;
    }
    if (level == nullptr) EXPECT_EQ(ANDROID_LOG_INFO, __android_log_get_minimum_priority());
    qmed::host::LogCapture capture;
    __android_log_print(ANDROID_LOG_DEBUG, "Qmed-Test", "debug %d", 1);
    __android_log_print(ANDROID_LOG_ERROR, "Qmed-Test", "error %s", "two");
    EXPECT_EQ(9, __yklog_write_kernel_printf(1, 2, "Qmed-PL", "rec %d %d", 10, 20));
    EXPECT_TRUE(capture.contains("D/Qmed-Test: debug 1"));
    EXPECT_TRUE(capture.contains("I/Qmed-PL: rec 10 20"));
    EXPECT_EQ(1u, capture.count("E/Qmed-Test: error two"));
    capture.clear();
    EXPECT_TRUE(capture.lines().empty());
    qmedtest::RunOptions opts;
    opts.env["QMED_LOG_LEVEL"] = "e";
    const std::string self = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    qmedtest::ToolResult r = qmedtest::runTool("platform_properties_test",
                                               {"--gtest_filter=HostLogTest." + self}, opts);
    EXPECT_EQ(0, r.exitCode) << r.out << r.err;
}

}  // namespace
