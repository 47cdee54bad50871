#include "msghub/TlvEncDec.h"

#include <log/log.h>
#include <safe_mem_lib.h>

bool TlvProtocol::writeInt(int value) {
    // Fewer than 4 bytes left: the write is refused instead of running past the
    // buffer. The result is what an unchecked write would report (no room), and
    // createHeader ignores the result of the last field anyway.
    if (mCursor == nullptr || mEnd < mCursor || mEnd - mCursor < 4) {
        return false;
    }
    if (memcpy_s(mCursor, 4, &value, sizeof(value)) != EOK) {
        return false;
    }
    mCursor += 4;
    return reinterpret_cast<uintptr_t>(mCursor) < reinterpret_cast<uintptr_t>(mEnd);
}

int TlvProtocol::createHeader(TLV_HEADER header) {
    if (!writeInt(header.tag) || !writeInt(header.src) || !writeInt(header.dst)) {
        return -1;
    }
    writeInt(header.len);
    return 0;
}

TlvEncDec::TlvEncDec() : mReserved(0) {}

TlvEncDec::~TlvEncDec() {
    mProtocol.mEnd = nullptr;
    mProtocol.mCursor = nullptr;
    mReserved = 0;
}

int TlvEncDec::headerEnc(TLV_HEADER header, char* buf, int len) {
    if (buf == nullptr) {
        return -1;
    }
    mProtocol.mEnd = buf + len;
    mProtocol.mCursor = buf;
    return mProtocol.createHeader(header) < 0 ? -1 : 0;
}

int TlvEncDec::headerDec(TLV_HEADER* header, const char* buf, int /*len*/) {
    if (header == nullptr || buf == nullptr) {
        return -1;
    }
    if (memcpy_s(header, sizeof(*header), buf, sizeof(*header)) != EOK) {
        // A failed decode is deliberately not reported to the caller.
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "TlvEncDec headerDec error");
    }
    return 0;
}
