#include <gtest/gtest.h>
#include <string.h>

#include <vector>

#include "msghub/TlvEncDec.h"

namespace {

// Encodes into a buffer of len bytes that sits inside a larger guarded area.
std::vector<uint8_t> encodeGuarded(TLV_HEADER h, int len, int* result) {
    std::vector<uint8_t> area(64, 0xEE);
    TlvEncDec codec;
    *result = codec.headerEnc(h, reinterpret_cast<char*>(area.data()), len);
    return area;
}

TEST(TlvEncDec, HeaderIsFourHostOrderWordsGolden) {
    int result = -2;
    std::vector<uint8_t> bytes = encodeGuarded({1, 4, 8, 0x01020304}, 16, &result);
    ASSERT_EQ(0, result);
    const uint8_t golden[16] = {1, 0, 0, 0, 4, 0, 0, 0, 8, 0, 0, 0, 4, 3, 2, 1};
    EXPECT_EQ(0, memcmp(golden, bytes.data(), 16));
    EXPECT_EQ(0xEE, bytes[16]);  // nothing past the header

    bytes = encodeGuarded({-1, 0, 0, 0}, 40, &result);
    ASSERT_EQ(0, result);
    EXPECT_EQ(0xFF, bytes[0]);
    EXPECT_EQ(0xFF, bytes[3]);
    EXPECT_EQ(0xEE, bytes[16]);
}

TEST(TlvEncDec, BufferSizeBoundaries) {
    int result = 0;
    // 12 bytes: three fields written, then no room is reported.
    std::vector<uint8_t> bytes = encodeGuarded({5, 6, 7, 8}, 12, &result);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(5, bytes[0]);
    EXPECT_EQ(6, bytes[4]);
    EXPECT_EQ(7, bytes[8]);
    EXPECT_EQ(0xEE, bytes[12]);

    // 13 to 15 bytes succeed, yet nothing is written past the buffer.
    for (int len = 13; len <= 15; ++len) {
        bytes = encodeGuarded({5, 6, 7, 8}, len, &result);
        EXPECT_EQ(0, result) << len;
        EXPECT_EQ(7, bytes[8]) << len;
        for (int i = len; i < 20; ++i) EXPECT_EQ(0xEE, bytes[i]) << len << " " << i;
    }

    // Tiny and negative sizes fail without writing.
    for (int len : {0, 2, 3, -5}) {
        bytes = encodeGuarded({5, 6, 7, 8}, len, &result);
        EXPECT_EQ(-1, result) << len;
        EXPECT_EQ(0xEE, bytes[0]) << len;
    }
    // 4 and 8 bytes: the fields that fit are written, the header fails.
    bytes = encodeGuarded({5, 6, 7, 8}, 4, &result);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(5, bytes[0]);
    EXPECT_EQ(0xEE, bytes[4]);
}

TEST(TlvEncDec, NullArgumentsFail) {
    TlvEncDec codec;
    EXPECT_EQ(-1, codec.headerEnc({1, 0, 0, 0}, nullptr, 16));
    TLV_HEADER h;
    char buf[16] = {};
    EXPECT_EQ(-1, codec.headerDec(nullptr, buf, 16));
    EXPECT_EQ(-1, codec.headerDec(&h, nullptr, 16));
}

TEST(TlvEncDec, DecodeReadsSixteenBytesWhateverLenSays) {
    const uint8_t bytes[20] = {4, 0, 0, 0, 4, 0, 0, 0, 8, 0, 0, 0, 0x10, 0, 0, 0, 9, 9, 9, 9};
    TlvEncDec codec;
    for (int len : {20, 16, 3, 0}) {
        TLV_HEADER h = {-1, -1, -1, -1};
        EXPECT_EQ(0, codec.headerDec(&h, reinterpret_cast<const char*>(bytes), len));
        EXPECT_EQ(4, h.tag);
        EXPECT_EQ(4, h.src);
        EXPECT_EQ(8, h.dst);
        EXPECT_EQ(16, h.len);
    }
}

TEST(TlvEncDec, RoundTrip) {
    char buf[16];
    TlvEncDec codec;
    ASSERT_EQ(0, codec.headerEnc({TLV_TAG_QM_CMD, TLV_ID_KERNEL, 0, 66}, buf, sizeof(buf)));
    TLV_HEADER h;
    ASSERT_EQ(0, codec.headerDec(&h, buf, sizeof(buf)));
    EXPECT_EQ(TLV_TAG_QM_CMD, h.tag);
    EXPECT_EQ(TLV_ID_KERNEL, h.src);
    EXPECT_EQ(0, h.dst);
    EXPECT_EQ(66, h.len);
}

}  // namespace
