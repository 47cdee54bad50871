#define LOG_TAG "HostBinder"

#include "Transport.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <pthread.h>
#include <stddef.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace android {
namespace hostbinder {

namespace {

constexpr int kRestTimeoutMs = 1000;
// A looper that has served a connection waits this long on it for the caller's next message
// before handing it back to the shared set; a busy caller comes back far sooner.
constexpr int kParkTimeoutMs = 20;
constexpr size_t kMaxIdlePerEndpoint = 16;
constexpr size_t kMaxTail = size_t(kMaxObjects) * (sizeof(WireObject) + kMaxEndpointName + 1);

Transport* sInstance = nullptr;
std::once_flag sAtforkOnce;

void resetAfterFork() {
    // The parent's threads do not exist here; start over and leak the old state.
    sInstance = nullptr;
}

inline size_t pad4(size_t n) {
    return (n + 3) & ~size_t(3);
}

// Reads into iov until at least min bytes arrived, collecting passed descriptors; *got tells
// how many (at most the iov's total). With firstWaits the first read waits as the socket does:
// for ever, or up to its receive timeout (WOULD_BLOCK when nothing came). The rest of a message
// must follow within a second, or the message fails.
status_t readAtLeast(int fd, struct iovec* iov, int iovcnt, size_t min, size_t* got,
                     std::vector<int>* fds, bool firstWaits) {
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    *got = 0;
    while (*got < min) {
        struct iovec cur[2];
        int n = 0;
        size_t skip = *got;
        for (int i = 0; i < iovcnt && n < 2; i++) {
            if (skip >= iov[i].iov_len) {
                skip -= iov[i].iov_len;
                continue;
            }
            cur[n].iov_base = static_cast<char*>(iov[i].iov_base) + skip;
            cur[n].iov_len = iov[i].iov_len - skip;
            skip = 0;
            n++;
        }
        struct msghdr msg = {};
        msg.msg_iov = cur;
        msg.msg_iovlen = size_t(n);
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        const bool wait = firstWaits && *got == 0;
        const ssize_t r = recvmsg(fd, &msg, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
        if (r < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return *got == 0 ? DEAD_OBJECT : -errno;
            if (wait) return WOULD_BLOCK;
            struct pollfd pfd = {fd, POLLIN, 0};
            const int p = poll(&pfd, 1, kRestTimeoutMs);
            if (p < 0 && errno == EINTR) continue;
            if (p <= 0) return TIMED_OUT;
            continue;
        }
        for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
                const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
                const int* p = reinterpret_cast<const int*>(CMSG_DATA(c));
                for (size_t i = 0; i < count; i++) {
                    int passed;
                    memcpy(&passed, p + i, sizeof(int));
                    fds->push_back(passed);
                }
            }
        }
        if (msg.msg_flags & MSG_CTRUNC) return BAD_VALUE;
        if (r == 0) return *got == 0 ? DEAD_OBJECT : NOT_ENOUGH_DATA;
        *got += size_t(r);
        if (fds->size() > kMaxFds) return BAD_VALUE;
    }
    return NO_ERROR;
}

pid_t pidFromEndpoint(const std::string& endpoint) {
    const size_t slash = endpoint.rfind("/proc/");
    if (slash == std::string::npos) return 0;
    return pid_t(atoi(endpoint.c_str() + slash + 6));
}

uint64_t makeNonce() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    uint64_t v = uint64_t(ts.tv_sec) * 1000000007ull ^ uint64_t(ts.tv_nsec) ^
                 (uint64_t(getpid()) << 32) ^ uint64_t(gettid());
    v ^= v >> 33;
    v *= 0xff51afd7ed558ccdull;
    v ^= v >> 33;
    return v;
}

}  // namespace

Message::~Message() {
    for (int fd : fds) close(fd);
}

