// The real ykqmed under the kernel-module simulator, driven through build/bin/service,
// build/bin/qmedctl and an in-process binder client. Runs through qmed-ns.

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using android::Parcel;
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

std::string str(long v) {
    return std::to_string(v);
}
bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// One daemon with debug logging on, so that any code a caller reaches leaves a line.
class DaemonIntegration : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        DaemonOptions opts;
        opts.simulator = true;
        opts.properties = {{"persist.sys.qmed.debug", "true"}};
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
    }
    static Daemon& daemon() { return *sDaemon; }

    // Reply words of a call with int32 arguments; status gets the transaction's status.
    static std::vector<int32_t> call(uint32_t code, const std::vector<int32_t>& ints,
                                     int* status = nullptr,
                                     const String16& token = IQmedBinderService::descriptor) {
        Parcel data, reply;
        data.writeInterfaceToken(token);
        for (int32_t v : ints) data.writeInt32(v);
        int s = sService->transact(code, data, &reply, 0);
        if (status != nullptr) *status = s;
        std::vector<int32_t> out;
        while (reply.dataAvail() >= 4) out.push_back(reply.readInt32());
        return out;
    }

    static inline Daemon* sDaemon = nullptr;
    static inline android::sp<android::IBinder> sService;
};

TEST_F(DaemonIntegration, OnlyRootAndSystemWithTheRightTokenReachTheCodes) {
    TestChild victim = TestChild::spawn(TestChild::Kind::Sleep, "qmedShellVictim");
    const std::string pid = str(victim.pid()), watchdog = readFile("/dev/power_watchdog");
    const size_t logBefore = daemon().log().size();
    for (uint32_t code = 1; code <= 22; code++) {
        // Arguments that would kill the victim (12) or write the watchdog (15) if let through.
        ToolResult r = daemon().service(
                {"call", "Binder.Qmed", str(code), "i32", "1", "i32", pid, "i32", "-1", "i32", "0"},
                2000);
        EXPECT_TRUE(has(r.err, "status: -74") && has(r.out, "Result: Parcel(NULL)")) << code;
    }
    EXPECT_EQ('S', qmedtest::procState(victim.pid()));
    EXPECT_EQ(watchdog, readFile("/dev/power_watchdog"));
    const std::string newLog = daemon().log().substr(logBefore);
    EXPECT_FALSE(has(newLog, "BinderService")) << newLog;

    for (uint32_t code = 1; code <= 22; code++) {
        int status = 0;
        EXPECT_TRUE(call(code, {1, 1, 1}, &status, String16("qmed.Other")).empty()) << code;
        EXPECT_EQ(code == 6 || code == 7 ? android::UNKNOWN_TRANSACTION : -1, status) << code;
    }
    EXPECT_TRUE(daemon().waitForLog("monitorNetPacket not support now!!!"));
    ToolResult system = daemon().service({"call", "Binder.Qmed", "5", "i32", "1"}, 1000);
    EXPECT_TRUE(has(system.out, "Result: Parcel(00000000 ")) << system.out << system.err;
}

TEST_F(DaemonIntegration, ListsOfOneToTwoHundredPidsAreAccepted) {
    for (int num : {0, -5, 201, 200}) {
        SCOPED_TRACE(num);
        const bool ok = num == 200;
        std::vector<int32_t> pids(ok ? 200 : 1, 0x3ffffff0);
        pids.back() = -1;  // freeze lists end with -1
        std::vector<int32_t> freeze = {2, num}, cpu = {0, num}, kill = {num};
        for (auto* list : {&freeze, &cpu, &kill})
            list->insert(list->end(), pids.begin(), pids.end());
        const std::vector<int32_t> frozen = call(3, freeze);
        EXPECT_TRUE(frozen.size() == 2 && frozen[0] == 0 && (ok || frozen[1] == -1));
        // Refused: only the no-exception marker. Accepted: the marker and a string.
        std::vector<int32_t> text = call(9, cpu);
        EXPECT_EQ(ok, text.size() > 1);
        EXPECT_EQ(0, text.at(0));
        EXPECT_EQ((std::vector<int32_t>{0, ok ? 0 : -1}), call(12, kill));
    }
    EXPECT_TRUE(
            daemon().waitForLog("****doFreezer num is too larger. action is 2, pid num is 201"));
    EXPECT_TRUE(daemon().waitForLog("qm get proc num is bad, type: 0, num: -5."));
    EXPECT_TRUE(daemon().waitForLog("****killProcess, pid num is 200***"));
}

