// qmedctl: a readable command-line client of the daemon's "Binder.Qmed" service.

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <string>
#include <vector>

#include "StatusView.h"
#include "daemon/IQmedBinderService.h"
#include "listener/IQmedBinderListener.h"

using android::BnInterface;
using android::IBinder;
using android::IPCThreadState;
using android::Parcel;
using android::ProcessState;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;
using android::Vector;

namespace {

const char* kServiceName = "Binder.Qmed";

const char* kUsage =
        "usage: qmedctl COMMAND [ARGS]\n"
        "\n"
        "Talks to the daemon's \"Binder.Qmed\" service (host binder namespace from\n"
        "BINDER_HOST_NS). Only root and uid 1000 are served.\n"
        "\n"
        "Freezer:\n"
        "  freeze PID...              freeze processes (each in a group of its own)\n"
        "  freeze-check PID...        freeze unless one was just called through binder\n"
        "  thaw PID...                thaw processes\n"
        "  thaw-all                   thaw every frozen process\n"
        "Processes:\n"
        "  cputime [all | uid UID... | pid PID...]\n"
        "                             CPU-time records (uid, time, name)\n"
        "  cmdline PID                first argument of the command line\n"
        "  pidof NAME [UID]           pid of the first process called NAME (UID -1: any)\n"
        "  utime PID                  user-mode time in clock ticks\n"
        "  kill PID...                SIGKILL the processes (-1 ends the list)\n"
        "  sockets UID [PID]          destroy the TCP sockets of UID (or of PID only)\n"
        "Nodes:\n"
        "  watchdog TYPE DURATION HOLDTIME [EXTEND]\n"
        "                             write a record to the power watchdog\n"
        "  read-node PATH [DEF]       read a number from a file node (DEF when unreadable)\n"
        "  write-node PATH TEXT       write TEXT to an existing file node\n"
        "Kernel module:\n"
        "  mask MASK                  set the kernel-state mask\n"
        "  wakelock CMD NAME TIMEOUT  send a kernel wakelock command\n"
        "  kstate-sync CMD            synchronise with the kernel module\n"
        "CPU limiter:\n"
        "  spear PID RATE [TYPE] [--children]\n"
        "                             limit PID to RATE percent of a CPU\n"
        "  pause PID CYCLES           pause the limit of PID\n"
        "  stop PID                   stop limiting PID\n"
        "  stop-all                   stop limiting every process\n"
        "  rate PID RATE              change the target rate of PID\n"
        "Other:\n"
        "  status [--json]            what the daemon holds: its pid, the processes in its\n"
        "                             freezer groups, the stopped processes (no binder call)\n"
        "  dump [ARGS]                dump the service (\"debug\" turns debug logging on)\n"
        "  listen MASK                register a listener and print callbacks until\n"
        "                             interrupted (1 kernel state, 2 network packets,\n"
        "                             4 released processes, 0x20000000 dumps)\n"
        "\n"
        "Exit status: 0 done, 1 refused or failed (by the reply, or no service),\n"
        "2 usage error. Warnings go to stderr; stdout carries only results.\n";

int fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int fail(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("qmedctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
    return 1;
}

int usage(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int usage(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    fputs("qmedctl: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputs(" (see qmedctl --help)\n", stderr);
    va_end(ap);
    return 2;
}

bool parseInt(const char* text, long long min, long long max, long long* out) {
    if (text == nullptr || *text == '\0') return false;
    errno = 0;
    char* end = nullptr;
    long long value = strtoll(text, &end, 0);
    if (errno != 0 || *end != '\0' || value < min || value > max) return false;
    *out = value;
    return true;
}

bool parseInt32(const char* text, int* out) {
    long long value;
    if (!parseInt(text, INT32_MIN, UINT32_MAX, &value)) return false;
    *out = static_cast<int>(static_cast<uint32_t>(value));
    return true;
}

// parseInt32 that names what it could not read.
bool num(const char* text, int* out) {
    if (parseInt32(text, out)) return true;
    usage("not a number: %s", text != nullptr ? text : "(none)");
    return false;
}

const char* statusText(status_t status) {
    switch (status) {
        case android::UNKNOWN_TRANSACTION:
            return "unknown transaction (the caller is not root or system?)";
        case android::DEAD_OBJECT:
            return "the daemon died";
        case android::PERMISSION_DENIED:
            return "permission denied";
        case android::BAD_VALUE:
            return "bad value";
        default:
            return strerror(-status);
    }
}

class Client {
  public:
    // Connects on first use, so that usage errors are found without a daemon.
    bool connect() {
        if (mService == nullptr) {
            mService = android::defaultServiceManager()->checkService(String16(kServiceName));
        }
        if (mService == nullptr) fail("service %s is not running", kServiceName);
        return mService != nullptr;
    }

    // Starts a request with the interface token.
    Parcel& request() {
        mData.freeData();
        mData.writeInterfaceToken(IQmedBinderService::descriptor);
        return mData;
    }

    // Sends the request and checks the no-exception marker.
    bool call(uint32_t code) {
        if (!connect()) return false;
        mReply.freeData();
        status_t status = mService->transact(code, mData, &mReply, 0);
        if (status != android::NO_ERROR) {
            fail("transaction %u failed: %s (%d)", code, statusText(status), status);
            return false;
        }
        int32_t exception = mReply.readInt32();
        if (exception != 0) {
            fail("transaction %u answered with exception %d", code, exception);
            return false;
        }
        return true;
    }

    Parcel& reply() { return mReply; }
    sp<IBinder> service() { return mService; }

  private:
    sp<IBinder> mService;
    Parcel mData;
    Parcel mReply;
};

// Prints the int result; a negative one means the daemon refused or failed.
int finishInt(Client& client, const char* what) {
    int32_t result = client.reply().readInt32();
    if (result < 0) return fail("%s failed (result %d)", what, result);
    printf("%s: ok (result %d)\n", what, result);
    return 0;
}

// Limiter results: 1 done; 0 and negative values are refusals.
int finishLimiter(Client& client, const char* what) {
    int32_t result = client.reply().readInt32();
    if (result >= 1) {
        printf("%s: ok (result %d)\n", what, result);
        return 0;
    }
    const char* reason = "the limiter refused";
    switch (result) {
        case 0:
            reason = "no such group, or the group limit is reached";
            break;
        case -1:
            reason = "the limiter is not available";
            break;
        case -2:
            reason = "the process is not limited";
            break;
        case -3:
            reason = "no such process, or not allowed to control it";
            break;
        case -4:
            reason = "the daemon does not limit itself";
            break;
        case -5:
            reason = "not a thread-group leader";
            break;
    }
    return fail("%s failed: %s (result %d)", what, reason, result);
}

// The daemon replies 0 for pids it skips; say which, on stderr. The list ends at -1.
void warnSkipped(const std::vector<int>& pids, bool kill) {
    ProcFs proc;
    for (int pid : pids) {
        if (pid == -1) break;
        if (kill && pid <= 0) continue;  // signals a process group: not ours to judge
        int tgid = pid > 0 ? proc.tgid(pid) : -1;
        if (tgid == -1) {
            fprintf(stderr, "qmedctl: warning: no process has pid %d; the reply does not say so\n",
                    pid);
        } else if (tgid != pid && !kill) {
            fprintf(stderr,
                    "qmedctl: warning: %d is a thread of process %d, which the daemon skips; the "
                    "reply does not say so\n",
                    pid, tgid);
        }
    }
}

// Freeze and thaw lists end with -1 on the wire; a trailing -1 is added when missing.
int pidList(Client& client, uint32_t code, int action, bool terminate, int argc, char** argv,
            const char* what) {
    std::vector<int> pids;
    for (int i = 0; i < argc; i++) {
        int pid;
        if (!num(argv[i], &pid)) return 2;
        pids.push_back(pid);
    }
    if (pids.empty()) return usage("%s needs at least one pid", what);
    if (terminate && pids.back() != -1) pids.push_back(-1);
    if (action != 3) warnSkipped(pids, code == IQmedBinderService::KILL_PROCESS);
    const bool withAction = code == IQmedBinderService::DO_FREEZER;
    Parcel& data = client.request();
    if (withAction) data.writeInt32(action);
    data.writeInt32(static_cast<int32_t>(pids.size()));
    for (int pid : pids) data.writeInt32(pid);
    if (!client.call(code)) return 1;
    return finishInt(client, what);
}

int cmdCputime(Client& client, int argc, char** argv) {
    int type = 0;
    std::vector<int> ids;
    int i = 0;
    if (argc > 0) {
        if (strcmp(argv[0], "all") == 0) {
            type = 0;
        } else if (strcmp(argv[0], "uid") == 0) {
            type = 1;
        } else if (strcmp(argv[0], "pid") == 0) {
            type = 2;
        } else {
            return usage("cputime: expected all, uid or pid, got %s", argv[0]);
        }
        i = 1;
    }
    for (; i < argc; i++) {
        int id;
        if (!num(argv[i], &id)) return 2;
        ids.push_back(id);
    }
    if (type != 0 && ids.empty()) return usage("cputime %s needs at least one id", argv[0]);
    // The daemon wants 1..200 ids even when it does not read them.
    if (ids.empty()) ids.push_back(0);
    Parcel& data = client.request();
    data.writeInt32(type);
    data.writeInt32(static_cast<int32_t>(ids.size()));
    for (int id : ids) data.writeInt32(id);
    if (!client.call(IQmedBinderService::GET_PROC_CPU_TIME)) return 1;
    if (client.reply().dataAvail() == 0) return fail("cputime: the daemon refused the list");
    String8 text(client.reply().readString16());
    // Records are uid, time and name separated by tabs, one field after the other.
    std::vector<std::string> fields;
    std::string field;
    for (const char* p = text.c_str();; p++) {
        if (*p == '\t' || *p == '\0') {
            if (!field.empty()) fields.push_back(field);
            field.clear();
            if (*p == '\0') break;
        } else {
            field += *p;
        }
    }
    printf("%-8s %-10s %s\n", "UID", "CPUTIME", "NAME");
    for (size_t f = 0; f + 2 < fields.size() || f < fields.size(); f += 3) {
        printf("%-8s %-10s %s\n", fields[f].c_str(),
               f + 1 < fields.size() ? fields[f + 1].c_str() : "",
               f + 2 < fields.size() ? fields[f + 2].c_str() : "");
    }
    return 0;
}

class PrintingListener : public BnInterface<IQmedBinderListener> {
  public:
    int onKstateCallback(int len, unsigned char* data) override {
        int kind = 0;
        std::string text;
        if (data != nullptr && len >= 4) memcpy(&kind, data, sizeof(kind));
        if (data != nullptr && len > 16) {
            for (int i = 16; i < len && data[i] != '\0'; i++) text += static_cast<char>(data[i]);
        }
        printf("kstate len=%d kind=%d text=\"%s\"\n", len, kind, text.c_str());
        fflush(stdout);
        return 0;
    }

    int onNetworkPacketCallback(int count, const int* data) override {
        printf("netpacket count=%d values=", count);
        for (int i = 0; data != nullptr && i < count; i++) printf(i ? ",%d" : "%d", data[i]);
        printf("\n");
        fflush(stdout);
        return 0;
    }

    int onStopProcSpearCallback(int pid, const char* reason) override {
        printf("spear-released pid=%d reason=\"%s\"\n", pid, reason != nullptr ? reason : "");
        fflush(stdout);
        return 0;
    }

    int dump(int fd, const Vector<String16>& args) override {
        std::string joined;
        for (size_t i = 0; i < args.size(); i++) {
            if (i) joined += ' ';
            joined += String8(args[i]).c_str();
        }
        dprintf(fd, "qmedctl listener pid %d\n", getpid());
        printf("dump args=\"%s\"\n", joined.c_str());
        fflush(stdout);
        return 0;
    }

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case ON_KSTATE_CALLBACK:
            case ON_NETWORK_PACKET_CALLBACK: {
                if (!data.checkInterface(this)) return android::BAD_TYPE;
                int count = data.readInt32();
                int words = data.readInt32();
                if (words < 0 || static_cast<size_t>(words) > data.dataAvail() / 4) {
                    return android::BAD_VALUE;
                }
                std::vector<int32_t> values(static_cast<size_t>(words));
                for (int i = 0; i < words; i++) values[i] = data.readInt32();
                int result;
                if (code == ON_KSTATE_CALLBACK) {
                    // The count is a byte count; never look past the words received.
                    int len = count < words * 4 ? count : words * 4;
                    result = onKstateCallback(len, reinterpret_cast<unsigned char*>(values.data()));
                } else {
                    result = onNetworkPacketCallback(count < words ? count : words, values.data());
                }
                reply->writeInt32(result);
                return android::NO_ERROR;
            }
            case ON_STOP_PROC_SPEAR_CALLBACK: {
                if (!data.checkInterface(this)) return android::BAD_TYPE;
                int pid = data.readInt32();
                String8 reason(data.readString16());
                reply->writeInt32(onStopProcSpearCallback(pid, reason.c_str()));
                return android::NO_ERROR;
            }
            case DUMP: {
                if (!data.checkInterface(this)) return android::BAD_TYPE;
                int fd = data.readFileDescriptor();
                int argc = data.readInt32();
                Vector<String16> args;
                for (int i = 0; i < argc && data.dataAvail() > 0; i++) {
                    args.add(data.readString16());
                }
                reply->writeInt32(dump(fd, args));
                return android::NO_ERROR;
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }
};

int cmdListen(Client& client, int argc, char** argv) {
    int mask;
    if (argc != 1) return usage("usage: qmedctl listen MASK");
    if (!num(argv[0], &mask)) return 2;
    if (!client.connect()) return 1;

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    // Blocked before the pool starts so that only sigwait below sees them.
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ProcessState::self()->startThreadPool();

    sp<PrintingListener> listener = new PrintingListener();
    Parcel& data = client.request();
    data.writeStrongBinder(android::IInterface::asBinder(listener));
    data.writeInt32(mask);
    if (!client.call(IQmedBinderService::REGISTER_LISTENER)) return 1;
    int result = client.reply().readInt32();
    if (result != 0) {
        static const char* kReasons[] = {"done", "null listener", "already registered",
                                         "not registered", "invalid type mask"};
        return fail("register failed: %d (%s)", result,
                    result >= 0 && result <= 4 ? kReasons[result] : "daemon error");
    }
    printf("listening mask=0x%x pid=%d\n", static_cast<unsigned>(mask), getpid());
    fflush(stdout);

    int sig = 0;
    sigwait(&signals, &sig);
    Parcel& bye = client.request();
    bye.writeStrongBinder(android::IInterface::asBinder(listener));
    if (client.call(IQmedBinderService::UNREGISTER_LISTENER)) {
        printf("unregistered (result %d)\n", client.reply().readInt32());
    }
    fflush(stdout);
    _exit(0);
}

int cmdDump(Client& client, int argc, char** argv) {
    Vector<String16> args;
    for (int i = 0; i < argc; i++) args.add(String16(argv[i]));
    if (!client.connect()) return 1;
    // Into a file of our own rather than stdout: only so can we tell that nothing came back.
    // When nobody reads our stdout any more, the daemon gets it as it is, broken.
    struct pollfd out = {STDOUT_FILENO, 0, 0};
    if (poll(&out, 1, 0) == 1 && (out.revents & POLLERR) != 0) {
        return client.service()->dump(STDOUT_FILENO, args) == android::NO_ERROR ? 0 : 1;
    }
    int fd = memfd_create("qmedctl-dump", MFD_CLOEXEC);
    if (fd < 0) return fail("dump: cannot make a buffer: %s", strerror(errno));
    status_t status = client.service()->dump(fd, args);
    std::string text;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = TEMP_FAILURE_RETRY(read(fd, buf, sizeof(buf)))) > 0;) text.append(buf, n);
    close(fd);
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
    if (status != android::NO_ERROR) {
        return fail("dump failed: %s (%d)", statusText(status), status);
    }
    if (text.rfind("Permission Denial:", 0) == 0) return fail("dump refused");
    if (text.empty()) {
        fputs("qmedctl: nothing came back: no listener takes dump requests (one registered with "
              "mask 0x20000000 would, e.g. qmedctl listen 0x20000000)\n",
              stderr);
    }
    return 0;
}

int cmdStatus(int argc, char** argv) {
    const bool json = argc == 1 && strcmp(argv[0], "--json") == 0;
    if (argc > 1 || (argc == 1 && !json)) return usage("usage: qmedctl status [--json]");
    StatusView view;
    const bool found = view.collect();
    fputs(json ? view.json().c_str() : view.table().c_str(), stdout);
    if (found) return 0;
    std::string where;
    for (const std::string& path : view.looked()) where += (where.empty() ? "" : " nor at ") + path;
    return fail(
            "no freezer hierarchy at %s (no cgroup.procs there); it is seen as root in the "
            "daemon's mount namespace, on a host inside qmed-ns",
            where.c_str());
}

int run(int argc, char** argv) {
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 ||
        strcmp(argv[1], "help") == 0) {
        fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const std::string cmd = argv[1];
    int n = argc - 2;
    char** args = argv + 2;

    Client client;
    auto needArgs = [&](int min, int max, const char* text) {
        if (n >= min && n <= max) return true;
        usage("usage: qmedctl %s", text);
        return false;
    };
    int a = 0, b = 0, c = 0;

    if (cmd == "freeze") {
        return pidList(client, IQmedBinderService::DO_FREEZER, 1, true, n, args, "freeze");
    } else if (cmd == "freeze-check") {
        return pidList(client, IQmedBinderService::DO_FREEZER, 4, true, n, args, "freeze-check");
    } else if (cmd == "thaw") {
        return pidList(client, IQmedBinderService::DO_FREEZER, 2, true, n, args, "thaw");
    } else if (cmd == "thaw-all") {
        if (!needArgs(0, 0, "thaw-all")) return 2;
        char zero[] = "0";
        char* list[] = {zero};
        return pidList(client, IQmedBinderService::DO_FREEZER, 3, true, 1, list, "thaw-all");
    } else if (cmd == "kill") {
        return pidList(client, IQmedBinderService::KILL_PROCESS, 0, false, n, args, "kill");
    } else if (cmd == "cputime") {
        return cmdCputime(client, n, args);
    } else if (cmd == "cmdline") {
        if (!needArgs(1, 1, "cmdline PID") || !num(args[0], &a)) return 2;
        client.request().writeInt32(a);
        if (!client.call(IQmedBinderService::GET_CMDLINE_BY_PID)) return 1;
        String8 text(client.reply().readString16());
        if (text.size() == 0) return fail("no command line for pid %d", a);
        printf("%s\n", text.c_str());
        return 0;
    } else if (cmd == "pidof") {
        if (!needArgs(1, 2, "pidof NAME [UID]")) return 2;
        int uid = -1;
        if (n == 2 && !num(args[1], &uid)) return 2;
        Parcel& data = client.request();
        data.writeString16(String16(args[0]));
        data.writeInt32(uid);
        if (!client.call(IQmedBinderService::GET_PID_BY_NAME_AND_UID)) return 1;
        int pid = client.reply().readInt32();
        if (pid == -1) return fail("no process named %s", args[0]);
        printf("%d\n", pid);
        return 0;
    } else if (cmd == "utime") {
        if (!needArgs(1, 1, "utime PID") || !num(args[0], &a)) return 2;
        client.request().writeInt32(a);
        if (!client.call(IQmedBinderService::GET_PROC_UTIME)) return 1;
        int value = client.reply().readInt32();
        if (value == -1) return fail("cannot read the times of pid %d", a);
        printf("%d\n", value);
        return 0;
    } else if (cmd == "sockets") {
        if (!needArgs(1, 2, "sockets UID [PID]") || !num(args[0], &a)) return 2;
        if (n == 2 && !num(args[1], &b)) return 2;
        Parcel& data = client.request();
        data.writeInt32(a);
        data.writeInt32(b);
        if (!client.call(IQmedBinderService::DESTROY_SOCKETS)) return 1;
        return finishInt(client, "sockets");
    } else if (cmd == "watchdog") {
        if (!needArgs(3, 4, "watchdog TYPE DURATION HOLDTIME [EXTEND]")) return 2;
        long long duration, hold;
        if (!parseInt32(args[0], &a) || !parseInt(args[1], INT64_MIN, INT64_MAX, &duration) ||
            !parseInt(args[2], INT64_MIN, INT64_MAX, &hold)) {
            return usage("watchdog: TYPE, DURATION and HOLDTIME are numbers");
        }
        Parcel& data = client.request();
        data.writeInt32(a);
        data.writeInt64(duration);
        data.writeInt64(hold);
        data.writeString16(String16(n == 4 ? args[3] : ""));
        if (!client.call(IQmedBinderService::SET_POWER_WATCHDOG)) return 1;
        return finishInt(client, "watchdog");
    } else if (cmd == "read-node") {
        if (!needArgs(1, 2, "read-node PATH [DEF]")) return 2;
        int def = -1;
        if (n == 2 && !num(args[1], &def)) return 2;
        Parcel& data = client.request();
        data.writeString16(String16(args[0]));
        data.writeInt32(def);
        if (!client.call(IQmedBinderService::READ_FILE_NODE)) return 1;
        printf("%d\n", client.reply().readInt32());
        return 0;
    } else if (cmd == "write-node") {
        if (!needArgs(2, 2, "write-node PATH TEXT")) return 2;
        Parcel& data = client.request();
        data.writeString16(String16(args[0]));
        data.writeString16(String16(args[1]));
        if (!client.call(IQmedBinderService::WRITE_FILE_NODE)) return 1;
        if (client.reply().readInt32() != 1) return fail("could not write %s", args[0]);
        printf("write-node: ok\n");
        return 0;
    } else if (cmd == "mask") {
        if (!needArgs(1, 1, "mask MASK") || !num(args[0], &a)) return 2;
        client.request().writeInt32(a);
        if (!client.call(IQmedBinderService::SET_KSTATE_MASK)) return 1;
        return finishInt(client, "mask");
    } else if (cmd == "wakelock") {
        if (!needArgs(3, 3, "wakelock CMD NAME TIMEOUT") || !num(args[0], &a) ||
            !num(args[2], &b)) {
            return 2;
        }
        Parcel& data = client.request();
        data.writeInt32(a);
        data.writeString16(String16(args[1]));
        data.writeInt32(b);
        if (!client.call(IQmedBinderService::SET_KWAKELOCK)) return 1;
        return finishInt(client, "wakelock");
    } else if (cmd == "kstate-sync") {
        if (!needArgs(1, 1, "kstate-sync CMD") || !num(args[0], &a)) return 2;
        client.request().writeInt32(a);
        if (!client.call(IQmedBinderService::GET_KSTATE_SYNC)) return 1;
        return finishInt(client, "kstate-sync");
    } else if (cmd == "spear") {
        bool children = false;
        std::vector<char*> rest;
        for (int i = 0; i < n; i++) {
            if (strcmp(args[i], "--children") == 0) {
                children = true;
            } else {
                rest.push_back(args[i]);
            }
        }
        if (rest.size() < 2 || rest.size() > 3) {
            return usage("usage: qmedctl spear PID RATE [TYPE] [--children]");
        }
        if (!num(rest[0], &a) || !num(rest[1], &b) || (rest.size() == 3 && !num(rest[2], &c))) {
            return 2;
        }
        Parcel& data = client.request();
        data.writeInt32(a);
        data.writeInt32(b);
        data.writeInt32(c);
        data.writeInt32(children ? 1 : 0);
        if (!client.call(IQmedBinderService::DO_SPEAR)) return 1;
        return finishLimiter(client, "spear");
    } else if (cmd == "pause") {
        if (!needArgs(2, 2, "pause PID CYCLES") || !num(args[0], &a) || !num(args[1], &b)) {
            return 2;
        }
        Parcel& data = client.request();
        data.writeInt32(a);
        data.writeInt32(b);
        if (!client.call(IQmedBinderService::PAUSE_SPEAR)) return 1;
        return finishLimiter(client, "pause");
    } else if (cmd == "stop") {
        if (!needArgs(1, 1, "stop PID") || !num(args[0], &a)) return 2;
        client.request().writeInt32(a);
        if (!client.call(IQmedBinderService::STOP_SPEAR)) return 1;
        return finishLimiter(client, "stop");
    } else if (cmd == "stop-all") {
        if (!needArgs(0, 0, "stop-all")) return 2;
        client.request();
        if (!client.call(IQmedBinderService::STOP_SPEAR_ALL)) return 1;
        return finishLimiter(client, "stop-all");
    } else if (cmd == "rate") {
        if (!needArgs(2, 2, "rate PID RATE") || !num(args[0], &a) || !num(args[1], &b)) {
            return 2;
        }
        Parcel& data = client.request();
        data.writeInt32(a);
        data.writeInt32(b);
        if (!client.call(IQmedBinderService::CHANGE_SPEAR_PARAM)) return 1;
        return finishLimiter(client, "rate");
    } else if (cmd == "dump") {
        return cmdDump(client, n, args);
    } else if (cmd == "listen") {
        return cmdListen(client, n, args);
    } else if (cmd == "status") {
        return cmdStatus(n, args);
    }
    return usage("unknown command %s", cmd.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    return run(argc, argv);
}
