#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <utils/String8.h>

#include <functional>

#include "platform/host/src/WireFormat.h"

using namespace android;

namespace {

std::string hex(const void* data, size_t size) {
    const uint8_t* b = static_cast<const uint8_t*>(data);
    std::string out;
    for (size_t i = 0; i < size; i++)
        out += {"0123456789abcdef"[b[i] >> 4], "0123456789abcdef"[b[i] & 15]};
    return out;
}

// clang-format off
TEST(ParcelTest, GoldenBytesAndInterfaceTokenCheck) {
    const struct {
        std::function<void(Parcel&)> write;
        std::string want;
    } rows[] = {
            {[](Parcel& p) { p.writeInt32(-2); }, "feffffff"},
            {[](Parcel& p) { p.writeInt64(0x0102030405060708LL); }, "0807060504030201"},
            {[](Parcel& p) { p.writeBool(true); p.writeBool(false); }, "0100000000000000"},
            {[](Parcel& p) { p.writeNoException(); }, "00000000"},
            {[](Parcel& p) { p.writeString16(u"", 0); }, "0000000000000000"},
            {[](Parcel& p) { p.writeString16(nullptr, 0); }, "ffffffff"},
            {[](Parcel& p) { p.writeString16(u"a", 1); }, "0100000061000000"},
            {[](Parcel& p) { p.writeString16(String16("ab")); }, "020000006100620000000000"},
            {[](Parcel& p) { p.writeString16(u"abc", 3); }, "030000006100620063000000"},
            {[](Parcel& p) { p.writeString16(u"\u00e9\u20ac", 2); }, "02000000e900ac2000000000"},
            {[](Parcel& p) { p.writeStrongBinder(nullptr); }, "852a6273" + std::string(40, '0')},
            // Strict-mode policy with the gather bit, no work source, 'SYST', the name.
            {[](Parcel& p) { p.writeInterfaceToken(String16("x.I")); },
             "00000080ffffffff5453595303000000" "78002e0049000000"},
            // A token with a foreign header word.
            {[](Parcel& p) {
                 p.writeInterfaceToken(String16("x.I"));
                 p.setDataPosition(8);
                 p.writeInt32(0x12345678);
             },
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

TEST(ParcelTest, EveryTypeSurvivesRoundTrip) {
    sp<BBinder> local = new BBinder();
    const int32_t ints[3] = {1, -2, 3};
    const uint8_t raw[5] = {1, 2, 3, 4, 5};
    Parcel p;
    // clang-format off
    const std::vector<status_t> written{
            p.writeInt32(INT32_MIN), p.writeUint32(0xdeadbeef), p.writeInt64(INT64_MIN),
            p.writeUint64(0xfedcba9876543210ull), p.writeFloat(1.5f), p.writeDouble(-2.25e300),
            p.writeBool(true), p.writeChar(u'\u20ac'), p.writeByte(-7), p.writeCString("c string"),
            p.writeString8(String8("string8 \xc3\xa9")), p.writeString8(nullptr, 0),
            p.writeString16(String16("string16 \xe2\x82\xac")), p.writeString16(nullptr, 0),
            p.writeInt32Array(3, ints), p.writeByteArray(5, raw), p.writeStrongBinder(local),
            p.writeStrongBinder(nullptr), p.writeDupFileDescriptor(0), p.writeNoException()};
    // clang-format on
    EXPECT_EQ(std::vector<status_t>(written.size(), NO_ERROR), written);
    EXPECT_EQ(2u, p.objectsCount());
    EXPECT_TRUE(p.hasFileDescriptors());
    p.setDataPosition(0);
    String8 null8("x");
    std::unique_ptr<String16> null16(new String16("x"));
    sp<IBinder> none = local;
    // clang-format off
    const std::tuple got{  // a braced list is read left to right
            p.readInt32(), p.readUint32(), p.readInt64(), p.readUint64(), p.readFloat(),
            p.readDouble(), p.readBool(), p.readChar(), p.readByte(), std::string(p.readCString()),
            p.readString8(), p.readString8(&null8), p.readString16(), p.readString16(&null16),
            p.readInt32(), p.readInt32(), p.readInt32(), p.readInt32(), p.readInt32(),
            hex(p.readInplace(5), 5), p.readStrongBinder(), p.readStrongBinder(&none)};
    EXPECT_EQ(std::tuple(INT32_MIN, 0xdeadbeefu, INT64_MIN, 0xfedcba9876543210ull, 1.5f, -2.25e300,
                         true, u'\u20ac', int8_t(-7), std::string("c string"),
                         String8("string8 \xc3\xa9"), UNEXPECTED_NULL,
                         String16("string16 \xe2\x82\xac"), NO_ERROR, 3, 1, -2, 3, 5, "0102030405",
                         sp<IBinder>(local), UNEXPECTED_NULL), got);
    // clang-format on
    EXPECT_EQ(nullptr, null16);
    const int fd = p.readFileDescriptor();
    EXPECT_TRUE(fd > 0 && fcntl(fd, F_GETFD) >= 0) << fd;
    EXPECT_EQ(0, p.readExceptionCode());
    EXPECT_EQ(p.dataSize(), p.dataPosition());
    p.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, p.readFileDescriptor());  // raw words are not fds
}

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
