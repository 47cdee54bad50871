#include "ParcelFormat.h"

#include <stdio.h>

namespace {

constexpr size_t kBytesPerLine = 16;
constexpr size_t kSingleLineCutoff = 16;
const char kHexDigits[] = "0123456789abcdef";

std::string hexDump(const uint8_t* buf, size_t length) {
    const bool oneLine = length <= kSingleLineCutoff;
    std::string out;
    // Multi-line dumps start on a fresh, indented line.
    if (!oneLine) out += "\n  ";
    for (size_t offset = 0;; offset += kBytesPerLine) {
        const size_t remain = length - offset;
        if (!oneLine) {
            char prefix[16];
            snprintf(prefix, sizeof(prefix), "0x%08x: ", unsigned(offset));
            out += prefix;
        }
        for (size_t word = 0; word < kBytesPerLine; word += 4) {
            if (word > 0) out += ' ';
            for (size_t index = 0; index < 4; index++) {
                if (word + index < remain) {
                    const size_t at = offset + word + 3 - index;
                    const uint8_t v = at < length ? buf[at] : 0;
                    out += kHexDigits[v >> 4];
                    out += kHexDigits[v & 0xf];
                } else if (!oneLine) {
                    out += "  ";
                }
            }
        }
        out += " '";
        for (size_t i = 0; i < kBytesPerLine; i++) {
            if (i < remain) {
                const uint8_t v = buf[offset + i];
                out += (v >= ' ' && v < 127) ? char(v) : '.';
            } else if (!oneLine) {
                out += ' ';
            }
        }
        out += '\'';
        if (remain <= kBytesPerLine) break;
        out += "\n  ";
    }
    return out;
}

}  // namespace

std::string formatParcelBytes(const uint8_t* data, size_t size) {
    if (data == nullptr || size == 0) return "Parcel(NULL)";
    return "Parcel(" + hexDump(data, size) + ")";
}
