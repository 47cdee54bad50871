// Kernel event latency: from injection at the simulator to arrival in a
// listener process, against a null binder round trip to the daemon measured in
// the same run; then the sustained event rate with three listeners.
// Run as root through qmed-ns:  build/bin/qmed-ns -- build/bin/bench_msghub [EVENTS]

#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "listener/IQmedBinderListener.h"
#include "tests/support/DaemonHarness.h"
#include "tools/kmodsim/KmodsimControl.h"
#include "tools/kmodsim/KmodsimWire.h"

using namespace android;

namespace {

int64_t nowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

class CountingListener : public BnInterface<IQmedBinderListener> {
  public:
    // Text "seq-N-T": N the sequence number, T the simulator's sending time.
    int onKstateCallback(int len, unsigned char* data) override {
        const int64_t arrival = nowNs();
        long seq = -1;
        int64_t sent = 0;
        if (len > 20 && data != nullptr && memcmp(data + 16, "seq-", 4) == 0) {
            char* end = nullptr;
            seq = strtol(reinterpret_cast<char*>(data) + 20, &end, 10);
            if (end != nullptr && *end == '-') sent = strtoll(end + 1, nullptr, 10);
        }
        std::lock_guard<std::mutex> lock(mLock);
        ++mCount;
        mLastSeq = seq;
        mLastLatencyNs = sent > 0 ? arrival - sent : -1;
        // Waking the waiter only when it is done keeps it off the CPU the callbacks need.
        if (seq == mWantSeq || mCount == mWantCount) mCond.notify_all();
        return 0;
    }
    // The wire side of the callback: count, then count words of payload.
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != ON_KSTATE_CALLBACK) return BBinder::onTransact(code, data, reply, flags);
        if (!data.checkInterface(this)) return BAD_TYPE;
        int count = data.readInt32();
        int words = data.readInt32();
        if (words < 0 || static_cast<size_t>(words) > data.dataAvail() / 4) return BAD_VALUE;
        const void* values = data.readInplace(static_cast<size_t>(words) * 4);
        int len = count < words * 4 ? count : words * 4;
        reply->writeInt32(onKstateCallback(
                len, const_cast<unsigned char*>(static_cast<const unsigned char*>(values))));
        return NO_ERROR;
    }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int onStopProcSpearCallback(int, const char*) override { return 0; }
    int dump(int, const Vector<String16>&) override { return 0; }

    bool waitSeq(long seq) {
        std::unique_lock<std::mutex> lock(mLock);
        mWantSeq = seq;
        return mCond.wait_for(lock, std::chrono::seconds(5), [&] { return mLastSeq == seq; });
    }
    bool waitCount(long count, int seconds) {
        std::unique_lock<std::mutex> lock(mLock);
        mWantCount = count;
        return mCond.wait_for(lock, std::chrono::seconds(seconds), [&] { return mCount >= count; });
    }
    int64_t lastLatencyNs() {
        std::lock_guard<std::mutex> lock(mLock);
        return mLastLatencyNs;
    }
    long count() {
        std::lock_guard<std::mutex> lock(mLock);
        return mCount;
    }

  private:
    std::mutex mLock;
    std::condition_variable mCond;
    long mCount = 0;
    long mLastSeq = -1;
    long mWantSeq = -1;
    long mWantCount = -1;
    int64_t mLastLatencyNs = -1;
};

double percentile(std::vector<double> v, double p) {
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * (v.size() - 1));
    return v[i];
}

// Sends one control command and leaves its answer unread, so that the bench sleeps while the
// event that the simulator sends after answering travels; -1 on failure.
int sendCommand(const std::string& ctl, const std::string& line) {
    struct sockaddr_un addr;
    const socklen_t len = kmodsim::makeAddress(ctl.c_str(), &addr);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd >= 0 && len > 0 && connect(fd, reinterpret_cast<struct sockaddr*>(&addr), len) == 0 &&
        send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
        return fd;
    }
    if (fd >= 0) close(fd);
    return -1;
}

bool answeredOk(int fd) {
    char buf[4096];
    const ssize_t n = fd < 0 ? -1 : recv(fd, buf, sizeof(buf), 0);
    if (fd >= 0) close(fd);
    return n >= 2 && memcmp(buf, "OK", 2) == 0;
}

