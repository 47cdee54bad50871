// CPU-time, command-line and pid queries through the real ykqmed over binder. Runs through
// qmed-ns.
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/String8.h>

#include <string>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using android::String8;
using qmedtest::Daemon;
using qmedtest::TestChild;

namespace {

struct Record {
    int uid;
    unsigned cpu;
    std::string name;
};

std::vector<Record> parseRecords(const std::string& text) {
    std::vector<Record> out;
    if (text.empty()) return out;
    std::vector<std::string> f;
    size_t start = 0;
    for (size_t tab; (tab = text.find('\t', start)) != std::string::npos; start = tab + 1) {
        f.push_back(text.substr(start, tab - start));
    }
    f.push_back(text.substr(start));
    EXPECT_EQ(f.size() % 3, 0u) << text.substr(0, 300);
    for (size_t i = 0; i + 2 < f.size(); i += 3) {
        out.push_back({atoi(f[i].c_str()), static_cast<unsigned>(strtoul(f[i + 1].c_str(), 0, 10)),
                       f[i + 2]});
    }
    return out;
}

void waitForCpu(pid_t pid) {
    qmedtest::waitUntil([&] { return qmedtest::procCpuTicks(pid) > 0; }, 5000);
}

class ProcQueries : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        qmedtest::DaemonOptions opts;
        opts.simulator = true;  // without a kernel module the hub ends the daemon
        sDaemon = new Daemon(opts);
        ASSERT_TRUE(sDaemon->start()) << sDaemon->log();
        setenv("BINDER_HOST_NS", sDaemon->binderNs().c_str(), 1);
        sService = android::defaultServiceManager()->checkService(String16("Binder.Qmed"));
        ASSERT_NE(nullptr, sService.get());
    }
    static void TearDownTestSuite() {
        sService.clear();
        delete sDaemon;
        sDaemon = nullptr;
    }
    void TearDown() override { EXPECT_TRUE(sDaemon->running()) << sDaemon->log(); }

    // Code 9; the text, or "<refused>" when the reply carries no string.
    static std::string cpuTime(int type, const std::vector<int>& ids) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        data.writeInt32(type);
        data.writeInt32(static_cast<int32_t>(ids.size()));
        for (int id : ids) data.writeInt32(id);
        EXPECT_EQ(0, sService->transact(IQmedBinderService::GET_PROC_CPU_TIME, data, &reply));
        EXPECT_EQ(0, reply.readInt32());
        if (reply.dataAvail() == 0) return "<refused>";
        return String8(reply.readString16()).c_str();
    }
    static std::string cmdline(int pid) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        data.writeInt32(pid);
        EXPECT_EQ(0, sService->transact(IQmedBinderService::GET_CMDLINE_BY_PID, data, &reply));
        EXPECT_EQ(0, reply.readInt32());
        return String8(reply.readString16()).c_str();
    }
    static int pidOf(const std::string& name, int uid) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        data.writeString16(String16(name.c_str()));
        data.writeInt32(uid);
        EXPECT_EQ(0, sService->transact(IQmedBinderService::GET_PID_BY_NAME_AND_UID, data, &reply));
        EXPECT_EQ(0, reply.readInt32());
        return reply.readInt32();
    }

    static Daemon* sDaemon;
    static sp<IBinder> sService;
};
Daemon* ProcQueries::sDaemon = nullptr;
sp<IBinder> ProcQueries::sService;

}  // namespace

TEST_F(ProcQueries, CpuTimeRecordsOfRealChildren) {
    TestChild blank = TestChild::spawn(TestChild::Kind::Busy, "qm integ blank");
    TestChild paren = TestChild::spawn(TestChild::Kind::Busy, "qm) integ (x)");
    TestChild sys = TestChild::spawn(TestChild::Kind::Busy, "qmsys", 1000, "com.qmed.integ.system");
    TestChild idle = TestChild::spawn(TestChild::Kind::Sleep, "qm integ idle");
    for (TestChild* c : {&blank, &paren, &sys}) {
        waitForCpu(c->pid());
        c->kill(SIGSTOP);
    }
    std::vector<int> pids = {blank.pid(), idle.pid(), paren.pid(), sys.pid()};
    std::string text = cpuTime(2, pids);
    std::vector<Record> recs = parseRecords(text);
    bool idleHasCpu = qmedtest::procCpuTicks(idle.pid()) > 0;
    ASSERT_EQ(recs.size(), idleHasCpu ? 4u : 3u) << text;
    EXPECT_EQ(recs.front().name, "qm integ blank");
    EXPECT_EQ(recs.front().uid, 0);
    EXPECT_EQ(recs.front().cpu, static_cast<unsigned>(qmedtest::procCpuTicks(blank.pid())));
    EXPECT_EQ(recs[recs.size() - 2].name, "qm) integ (x)");
    EXPECT_EQ(recs.back().uid, 1000);
    EXPECT_EQ(recs.back().name, "com.qmed.integ.system");
    if (!idleHasCpu) {
        EXPECT_EQ(text.find("qm integ idle"), std::string::npos);
    }

    // Type 1 with the system uid lists the system child and nothing owned by root.
    std::vector<Record> sysRecs = parseRecords(cpuTime(1, {1000}));
    bool found = false;
    for (const Record& r : sysRecs) {
        EXPECT_EQ(r.uid, 1000);
        found |= r.name == "com.qmed.integ.system";
    }
    EXPECT_TRUE(found);
    // The full walk, like the list with one placeholder id that the client must send.
    std::string all = cpuTime(0, {0});
    EXPECT_NE(all.find("\tqm) integ (x)"), std::string::npos);

    // The list bounds of code 9: only E for 0 and 201 ids, a text for 200.
    EXPECT_EQ(cpuTime(2, {}), "<refused>");
    EXPECT_EQ(cpuTime(2, std::vector<int>(201, blank.pid())), "<refused>");
    EXPECT_EQ(parseRecords(cpuTime(2, std::vector<int>(200, blank.pid()))).size(), 200u);
}