status_t sendMessage(int fd, const WireHeader& hdr, const void* data, const std::string& tail,
                     const std::vector<int>& fds) {
    struct iovec iov[3] = {
            {const_cast<WireHeader*>(&hdr), sizeof(hdr)},
            {const_cast<void*>(data), hdr.dataSize},
            {const_cast<char*>(tail.data()), tail.size()},
    };
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    size_t total = sizeof(hdr) + hdr.dataSize + tail.size();
    size_t sent = 0;
    bool first = true;
    while (sent < total) {
        // Skip what is already out.
        struct iovec cur[3];
        int n = 0;
        size_t skip = sent;
        for (const auto& v : iov) {
            if (skip >= v.iov_len) {
                skip -= v.iov_len;
                continue;
            }
            cur[n].iov_base = static_cast<char*>(v.iov_base) + skip;
            cur[n].iov_len = v.iov_len - skip;
            skip = 0;
            n++;
        }
        struct msghdr msg = {};
        msg.msg_iov = cur;
        msg.msg_iovlen = n;
        if (first && !fds.empty()) {
            msg.msg_control = control;
            msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
            struct cmsghdr* c = CMSG_FIRSTHDR(&msg);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
            memcpy(CMSG_DATA(c), fds.data(), sizeof(int) * fds.size());
        }
        ssize_t w = sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (w < 0) {
            if (errno == EINTR) continue;
            return -errno;
        }
        first = false;
        sent += size_t(w);
    }
    return NO_ERROR;
}

ReadAhead::~ReadAhead() {
    for (int fd : fds) close(fd);
}

status_t recvMessage(int fd, Message* m, ReadAhead* ahead) {
    ReadAhead last;
    ReadAhead* a = ahead != nullptr ? ahead : &last;
    if (a->have < sizeof(m->hdr)) {
        // A small message comes whole with its header, and what follows it waits in `a`.
        const bool fresh = a->have == 0;
        struct iovec iov = {a->bytes + a->have, sizeof(a->bytes) - a->have};
        size_t got = 0;
        const status_t err =
                readAtLeast(fd, &iov, 1, sizeof(m->hdr) - a->have, &got, &a->fds, fresh);
        a->have += got;
        if (err != NO_ERROR) return !fresh && err == DEAD_OBJECT ? NOT_ENOUGH_DATA : err;
    }
    memcpy(&m->hdr, a->bytes, sizeof(m->hdr));
    m->headerRead = true;
    const WireHeader& h = m->hdr;
    if (h.magic != kWireMagic || h.kind < WIRE_TRANSACTION || h.kind > WIRE_LOOKUP_REPLY) {
        ALOGE("bad message header (magic 0x%x, kind %u)", h.magic, h.kind);
        return BAD_VALUE;
    }
    if (h.dataSize > kMaxTransactionData || h.objCount > kMaxObjects || h.fdCount > kMaxFds ||
        h.tailSize > kMaxTail) {
        ALOGE("oversized message: %u data bytes, %u objects, %u fds, %u table bytes", h.dataSize,
              h.objCount, h.fdCount, h.tailSize);
        return BAD_VALUE;
    }
    const size_t body = size_t(h.dataSize) + h.tailSize;
    const size_t early = std::min(a->have - sizeof(m->hdr), body);
    const size_t earlyData = std::min(early, size_t(h.dataSize));
    const size_t earlyTail = early - earlyData;
    m->data.resize(h.dataSize);
    m->tail.resize(h.tailSize);
    const uint8_t* const from = a->bytes + sizeof(m->hdr);
    if (earlyData > 0) memcpy(m->data.data(), from, earlyData);
    if (earlyTail > 0) memcpy(m->tail.data(), from + earlyData, earlyTail);
    a->have -= sizeof(m->hdr) + early;
    memmove(a->bytes, from + early, a->have);
    if (early < body) {
        // The rest of a large message is read in place, never past its end.
        struct iovec rest[2] = {{m->data.data() + earlyData, h.dataSize - earlyData},
                                {m->tail.data() + earlyTail, h.tailSize - earlyTail}};
        size_t got = 0;
        const status_t err = readAtLeast(fd, rest, 2, body - early, &got, &a->fds, false);
        if (err != NO_ERROR) return err == DEAD_OBJECT ? NOT_ENOUGH_DATA : err;
    }
    // Descriptors come with the first bytes of their message, so in message order; any left
    // with no message begun after this one came with none.
    if (a->fds.size() < h.fdCount || (a->have == 0 && a->fds.size() > h.fdCount)) {
        ALOGE("message announced %u fds but carried %zu", h.fdCount, a->fds.size());
        return BAD_VALUE;
    }
    m->fds.assign(a->fds.begin(), a->fds.begin() + h.fdCount);
    a->fds.erase(a->fds.begin(), a->fds.begin() + h.fdCount);
    if (ahead == nullptr && last.have > 0) {
        ALOGE("message followed by %zu stray bytes", last.have);
        return BAD_VALUE;
    }
    return NO_ERROR;
}