bool registerListener(const sp<IBinder>& service, const sp<CountingListener>& l) {
    Parcel data, reply;
    data.writeInterfaceToken(IQmedBinderService::descriptor);
    data.writeStrongBinder(IInterface::asBinder(l));
    data.writeInt32(1);
    return service->transact(IQmedBinderService::REGISTER_LISTENER, data, &reply) == NO_ERROR &&
           reply.readInt32() == 0 && reply.readInt32() == 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int events = argc > 1 ? atoi(argv[1]) : 300;
    qmedtest::DaemonOptions opts;
    opts.logLevel = getenv("QMED_BENCH_LOG") ? getenv("QMED_BENCH_LOG") : "w";
    opts.properties.emplace_back("persist.sys.qmed.debug",
                                 getenv("QMED_BENCH_LOG") ? "true" : "false");
    opts.simulator = true;
    qmedtest::Daemon daemon(opts);
    kmodsim::Control ctl(daemon.simulatorCtl());
    if (!daemon.start() || !ctl.ok("wait-identified 5000")) {
        fprintf(stderr, "bench_msghub: daemon did not start:\n%s\n", daemon.log().c_str());
        return 1;
    }
    for (auto& kv : daemon.clientEnv()) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    ProcessState::self()->startThreadPool();
    sp<IBinder> service = defaultServiceManager()->getService(String16("Binder.Qmed"));
    if (service == nullptr) {
        fprintf(stderr, "bench_msghub: no Binder.Qmed\n");
        return 1;
    }

    // Baseline: null binder round trips to the same daemon, half before and half after the
    // events, so that a change of load in between hits both.
    std::vector<double> ping;
    auto pings = [&] {
        for (int i = 0; i < events * 2; ++i) {
            int64_t t0 = nowNs();
            service->pingBinder();
            ping.push_back((nowNs() - t0) / 1000.0);
        }
    };
    pings();

    sp<CountingListener> first = new CountingListener();
    if (!registerListener(service, first)) {
        fprintf(stderr, "bench_msghub: register failed\n");
        return 1;
    }
    std::vector<double> latency;
    for (int i = 0; i < events; ++i) {
        const int fd = sendCommand(daemon.simulatorCtl(),
                                   "event kind 55 seq-" + std::to_string(i) + "-@now");
        const bool arrived = fd >= 0 && first->waitSeq(i);
        if (!answeredOk(fd) || !arrived) {
            fprintf(stderr, "bench_msghub: event %d lost (%ld callbacks)\n%s\n", i, first->count(),
                    daemon.log().c_str());
            return 1;
        }
        latency.push_back(first->lastLatencyNs() / 1000.0);
    }

    sp<CountingListener> second = new CountingListener();
    sp<CountingListener> third = new CountingListener();
    if (!registerListener(service, second) || !registerListener(service, third)) return 1;
    const long flood = events * 10;
    const long before = first->count();
    int64_t t0 = nowNs();
    if (!ctl.ok("flood " + std::to_string(flood) + " kind 55 rate") ||
        !first->waitCount(before + flood, 120) || !second->waitCount(flood, 120) ||
        !third->waitCount(flood, 120)) {
        fprintf(stderr, "bench_msghub: flood incomplete\n");
        return 1;
    }
    double seconds = (nowNs() - t0) / 1e9;
    double rate = flood / seconds;
    pings();

    double pingMedian = percentile(ping, 0.5);
    double latMedian = percentile(latency, 0.5);
    printf("null binder round trip: median %.1f us, p99 %.1f us (%zu calls)\n", pingMedian,
           percentile(ping, 0.99), ping.size());
    printf("event latency simulator -> listener: median %.1f us, p99 %.1f us (%d events)\n",
           latMedian, percentile(latency, 0.99), events);
    printf("latency ratio (median / null round trip): %.2f (target <= 1.30)\n",
           latMedian / pingMedian);
    printf("latency ratio (p99 / null round trip p99): %.2f\n",
           percentile(latency, 0.99) / percentile(ping, 0.99));
    printf("sustained rate, 3 listeners: %.0f events/s (%ld events in %.2f s)\n", rate, flood,
           seconds);
    printf("rate ratio (events/s x 3 callbacks vs null round trips/s): %.2f (target >= 0.80)\n",
           rate * 3 / (1e6 / pingMedian));
    return 0;
}
