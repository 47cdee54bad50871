// The real ykqmed under the kernel-module simulator, driven through build/bin/service,
// build/bin/qmedctl and an in-process binder client. Runs through qmed-ns.

#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/listener/FakeListener.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using qmedtest::BackgroundTool;
using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::readFile;
using qmedtest::TestChild;
using qmedtest::ToolResult;
using qmedtest::waitUntil;
using qmedtest::writeFile;

namespace {

constexpr uid_t kShell = 2000;

std::string str(long v) {
    return std::to_string(v);
}

// Names of the threads of pid other than the main thread. Under an emulator its own helper
// thread carries the main thread's name and is left out.
std::vector<std::string> otherThreads(pid_t pid) {
    auto comm = [&](const std::string& tid) {
        std::string c = readFile("/proc/" + str(pid) + "/task/" + tid + "/comm");
        return c.substr(0, c.find('\n'));
    };
    const std::string mainName = comm(str(pid));
    const bool emulated = !qmedtest::emulatorPrefix().empty();
    std::vector<std::string> names;
    DIR* dir = opendir(("/proc/" + str(pid) + "/task").c_str());
    if (dir == nullptr) return {"?"};
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.' || atoi(e->d_name) == pid) continue;
        std::string name = comm(e->d_name);
        if (emulated && name == mainName) continue;
        names.push_back(name);
    }
    closedir(dir);
    return names;
}

// One daemon for the tests that do not depend on a fresh process; the test process
// also talks to it directly over binder.
class DaemonIntegration : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        DaemonOptions opts;
        opts.simulator = true;
        sDaemon = new Daemon(opts);
        ASSERT_TRUE(sDaemon->start()) << sDaemon->log();
        setenv("BINDER_HOST_NS", sDaemon->binderNs().c_str(), 1);
        android::ProcessState::self()->startThreadPool();
        sService = android::defaultServiceManager()->checkService(String16("Binder.Qmed"));
        ASSERT_NE(nullptr, sService.get());
    }
    static void TearDownTestSuite() {
        sService.clear();
        delete sDaemon;
        sDaemon = nullptr;
    }

    static Daemon& daemon() { return *sDaemon; }

    static status_t call(uint32_t code, const std::vector<int32_t>& ints, Parcel* reply,
                         const String16& token = IQmedBinderService::descriptor) {
        Parcel data;
        data.writeInterfaceToken(token);
        for (int32_t v : ints) data.writeInt32(v);
        return sService->transact(code, data, reply, 0);
    }

    static std::vector<int32_t> words(const Parcel& reply) {
        std::vector<int32_t> out;
        reply.setDataPosition(0);
        while (reply.dataAvail() >= 4) out.push_back(reply.readInt32());
        return out;
    }

    static Daemon* sDaemon;
    static sp<IBinder> sService;
};
Daemon* DaemonIntegration::sDaemon = nullptr;
sp<IBinder> DaemonIntegration::sService;

TEST_F(DaemonIntegration, ShellCallerReachesNoCodeAndNothingHappens) {
    TestChild victim = TestChild::spawn(TestChild::Kind::Sleep, "qmedShellVictim");
    const std::string node = daemon().workDir() + "/shell-node";
    ASSERT_TRUE(writeFile(node, "keep"));
    const std::string watchdog = readFile("/dev/power_watchdog");
    size_t logBefore = daemon().log().size();
    const std::string pid = str(victim.pid());
    const std::vector<std::vector<std::string>> args = {
            {"null", "i32", "1"},
            {"null"},
            {"i32", "1", "i32", "2", "i32", pid, "i32", "-1"},
            {"i32", "5"},
            {"i32", "1"},
            {},
            {},
            {"i32", pid},
            {"i32", "2", "i32", "1", "i32", pid},
            {"i32", pid},
            {"s16", "qmedShellVictim", "i32", "-1"},
            {"i32", "1", "i32", pid},
            {"i32", "1", "s16", "abc", "i32", "1"},
            {"i32", "10000", "i32", "0"},
            {"i32", "1", "i64", "10", "i64", "20", "s16", "shell"},
            {"s16", node, "s16", "written"},
            {"i32", pid, "i32", "30", "i32", "0", "i32", "0"},
            {"i32", pid, "i32", "5"},
            {"i32", pid},
            {},
            {"i32", pid, "i32", "40"},
            {"s16", node, "i32", "3"},
    };
    for (uint32_t code = 1; code <= 22; code++) {
        std::vector<std::string> argv = {"call", "Binder.Qmed", str(code)};
        argv.insert(argv.end(), args[code - 1].begin(), args[code - 1].end());
        ToolResult r = daemon().service(argv, kShell);
        EXPECT_NE(std::string::npos, r.err.find("status: -74")) << "code " << code << r.err;
        EXPECT_NE(std::string::npos, r.out.find("Result: Parcel(NULL)")) << "code " << code;
    }
    EXPECT_TRUE(qmedtest::processExists(victim.pid()));
    EXPECT_EQ('S', qmedtest::procState(victim.pid()));
    EXPECT_EQ("keep", readFile(node));
    EXPECT_EQ(watchdog, readFile("/dev/power_watchdog"));
    // Not even the always-on lines of codes 3 and 12, nor code 6's error.
    std::string newLog = daemon().log().substr(logBefore);
    EXPECT_EQ(std::string::npos, newLog.find("Qmed-IQmedBinderService")) << newLog;
    EXPECT_EQ(std::string::npos, newLog.find("Qmed-QmedBinderService")) << newLog;
}