int connectAbstract(const std::string& name) {
    if (name.empty() || name.size() > kMaxEndpointName) return -1;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = socklen_t(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
    int r;
    do {
        r = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), len);
    } while (r < 0 && errno == EINTR);
    if (r < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool peerCredentials(int fd, pid_t* pid, uid_t* uid) {
    struct ucred cred = {};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
    *pid = cred.pid;
    *uid = cred.uid;
    return true;
}

status_t Wire::flatten(Transport& t, const Parcel& p, std::string* tail, std::vector<int>* fds,
                       uint32_t* objCount) {
    *objCount = 0;
    if (p.mObjects.size() > kMaxObjects) return BAD_VALUE;
    for (const auto& o : p.mObjects) {
        WireObject w = {};
        w.offset = uint32_t(o.offset);
        std::string name;
        if (o.fd >= 0) {
            if (fds->size() >= kMaxFds) return BAD_VALUE;
            w.type = WIRE_OBJ_FD;
            w.id = fds->size();
            fds->push_back(o.fd);
        } else if (o.binder != nullptr) {
            w.type = WIRE_OBJ_BINDER;
            if (BpBinder* bp = o.binder->remoteBinder()) {
                name = bp->endpoint();
                w.id = bp->objectId();
            } else {
                name = t.endpoint();
                if (name.empty()) return FAILED_TRANSACTION;
                w.id = t.exportBinder(o.binder);
            }
        } else {
            continue;
        }
        w.nameLen = uint32_t(name.size());
        tail->append(reinterpret_cast<const char*>(&w), sizeof(w));
        tail->append(name);
        tail->append(pad4(name.size()) - name.size(), '\0');
        (*objCount)++;
    }
    return NO_ERROR;
}

status_t Wire::unflatten(Transport& t, Parcel* p, Message* m) {
    p->freeData();
    const size_t dataSize = m->data.size();
    std::vector<Parcel::Object> objects;
    std::vector<bool> fdUsed(m->fds.size(), false);
    size_t pos = 0;
    size_t nextFree = 0;
    for (uint32_t i = 0; i < m->hdr.objCount; i++) {
        WireObject w;
        if (m->tail.size() - pos < sizeof(w)) return BAD_VALUE;
        memcpy(&w, m->tail.data() + pos, sizeof(w));
        pos += sizeof(w);
        if (w.nameLen > kMaxEndpointName || m->tail.size() - pos < pad4(w.nameLen)) {
            return BAD_VALUE;
        }
        std::string name(reinterpret_cast<const char*>(m->tail.data() + pos), w.nameLen);
        pos += pad4(w.nameLen);
        if ((w.offset & 3) != 0 || w.offset < nextFree || w.offset > dataSize ||
            dataSize - w.offset < kFlatObjectSize) {
            ALOGE("object %u at bad offset %u", i, w.offset);
            return BAD_VALUE;
        }
        nextFree = w.offset + kFlatObjectSize;
        FlatObject flat = {};
        Parcel::Object obj{w.offset, nullptr, -1, false};
        if (w.type == WIRE_OBJ_FD) {
            if (w.id >= m->fds.size() || fdUsed[w.id]) {
                ALOGE("object %u names bad fd %llu", i, (unsigned long long)w.id);
                return BAD_VALUE;
            }
            fdUsed[w.id] = true;
            obj.fd = m->fds[w.id];
            obj.ownsFd = true;
            flat.type = kFlatTypeFd;
            flat.handle = uint64_t(obj.fd);
            flat.cookie = 1;
        } else if (w.type == WIRE_OBJ_BINDER) {
            bool bad = false;
            obj.binder = t.resolve(name, w.id, &bad);
            if (bad || obj.binder == nullptr) {
                ALOGE("object %u refers to unknown binder %llu", i, (unsigned long long)w.id);
                return BAD_VALUE;
            }
            flat.type = obj.binder->localBinder() ? kFlatTypeBinder : kFlatTypeHandle;
        } else {
            ALOGE("object %u has bad type %u", i, w.type);
            return BAD_VALUE;
        }
        memcpy(m->data.data() + w.offset, &flat, sizeof(flat));
        objects.push_back(obj);
    }
    // Descriptors now belong to the parcel; unreferenced ones are closed with the message.
    std::vector<int> rest;
    for (size_t i = 0; i < m->fds.size(); i++) {
        if (!fdUsed[i]) rest.push_back(m->fds[i]);
    }
    m->fds.swap(rest);
    p->mData.swap(m->data);
    for (auto& o : objects) {
        p->mObjectOffsets.push_back(o.offset);
        p->mObjects.push_back(std::move(o));
    }
    p->mDataPos = 0;
    return NO_ERROR;
}

Transport& Transport::get() {
    static std::mutex* sLock = new std::mutex;
    std::call_once(sAtforkOnce, [] { pthread_atfork(nullptr, nullptr, resetAfterFork); });
    Transport* t = __atomic_load_n(&sInstance, __ATOMIC_ACQUIRE);
    if (t != nullptr) return *t;
    std::lock_guard<std::mutex> l(*sLock);
    if (sInstance == nullptr) __atomic_store_n(&sInstance, new Transport(), __ATOMIC_RELEASE);
    return *sInstance;
}

Transport::Transport()
    : mPid(getpid()),
      mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mNextId(1),
      mWatchEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mWatcherStarted(false),
      mMaxThreads(15),
      mSpawnAllowed(false),
      mIdleThreads(0),
      mParked(0),
      mSpawned(0) {}

std::string Transport::nsPrefix() {
    const char* ns = getenv("BINDER_HOST_NS");
    return (ns != nullptr && *ns != '\0') ? std::string(ns) : std::string("binder-host");
}

std::string Transport::serviceSocketName(const std::string& name) {
    return nsPrefix() + "/svc/" + name;
}

int Transport::listenAbstract(const std::string& name) {
    if (name.size() > kMaxEndpointName) return -ENAMETOOLONG;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -errno;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = socklen_t(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), len) != 0 || listen(fd, 128) != 0) {
        const int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

std::string Transport::endpoint() {
    std::lock_guard<std::mutex> l(mLock);
    return endpointLocked();
}

std::string Transport::endpointLocked() {
    if (!mEndpoint.empty()) return mEndpoint;
    for (int attempt = 0; attempt < 8; attempt++) {
        char buf[64];
        snprintf(buf, sizeof(buf), "/proc/%d.%016llx", int(mPid), (unsigned long long)makeNonce());
        const std::string name = nsPrefix() + buf;
        const int fd = listenAbstract(name);
        if (fd == -EADDRINUSE) continue;
        if (fd < 0) {
            ALOGE("cannot listen on binder endpoint %s: %s", name.c_str(), strerror(-fd));
            return std::string();
        }
        mEndpoint = name;
        addSource(new Source(Source::LISTENER, fd, 0));
        if (mSpawned.load() == 0) spawnLooper();
        return mEndpoint;
    }
    return std::string();
}

void Transport::addSource(Source* s) {
    {
        std::lock_guard<std::mutex> l(mSourcesLock);
        mSources.insert(s);
    }
    struct epoll_event ev = {};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = s;
    if (epoll_ctl(mEpoll, EPOLL_CTL_ADD, s->fd, &ev) != 0) {
        ALOGE("epoll add failed: %s", strerror(errno));
    }
}

void Transport::rearm(Source* s) {
    struct epoll_event ev = {};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.ptr = s;
    epoll_ctl(mEpoll, EPOLL_CTL_MOD, s->fd, &ev);
}

void Transport::dropSource(Source* s) {
    epoll_ctl(mEpoll, EPOLL_CTL_DEL, s->fd, nullptr);
    close(s->fd);
    {
        std::lock_guard<std::mutex> l(mSourcesLock);
        mSources.erase(s);
    }
    delete s;
}

void Transport::spawnLooper() {
    std::lock_guard<std::mutex> l(mSpawnLock);
    const int n = mSpawned.load();
    if (n > 0 && size_t(n) >= mMaxThreads.load()) return;
    mSpawned.fetch_add(1);
    std::thread([this, n] {
        char name[16];
        snprintf(name, sizeof(name), "binder:%d_%X", int(mPid), n + 1);
        pthread_setname_np(pthread_self(), name);
        looperLoop();
    }).detach();
}

void Transport::startPool() {
    mSpawnAllowed.store(true);
    endpoint();
}

status_t Transport::setMaxThreads(size_t n) {
    mMaxThreads.store(n);
    return NO_ERROR;
}

void Transport::joinPool() {
    // The joining thread is itself a looper: no extra one is needed to serve the endpoint.
    mSpawned.fetch_add(1);
    endpoint();
    looperLoop();
}

void Transport::looperLoop() {
    for (;;) {
        struct epoll_event ev;
        mIdleThreads.fetch_add(1);
        const int n = epoll_wait(mEpoll, &ev, 1, -1);
        const int idle = mIdleThreads.fetch_sub(1) - 1;
        if (n <= 0) continue;
        if (idle == 0 && mSpawnAllowed.load() && size_t(mSpawned.load()) < mMaxThreads.load()) {
            spawnLooper();
        }
        Source* s = static_cast<Source*>(ev.data.ptr);
        if (s->kind == Source::CONNECTION) {
            handleConnection(s);
        } else {
            handleListener(s);
        }
    }
}

void Transport::handleListener(Source* s) {
    for (;;) {
        const int fd = accept4(s->fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // The pending peer stays queued; do not spin on it while descriptors run out.
                ALOGE("cannot accept binder connection: %s", strerror(errno));
                usleep(10 * 1000);
            }
            break;
        }
        Source* c = new Source(Source::CONNECTION, fd, s->serviceId);
        const struct timeval park = {0, kParkTimeoutMs * 1000};
        if (!peerCredentials(fd, &c->pid, &c->uid) ||
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &park, sizeof(park)) != 0) {
            close(fd);
            delete c;
            continue;
        }
        addSource(c);
    }
    rearm(s);
}

