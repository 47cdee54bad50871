// The host binder transport: AF_UNIX stream connections in the abstract namespace.
//
// Each process that exports an object listens on "<ns>/proc/<pid>.<nonce>"; each service it
// adds listens on "<ns>/svc/<name>" (ns from BINDER_HOST_NS). Clients keep a pool of idle
// connections per peer endpoint, so a call costs one write and one read. Incoming messages
// are served by looper threads sharing one epoll set; a connection is armed one-shot so only
// one thread reads it at a time, and the thread that served it waits on it a moment for the
// next message while other loopers watch the set, so a busy caller costs the server one read
// and one write per call as well. Death of a peer is seen by a watcher thread as EOF on a
// connection kept open to it (and, where the kernel allows, a pidfd).
// Thread-safe. A forked child starts with a fresh, empty transport.
#pragma once

#include <binder/BpBinder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "WireFormat.h"

namespace android {
namespace hostbinder {

// A received message. Owns the descriptors until they are handed to a Parcel.
struct Message {
    WireHeader hdr{};
    std::vector<uint8_t> data;
    std::vector<uint8_t> tail;
    std::vector<int> fds;
    bool headerRead = false;
    Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message();
};

status_t sendMessage(int fd, const WireHeader& hdr, const void* data, const std::string& tail,
                     const std::vector<int>& fds);
// What a connection's reader got past the end of the last message: the start of the next
// ones, with the descriptors that came with them.
struct ReadAhead {
    uint8_t bytes[1024];
    size_t have = 0;
    std::vector<int> fds;
    ReadAhead() = default;
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    ~ReadAhead();
};

// Reads one message, the rest of the connection's read-ahead first. Without `ahead` the message
// must be the last thing on fd, as a reply is. The first byte is waited for as the socket does
// (WOULD_BLOCK when its receive timeout passes first); the rest must follow within a second.
status_t recvMessage(int fd, Message* m, ReadAhead* ahead = nullptr);
int connectAbstract(const std::string& name);
bool peerCredentials(int fd, pid_t* pid, uid_t* uid);

class Transport;

// Converts a Parcel's objects to and from the wire's object table.
class Wire {
  public:
    static status_t flatten(Transport& t, const Parcel& p, std::string* tail, std::vector<int>* fds,
                            uint32_t* objCount);
    static status_t unflatten(Transport& t, Parcel* p, Message* m);
};

class Transport {
  public:
    static Transport& get();

    static std::string nsPrefix();
    static std::string serviceSocketName(const std::string& name);

    // Own endpoint name; starts the listener and the first looper when needed.
    std::string endpoint();

    status_t transact(BpBinder* target, uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags);

    sp<IBinder> checkService(const std::string& name);
    status_t addService(const std::string& name, const sp<IBinder>& binder);
    std::vector<std::string> listServices();

    uint64_t exportBinder(const sp<IBinder>& binder);
    // The object named on the wire: a local one when the endpoint is ours (nullptr if the id
    // is unknown), else the one proxy for it.
    sp<IBinder> resolve(const std::string& endpoint, uint64_t id, bool* bad);

    status_t watch(const sp<BpBinder>& proxy);
    void forgetProxy(BpBinder* proxy);

    void startPool();
    void joinPool();
    status_t setMaxThreads(size_t n);
    size_t maxThreads() const { return mMaxThreads.load(); }
    bool poolStarted() const { return mSpawnAllowed.load(); }

  private:
    Transport();

    struct Source {
        enum Kind { LISTENER, SERVICE_LISTENER, CONNECTION };
        Source(Kind k, int f, uint64_t service) : kind(k), fd(f), serviceId(service) {}
        const Kind kind;
        const int fd;
        uint64_t serviceId;
        pid_t pid = 0;
        uid_t uid = 0;
        ReadAhead ahead;
    };

    std::string endpointLocked();
    int listenAbstract(const std::string& name);
    void addSource(Source* s);
    void rearm(Source* s);
    void dropSource(Source* s);
    void spawnLooper();
    void looperLoop();
    void handleListener(Source* s);
    void handleConnection(Source* s);
    bool dispatch(Source* s, Message* m);
    bool sendReply(int fd, status_t status, const Parcel* reply);

    int acquireConnection(const std::string& endpoint, bool* reused);
    void releaseConnection(const std::string& endpoint, int fd);
    sp<IBinder> findExport(uint64_t id);

    void ensureWatcher();
    void watcherLoop();
    void endpointDied(const std::string& endpoint);

    const pid_t mPid;
    std::mutex mLock;
    std::string mEndpoint;
    int mEpoll;
    std::map<std::string, Source*> mServices;
    std::mutex mSourcesLock;     // taken alone or inside mLock
    std::set<Source*> mSources;  // every source in the epoll set, so none is lost
    std::map<uint64_t, sp<IBinder>> mExports;
    std::map<IBinder*, uint64_t> mExportIds;
    uint64_t mNextId;
    std::map<std::string, wp<BpBinder>> mProxies;
    std::map<std::string, std::vector<int>> mIdle;

    struct Watch {
        std::string endpoint;
        int sockFd;
        int pidFd;
    };
    std::map<std::string, Watch*> mWatches;
    int mWatchEpoll;
    bool mWatcherStarted;

    std::atomic<size_t> mMaxThreads;
    std::atomic<bool> mSpawnAllowed;
    std::atomic<int> mIdleThreads;
    std::atomic<int> mParked;  // loopers waiting on one connection, not on the shared set
    std::atomic<int> mSpawned;
    std::mutex mSpawnLock;
};

}  // namespace hostbinder
}  // namespace android