TEST_F(DaemonIntegration, WrongTokenGivesMinusOneAndEmptyReply) {
    for (uint32_t code : {1u, 3u, 4u, 9u, 12u, 15u, 22u}) {
        Parcel reply;
        EXPECT_EQ(
                -1,
                call(code, {1, 1, 1}, &reply,
                     String16(
                             "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener")))
                << code;
        EXPECT_EQ(0u, reply.dataSize()) << code;
    }
    ToolResult r = daemon().service({"call", "Binder.Qmed", "6"});
    EXPECT_NE(std::string::npos, r.err.find("status: -74"));
    EXPECT_TRUE(daemon().waitForLog("monitorNetPacket not support now!!!"));
    r = daemon().service({"call", "Binder.Qmed", "7"});
    EXPECT_NE(std::string::npos, r.err.find("status: -74"));
}

TEST_F(DaemonIntegration, ListBoundsOfCodesThreeNineAndTwelve) {
    for (int num : {0, -5, 201}) {
        Parcel reply;
        ASSERT_EQ(0, call(3, {1, num, 1}, &reply));
        EXPECT_EQ((std::vector<int32_t>{0, -1}), words(reply)) << num;
        ASSERT_EQ(0, call(9, {0, num, 1}, &reply));
        EXPECT_EQ((std::vector<int32_t>{0}), words(reply)) << num;
        ASSERT_EQ(0, call(12, {num, 1}, &reply));
        EXPECT_EQ((std::vector<int32_t>{0, -1}), words(reply)) << num;
    }
    EXPECT_TRUE(
            daemon().waitForLog("****doFreezer num is too larger. action is 1, pid num is 201***"));
    EXPECT_TRUE(daemon().waitForLog("qm get proc num is bad, type: 0, num: -5."));
    EXPECT_TRUE(daemon().waitForLog("****killProcess num is too larger. pid num is 0***"));

    // 200 is accepted: pids that do not exist, the freeze list ending with -1.
    std::vector<int32_t> pids(200, 0x3ffffff0);
    std::vector<int32_t> freeze = {2, 200};
    freeze.insert(freeze.end(), pids.begin(), pids.end());
    freeze.back() = -1;
    Parcel reply;
    ASSERT_EQ(0, call(3, freeze, &reply));
    EXPECT_EQ(2u, words(reply).size());
    EXPECT_TRUE(daemon().waitForLog("****action is 2, pid num is 200***"));
    std::vector<int32_t> cpu = {2, 200};
    cpu.insert(cpu.end(), pids.begin(), pids.end());
    cpu[2] = 1;
    ASSERT_EQ(0, call(9, cpu, &reply));
    // The no-exception marker and a string, whatever it holds.
    reply.setDataPosition(0);
    EXPECT_EQ(0, reply.readInt32());
    EXPECT_GE(reply.dataAvail(), 4u);
    std::vector<int32_t> kill = {200};
    kill.insert(kill.end(), pids.begin(), pids.end());
    ASSERT_EQ(0, call(12, kill, &reply));
    EXPECT_EQ((std::vector<int32_t>{0, 0}), words(reply));
    EXPECT_TRUE(daemon().waitForLog("****killProcess, pid num is 200***"));
}