bool Transport::sendReply(int fd, status_t status, const Parcel* reply) {
    WireHeader h = {};
    h.magic = kWireMagic;
    h.kind = WIRE_REPLY;
    h.status = status;
    std::string tail;
    std::vector<int> fds;
    const void* data = nullptr;
    if (status == NO_ERROR && reply != nullptr) {
        if (reply->dataSize() > kMaxTransactionData) {
            ALOGE("reply of %zu bytes exceeds the %zu byte transaction limit", reply->dataSize(),
                  kMaxTransactionData);
            h.status = FAILED_TRANSACTION;
        } else {
            uint32_t objCount = 0;
            status_t err = Wire::flatten(*this, *reply, &tail, &fds, &objCount);
            if (err != NO_ERROR) {
                h.status = err;
                tail.clear();
                fds.clear();
            } else {
                h.dataSize = uint32_t(reply->dataSize());
                h.objCount = objCount;
                h.fdCount = uint32_t(fds.size());
                h.tailSize = uint32_t(tail.size());
                data = reply->data();
            }
        }
    }
    return sendMessage(fd, h, data, tail, fds) == NO_ERROR;
}

void Transport::handleConnection(Source* s) {
    // The thread stays with the connection for the caller's next message while another looper
    // watches the shared set and a couple of threads are left for it.
    bool parked = false;
    bool keep = true;
    for (;;) {
        Message m;
        const status_t err = recvMessage(s->fd, &m, &s->ahead);
        if (err == WOULD_BLOCK) break;
        if (err != NO_ERROR) {
            if (err != DEAD_OBJECT) {
                ALOGW("dropping connection from pid %d: malformed or incomplete message (%d)",
                      int(s->pid), err);
                if (m.headerRead && m.hdr.kind == WIRE_TRANSACTION &&
                    (m.hdr.flags & IBinder::FLAG_ONEWAY) == 0) {
                    sendReply(s->fd, BAD_VALUE, nullptr);
                }
            }
            keep = false;
            break;
        }
        if (!dispatch(s, &m)) {
            keep = false;
            break;
        }
        const bool stay =
                mIdleThreads.load() > 0 && size_t(mParked.load()) + 2 < mMaxThreads.load();
        if (stay != parked) mParked.fetch_add(stay ? 1 : -1);
        parked = stay;
        // Bytes already read belong to this thread: the shared set does not see them.
        if (!parked && s->ahead.have == 0) break;
    }
    if (parked) mParked.fetch_sub(1);
    if (keep) {
        rearm(s);
    } else {
        dropSource(s);
    }
}

