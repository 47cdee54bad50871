#pragma once

#include <stdint.h>

// Header of every message exchanged with the kernel module; host byte order, no padding.
struct TLV_HEADER {
    int32_t tag;
    int32_t src;
    int32_t dst;
    int32_t len;
};
static_assert(sizeof(TLV_HEADER) == 16, "TLV_HEADER is 16 bytes on the wire");
static_assert(__builtin_offsetof(TLV_HEADER, tag) == 0, "tag at 0");
static_assert(__builtin_offsetof(TLV_HEADER, src) == 4, "src at 4");
static_assert(__builtin_offsetof(TLV_HEADER, dst) == 8, "dst at 8");
static_assert(__builtin_offsetof(TLV_HEADER, len) == 12, "len at 12");

enum {
    TLV_TAG_REGISTER = 1,
    TLV_TAG_KSTATE = 4,
    TLV_TAG_QM_CMD = 5,
};

enum {
    TLV_ID_HUB = 1,
    TLV_ID_KERNEL = 4,
    TLV_ID_KSTATE = 8,
};

// Bounded writer of 32-bit integers over a caller-owned buffer.
// Not thread-safe; one instance per message on the caller's stack.
class TlvProtocol {
  public:
    TlvProtocol() : mEnd(nullptr), mCursor(nullptr) {}

    // Returns true only while room remains after the write: filling the last
    // 4 bytes returns false although they were written. createHeader relies on it.
    bool writeInt(int value);
    int createHeader(TLV_HEADER header);

    char* mEnd;
    char* mCursor;
};

// Header encoder/decoder. Stateless between calls; one instance per message.
class TlvEncDec {
  public:
    TlvEncDec();
    ~TlvEncDec();

    int headerEnc(TLV_HEADER header, char* buf, int len);
    // Reads 16 bytes from buf whatever len says; the caller guarantees them.
    int headerDec(TLV_HEADER* header, const char* buf, int len);

  private:
    TlvProtocol mProtocol;
    int32_t mReserved;
};
