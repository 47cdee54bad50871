#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include <functional>

#include "platform/host/src/WireFormat.h"

using namespace android;

namespace {

std::string hex(const void* data, size_t size) {
    std::string out;
    for (size_t i = 0; i < size; i++)
        out += String8::format("%02x", ((const uint8_t*)data)[i]).c_str();
    return out;
}

// clang-format off
TEST(ParcelTest, GoldenBytesAndInterfaceTokenCheck) {
    const struct {
        std::function<void(Parcel&)> write;
        std::string want;
    } rows[] = {
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
    for (const auto& r : rows) {
        Parcel p;
        r.write(p);
        EXPECT_EQ(r.want, hex(p.data(), p.dataSize()));
        if (r.want.compare(0, 8, "00000080") != 0) continue;
        for (const char* name : {"x.I", "x.J", "x.I2", "x."}) {  // only the whole name passes
            p.setDataPosition(0);
            EXPECT_EQ(r.want.substr(16, 8) == "54535953" && name == std::string("x.I"),
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
        q.write(words, sizeof(words));
        q.setDataPosition(0);
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
    const std::vector<int32_t> replies[] = {
            {0, 7}, {-128, 8, 0x55, 7}, {-3, 3, 0x610062, 0x64, 0, 7}};
    for (const auto& words : replies) {
        Parcel r;
        r.write(words.data(), words.size() * 4);
        r.setDataPosition(0);
        EXPECT_EQ(words[0] == -3 ? -3 : 0, r.readExceptionCode()) << words[0];
        EXPECT_EQ(7, r.readInt32()) << words[0];
    }
}

}  // namespace