sp<IBinder> Transport::findExport(uint64_t id) {
    std::lock_guard<std::mutex> l(mLock);
    auto it = mExports.find(id);
    return it == mExports.end() ? nullptr : it->second;
}

bool Transport::dispatch(Source* s, Message* m) {
    const WireHeader& h = m->hdr;
    if (h.kind == WIRE_LOOKUP) {
        if (s->serviceId == 0) return sendReply(s->fd, NAME_NOT_FOUND, nullptr);
        const std::string ep = endpoint();
        WireHeader r = {};
        r.magic = kWireMagic;
        r.kind = WIRE_LOOKUP_REPLY;
        r.target = s->serviceId;
        r.dataSize = uint32_t(ep.size());
        return sendMessage(s->fd, r, ep.data(), std::string(), {}) == NO_ERROR;
    }
    if (h.kind != WIRE_TRANSACTION) {
        ALOGW("unexpected message kind %u from pid %d", h.kind, int(s->pid));
        return false;
    }
    const bool oneway = (h.flags & IBinder::FLAG_ONEWAY) != 0;
    sp<IBinder> target = findExport(h.target);
    if (target == nullptr) {
        ALOGW("transaction for unknown object %llu from pid %d", (unsigned long long)h.target,
              int(s->pid));
        return oneway ? true : sendReply(s->fd, DEAD_OBJECT, nullptr);
    }
    Parcel data;
    status_t err = Wire::unflatten(*this, &data, m);
    if (err != NO_ERROR) {
        ALOGW("rejecting malformed transaction %u from pid %d", h.code, int(s->pid));
        return oneway ? true : sendReply(s->fd, err, nullptr);
    }
    IPCThreadState* ts = IPCThreadState::self();
    const pid_t oldPid = ts->getCallingPid();
    const uid_t oldUid = ts->getCallingUid();
    const int32_t oldFlags = ts->getLastTransactionBinderFlags();
    const int32_t oldPolicy = ts->getStrictModePolicy();
    ts->setCallingIdentity(s->pid, s->uid);
    ts->setLastTransactionBinderFlags(int32_t(h.flags));
    Parcel reply;
    err = target->transact(h.code, data, &reply, h.flags);
    ts->setCallingIdentity(oldPid, oldUid);
    ts->setLastTransactionBinderFlags(oldFlags);
    ts->setStrictModePolicy(oldPolicy);
    if (oneway) return true;
    return sendReply(s->fd, err < NO_ERROR ? err : NO_ERROR, &reply);
}

