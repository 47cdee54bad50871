// Framing of host binder messages on an AF_UNIX stream connection:
//   WireHeader | parcel data (dataSize bytes) | object table (tailSize bytes)
// with the message's file descriptors attached to the first byte as SCM_RIGHTS.
// Every field is a little-endian word; the layout is the same on 32- and 64-bit hosts.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace android {
namespace hostbinder {

constexpr uint32_t kWireMagic = 0x31574251;  // "QBW1"
constexpr size_t kMaxTransactionData = 1024 * 1024;
constexpr uint32_t kMaxObjects = 1024;
constexpr uint32_t kMaxFds = 253;  // SCM_MAX_FD
constexpr size_t kMaxEndpointName = 107;
constexpr size_t kFlatObjectSize = 24;

enum WireKind : uint32_t {
    WIRE_TRANSACTION = 1,
    WIRE_REPLY = 2,
    WIRE_LOOKUP = 3,
    WIRE_LOOKUP_REPLY = 4,
};

struct WireHeader {
    uint32_t magic;
    uint32_t kind;
    uint64_t target;  // object id the transaction is for
    uint32_t code;
    uint32_t flags;
    int32_t status;  // replies: the transact status
    uint32_t dataSize;
    uint32_t objCount;
    uint32_t fdCount;
    uint32_t tailSize;
    uint32_t reserved;
};
static_assert(sizeof(WireHeader) == 48, "wire header layout");
static_assert(offsetof(WireHeader, target) == 8, "wire header layout");
static_assert(offsetof(WireHeader, dataSize) == 28, "wire header layout");
static_assert(offsetof(WireHeader, tailSize) == 40, "wire header layout");

enum WireObjectType : uint32_t {
    WIRE_OBJ_BINDER = 1,  // object `id` living in the process listening on `name`
    WIRE_OBJ_FD = 2,      // descriptor number `id` among the attached ones
};

// Followed by nameLen bytes of endpoint name, padded to 4.
struct WireObject {
    uint32_t offset;  // of the 24-byte slot in the parcel data
    uint32_t type;
    uint64_t id;
    uint32_t nameLen;
    uint32_t reserved;
};
static_assert(sizeof(WireObject) == 24, "wire object layout");

// The in-parcel slot, laid out like the platform's flat_binder_object.
struct FlatObject {
    uint32_t type;
    uint32_t flags;
    uint64_t handle;
    uint64_t cookie;
};
static_assert(sizeof(FlatObject) == kFlatObjectSize, "flat object layout");

#define HB_PACK_CHARS(c1, c2, c3, c4) \
    ((uint32_t(c1) << 24) | (uint32_t(c2) << 16) | (uint32_t(c3) << 8) | uint32_t(c4))
constexpr uint32_t kFlatTypeBinder = HB_PACK_CHARS('s', 'b', '*', 0x85);
constexpr uint32_t kFlatTypeHandle = HB_PACK_CHARS('s', 'h', '*', 0x85);
constexpr uint32_t kFlatTypeFd = HB_PACK_CHARS('f', 'd', '*', 0x85);
#undef HB_PACK_CHARS

}  // namespace hostbinder
}  // namespace android
