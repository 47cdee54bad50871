#include <binder/PermissionCache.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/ToolRunner.h"

namespace {

const std::string kFile = "/tmp/qmed-props-" + std::to_string(getpid());

TEST(PropertiesTest, PropertiesAndGrantsAreReadFromTheirFilesAsThePlatformReadsThem) {
    setenv("QMED_PROPERTY_FILE", kFile.c_str(), 1);
    const std::string v91(91, 'v'), v92(92, 'w');
    // File ("-" for none), key, default, value read.
    const std::tuple<std::string, const char*, const char*, std::string> rows[] = {
            {"-", "a.b", "dflt", "dflt"},
            {"-", "a.b", nullptr, ""},
            {"# comment\n\n  a.b=1\n", "a.b", "dflt", "1"},
            {"a.b=1\n", "a", "dflt", "dflt"},
            {"ro.x=first\nro.x=second\n", "ro.x", "dflt", "second"},
            {"empty=\n", "empty", "dflt", "dflt"},          // an empty value counts as unset
            {"blank=true \r\n", "blank", "dflt", "true "},  // values are taken as written
            {"ok=" + v91 + "\n", "ok", "dflt", v91},
            {"long=" + v92 + "\n", "long", "dflt", "dflt"},  // too long to be set
            // Read-only names may be longer on the platform, but cannot be read this way.
            {"ro.long=" + v92 + "\n", "ro.long", "",
             "Must use __system_property_read_callback() to read"},
            {"", "missing", v92.c_str(), std::string(91, 'w')},  // defaults are cut too
    };
    for (const auto& [file, key, def, want] : rows) {
        unlink(kFile.c_str());
        if (file != "-") qmedtest::writeFile(kFile, file);
        char value[PROPERTY_VALUE_MAX];
        memset(value, 'Z', sizeof(value));
        EXPECT_EQ(int(want.size()), property_get(key, value, def)) << key;
        EXPECT_EQ(want, value) << key;
    }
    // The first five are true, the next five false, the rest give the default.
    const char* bools[] = {"b=1",     "b=y",   "b=yes",  "b=true", "b=on", "b=0",    "b=n",  "b=no",
                           "b=false", "b=off", "b=TRUE", "b=Y",    "b=2",  "b=yess", "b=of", "c=1"};
    for (size_t i = 0; i < std::size(bools); i++) {
        qmedtest::writeFile(kFile, std::string(bools[i]) + "\n");
        const int want = i < 5 ? 3 : (i < 10 ? 0 : 2);  // with default 0 plus twice with default 1
        EXPECT_EQ(want, property_get_bool("b", 0) + 2 * property_get_bool("b", 1)) << bools[i];
    }
    // Root and this process pass every check, others need the whole name granted to their uid.
    const char* dump = "android.permission.DUMP";
    setenv("QMED_PERMISSION_FILE", kFile.c_str(), 1);
    ASSERT_TRUE(qmedtest::writeFile(kFile, "# grants\n\n" + std::string(dump) + " 1000\n"));
    const std::tuple<const char*, pid_t, uid_t, bool> grants[] = {
            {dump, 1, 0, true},
            {dump, getpid(), 3000, true},
            {dump, 1, 1000, true},
            {dump, 1, 2000, false},
            {"android.permission", 1, 1000, false}};
    for (const auto& [perm, pid, uid, want] : grants)
        EXPECT_EQ(want,
                  android::PermissionCache::checkPermission(android::String16(perm), pid, uid))
                << perm << " " << uid;
    unlink(kFile.c_str());
}

}  // namespace