int Transport::acquireConnection(const std::string& ep, bool* reused) {
    {
        std::lock_guard<std::mutex> l(mLock);
        auto it = mIdle.find(ep);
        if (it != mIdle.end() && !it->second.empty()) {
            const int fd = it->second.back();
            it->second.pop_back();
            *reused = true;
            return fd;
        }
    }
    *reused = false;
    return connectAbstract(ep);
}

void Transport::releaseConnection(const std::string& ep, int fd) {
    {
        std::lock_guard<std::mutex> l(mLock);
        auto& v = mIdle[ep];
        if (v.size() < kMaxIdlePerEndpoint) {
            v.push_back(fd);
            return;
        }
    }
    close(fd);
}

status_t Transport::transact(BpBinder* target, uint32_t code, const Parcel& data, Parcel* reply,
                             uint32_t flags) {
    if (data.dataSize() > kMaxTransactionData) {
        ALOGE("transaction of %zu bytes exceeds the %zu byte transaction limit", data.dataSize(),
              kMaxTransactionData);
        return FAILED_TRANSACTION;
    }
    WireHeader h = {};
    h.magic = kWireMagic;
    h.kind = WIRE_TRANSACTION;
    h.target = target->objectId();
    h.code = code;
    h.flags = flags;
    std::string tail;
    std::vector<int> fds;
    uint32_t objCount = 0;
    status_t err = Wire::flatten(*this, data, &tail, &fds, &objCount);
    if (err != NO_ERROR) return err;
    h.dataSize = uint32_t(data.dataSize());
    h.objCount = objCount;
    h.fdCount = uint32_t(fds.size());
    h.tailSize = uint32_t(tail.size());
    const std::string& ep = target->endpoint();
    const bool oneway = (flags & IBinder::FLAG_ONEWAY) != 0;
    for (int attempt = 0; attempt < 2; attempt++) {
        bool reused = false;
        const int fd = acquireConnection(ep, &reused);
        if (fd < 0) return DEAD_OBJECT;
        err = sendMessage(fd, h, data.data(), tail, fds);
        if (err != NO_ERROR) {
            close(fd);
            // A pooled connection may have been dropped by the peer; try a fresh one once.
            if (reused) continue;
            return DEAD_OBJECT;
        }
        if (oneway) {
            releaseConnection(ep, fd);
            return NO_ERROR;
        }
        Message m;
        err = recvMessage(fd, &m);
        if (err != NO_ERROR || m.hdr.kind != WIRE_REPLY) {
            close(fd);
            if (err == DEAD_OBJECT && reused && !m.headerRead) {
                // The peer closed an idle connection before reading our call.
                continue;
            }
            return err == DEAD_OBJECT ? DEAD_OBJECT : FAILED_TRANSACTION;
        }
        releaseConnection(ep, fd);
        if (m.hdr.status != NO_ERROR) {
            if (reply != nullptr) reply->freeData();
            return m.hdr.status;
        }
        if (reply == nullptr) return NO_ERROR;
        err = Wire::unflatten(*this, reply, &m);
        if (err != NO_ERROR) {
            reply->freeData();
            return err;
        }
        return NO_ERROR;
    }
    return DEAD_OBJECT;
}

