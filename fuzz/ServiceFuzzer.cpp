// Every transaction code of the service with arbitrary parcels and caller uids, through
// BnQmedBinderService::onTransact in-process and on into the real operations.
//
// The operations kill, stop, freeze, destroy sockets and write any file. The harness keeps
// them harmless by rewriting only their arguments before the real operation runs: pids
// become pids that cannot exist (above the kernel's pid limit) except the values whose
// handling is pure logic (the -1 terminator, INT_MIN), uids for socket destruction become
// uids nobody runs as, and file nodes become files of a private scratch directory. Reads
// of /proc stay real. The freezer is left unmounted (the harness refuses to run where a
// freezer hierarchy is mounted at /dev/frz), so freeze requests end at its refusal.
#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/QmedBinderService.h"
#include "daemon/QmedGlobals.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/FuzzLog.h"
#include "fuzz/FuzzScratch.h"
#include "listener/IQmedBinderListenerService.h"

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String8;

namespace {

// Above the largest pid_max the kernel allows, so kill() and /proc never find these.
constexpr int kNoPid = (1 << 22) + 1;
// A uid range no account uses.
constexpr int kNoUid = 0x6f000000;

int harmlessPid(int pid) {
    if (pid == INT_MIN) return pid;
    if (pid == 0 || pid == -1) return kNoPid;
    if (pid > 0) return kNoPid + (pid & 0xffff);
    return -(kNoPid + static_cast<int>((-static_cast<int64_t>(pid)) & 0xffff));
}

std::string sScratch;

class SandboxedService : public QmedBinderService {
  public:
    explicit SandboxedService(const char* watchdog) : QmedBinderService(watchdog) {}

    int doFreezer(int action, int* pids, int num) override {
        for (int i = 0; i < num; i++) pids[i] = harmlessPid(pids[i]);
        return QmedBinderService::doFreezer(action, pids, num);
    }
    int killProcess(int* pids, int num) override {
        for (int i = 0; i < num; i++) {
            if (pids[i] != -1) pids[i] = harmlessPid(pids[i]);
        }
        return QmedBinderService::killProcess(pids, num);
    }
    int destroySockets(int uid, int pid) override {
        if (uid >= 1) uid = kNoUid + (uid & 0xffff);
        return QmedBinderService::destroySockets(uid, pid > 0 ? harmlessPid(pid) : pid);
    }
    bool writeFileNode(const char* path, const char* content) override {
        std::string node = scratchNode(path);
        return QmedBinderService::writeFileNode(path != nullptr ? node.c_str() : nullptr, content);
    }
    int readFileNode(const char* path, int def) override {
        std::string node = scratchNode(path);
        return QmedBinderService::readFileNode(path != nullptr ? node.c_str() : nullptr, def);
    }
    // Signal 0 probes and lookups only: 0 and -1 keep their meaning here.
    int doSpear(int pid, int rate, int type, bool includeChildren) override {
        return QmedBinderService::doSpear(spearPid(pid), rate, type, includeChildren);
    }
    int pauseSpear(int pid, int time) override {
        return QmedBinderService::pauseSpear(spearPid(pid), time);
    }
    int changeSpearParam(int pid, int rate) override {
        return QmedBinderService::changeSpearParam(spearPid(pid), rate);
    }
    int stopSpear(int pid) override { return QmedBinderService::stopSpear(harmlessPid(pid)); }

  private:
    static int spearPid(int pid) { return pid == 0 || pid == -1 ? pid : harmlessPid(pid); }

    // The path's length picks a node: a writable file, a missing one, a directory, or "".
    static std::string scratchNode(const char* path) {
        if (path == nullptr) return std::string();
        static const char* const kNodes[] = {"/node", "/missing", "/dir", ""};
        size_t pick = strlen(path) % 4;
        return pick == 3 ? std::string() : sScratch + kNodes[pick];
    }
};

class NullListener : public android::BnInterface<IQmedBinderListener> {
  public:
    int onKstateCallback(int, unsigned char*) override { return 0; }
    int onNetworkPacketCallback(int, const int*) override { return 0; }
    int onStopProcSpearCallback(int, const char*) override { return 0; }
    int dump(int, const android::Vector<android::String16>&) override { return 0; }
};

sp<SandboxedService> sService;
sp<IQmedBinderListener> sListener;
int sDumpFd = -1;

const uint32_t kSpecialCodes[] = {IBinder::INTERFACE_TRANSACTION, IBinder::DUMP_TRANSACTION,
                                  IBinder::PING_TRANSACTION, IBinder::FIRST_CALL_TRANSACTION + 99};
const uid_t kUids[] = {0, 1000, 2000, 10057};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (access("/dev/frz/cgroup.procs", F_OK) == 0) {
        fprintf(stderr, "a freezer is mounted at /dev/frz: run this target where it is not\n");
        exit(2);
    }
    fuzzSilenceLog();
    sScratch = fuzzScratchDir("svcfuzz");
    for (const char* f : {"/node", "/watchdog"}) {
        int fd = open((sScratch + f).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd >= 0) close(fd);
    }
    mkdir((sScratch + "/dir").c_str(), 0700);
    sService = new SandboxedService((sScratch + "/watchdog").c_str());
    sListener = new NullListener();
    sDumpFd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (sService == nullptr) LLVMFuzzerInitialize(nullptr, nullptr);
    FuzzInput in(data, size);
    const uint8_t codeSel = in.u8();
    const uint8_t uidSel = in.u8();
    const uint8_t flags = in.u8();
    uint32_t code = codeSel;
    if (codeSel >= 24 && codeSel < 28) code = kSpecialCodes[codeSel - 24];
    if (codeSel >= 28) code = in.u32();
    uid_t uid = kUids[uidSel % 4];
    if (uidSel >= 4 && uidSel < 8) uid = in.u32();
    bDebug = (flags & 4) != 0;

    Parcel request;
    if ((flags & 1) != 0) request.writeInterfaceToken(IQmedBinderService::descriptor);
    if ((flags & 2) != 0) request.writeStrongBinder(android::IInterface::asBinder(sListener));
    // The dump transaction starts with a descriptor.
    if ((flags & 16) != 0) request.writeFileDescriptor(sDumpFd);
    std::vector<uint8_t> rest = in.rest();
    if (!rest.empty()) request.write(rest.data(), rest.size());
    request.setDataPosition(0);

    // The calling identity as the binder layer would have set it for this transaction.
    android::IPCThreadState* ipc = android::IPCThreadState::self();
    const int64_t own = ipc->clearCallingIdentity();
    ipc->restoreCallingIdentity((static_cast<int64_t>(uid) << 32) | static_cast<uint32_t>(1234));

    Parcel reply;
    status_t status = sService->onTransact(code, request, &reply, (flags & 8) != 0 ? 1 : 0);
    const bool permitted = uid == 0 || uid == 1000;
    // Every handled command replies with the no-exception marker first.
    if (permitted && status == android::NO_ERROR && code >= 1 && code <= 22 && code != 6 &&
        code != 7) {
        reply.setDataPosition(0);
        if (reply.dataSize() < 4 || reply.readInt32() != 0) abort();
    }

    ipc->restoreCallingIdentity(own);
    IQmedBinderListenerService::getInstance()->unregisterListener(sListener);
    bDebug = false;
    return 0;
}