TEST_F(ProcQueries, CpuTimeTextStaysInsideItsBufferWithManyProcesses) {
    // Real processes cannot cheaply fill the buffer (each needs a clock tick of CPU), so the
    // daemon briefly sees a /proc of 1500 system-uid processes with 64-byte names, about 80
    // bytes a record, bind-mounted over the real one in this test's private mount namespace.
    char tmpl[] = "/dev/shm/qmed-integ-proc-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string root = tmpl;
    const std::string name = "com.qmed.integ.bound." + std::string(43, 'b');
    for (int pid = 100; pid < 1600; pid++) {
        std::string dir = root + "/" + std::to_string(pid);
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        ASSERT_TRUE(qmedtest::writeFile(dir + "/stat", std::to_string(pid) +
                                                               " (main) S 1 1 1 0 -1 0 0 0 0 0 "
                                                               "12 30 0 0 20 0 1 0 5 0 0\n"));
        ASSERT_TRUE(qmedtest::writeFile(dir + "/cmdline", name + std::string(1, '\0') + "x"));
        ASSERT_EQ(chown(dir.c_str(), 1000, 1000), 0);
    }
    std::string text;
    ASSERT_EQ(mount(root.c_str(), "/proc", nullptr, MS_BIND, nullptr), 0) << strerror(errno);
    text = cpuTime(0, {0});
    std::string byUid = cpuTime(1, {1000});
    umount2("/proc", MNT_DETACH);
    qmedtest::runCommand({"rm", "-rf", root});

    EXPECT_LT(text.size(), IQmedBinderService::kCpuTimeBufferSize);
    // Whole records only: 1000\t42\t + 64 bytes, and a tab before every record but the first.
    const size_t first = 72, next = 73;
    EXPECT_EQ(text.size(),
              first + next * ((IQmedBinderService::kCpuTimeBufferSize - 1 - first) / next));
    std::vector<Record> recs = parseRecords(text);
    EXPECT_EQ(recs.size(), 1402u);
    for (const Record& r : recs) {
        ASSERT_EQ(r.uid, 1000);
        ASSERT_EQ(r.cpu, 42u);
        ASSERT_EQ(r.name, name);
    }
    EXPECT_EQ(byUid, text);
}

TEST_F(ProcQueries, CmdlineAndPidLookupsIncludingNotFound) {
    TestChild probe = TestChild::spawn(TestChild::Kind::Sleep, "qm probe) x");
    TestChild args =
            TestChild::spawn(TestChild::Kind::Sleep, "", 0,
                             "/opt/qmed/probe-with-a-rather-long-first-argument-0123456789");
    TestChild sys = TestChild::spawn(TestChild::Kind::Sleep, "qm-sys-probe", 1000);
    ASSERT_GT(probe.pid(), 0);
    // 63 bytes of the first argument; the arguments after it are cut at the NUL.
    EXPECT_EQ(cmdline(args.pid()),
              std::string("/opt/qmed/probe-with-a-rather-long-first-argument-0123456789")
                      .substr(0, 63));
    EXPECT_EQ(cmdline(999999), "");
    EXPECT_EQ(cmdline(-3), "");

    EXPECT_EQ(pidOf("qm probe) x", -1), probe.pid());
    EXPECT_EQ(pidOf("qm probe) x", 0), probe.pid());
    EXPECT_EQ(pidOf("qm probe) x", 1000), -1);
    EXPECT_EQ(pidOf("qm-sys-probe", 1000), sys.pid());
    EXPECT_EQ(pidOf("qm-no-such-process", -1), -1);
    EXPECT_EQ(pidOf("", -1), -1);
    EXPECT_TRUE(sDaemon->waitForLog("match uid: 1000, pid: " + std::to_string(sys.pid())));
}
