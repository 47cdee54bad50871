#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utils/String8.h>

#include <functional>
#include <limits>

#include "platform/host/src/WireFormat.h"

using namespace android;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes bytes(const Parcel& p) {
    return Bytes(p.data(), p.data() + p.dataSize());
}

TEST(ParcelTest, GoldenBytes) {
    const struct {
        const char* what;
        std::function<void(Parcel&)> write;
        Bytes want;
    } rows[] = {
            {"int32", [](Parcel& p) { p.writeInt32(-2); }, {0xfe, 0xff, 0xff, 0xff}},
            {"int64",
             [](Parcel& p) { p.writeInt64(0x0102030405060708LL); },
             {8, 7, 6, 5, 4, 3, 2, 1}},
            {"bools",
             [](Parcel& p) { p.writeBool(true), p.writeBool(false); },
             {1, 0, 0, 0, 0, 0, 0, 0}},
            {"no exception", [](Parcel& p) { p.writeNoException(); }, {0, 0, 0, 0}},
            {"empty", [](Parcel& p) { p.writeString16(u"", 0); }, {0, 0, 0, 0, 0, 0, 0, 0}},
            {"null", [](Parcel& p) { p.writeString16(nullptr, 0); }, {0xff, 0xff, 0xff, 0xff}},
            {"a", [](Parcel& p) { p.writeString16(u"a", 1); }, {1, 0, 0, 0, 'a', 0, 0, 0}},
            {"ab",
             [](Parcel& p) { p.writeString16(String16("ab")); },
             {2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}},
            {"abc",
             [](Parcel& p) { p.writeString16(u"abc", 3); },
             {3, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0}},
            {"non-ASCII",
             [](Parcel& p) { p.writeString16(u"\u00e9\u20ac", 2); },
             {2, 0, 0, 0, 0xe9, 0x00, 0xac, 0x20, 0, 0, 0, 0}},
            {"interface token",
             [](Parcel& p) { p.writeInterfaceToken(String16("x.I")); },
             {0x00, 0x00, 0x00, 0x80,  // strict-mode policy with the gather bit
              0xff, 0xff, 0xff, 0xff,  // no work source
              'T', 'S', 'Y', 'S', 3, 0, 0, 0, 'x', 0, '.', 0, 'I', 0, 0, 0}},
    };
    for (const auto& r : rows) {
        Parcel p;
        r.write(p);
        EXPECT_EQ(r.want, bytes(p)) << r.what;
    }
    hostbinder::WireHeader h = {hostbinder::kWireMagic, hostbinder::WIRE_REPLY};
    h.target = 0x0102030405060708ull;
    h.code = 9;
    h.status = -74;
    h.dataSize = 16;
    const Bytes want = {'Q', 'B', 'W', '1', 2, 0, 0, 0, 8,    7,    6,    5,    4,  3, 2, 1,
                        9,   0,   0,   0,   0, 0, 0, 0, 0xb6, 0xff, 0xff, 0xff, 16, 0, 0, 0,
                        0,   0,   0,   0,   0, 0, 0, 0, 0,    0,    0,    0,    0,  0, 0, 0};
    EXPECT_EQ(want, Bytes((uint8_t*)&h, (uint8_t*)&h + sizeof(h)));
}

TEST(ParcelTest, InterfaceTokenIsCheckedWhole) {
    Parcel p;
    p.writeInterfaceToken(String16("x.I"));
    for (const char* name : {"x.I", "x.J", "x.I2", "x."}) {
        p.setDataPosition(0);
        EXPECT_EQ(name == std::string("x.I"), p.enforceInterface(String16(name))) << name;
    }
    // A token with a foreign header word is refused.
    Parcel bad;
    bad.writeInt32(0);
    bad.writeInt32(-1);
    bad.writeInt32(0x12345678);
    bad.writeString16(String16("x.I"));
    bad.setDataPosition(0);
    EXPECT_FALSE(bad.enforceInterface(String16("x.I")));
    IPCThreadState::self()->setStrictModePolicy(0);
}

