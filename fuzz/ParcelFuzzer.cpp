// The parcel reader on hostile bytes: first every read* on a raw parcel, then the same reads
// on a parcel unmarshalled from a host binder message (header, data, object table and
// attached descriptors) as a peer could send it.
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <memory>
#include <vector>

#include "Transport.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"

using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using android::String8;

namespace {

const String16 kDescriptor("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinder");

volatile size_t sSink;

// Runs the reads named by ops over p. Every returned pointer must stay inside the parcel
// and be terminated where the platform promises it.
void readAll(const Parcel& p, const std::vector<uint8_t>& ops) {
    for (size_t i = 0; i < ops.size(); i++) {
        const uint8_t op = ops[i];
        const uint8_t arg = i + 1 < ops.size() ? ops[i + 1] : 0;
        switch (op % 26) {
            case 0:
                sSink += p.readInt32();
                break;
            case 1:
                sSink += p.readUint32();
                break;
            case 2:
                sSink += p.readInt64();
                break;
            case 3:
                sSink += p.readUint64();
                break;
            case 4:
                sSink += static_cast<size_t>(p.readFloat() != 0);
                break;
            case 5:
                sSink += static_cast<size_t>(p.readDouble() != 0);
                break;
            case 6:
                sSink += p.readBool();
                break;
            case 7:
                sSink += p.readChar();
                break;
            case 8:
                sSink += p.readByte();
                break;
            case 9: {
                const char* s = p.readCString();
                if (s != nullptr) sSink += strlen(s);
                break;
            }
            case 10:
                sSink += p.readString8().size();
                break;
            case 11: {
                size_t len = 0;
                const char* s = p.readString8Inplace(&len);
                if (s != nullptr && s[len] != '\0') abort();
                break;
            }
            case 12:
                sSink += String8(p.readString16()).size();
                break;
            case 13: {
                size_t len = 0;
                const char16_t* s = p.readString16Inplace(&len);
                if (s != nullptr && s[len] != 0) abort();
                break;
            }
            case 14: {
                sp<IBinder> b = p.readStrongBinder();
                if (b != nullptr) sSink += b->isBinderAlive();
                break;
            }
            case 15: {
                sp<IBinder> b;
                sSink += p.readNullableStrongBinder(&b);
                break;
            }
            case 16:
                sSink += p.readExceptionCode();
                break;
            case 17:
                sSink += p.readFileDescriptor();
                break;
            case 18: {
                const void* v = p.readInplace(arg);
                if (v != nullptr && arg > 0) sSink += static_cast<const uint8_t*>(v)[arg - 1];
                break;
            }
            case 19: {
                uint8_t buf[256];
                sSink += p.read(buf, arg);
                break;
            }
            case 20:
                p.setDataPosition(static_cast<size_t>(arg) * 4);
                break;
            case 21:
                sSink += p.enforceInterface(kDescriptor);
                break;
            case 22: {
                std::unique_ptr<String16> s;
                sSink += p.readString16(&s);
                break;
            }
            case 23: {
                Parcel copy;
                sSink += copy.appendFrom(&p, static_cast<size_t>(arg) * 4, p.dataAvail());
                sSink += copy.objectsCount();
                break;
            }
            case 24: {
                String8 s;
                sSink += p.readString8(&s);
                break;
            }
            default: {
                int32_t v;
                sSink += p.readInt32(&v);
                break;
            }
        }
    }
}

int nextFreeFd() {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
}

bool sInitialized = false;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzSilenceLog();
    // Endpoint names on the wire are only trusted under this prefix.
    setenv("BINDER_HOST_NS", "qf", 1);
    // The transport opens its own descriptors once, before any run is measured.
    android::hostbinder::Transport::get();
    sInitialized = true;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!sInitialized) LLVMFuzzerInitialize(nullptr, nullptr);
    const int firstFreeFd = nextFreeFd();
    FuzzInput in(data, size);
    const std::vector<uint8_t> ops = in.bytes(in.u8());
    const uint8_t fdCount = in.u8() % 4;
    const std::vector<uint8_t> bytes = in.rest();

    {
        Parcel raw;
        raw.setData(bytes.data(), bytes.size());
        readAll(raw, ops);
    }

    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) abort();
    std::vector<int> fds;
    for (int i = 0; i < fdCount; i++) fds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
    struct iovec iov = {const_cast<uint8_t*>(bytes.data()), bytes.size()};
    struct msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    if (!fds.empty() && !bytes.empty()) {
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
        struct cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
        memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
    }
    if (!bytes.empty() && sendmsg(sv[1], &msg, MSG_NOSIGNAL) < 0) abort();
    for (int fd : fds) close(fd);
    // The rest of a truncated message never comes.
    shutdown(sv[1], SHUT_WR);
    {
        android::hostbinder::Message m;
        if (android::hostbinder::recvMessage(sv[0], &m) == android::NO_ERROR) {
            Parcel p;
            if (android::hostbinder::Wire::unflatten(android::hostbinder::Transport::get(), &p,
                                                     &m) == android::NO_ERROR) {
                readAll(p, ops);
            }
        }
    }
    close(sv[0]);
    close(sv[1]);
    // Every descriptor a message carried is closed with it or with its parcel.
    if (nextFreeFd() != firstFreeFd) abort();
    return 0;
}