TEST_F(DaemonIntegration, WatchdogRecordTakesLow32BitsByteForByte) {
    ASSERT_TRUE(writeFile("/dev/power_watchdog", ""));
    ToolResult r = daemon().service({"call", "Binder.Qmed", "15", "i32", "1", "i64", "4294967301",
                                     "i64", "20", "s16", "x"});
    EXPECT_NE(std::string::npos, r.out.find("Result: Parcel(00000000 00000000")) << r.out;
    EXPECT_EQ("TYPE=1 DURATION=5 HOLDTIME=20 EXTEND=x", readFile("/dev/power_watchdog"));
    ASSERT_TRUE(writeFile("/dev/power_watchdog", ""));
    r = daemon().qmedctl({"watchdog", "2", "10", "20", "hold"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("TYPE=2 DURATION=10 HOLDTIME=20 EXTEND=hold", readFile("/dev/power_watchdog"));
}

TEST_F(DaemonIntegration, KillStopsAtTheTerminator) {
    TestChild a = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillOne");
    TestChild b = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillTwo");
    const pid_t pa = a.pid(), pb = b.pid();
    ToolResult r = daemon().qmedctl({"kill", str(pa), "-1", str(pb)});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_TRUE(a.reap(3000));
    EXPECT_TRUE(qmedtest::processExists(pb));
    EXPECT_TRUE(daemon().waitForLog("kill " + str(pa) + " succ"));
    EXPECT_EQ(0u, daemon().countLog("kill " + str(pb)));
}

TEST_F(DaemonIntegration, FileNodesReadAndWriteWithoutCreating) {
    const std::string dir = daemon().workDir();
    ASSERT_TRUE(writeFile(dir + "/abc", "abc"));
    ASSERT_TRUE(writeFile(dir + "/n42", "42\n"));
    ToolResult r = daemon().qmedctl({"read-node", dir + "/abc", "9"});
    EXPECT_EQ("0\n", r.out);
    r = daemon().qmedctl({"read-node", dir + "/n42", "9"});
    EXPECT_EQ("42\n", r.out);
    r = daemon().qmedctl({"read-node", dir + "/missing", "9"});
    EXPECT_EQ("9\n", r.out);

    r = daemon().qmedctl({"write-node", dir + "/n42", "7"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_EQ("72\n", readFile(dir + "/n42"));
    r = daemon().qmedctl({"write-node", dir + "/created", "7"});
    EXPECT_NE(0, r.exitCode);
    struct stat st;
    EXPECT_NE(0, stat((dir + "/created").c_str(), &st));
}

TEST_F(DaemonIntegration, QueriesOverBinder) {
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "qmedQueryBusy");
    ASSERT_TRUE(waitUntil([&] { return qmedtest::procUtime(busy.pid()) > 0; }, 5000));
    ToolResult r = daemon().qmedctl({"pidof", "qmedQueryBusy"});
    EXPECT_EQ(str(busy.pid()) + "\n", r.out);
    r = daemon().qmedctl({"pidof", "qmedNoSuchProc"});
    EXPECT_NE(0, r.exitCode);
    r = daemon().qmedctl({"utime", str(busy.pid())});
    EXPECT_EQ(0, r.exitCode);
    EXPECT_GT(atoi(r.out.c_str()), 0);
    r = daemon().qmedctl({"cmdline", str(busy.pid())});
    EXPECT_EQ(0, r.exitCode);
    EXPECT_FALSE(r.out.empty());
    r = daemon().qmedctl({"cputime", "pid", str(busy.pid())});
    EXPECT_NE(std::string::npos, r.out.find("qmedQueryBusy")) << r.out;
}

TEST_F(DaemonIntegration, RegistrationCodesAndFirstMaskKept) {
    sp<FakeListener> listener = new FakeListener();
    auto reg = [&](const sp<IBinder>& binder, int mask) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        data.writeStrongBinder(binder);
        data.writeInt32(mask);
        EXPECT_EQ(0, sService->transact(1, data, &reply, 0));
        return words(reply);
    };
    auto unreg = [&](const sp<IBinder>& binder) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        data.writeStrongBinder(binder);
        EXPECT_EQ(0, sService->transact(2, data, &reply, 0));
        return words(reply);
    };
    sp<IBinder> binder = android::IInterface::asBinder(listener);
    EXPECT_EQ((std::vector<int32_t>{0, 1}), reg(nullptr, 1));
    EXPECT_EQ((std::vector<int32_t>{0, 4}), reg(binder, 0));
    EXPECT_EQ((std::vector<int32_t>{0, 4}), reg(binder, 0x40000000));
    EXPECT_EQ((std::vector<int32_t>{0, 0}), reg(binder, TYPE_LISTENER_onStopProcSpearCallback));
    EXPECT_EQ((std::vector<int32_t>{0, 2}), reg(binder, TYPE_LISTENER_onKstateCallback));
    // The first mask holds: a kernel-state event does not reach this listener.
    ToolResult r = daemon().kmodsim({"event", "kind", "3", "first-mask"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    usleep(300 * 1000);
    EXPECT_EQ(0u, listener->kstateCount());
    EXPECT_EQ((std::vector<int32_t>{0, 0}), unreg(binder));
    EXPECT_EQ((std::vector<int32_t>{0, 3}), unreg(binder));
    EXPECT_EQ((std::vector<int32_t>{0, 1}), unreg(nullptr));
}

TEST_F(DaemonIntegration, KilledListenerIsRemovedAndOthersKeepWorking) {
    BackgroundTool doomed("qmedctl", {"listen", "1"}, daemon().clientOptions());
    BackgroundTool survivor("qmedctl", {"listen", "1"}, daemon().clientOptions());
    ASSERT_TRUE(doomed.waitForLine("listening"));
    ASSERT_TRUE(survivor.waitForLine("listening"));
    ASSERT_EQ(0, daemon().kmodsim({"clear"}).exitCode);
    size_t deaths = daemon().countLog("Binder client died !!! do fixing");

    doomed.kill(SIGKILL);
    ASSERT_TRUE(waitUntil(
            [&] { return daemon().countLog("Binder client died !!! do fixing") > deaths; }, 3000));
    // The mask goes to the module as 0: TLV 4, 8, 4, 4 and a zero word.
    ASSERT_TRUE(waitUntil(
            [&] {
                std::string rx = daemon().kmodsim({"dump-received"}).out;
                return rx.find("04000000080000000400000004000000"
                               "00000000") != std::string::npos;
            },
            3000))
            << daemon().kmodsim({"dump-received"}).out;

    ASSERT_EQ(0, daemon().kmodsim({"event", "kind", "3", "after-death"}).exitCode);
    EXPECT_TRUE(survivor.waitForLine("text=\"after-death\""));
    EXPECT_TRUE(daemon().running());
}

TEST_F(DaemonIntegration, DumpReachesEveryDumpListener) {
    BackgroundTool first("qmedctl", {"listen", "0x20000001"}, daemon().clientOptions());
    BackgroundTool second("qmedctl", {"listen", "0x20000000"}, daemon().clientOptions());
    BackgroundTool other("qmedctl", {"listen", "1"}, daemon().clientOptions());
    ASSERT_TRUE(first.waitForLine("listening"));
    ASSERT_TRUE(second.waitForLine("listening"));
    ASSERT_TRUE(other.waitForLine("listening"));
    ToolResult r = daemon().qmedctl({"dump", "a", "b"});
    EXPECT_EQ(0, r.exitCode) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("qmedctl listener pid " + str(first.pid())));
    EXPECT_NE(std::string::npos, r.out.find("qmedctl listener pid " + str(second.pid())));
    EXPECT_EQ(std::string::npos, r.out.find("qmedctl listener pid " + str(other.pid())));
    EXPECT_TRUE(first.waitForLine("dump args=\"a b\""));
    EXPECT_TRUE(second.waitForLine("dump args=\"a b\""));
    EXPECT_EQ(0u, other.countLines("dump args"));
}

TEST_F(DaemonIntegration, WritingToAClosedPipeDoesNotKillTheDaemon) {
    // An unprivileged dump makes the daemon write its denial line into the caller's fd:
    // here a pipe whose reading end is already closed.
    pid_t child = fork();
    if (child == 0) {
        if (setgid(10050) != 0 || setuid(10050) != 0) _exit(3);
        sp<IBinder> service =
                android::defaultServiceManager()->checkService(String16("Binder.Qmed"));
        if (service == nullptr) _exit(4);
        int fds[2];
        if (pipe(fds) != 0) _exit(5);
        close(fds[0]);
        service->dump(fds[1], android::Vector<String16>());
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    usleep(100 * 1000);
    EXPECT_TRUE(daemon().running());
    Parcel reply;
    EXPECT_EQ(0, call(5, {1}, &reply));
}

// Fresh daemons for the tests that change process-wide state.

TEST(DaemonDump, ShellAndPermissionAreCheckedAndDebugSticks) {
    DaemonOptions opts;
    opts.simulator = true;
    opts.logLevel = "d";
    Daemon d(opts);
    const std::string grants = "/tmp/qmed-grants-" + str(getpid());
    ASSERT_TRUE(writeFile(grants, "android.permission.DUMP 10051\n"));
    d.options().env["QMED_PERMISSION_FILE"] = grants;
    ASSERT_TRUE(d.start()) << d.log();

    ToolResult denied = d.qmedctl({"dump", "debug"}, 10050);
    EXPECT_NE(std::string::npos,
              denied.out.find("Permission Denial: can't dump QmedBinderService from pid="));
    EXPECT_NE(std::string::npos, denied.out.find(", uid=10050\n"));
    // Still off: code 4 writes no debug line.
    d.qmedctl({"mask", "1"});
    ASSERT_TRUE(d.waitForLog("Kstate::setMask", 1000) || true);
    EXPECT_EQ(0u, d.countLog("setKstateMask in BnQmedBinderService"));

    ToolResult granted = d.qmedctl({"dump", "x"}, 10051);
    EXPECT_EQ(std::string::npos, granted.out.find("Permission Denial"));
    ToolResult shell = d.qmedctl({"dump", "debug"}, kShell);
    EXPECT_EQ(std::string::npos, shell.out.find("Permission Denial"));
    d.qmedctl({"mask", "2"});
    EXPECT_TRUE(d.waitForLog("setKstateMask in BnQmedBinderService"));
    unlink(grants.c_str());
}

TEST(DaemonStartup, VersionQueryPrintsAndExits) {
    DaemonOptions opts;
    opts.simulator = true;
    opts.waitForService = false;
    opts.args = {"-t", "3", "-v", "-v"};
    Daemon d(opts);
    ASSERT_TRUE(d.start());
    int status = -1;
    ASSERT_TRUE(d.waitExit(5000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ("version 13.0.13\nversion 13.0.13\n", d.out());
    EXPECT_NE(std::string::npos, d.log().find("Zoqmed Start, bDebug: 0, version:13.0.13"));
    ToolResult r = d.service({"check", "Binder.Qmed"});
    EXPECT_NE(std::string::npos, r.out.find("not found")) << r.out;
}

TEST(DaemonStartup, KillSwitchParksOneThreadWithoutService) {
    DaemonOptions opts;
    opts.simulator = true;
    opts.waitForService = false;
    opts.properties = {{"ro.config.qm_disable_qm", "true"}};
    Daemon d(opts);
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.waitForLog("qm is disabled, do nothing"));
    usleep(300 * 1000);
    EXPECT_TRUE(d.running());
    // Only the parked main thread: no hub, no plug-in host, no pool, no looper.
    EXPECT_TRUE(otherThreads(d.pid()).empty());
    ToolResult r = d.service({"check", "Binder.Qmed"});
    EXPECT_NE(std::string::npos, r.out.find("not found")) << r.out;
    EXPECT_EQ(std::string::npos, d.log().find("Qmed-Vigil"));
    EXPECT_EQ(std::string::npos, d.log().find("Freezer::initFrz"));
}

TEST(DaemonStartup, DebugPropertySpellings) {
    for (const char* value : {"true", "True", "true1"}) {
        DaemonOptions opts;
        opts.simulator = true;
        opts.args = {"-t", "4"};
        opts.properties = {{"persist.sys.qmed.debug", value}};
        Daemon d(opts);
        ASSERT_TRUE(d.start()) << d.log();
        const bool on = std::string(value) == "true";
        EXPECT_NE(std::string::npos,
                  d.log().find(std::string("Zoqmed Start, bDebug: ") + (on ? "1" : "0")))
                << value;
        EXPECT_EQ(on, d.log().find("vp_type=4") != std::string::npos) << value;
    }
}

TEST(DaemonStartup, PluginHostWithoutAndWithLibrary) {
    {
        DaemonOptions opts;
        opts.simulator = true;
        Daemon d(opts);
        ASSERT_TRUE(d.start()) << d.log();
        ASSERT_TRUE(d.waitForLog("not find libvigild.so err:"));
        EXPECT_EQ(1u, d.countLog("Qmed-Vigil"));
    }
    {
        DaemonOptions opts;
        opts.simulator = true;
        Daemon d(opts);
        const std::string marker = d.workDir() + "/vigil-marker";
        d.options().env["LD_LIBRARY_PATH"] = qmedtest::binDir() + "/vigil";
        d.options().env["VIGIL_TEST_MARKER"] = marker;
        ASSERT_TRUE(d.start()) << d.log();
        ASSERT_TRUE(d.waitForLog("vigild_main begin"));
        EXPECT_TRUE(waitUntil([&] { return readFile(marker) == "vigild_main ran\n"; }, 3000));
        EXPECT_EQ(0u, d.countLog("E Qmed-Vigil"));
        // The one-shot thread has ended: the library is no longer mapped.
        EXPECT_TRUE(waitUntil(
                [&] {
                    return readFile("/proc/" + str(d.pid()) + "/maps").find("libvigild.so") ==
                           std::string::npos;
                },
                3000));
    }
}

}  // namespace
