#pragma once

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <stdint.h>
#include <sys/uio.h>

#include <functional>

#include "net/SocketOps.h"

// Wire layout of the sock_diag requests (kernel ABI).
struct SOCK_DIAG_REQUEST {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};
static_assert(sizeof(nlmsghdr) == 16, "netlink header is 16 bytes");
static_assert(sizeof(inet_diag_sockid) == 48, "socket id is 48 bytes");
static_assert(sizeof(inet_diag_req_v2) == 56, "request body is 56 bytes");
static_assert(sizeof(SOCK_DIAG_REQUEST) == 72, "dump and destroy requests are 72 bytes");
static_assert(sizeof(inet_diag_msg) == 72, "dumped socket record is 72 bytes");
static_assert(sizeof(nlmsghdr) + sizeof(nlmsgerr) == 36, "error reply is 36 bytes");

// Peeks at the next message on fd; consumes and returns its code when it is a 36-byte
// netlink error, else 0 (the message stays for the dump reader).
int checkError(SocketOps& ops, int fd);
// Reads a netlink dump from fd and hands every data message to callback. Returns 0 at
// NLMSG_DONE or end of stream, the code of an error reply, or a negative errno. A reply
// that stalls for timeoutMs fails with -ETIMEDOUT so a broken peer cannot wedge the caller.
int processNetlinkDump(SocketOps& ops, int fd, const std::function<void(nlmsghdr*)>& callback,
                       int timeoutMs = 5000);

// Destroys the TCP sockets of a uid, or of one process of that uid, through sock_diag.
//
// Threading: no lock of its own; the service serialises calls on its member instance.
class SockDiag {
  public:
    // TCP states 1-6, 8 and 9: everything but CLOSE, LISTEN and CLOSING.
    static constexpr uint32_t kDestroyStates = 0x37E;
    // Netlink attribute in which the target kernel reports the socket's owning pid.
    static constexpr uint16_t kAttrOwnerPid = 19;

    // ops must outlive the object.
    explicit SockDiag(SocketOps& ops = SocketOps::real());
    // Takes ownership of already connected descriptors, so tests can answer the requests.
    SockDiag(int dumpSock, int destroySock, SocketOps& ops = SocketOps::real());
    virtual ~SockDiag();

    bool open();
    // Closes both descriptors and marks them -1, so the next open() starts afresh.
    void closeSockets();
    int destroySocketsUid(int uid, bool excludeLoopback);
    int destroySocketsPid(int uid, int pid, bool excludeLoopback);

    int sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                        iovec* iov, int iovcnt);
    int sockDestroy(uint8_t proto, const inet_diag_msg* msg);
    static bool isLoopbackSocket(const inet_diag_msg* msg);
    int readDiagMsg(uint8_t proto,
                    const std::function<bool(uint8_t, const inet_diag_msg*)>& shouldDestroy);
    int readDiagMsgWithPid(
            uint8_t proto,
            const std::function<bool(uint8_t, uint32_t, const inet_diag_msg*)>& shouldDestroy);
    int destroyLiveSocketsByPid(
            std::function<bool(uint8_t, uint32_t, const inet_diag_msg*)> shouldDestroy,
            const char* what, iovec* iov, int iovcnt);

    int getDumpSock() const { return mDumpSock; }
    int getDestroySock() const { return mDestroySock; }
    int getDestroyedCount() const { return mDestroyedCount; }

  private:
    SocketOps& mOps;
    int mDumpSock;
    int mDestroySock;
    int mDestroyedCount;
};
