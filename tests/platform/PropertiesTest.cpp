#include <android/log.h>
#include <binder/PermissionCache.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <unistd.h>
#include <yklog/yklog.h>

#include "tests/support/ToolRunner.h"

using android::String16;

namespace {

const std::string kFile = "/tmp/qmed-props-" + std::to_string(getpid());

TEST(PropertiesTest, ValuesAreReadFromTheFileOnEveryCallAsThePlatformReadsThem) {
    setenv("QMED_PROPERTY_FILE", kFile.c_str(), 1);
    const std::string v91(91, 'v'), v92(92, 'w');
    // clang-format off
    const struct {
        std::string file;  // "-" for none
        const char* key;
        const char* def;
        std::string want;
    } rows[] = {
            {"-", "a.b", "dflt", "dflt"},
            {"-", "a.b", nullptr, ""},
            {"# comment\n\n  a.b=1\n", "a.b", "dflt", "1"},
            {"a.b=1\n", "a.c", "dflt", "dflt"},
            {"a.b=1\n", "a", "dflt", "dflt"},
            {"ro.x=first\nro.x=second\n", "ro.x", "dflt", "second"},
            {"empty=\n", "empty", "dflt", "dflt"},  // an empty value counts as unset
            {"blank=true \r\n", "blank", "dflt", "true "},  // values are taken as written
            {"ok=" + v91 + "\n", "ok", "dflt", v91},
            {"long=" + v92 + "\n", "long", "dflt", "dflt"},  // too long to be set
            // Read-only names may be longer on the platform, but cannot be read this way.
            {"ro.long=" + v92 + "\n", "ro.long", "",
             "Must use __system_property_read_callback() to read"},
            {"", "missing", v92.c_str(), std::string(91, 'w')},  // defaults are cut too
    };
    // clang-format on
    for (const auto& r : rows) {
        unlink(kFile.c_str());
        if (r.file != "-") qmedtest::writeFile(kFile, r.file);
        char value[PROPERTY_VALUE_MAX];
        memset(value, 'Z', sizeof(value));
        EXPECT_EQ(int(r.want.size()), property_get(r.key, value, r.def)) << r.key;
        EXPECT_EQ(r.want, value) << r.key;
    }
    // The first five are true, the next five false, the rest give the default.
    const char* bools[] = {"b=1",     "b=y",   "b=yes",  "b=true", "b=on", "b=0",    "b=n",  "b=no",
                           "b=false", "b=off", "b=TRUE", "b=Y",    "b=2",  "b=yess", "b=of", "c=1"};
    for (size_t i = 0; i < std::size(bools); i++) {
        qmedtest::writeFile(kFile, std::string(bools[i]) + "\n");
        const int want = i < 5 ? 3 : (i < 10 ? 0 : 2);  // with default 0 plus twice with default 1
        EXPECT_EQ(want, property_get_bool("b", 0) + 2 * property_get_bool("b", 1)) << bools[i];
    }
    unlink(kFile.c_str());
}

TEST(PermissionCacheTest, RootAndOwnPidAlwaysOthersFromTheGrantsFileReadOnEveryCheck) {
    const std::string dump = "android.permission.DUMP";
    const std::string grants = "# grants\n\n" + dump + " 1000\nother.PERM 2000\n";
    const struct {
        std::string grants;  // "-" for no file
        std::string perm;
        pid_t pid;
        uid_t uid;
        bool want;
    } rows[] = {
            {"-", dump, 1, 0, true},
            {"-", dump, getpid(), 1000, true},
            {"-", dump, 1, 1000, false},
            {grants, dump, 1, 1000, true},
            {grants, dump, 1, 2000, false},
            {grants, "other.PERM", 1, 2000, true},
            {grants, "android.permission", 1, 1000, false},
            {dump + " 2000\n", dump, 1, 1000, false},  // read again on every check
    };
    setenv("QMED_PERMISSION_FILE", kFile.c_str(), 1);
    for (const auto& r : rows) {
        unlink(kFile.c_str());
        if (r.grants != "-") qmedtest::writeFile(kFile, r.grants);
        EXPECT_EQ(r.want,
                  android::PermissionCache::checkPermission(String16(r.perm.c_str()), r.pid, r.uid))
                << r.grants << r.perm << " " << r.uid;
    }
    unlink(kFile.c_str());
}

TEST(HostLogTest, CaptureSeesAllPrioritiesAndKernelLogRecords) {
    qmed::host::LogCapture capture;
    __android_log_print(ANDROID_LOG_DEBUG, "Qmed-Test", "debug %d", 1);
    __android_log_print(ANDROID_LOG_ERROR, "Qmed-Test", "error %s", "two");
    EXPECT_EQ(9, __yklog_write_kernel_printf(1, 2, "Qmed-PL", "rec %d %d", 10, 20));
    EXPECT_TRUE(capture.contains("D/Qmed-Test: debug 1"));
    EXPECT_TRUE(capture.contains("I/Qmed-PL: rec 10 20"));
    EXPECT_EQ(1u, capture.count("E/Qmed-Test: error two"));
    capture.clear();
    EXPECT_TRUE(capture.lines().empty());
}

}  // namespace