TEST_F(DaemonIntegration, KillWatchdogAndFileNodes) {
    TestChild a = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillOne");
    TestChild b = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillTwo");
    EXPECT_EQ(0, daemon().qmedctl({"kill", str(a.pid()), "-1", str(b.pid())}).exitCode);
    EXPECT_TRUE(a.reap(3000));
    EXPECT_TRUE(qmedtest::processExists(b.pid()));

    ASSERT_TRUE(writeFile("/dev/power_watchdog", ""));
    ToolResult r = daemon().service({"call", "Binder.Qmed", "15", "i32", "1", "i64", "4294967301",
                                     "i64", "20", "s16", "x"});
    EXPECT_TRUE(has(r.out, "Result: Parcel(00000000 00000000")) << r.out;
    EXPECT_EQ("TYPE=1 DURATION=5 HOLDTIME=20 EXTEND=x", readFile("/dev/power_watchdog"));

    const std::string dir = daemon().workDir();
    ASSERT_TRUE(writeFile(dir + "/abc", "abc") && writeFile(dir + "/n42", "42\n"));
    for (const auto& [node, value] :
         {std::pair{"/abc", "0\n"}, {"/n42", "42\n"}, {"/none", "9\n"}}) {
        EXPECT_EQ(value, daemon().qmedctl({"read-node", dir + node, "9"}).out) << node;
    }
    EXPECT_EQ(0, daemon().qmedctl({"write-node", dir + "/n42", "7"}).exitCode);
    EXPECT_EQ("72\n", readFile(dir + "/n42"));
    EXPECT_NE(0, daemon().qmedctl({"write-node", dir + "/created", "7"}).exitCode);
    EXPECT_NE(0, access((dir + "/created").c_str(), F_OK));
}