uint64_t Transport::exportBinder(const sp<IBinder>& binder) {
    std::lock_guard<std::mutex> l(mLock);
    auto it = mExportIds.find(binder.get());
    if (it != mExportIds.end()) return it->second;
    const uint64_t id = mNextId++;
    mExports[id] = binder;
    mExportIds[binder.get()] = id;
    return id;
}

sp<IBinder> Transport::resolve(const std::string& ep, uint64_t id, bool* bad) {
    *bad = false;
    std::lock_guard<std::mutex> l(mLock);
    if (!mEndpoint.empty() && ep == mEndpoint) {
        auto it = mExports.find(id);
        if (it == mExports.end()) {
            *bad = true;
            return nullptr;
        }
        return it->second;
    }
    if (ep.compare(0, nsPrefix().size() + 6, nsPrefix() + "/proc/") != 0) {
        *bad = true;
        return nullptr;
    }
    const std::string key = ep + '#' + std::to_string(id);
    auto it = mProxies.find(key);
    if (it != mProxies.end()) {
        sp<BpBinder> p = it->second.promote();
        if (p != nullptr) return p;
    }
    sp<BpBinder> p = new BpBinder(ep, id, pidFromEndpoint(ep));
    mProxies[key] = p;
    return p;
}

void Transport::forgetProxy(BpBinder* proxy) {
    std::lock_guard<std::mutex> l(mLock);
    const std::string key = proxy->endpoint() + '#' + std::to_string(proxy->objectId());
    auto it = mProxies.find(key);
    if (it != mProxies.end() && it->second.unsafe_get() == proxy) mProxies.erase(it);
}

sp<IBinder> Transport::checkService(const std::string& name) {
    const int fd = connectAbstract(serviceSocketName(name));
    if (fd < 0) return nullptr;
    WireHeader h = {};
    h.magic = kWireMagic;
    h.kind = WIRE_LOOKUP;
    sp<IBinder> result;
    Message m;
    if (sendMessage(fd, h, nullptr, std::string(), {}) == NO_ERROR &&
        recvMessage(fd, &m) == NO_ERROR && m.hdr.kind == WIRE_LOOKUP_REPLY) {
        const std::string ep(m.data.begin(), m.data.end());
        bool bad = false;
        result = resolve(ep, m.hdr.target, &bad);
    }
    close(fd);
    return result;
}

status_t Transport::addService(const std::string& name, const sp<IBinder>& binder) {
    if (binder == nullptr || name.empty() || name.size() > 127) return BAD_VALUE;
    for (char c : name) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.' &&
            c != '/') {
            ALOGE("invalid service name '%s'", name.c_str());
            return BAD_VALUE;
        }
    }
    if (binder->localBinder() == nullptr) {
        ALOGE("service %s: only local objects can be added on the host", name.c_str());
        return INVALID_OPERATION;
    }
    if (endpoint().empty()) return UNKNOWN_ERROR;
    const uint64_t id = exportBinder(binder);
    std::lock_guard<std::mutex> l(mLock);
    auto it = mServices.find(name);
    if (it != mServices.end()) {
        // Accepted connections keep the id they were accepted with; lookups are brief.
        it->second->serviceId = id;
        return NO_ERROR;
    }
    const std::string sock = serviceSocketName(name);
    const int fd = listenAbstract(sock);
    if (fd < 0) {
        ALOGE("cannot add service %s: %s", name.c_str(), strerror(-fd));
        return fd == -EADDRINUSE ? ALREADY_EXISTS : status_t(fd);
    }
    Source* s = new Source(Source::SERVICE_LISTENER, fd, id);
    mServices[name] = s;
    addSource(s);
    return NO_ERROR;
}

