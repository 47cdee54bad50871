#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utils/String8.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace android;

namespace {

std::vector<uint8_t> bytes(const Parcel& p) {
    return std::vector<uint8_t>(p.data(), p.data() + p.dataSize());
}

TEST(ParcelTest, ScalarGoldenBytes) {
    Parcel p;
    p.writeInt32(42);
    p.writeInt32(-2);
    p.writeInt64(0x0102030405060708LL);
    p.writeBool(true);
    p.writeBool(false);
    p.writeNoException();
    const std::vector<uint8_t> want = {
            0x2a, 0x00, 0x00, 0x00, 0xfe, 0xff, 0xff, 0xff, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03,
            0x02, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(want, bytes(p));
}

TEST(ParcelTest, String16GoldenBytes) {
    struct Case {
        const char16_t* str;
        size_t len;
        std::vector<uint8_t> want;
    };
    const Case cases[] = {
            {u"", 0, {0, 0, 0, 0, 0, 0, 0, 0}},
            {nullptr, 0, {0xff, 0xff, 0xff, 0xff}},
            {u"a", 1, {1, 0, 0, 0, 'a', 0, 0, 0}},
            {u"ab", 2, {2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}},
            {u"abc", 3, {3, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0}},
            {u"\u00e9\u20ac", 2, {2, 0, 0, 0, 0xe9, 0x00, 0xac, 0x20, 0, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        Parcel p;
        p.writeString16(c.str, c.len);
        EXPECT_EQ(c.want, bytes(p)) << "length " << c.len;
    }
    Parcel viaString;
    viaString.writeString16(String16("ab"));
    EXPECT_EQ(cases[3].want, bytes(viaString));
}

TEST(ParcelTest, InterfaceTokenGoldenBytesAndCheck) {
    Parcel p;
    p.writeInterfaceToken(String16("x.I"));
    const std::vector<uint8_t> want = {
            0x00, 0x00, 0x00, 0x80,  // strict-mode policy with the gather bit
            0xff, 0xff, 0xff, 0xff,  // no work source
            0x54, 0x53, 0x59, 0x53,  // 'SYST'
            0x03, 0x00, 0x00, 0x00, 'x', 0x00, '.', 0x00, 'I', 0x00, 0x00, 0x00,
    };
    EXPECT_EQ(want, bytes(p));

    p.setDataPosition(0);
    EXPECT_TRUE(p.enforceInterface(String16("x.I")));
    p.setDataPosition(0);
    EXPECT_FALSE(p.enforceInterface(String16("x.J")));
    p.setDataPosition(0);
    EXPECT_FALSE(p.enforceInterface(String16("x.I2")));

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
    const int32_t ints[3] = {1, -2, 3};
    p.writeInt32Array(3, ints);
    const uint8_t raw[5] = {1, 2, 3, 4, 5};
    p.writeByteArray(5, raw);
    p.writeNoException();

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
    std::unique_ptr<String16> null16;
    EXPECT_EQ(NO_ERROR, p.readString16(&null16));
    EXPECT_EQ(nullptr, null16);
    EXPECT_EQ(3, p.readInt32());
    EXPECT_EQ(1, p.readInt32());
    EXPECT_EQ(-2, p.readInt32());
    EXPECT_EQ(3, p.readInt32());
    EXPECT_EQ(5, p.readInt32());
    const uint8_t* got = static_cast<const uint8_t*>(p.readInplace(5));
    ASSERT_NE(nullptr, got);
    EXPECT_EQ(0, memcmp(raw, got, 5));
    EXPECT_EQ(0, p.readExceptionCode());
    EXPECT_EQ(0u, p.dataAvail());
    EXPECT_EQ(p.dataSize(), p.dataPosition());
    EXPECT_EQ(0u, p.dataSize() % 4);
}

TEST(ParcelTest, BinderAndFdObjectsRoundTripInProcess) {
    sp<BBinder> local = new BBinder();
    Parcel p;
    p.writeInt32(1);
    p.writeStrongBinder(local);
    p.writeStrongBinder(nullptr);
    p.writeDupFileDescriptor(STDIN_FILENO);
    EXPECT_EQ(2u, p.objectsCount());
    EXPECT_TRUE(p.hasFileDescriptors());
    EXPECT_EQ(4u + 3 * 24, p.dataSize());

    p.setDataPosition(0);
    EXPECT_EQ(1, p.readInt32());
    EXPECT_EQ(local.get(), p.readStrongBinder().get());
    sp<IBinder> none;
    EXPECT_EQ(UNEXPECTED_NULL, p.readStrongBinder(&none));
    const int fd = p.readFileDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_NE(STDIN_FILENO, fd);
    EXPECT_GE(fcntl(fd, F_GETFD), 0);

    // Raw words are not binders, and a binder slot is not an fd.
    p.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, p.readFileDescriptor());
    p.setDataPosition(4);
    EXPECT_LT(p.readFileDescriptor(), 0);
}

TEST(ParcelTest, ReadingPastTheEndYieldsZeroOrEmpty) {
    Parcel p;
    p.writeInt32(7);
    p.setDataPosition(0);
    EXPECT_EQ(7, p.readInt32());
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

    // Half of an int64 left.
    p.setDataPosition(0);
    EXPECT_EQ(0, p.readInt64());
    EXPECT_EQ(0u, p.dataPosition());

    // Position far beyond the data.
    p.setDataPosition(1u << 30);
    EXPECT_EQ(0, p.readInt32());
    EXPECT_EQ(0u, p.dataAvail());
    EXPECT_EQ(String16(), p.readString16());
}

TEST(ParcelTest, HostileLengthsReadAsEmpty) {
    const int32_t lengths[] = {-2, 0x7fffffff, 0x40000000, 100};
    for (int32_t len : lengths) {
        Parcel p;
        p.writeInt32(len);
        p.writeInt32(0x00610061);
        p.setDataPosition(0);
        EXPECT_EQ(String16(), p.readString16()) << len;
        p.setDataPosition(0);
        EXPECT_EQ(String8(), p.readString8()) << len;
    }
    // Missing terminator.
    Parcel p;
    p.writeInt32(1);
    p.writeInt32(0x00610061);
    p.setDataPosition(0);
    size_t outLen = 9;
    EXPECT_EQ(nullptr, p.readString16Inplace(&outLen));
    EXPECT_EQ(0u, outLen);
    // A C string without NUL before the end.
    Parcel c;
    const char abc[4] = {'a', 'b', 'c', 'd'};
    c.write(abc, 4);
    c.setDataPosition(0);
    EXPECT_EQ(nullptr, c.readCString());
}

TEST(ParcelTest, SetDataSizePositionAndAppend) {
    Parcel p;
    p.writeInt32(1);
    p.writeInt32(2);
    p.setDataPosition(0);
    p.writeInt32(9);  // overwrites in place
    EXPECT_EQ(8u, p.dataSize());
    p.setDataPosition(0);
    EXPECT_EQ(9, p.readInt32());
    EXPECT_EQ(2, p.readInt32());

    Parcel q;
    q.writeInt32(5);
    q.appendFrom(&p, 4, 4);
    q.setDataPosition(0);
    EXPECT_EQ(5, q.readInt32());
    EXPECT_EQ(2, q.readInt32());
    EXPECT_EQ(BAD_VALUE, q.appendFrom(&p, 4, 8));

    p.setDataSize(4);
    EXPECT_EQ(4u, p.dataSize());
    EXPECT_EQ(4u, p.dataPosition());
    const uint8_t buf[8] = {1, 0, 0, 0, 2, 0, 0, 0};
    p.setData(buf, sizeof(buf));
    EXPECT_EQ(0u, p.dataPosition());
    EXPECT_EQ(1, p.readInt32());
    EXPECT_EQ(2, p.readInt32());
    p.freeData();
    EXPECT_EQ(0u, p.dataSize());
    EXPECT_EQ(nullptr, p.data());
}

TEST(ParcelTest, ExceptionCodeSkipsReplyHeaderAndMessage) {
    Parcel ok;
    ok.writeNoException();
    ok.writeInt32(3);
    ok.setDataPosition(0);
    EXPECT_EQ(0, ok.readExceptionCode());
    EXPECT_EQ(3, ok.readInt32());

    Parcel header;
    header.writeInt32(-128);
    header.writeInt32(8);  // header size, counted from its own start
    header.writeInt32(0x55);
    header.writeInt32(4);
    header.setDataPosition(0);
    EXPECT_EQ(0, header.readExceptionCode());
    EXPECT_EQ(4, header.readInt32());

    Parcel ex;
    ex.writeInt32(-3);  // illegal argument
    ex.writeString16(String16("bad"));
    ex.writeInt32(0);
    ex.setDataPosition(0);
    EXPECT_EQ(-3, ex.readExceptionCode());
    EXPECT_EQ(0u, ex.dataAvail());
}

}  // namespace