TEST(DaemonDump, ShellAndPermissionAreCheckedAndDebugSticks) {
    Daemon d({{}, {}, {}, "d", true, true});
    const std::string grants = d.workDir() + "/grants";
    ASSERT_TRUE(writeFile(grants, "android.permission.DUMP 10051\n"));
    d.options().env["QMED_PERMISSION_FILE"] = grants;
    ASSERT_TRUE(d.start()) << d.log();
    BackgroundTool listener("qmedctl", {"listen", "0x20000001"}, d.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening"));

    ToolResult denied = d.qmedctl({"dump", "debug"}, 10050);
    EXPECT_EQ(std::string::npos, denied.out.find("qmedctl listener")) << denied.out;
    EXPECT_TRUE(has(denied.out, "Permission Denial: can't dump QmedBinderService from pid="));
    EXPECT_TRUE(has(denied.out, ", uid=10050\n"));
    // A denial written into a pipe nobody reads must not kill the daemon.
    std::vector<std::string> argv = qmedtest::emulatorPrefix();
    argv.push_back(qmedtest::toolPath("qmedctl"));
    std::string cmd;
    for (const std::string& a : argv) cmd += a + " ";
    qmedtest::runCommand({"sh", "-c", cmd + "dump 2>/dev/null | true"}, d.clientOptions(10050));
    for (uid_t uid : {10051, 2000}) {
        ToolResult r = d.qmedctl({"dump", "debug", "x"}, uid);
        EXPECT_TRUE(has(r.out, "qmedctl listener pid " + str(listener.pid()))) << uid << r.out;
    }
    EXPECT_TRUE(listener.waitForLine("dump args=\"debug x\""));
    d.qmedctl({"mask", "1"});
    EXPECT_EQ(0u, d.countLog("setKstateMask in BnQmedBinderService"));
    d.qmedctl({"dump", "debug"}, 2000);
    d.qmedctl({"mask", "2"});
    EXPECT_TRUE(d.waitForLog("setKstateMask in BnQmedBinderService"));
}

TEST(DaemonStartup, VersionKillSwitchAndDebugProperty) {
    Daemon version({{"-t", "3", "-v", "-v"}, {}, {}, "d", false, true});
    ASSERT_TRUE(version.start());
    int status = -1;
    ASSERT_TRUE(version.waitExit(5000, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ("version 13.0.13\nversion 13.0.13\n", version.out());
    EXPECT_TRUE(has(version.service({"check", "Binder.Qmed"}).out, "not found"));

    // Switched off: alive with only the parked main thread (an emulator's helper thread carries
    // the main thread's name), no service, no plug-in host.
    Daemon off({{}, {{"ro.config.qm_disable_qm", "true"}}, {}, "d", false, true});
    ASSERT_TRUE(off.start());
    ASSERT_TRUE(off.waitForLog("qm is disabled, do nothing"));
    usleep(300 * 1000);
    const std::string task = "/proc/" + str(off.pid()) + "/task/";
    const std::string mainName = readFile(task + str(off.pid()) + "/comm");
    DIR* dir = opendir(task.c_str());
    ASSERT_NE(nullptr, dir);
    while (struct dirent* e = readdir(dir)) {
        if (e->d_name[0] != '.') {
            EXPECT_EQ(mainName, readFile(task + e->d_name + "/comm")) << e->d_name;
        }
    }
    closedir(dir);
    EXPECT_TRUE(has(off.service({"check", "Binder.Qmed"}).out, "not found"));
    EXPECT_FALSE(has(off.log(), "Qmed-Vigil") || has(off.log(), "Freezer::initFrz"));

    for (const char* value : {"true", "True"}) {
        const bool on = std::string(value) == "true";
        Daemon d({{"-t", "4"}, {{"persist.sys.qmed.debug", value}}, {}, "d", true, true});
        ASSERT_TRUE(d.start()) << d.log();
        EXPECT_TRUE(has(d.log(), std::string("Zoqmed Start, bDebug: ") + (on ? "1" : "0")));
        EXPECT_EQ(on, has(d.log(), "vp_type=4")) << value;
    }
}

TEST(DaemonStartup, PluginHostWithoutAndWithLibrary) {
    Daemon bare({{}, {}, {}, "d", true, true});
    ASSERT_TRUE(bare.start()) << bare.log();
    ASSERT_TRUE(bare.waitForLog("not find libvigild.so err:"));
    EXPECT_EQ(1u, bare.countLog("Qmed-Vigil"));

    Daemon d({{}, {}, {}, "d", true, true});
    const std::string marker = d.workDir() + "/vigil-marker";
    d.options().env = {{"LD_LIBRARY_PATH", qmedtest::binDir() + "/vigil"},
                       {"VIGIL_TEST_MARKER", marker}};
    ASSERT_TRUE(d.start()) << d.log();
    ASSERT_TRUE(d.waitForLog("vigild_main begin"));
    EXPECT_TRUE(waitUntil([&] { return readFile(marker) == "vigild_main ran\n"; }, 3000));
    EXPECT_EQ(1u, d.countLog("Qmed-Vigil"));
    // The one-shot thread has ended: the library is no longer mapped.
    EXPECT_TRUE(waitUntil(
            [&] { return !has(readFile("/proc/" + str(d.pid()) + "/maps"), "libvigild.so"); },
            3000));
}

}  // namespace
