// Splits a fuzz input into typed fields. Reads past the end yield zeros, so every input,
// however short, drives the whole harness.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

// Reads every byte of [data, data + len) as a peer would copy them out: one checked copy,
// not an instrumented loop.
inline void fuzzTouch(const void* data, size_t len) {
    static uint8_t sScratch[4096];
    static volatile uint8_t sSink;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    while (len > 0) {
        const size_t n = len < sizeof(sScratch) ? len : sizeof(sScratch);
        memcpy(sScratch, p, n);
        sSink = sSink + sScratch[n - 1];
        p += n;
        len -= n;
    }
}

class FuzzInput {
  public:
    FuzzInput(const uint8_t* data, size_t size) : mData(data), mSize(size), mPos(0) {}

    size_t remaining() const { return mSize - mPos; }
    bool empty() const { return mPos >= mSize; }

    uint8_t u8() { return mPos < mSize ? mData[mPos++] : 0; }
    uint16_t u16() {
        uint16_t v = 0;
        take(&v, sizeof(v));
        return v;
    }
    uint32_t u32() {
        uint32_t v = 0;
        take(&v, sizeof(v));
        return v;
    }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    bool flag() { return (u8() & 1) != 0; }

    // Up to n bytes, fewer at the end of the input.
    std::vector<uint8_t> bytes(size_t n) {
        if (n > remaining()) n = remaining();
        std::vector<uint8_t> out(mData + mPos, mData + mPos + n);
        mPos += n;
        return out;
    }
    // A 16-bit length, then that many bytes (capped at max).
    std::vector<uint8_t> chunk(size_t max) {
        size_t n = u16();
        return bytes(n > max ? max : n);
    }
    // As chunk, in place: the bytes stay in the input.
    const uint8_t* chunkInPlace(size_t max, size_t* len) {
        size_t n = u16();
        n = std::min({n, max, remaining()});
        const uint8_t* p = mData + mPos;
        mPos += n;
        *len = n;
        return p;
    }
    // A one-byte length, then the text; embedded NULs are kept.
    std::string str(size_t max = 255) {
        size_t n = u8();
        std::vector<uint8_t> b = bytes(n > max ? max : n);
        return std::string(b.begin(), b.end());
    }
    std::vector<uint8_t> rest() { return bytes(remaining()); }

  private:
    void take(void* out, size_t n) {
        size_t k = n < remaining() ? n : remaining();
        memcpy(out, mData + mPos, k);
        mPos += k;
    }

    const uint8_t* mData;
    size_t mSize;
    size_t mPos;
};