TEST(ParcelTest, EveryTypeSurvivesRoundTrip) {
    sp<BBinder> local = new BBinder();
    const int32_t ints[3] = {1, -2, 3};
    const uint8_t raw[5] = {1, 2, 3, 4, 5};
    Parcel p;
    p.writeInt32(std::numeric_limits<int32_t>::min());
    p.writeUint32(0xdeadbeef);
    p.writeInt64(std::numeric_limits<int64_t>::min());
    p.writeUint64(0xfedcba9876543210ull);
    p.writeFloat(1.5f);
    p.writeDouble(-2.25e300);
    p.writeBool(true);
    p.writeChar(u'\u20ac');
    p.writeByte(-7);
    p.writeCString("c string");
    p.writeString8(String8("string8 \xc3\xa9"));
    p.writeString8(nullptr, 0);
    p.writeString16(String16("string16 \xe2\x82\xac"));
    p.writeString16(nullptr, 0);
    p.writeInt32Array(3, ints);
    p.writeByteArray(5, raw);
    p.writeStrongBinder(local);
    p.writeStrongBinder(nullptr);
    p.writeDupFileDescriptor(STDIN_FILENO);
    p.writeNoException();
    EXPECT_EQ(2u, p.objectsCount());
    EXPECT_TRUE(p.hasFileDescriptors());

    p.setDataPosition(0);
    EXPECT_EQ(std::numeric_limits<int32_t>::min(), p.readInt32());
    EXPECT_EQ(0xdeadbeefu, p.readUint32());
    EXPECT_EQ(std::numeric_limits<int64_t>::min(), p.readInt64());
    EXPECT_EQ(0xfedcba9876543210ull, p.readUint64());
    EXPECT_EQ(1.5f, p.readFloat());
    EXPECT_EQ(-2.25e300, p.readDouble());
    EXPECT_TRUE(p.readBool());
    EXPECT_EQ(u'\u20ac', p.readChar());
    EXPECT_EQ(-7, p.readByte());
    EXPECT_STREQ("c string", p.readCString());
    EXPECT_EQ(String8("string8 \xc3\xa9"), p.readString8());
    String8 null8("x");
    EXPECT_EQ(UNEXPECTED_NULL, p.readString8(&null8));
    EXPECT_EQ(String16("string16 \xe2\x82\xac"), p.readString16());
    std::unique_ptr<String16> null16(new String16("x"));
    EXPECT_EQ(NO_ERROR, p.readString16(&null16));
    EXPECT_EQ(nullptr, null16);
    for (int32_t want : {3, 1, -2, 3, 5}) EXPECT_EQ(want, p.readInt32());
    const void* got = p.readInplace(5);
    EXPECT_TRUE(got != nullptr && memcmp(raw, got, 5) == 0);
    EXPECT_EQ(local, p.readStrongBinder());
    sp<IBinder> none = local;
    EXPECT_EQ(UNEXPECTED_NULL, p.readStrongBinder(&none));
    const int fd = p.readFileDescriptor();
    EXPECT_TRUE(fd > STDIN_FILENO && fcntl(fd, F_GETFD) >= 0) << fd;
    EXPECT_EQ(0, p.readExceptionCode());
    EXPECT_EQ(p.dataSize(), p.dataPosition());
    EXPECT_EQ(0u, p.dataSize() % 4);
    // Raw words are not fds.
    p.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, p.readFileDescriptor());
}

TEST(ParcelTest, ReadingPastTheEndOrHostileLengthsYieldsZeroOrEmpty) {
    Parcel p;
    p.writeInt32(7);
    p.setDataPosition(0);
    // Half of an int64 is left after the int32 is gone.
    EXPECT_EQ(0, p.readInt64());
    EXPECT_EQ(0u, p.dataPosition());
    EXPECT_EQ(7, p.readInt32());
    for (size_t pos : {size_t(4), size_t(1) << 30}) {
        p.setDataPosition(pos);
        EXPECT_EQ(0, p.readInt32());
        EXPECT_EQ(0, p.readInt64());
        EXPECT_EQ(0.0, p.readDouble());
        EXPECT_FALSE(p.readBool());
        EXPECT_EQ(String16(), p.readString16());
        EXPECT_EQ(String8(), p.readString8());
        EXPECT_EQ(nullptr, p.readCString());
        EXPECT_EQ(nullptr, p.readStrongBinder());
        EXPECT_LT(p.readFileDescriptor(), 0);
        EXPECT_EQ(nullptr, p.readInplace(1));
        int32_t v = 5;
        EXPECT_EQ(NOT_ENOUGH_DATA, p.readInt32(&v));
        EXPECT_EQ(0, v);
    }
    // A length word that does not fit the data, or a string without its terminator.
    for (int32_t len : {-2, 0x7fffffff, 0x40000000, 100, 1}) {
        Parcel q;
        q.writeInt32(len);
        q.writeInt32(0x00610061);
        q.setDataPosition(0);
        EXPECT_EQ(String16(), q.readString16()) << len;
        q.setDataPosition(0);
        EXPECT_EQ(len == 1 ? String8("a") : String8(), q.readString8()) << len;
    }
    Parcel c;
    c.write("abcd", 4);
    c.setDataPosition(0);
    EXPECT_EQ(nullptr, c.readCString());
}

}  // namespace
