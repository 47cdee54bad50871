#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/PermissionCache.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utils/String8.h>

#include <functional>

#include "platform/host/src/WireFormat.h"
#include "tests/support/ToolRunner.h"

using namespace android;

namespace {

// clang-format off
TEST(ParcelTest, GoldenBytesAndInterfaceTokenCheck) {
    auto hex = [](const void* data, size_t size, std::string out = "") {
        for (size_t i = 0; i < size; i++)
            out += String8::format("%02x", ((uint8_t*)data)[i]).c_str();
        return out;
    };
    const std::pair<std::function<void(Parcel&)>, std::string> rows[] = {
            {[](Parcel& p) { p.writeInt32(-2); }, "feffffff"},
            {[](Parcel& p) { p.writeBool(true); p.writeBool(false); }, "0100000000000000"},
            {[](Parcel& p) { p.writeString16(u"", 0); }, "0000000000000000"},
            {[](Parcel& p) { p.writeString16(nullptr, 0); }, "ffffffff"},
            {[](Parcel& p) { p.writeString16(u"a", 1); }, "0100000061000000"},
            {[](Parcel& p) { p.writeString16(u"\u00e9\u20ac", 2); }, "02000000e900ac2000000000"},
            // Strict-mode policy with the gather bit, no work source, 'SYST', the name; then
            // the same with a foreign header word.
            {[](Parcel& p) { p.writeInterfaceToken(String16("x.I")); },
             "00000080ffffffff5453595303000000" "78002e0049000000"},
            {[](Parcel& p) { p.writeInterfaceToken(String16("x.I")), p.setDataPosition(8);
                             p.writeInt32(0x12345678); },
             "00000080ffffffff7856341203000000" "78002e0049000000"},
    };
    for (const auto& [write, want] : rows) {
        Parcel p;
        write(p);
        EXPECT_EQ(want, hex(p.data(), p.dataSize()));
        if (want.compare(0, 8, "00000080") != 0) continue;
        for (const char* name : {"x.I", "x.J", "x.I2", "x."}) {  // only the whole name passes
            p.setDataPosition(0);
            EXPECT_EQ(want.substr(16, 8) == "54535953" && name == std::string("x.I"),
                      p.enforceInterface(String16(name))) << name;
        }
    }
    const hostbinder::WireHeader h = {hostbinder::kWireMagic, hostbinder::WIRE_REPLY,
                                      0x0102030405060708ull, 9, 0, -74, 16, 0, 0, 0, 0};
    EXPECT_EQ("5142573102000000080706050403020109000000" "00000000b6ffffff10000000"
              "00000000000000000000000000000000", hex(&h, sizeof(h)));
}
// clang-format on

TEST(ParcelTest, ReadingPastTheEndOrHostileLengthsYieldsZeroOrEmpty) {
    Parcel p;
    p.writeInt32(7);
    p.setDataPosition(0);
    EXPECT_EQ(0, p.readInt64());  // only half of it is there: nothing is taken
    EXPECT_EQ(0u, p.dataPosition());
    for (size_t pos : {size_t(4), size_t(1) << 30}) {
        p.setDataPosition(pos);
        int32_t v = 5;
        // clang-format off
        const std::tuple got{p.readInt32(), p.readInt64(), p.readDouble(), p.readBool(),
                             p.readString16(), p.readString8(), p.readCString(),
                             p.readStrongBinder(), p.readFileDescriptor() < 0, p.readInplace(1),
                             p.readInt32(&v), v};
        EXPECT_EQ(std::tuple(0, int64_t(0), 0.0, false, String16(), String8(), (const char*)nullptr,
                             sp<IBinder>(), true, (const void*)nullptr, NOT_ENOUGH_DATA, 0),
                  got) << pos;
        // clang-format on
    }
    // A length word that does not fit the data, or a string without its terminator.
    for (int32_t len : {-2, 0x7fffffff, 0x40000000, 100, 1}) {
        Parcel q;
        const int32_t words[] = {len, 0x00610061};
        q.write(words, sizeof(words)), q.setDataPosition(0);
        EXPECT_EQ(String16(), q.readString16()) << len;
        q.setDataPosition(0);
        EXPECT_EQ(len == 1 ? String8("a") : String8(), q.readString8()) << len;
    }
    Parcel c;
    c.write("abcd", 4);  // a C string without its NUL
    c.setDataPosition(0);
    EXPECT_EQ(nullptr, c.readCString());
    EXPECT_EQ(BAD_VALUE, c.appendFrom(&p, 1, 4));
    EXPECT_EQ(NO_ERROR, c.appendFrom(&p, 0, 4));
    // A reply header (-128, then its size) is skipped; an exception's message is consumed.
    for (const std::vector<int32_t>& w : std::initializer_list<std::vector<int32_t>>{
                 {0, 7}, {-128, 8, 0x55, 7}, {-3, 3, 0x610062, 0x64, 0, 7}}) {
        Parcel r;
        r.write(w.data(), w.size() * 4), r.setDataPosition(0);
        EXPECT_TRUE(r.readExceptionCode() == (w[0] == -3 ? -3 : 0) && r.readInt32() == 7) << w[0];
    }
}

const std::string kFile = "/tmp/qmed-props-" + std::to_string(getpid());

TEST(PropertiesTest, PropertiesAndGrantsAreReadFromTheirFilesAsThePlatformReadsThem) {
    setenv("QMED_PROPERTY_FILE", kFile.c_str(), 1);
    const std::string v91(91, 'v'), v92(92, 'w');
    // File ("-" for none), key, default, value read.
    const std::tuple<std::string, const char*, const char*, std::string> rows[] = {
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
            {"android.permission", 1, 1000, false}};
    for (const auto& [perm, pid, uid, want] : grants)
        EXPECT_EQ(want,
                  android::PermissionCache::checkPermission(android::String16(perm), pid, uid))
                << perm << " " << uid;
    unlink(kFile.c_str());
}

}  // namespace