std::vector<std::string> Transport::listServices() {
    std::set<std::string> names;
    std::ifstream in("/proc/net/unix");
    const std::string want = "@" + nsPrefix() + "/svc/";
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::istringstream ls(line);
        std::string num, refs, proto, flags, type, st, inode, path;
        if (!(ls >> num >> refs >> proto >> flags >> type >> st >> inode >> path)) continue;
        if ((strtoul(flags.c_str(), nullptr, 16) & 0x10000) == 0) continue;  // not listening
        if (path.compare(0, want.size(), want) != 0) continue;
        names.insert(path.substr(want.size()));
    }
    return std::vector<std::string>(names.begin(), names.end());
}

void Transport::ensureWatcher() {
    if (mWatcherStarted) return;
    mWatcherStarted = true;
    std::thread([this] {
        pthread_setname_np(pthread_self(), "binder:watch");
        watcherLoop();
    }).detach();
}

status_t Transport::watch(const sp<BpBinder>& proxy) {
    std::lock_guard<std::mutex> l(mLock);
    const std::string& ep = proxy->endpoint();
    if (mWatches.count(ep) != 0) return NO_ERROR;
    const int fd = connectAbstract(ep);
    if (fd < 0) return DEAD_OBJECT;
    Watch* w = new Watch{ep, fd, -1};
    pid_t pid = 0;
    uid_t uid = 0;
#ifdef SYS_pidfd_open
    // A forked child of the peer could hold its sockets open; the pidfd sees the death.
    if (peerCredentials(fd, &pid, &uid) && pid > 0) {
        w->pidFd = int(syscall(SYS_pidfd_open, pid, 0));
    }
#endif
    struct epoll_event ev = {};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.ptr = w;
    epoll_ctl(mWatchEpoll, EPOLL_CTL_ADD, fd, &ev);
    if (w->pidFd >= 0) epoll_ctl(mWatchEpoll, EPOLL_CTL_ADD, w->pidFd, &ev);
    mWatches[ep] = w;
    ensureWatcher();
    return NO_ERROR;
}

void Transport::watcherLoop() {
    for (;;) {
        struct epoll_event ev;
        const int n = epoll_wait(mWatchEpoll, &ev, 1, -1);
        if (n <= 0) continue;
        Watch* w = static_cast<Watch*>(ev.data.ptr);
        // A live peer never writes on the watch connection: anything readable is its end.
        const std::string ep = w->endpoint;
        epoll_ctl(mWatchEpoll, EPOLL_CTL_DEL, w->sockFd, nullptr);
        close(w->sockFd);
        if (w->pidFd >= 0) {
            epoll_ctl(mWatchEpoll, EPOLL_CTL_DEL, w->pidFd, nullptr);
            close(w->pidFd);
        }
        {
            std::lock_guard<std::mutex> l(mLock);
            mWatches.erase(ep);
        }
        delete w;
        endpointDied(ep);
    }
}

void Transport::endpointDied(const std::string& ep) {
    std::vector<sp<BpBinder>> dead;
    std::vector<int> idle;
    {
        std::lock_guard<std::mutex> l(mLock);
        auto it = mIdle.find(ep);
        if (it != mIdle.end()) {
            idle.swap(it->second);
            mIdle.erase(it);
        }
        const std::string prefix = ep + '#';
        for (auto p = mProxies.lower_bound(prefix);
             p != mProxies.end() && p->first.compare(0, prefix.size(), prefix) == 0; ++p) {
            sp<BpBinder> bp = p->second.promote();
            if (bp != nullptr) dead.push_back(bp);
        }
    }
    for (int fd : idle) close(fd);
    for (auto& bp : dead) bp->sendObituary();
}

}  // namespace hostbinder
}  // namespace android
