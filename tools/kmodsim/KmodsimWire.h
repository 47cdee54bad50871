#pragma once

// Records between the interposer (inside the daemon) and the simulator, one per
// SOCK_SEQPACKET message: u32 op, u32 arg, both little-endian, then the bytes.
// Fixed-size little-endian fields keep an armhf daemon under emulation and an
// amd64 simulator talking.

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kmodsim {

enum : uint32_t {
    OP_HELLO = 1,    // shim -> sim, arg = pid of the process opening the socket
    OP_BIND = 2,     // shim -> sim, arg = nl_pid bound, bytes = u32 nl_groups
    OP_SEND = 3,     // shim -> sim, arg = destination nl_pid, bytes = netlink message
    OP_DELIVER = 4,  // sim -> shim, arg = source nl_pid, bytes = netlink message
};

constexpr size_t kRecordHeader = 8;
constexpr size_t kMaxRecord = 65536 + kRecordHeader;

inline void putLe32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

inline uint32_t getLe32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// "@name" is an abstract address, anything else a filesystem path.
inline socklen_t makeAddress(const char* name, struct sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    size_t n = strlen(name);
    if (n == 0 || n >= sizeof(addr->sun_path)) return 0;
    memcpy(addr->sun_path, name, n);
    if (name[0] == '@') addr->sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + n +
                                  (name[0] == '@' ? 0 : 1));
}

}  // namespace kmodsim
