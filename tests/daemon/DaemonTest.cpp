// Through qmed-ns: the real ykqmed under the kernel-module simulator, then in-process the stub
// against a recording service, what no parcel carries, debug property, plug-in host failures.

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "daemon/QmedBinderService.h"
#include "daemon/QmedGlobals.h"
#include "daemon/Vigil.h"
#include "daemon/Zoqmed.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"

using android::Parcel;
using android::sp;
using android::String16;
using qmedtest::Daemon;
using qmedtest::readFile;
using qmedtest::TestChild;
using qmedtest::waitUntil;
using qmedtest::writeFile;
using std::to_string;
using Words = std::vector<int32_t>;

namespace {

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// One daemon, debug off, the dump permission granted to uid 10051, the test plug-in on its path.
class DaemonIntegration : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        sDaemon = new Daemon({{}, {}, {}, "d", true, true});
        const std::string dir = sDaemon->workDir();
        ASSERT_TRUE(writeFile(dir + "/grants", "android.permission.DUMP 10051\n"));
        sDaemon->options().env = {{"QMED_PERMISSION_FILE", dir + "/grants"},
                                  {"LD_LIBRARY_PATH", qmedtest::binDir() + "/vigil"}};
        ASSERT_TRUE(sDaemon->start()) << sDaemon->log();
        setenv("BINDER_HOST_NS", sDaemon->binderNs().c_str(), 1);
        sService = android::defaultServiceManager()->checkService(String16("Binder.Qmed"));
        ASSERT_NE(nullptr, sService.get());
    }
    static void TearDownTestSuite() {
        sService.clear();
        delete sDaemon;
    }
    static Daemon& daemon() { return *sDaemon; }

    static void put(Parcel* p, int32_t v) { p->writeInt32(v); }
    static void put(Parcel* p, int64_t v) { p->writeInt64(v); }
    static void put(Parcel* p, const std::string& s) { p->writeString16(String16(s.c_str())); }
    static void put(Parcel* p, const Words& list) {
        for (int32_t v : list) p->writeInt32(v);
    }
    template <typename... A>
    static Words call(uint32_t code, const A&... args) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        (put(&data, args), ...);
        EXPECT_EQ(0, sService->transact(code, data, &reply, 0)) << code;
        Words out;
        while (reply.dataAvail() >= 4) out.push_back(reply.readInt32());
        return out;
    }

    static inline Daemon* sDaemon = nullptr;
    static inline sp<android::IBinder> sService;
};

// A wrong token is refused by the stub before any code runs: see ServiceStub below.
TEST_F(DaemonIntegration, OnlyRootAndSystemReachTheCodes) {
    TestChild victim = TestChild::spawn(TestChild::Kind::Sleep, "qmedShellVictim");
    const std::string pid = to_string(victim.pid()), watchdog = readFile("/dev/power_watchdog");
    const size_t logBefore = daemon().log().size();
    for (uint32_t code = 1; code <= 22; code++) {
        // Arguments that would kill the victim (12) or write the watchdog (15) if let through.
        auto r = daemon().service({"call", "Binder.Qmed", to_string(code), "i32", "1", "i32", pid,
                                   "i32", "-1", "i32", "0"},
                                  2000);
        EXPECT_TRUE(has(r.err, "status: -74") && has(r.out, "Result: Parcel(NULL)")) << code;
    }
    EXPECT_EQ('S', qmedtest::procState(victim.pid()));
    EXPECT_EQ(watchdog, readFile("/dev/power_watchdog"));
    const std::string newLog = daemon().log().substr(logBefore);
    EXPECT_FALSE(has(newLog, "BinderService")) << newLog;
    auto system = daemon().service({"call", "Binder.Qmed", "5", "i32", "1"}, 1000);
    EXPECT_TRUE(has(system.out, "Result: Parcel(00000000 ")) << system.out << system.err;

    // The plug-in host ran the library's entry once on its own thread and unloaded it.
    EXPECT_TRUE(daemon().waitForLog("vigild_main ran") && daemon().countLog("Qmed-Vigil") == 1);
    const std::string maps = "/proc/" + to_string(daemon().pid()) + "/maps";
    EXPECT_TRUE(waitUntil([&] { return !has(readFile(maps), "libvigild.so"); }, 3000));
}

TEST_F(DaemonIntegration, ListsOfOneToTwoHundredPidsAreAccepted) {
    for (int num : {0, -5, 201, 200}) {
        SCOPED_TRACE(num);
        const bool ok = num == 200;
        Words pids(ok ? 200 : 1, 0x3ffffff0);
        pids.back() = -1;  // freeze lists end with -1
        const Words frozen = call(3, 2, num, pids);
        EXPECT_TRUE(frozen.size() == 2 && frozen[0] == 0 && (ok || frozen[1] == -1));
        // Refused: only the no-exception marker. Accepted: the marker and a string.
        const Words text = call(9, 0, num, pids);
        EXPECT_TRUE(text.at(0) == 0 && ok == (text.size() > 1));
        EXPECT_EQ((Words{0, ok ? 0 : -1}), call(12, num, pids));
    }
    EXPECT_TRUE(daemon().waitForLog("doFreezer num is too larger. action is 2, pid num is 201"));
}

TEST_F(DaemonIntegration, KillUserTimeAndFileNodes) {
    TestChild a = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillOne");
    TestChild b = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillTwo");
    EXPECT_EQ((Words{0, 0}), call(12, 3, a.pid(), -1, b.pid()));
    EXPECT_TRUE(a.reap(3000) && qmedtest::processExists(b.pid()));
    EXPECT_EQ((Words{0, 0}), call(12, 1, a.pid()));  // a failed kill is only logged

    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "qmedUtime");
    // The name is scanned as one blank-free token: a blank breaks the scan and gives 0.
    TestChild blank = TestChild::spawn(TestChild::Kind::Busy, "qmed u t");
    auto utime = qmedtest::procUtime;
    ASSERT_TRUE(waitUntil([&] { return utime(busy.pid()) > 2 && utime(blank.pid()) > 2; }, 5000));
    const long before = utime(busy.pid());
    const Words got = call(8, busy.pid());
    EXPECT_TRUE(got.size() == 2 && before <= got[1] && got[1] <= utime(busy.pid())) << got[1];
    EXPECT_EQ((Words{0, 0}), call(8, blank.pid()));
    EXPECT_EQ((Words{0, -1}), call(8, a.pid()));

    // Exactly 20 bytes are read: 19 would give 4, 21 would give 429. nullptr: no file.
    const std::string dir = daemon().workDir(), node = dir + "/node";
    const std::pair<const char*, int> rows[] = {
            {"abc", 0}, {"", 0}, {"42\n", 42}, {"                  429", 42}, {nullptr, 9}};
    for (const auto& [content, value] : rows) {
        unlink(node.c_str());
        ASSERT_TRUE(content == nullptr || writeFile(node, content));
        EXPECT_EQ((Words{0, value}), call(22, node, 9)) << content;
    }
    EXPECT_EQ((Words{0, 9}), call(22, dir, 9));  // opens, but cannot be read
    ASSERT_TRUE(writeFile(node, "0000"));
    EXPECT_EQ((Words{0, 1}), call(16, node, "12"));
    EXPECT_EQ("1200", readFile(node));
    EXPECT_EQ((Words{0, 0}), call(16, dir + "/created", "7"));
    EXPECT_NE(0, access((dir + "/created").c_str(), F_OK));
    // Refused by the node. Not /proc/self: under qemu-arm that is the emulator's copy.
    EXPECT_EQ((Words{0, 0}), call(16, "/proc/1/stat", "1"));
}

// 64-bit values reach a 32-bit long; the record overwrites the node's head, whole at any length.
TEST_F(DaemonIntegration, WatchdogRecordCarriesTheLow32BitsByteForByte) {
    const std::string dots(64, '.'), extend(3000, 'e');
    const struct {
        int64_t first, second;
        std::string extend, record;
    } rows[] = {
            {(int64_t{1} << 32) + 5, 20, "x", "TYPE=7 DURATION=5 HOLDTIME=20 EXTEND=x"},
            {INT32_MAX, INT32_MIN, "", "TYPE=7 DURATION=2147483647 HOLDTIME=-2147483648 EXTEND="},
            {INT64_MIN, 0xFFFFFFFF, extend, "TYPE=7 DURATION=0 HOLDTIME=-1 EXTEND=" + extend},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(writeFile("/dev/power_watchdog", dots));
        EXPECT_EQ((Words{0, 0}), call(15, 7, row.first, row.second, row.extend));
        std::string want = dots;
        EXPECT_EQ(want.replace(0, row.record.size(), row.record), readFile("/dev/power_watchdog"));
    }
}

// Last of the suite: it leaves debug logging on.
TEST_F(DaemonIntegration, DumpChecksShellAndPermissionAndDebugSticks) {
    Daemon& d = daemon();
    qmedtest::BackgroundTool listener("qmedctl", {"listen", "0x20000001"}, d.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening"));
    auto denied = d.qmedctl({"dump", "debug"}, 10050);
    EXPECT_TRUE(!has(denied.out, "qmedctl listener") && has(denied.out, ", uid=10050\n") &&
                has(denied.out, "Permission Denial: can't dump QmedBinderService from pid="))
            << denied.out;
    // A denial written into a pipe nobody reads must not kill the daemon.
    std::string cmd;
    for (const std::string& a : qmedtest::emulatorPrefix()) cmd += a + " ";
    cmd += qmedtest::toolPath("qmedctl") + " dump 2>/dev/null | true";
    qmedtest::runCommand({"sh", "-c", cmd}, d.clientOptions(10050));
    for (uid_t uid : {10051, 2000}) {
        auto r = d.qmedctl({"dump", "debug", "x"}, uid);
        EXPECT_TRUE(has(r.out, "qmedctl listener pid " + to_string(listener.pid()))) << r.out;
    }
    EXPECT_TRUE(listener.waitForLine("dump args=\"debug x\""));
    d.qmedctl({"mask", "1"});
    EXPECT_EQ(0u, d.countLog("setKstateMask in BnQmedBinderService"));
    d.qmedctl({"dump", "debug"}, 2000);
    d.qmedctl({"mask", "2"});
    EXPECT_TRUE(d.waitForLog("setKstateMask in BnQmedBinderService"));
}

TEST(DaemonStartup, VersionOptionsAndKillSwitch) {
    // Debug is read before the options, so -t's value is logged; -x is ignored.
    Daemon version({{"-x", "-t", "3", "-v", "-v"}, {{"persist.sys.qmed.debug", "true"}}, {}});
    version.options().waitForService = false;
    int status = -1;
    ASSERT_TRUE(version.start() && version.waitExit(5000, &status));
    EXPECT_EQ(0, status);  // exited with 0
    EXPECT_EQ("version 13.0.13\nversion 13.0.13\n", version.out());
    EXPECT_TRUE(has(version.log(), "Zoqmed Start, bDebug: 1") && has(version.log(), "vp_type=3"));

    // Switched off: alive, only the parked main thread (an emulator's helper carries its name).
    Daemon off({{}, {{"ro.config.qm_disable_qm", "true"}}, {}, "d", false, true});
    ASSERT_TRUE(off.start() && off.waitForLog("qm is disabled, do nothing"));
    usleep(300 * 1000);
    const std::string task = "/proc/" + to_string(off.pid()) + "/task/";
    const std::string mainName = readFile(task + to_string(off.pid()) + "/comm");
    for (const auto& e : std::filesystem::directory_iterator(task)) {
        EXPECT_EQ(mainName, readFile(e.path().string() + "/comm")) << e.path();
    }
    EXPECT_TRUE(has(off.service({"check", "Binder.Qmed"}).out, "not found"));
    EXPECT_FALSE(has(off.log(), "Qmed-Vigil") || has(off.log(), "Freezer::initFrz"));
}

// Each operation records its name and arguments, so the stub is seen apart from the engines.
class Recorder : public BnQmedBinderService {
  public:
    std::vector<std::string> calls;

    template <typename... A>
    int rec(const char* op, A... args) {
        std::ostringstream out;
        out << op;
        ((out << ',' << args), ...);
        calls.push_back(out.str());
        return 17;
    }
    static std::string list(const int* p, int n) {
        std::ostringstream out;
        for (int i = 0; i < n; i++) out << (i ? " " : "") << p[i];
        return out.str();
    }
    // Counts the zero bytes handed in, then fills the whole buffer with 'x'.
    static int fill(char* b, int len) {
        const int zero = static_cast<int>(std::count(b, b + len, 0));
        memset(b, 'x', static_cast<size_t>(len));
        return zero;
    }
    // clang-format off
#define REC(...) override { return rec(__func__, __VA_ARGS__); }
    int registerListener(const sp<IQmedBinderListener>& l, int t) REC(l != nullptr, t)
    int unregisterListener(const sp<IQmedBinderListener>& l) REC(l != nullptr)
    int doFreezer(int a, int* p, int n) REC(a, list(p, n))
    int setKstateMask(int m) REC(m)
    int setKWakelock(int c, const char* s, int t, unsigned n) REC(c, s, t, n)
    int getKstateSync(int c) REC(c)
    int getProcUTime(int pid) REC(pid)
    int getProcCpuTime(char* b, int t, int* p, int n) REC(t, list(p, n), fill(b, 102400))
    int getCmdLineByPid(char* b, int pid, int n) REC(pid, n, fill(b, n))
    int getPidByNameAndUid(const char* s, int uid, int* out) REC(s, uid, *out = uid + 1)
    int killProcess(int* p, int n) REC(list(p, n))
    int destroySockets(int uid, int pid) REC(uid, pid)
    int setPowerWatchdog(int t, long a, long b, const android::String8& e) REC(t, a, b, e.c_str())
    bool writeFileNode(const char* p, const char* c) REC(p, c)
    int doSpear(int pid, int r, int t, bool c) REC(pid, r, t, c)
    int stopSpear(int pid) REC(pid)
    int pauseSpear(int pid, int t) REC(pid, t)
    int stopSpearAll() override { return rec(__func__); }
    int changeSpearParam(int pid, int r) REC(pid, r)
    int readFileNode(const char* p, int d) REC(p, d)
#undef REC
    // clang-format on
};

// Each code under a good and a wrong token, with debug logging off and on (mode bits). Arguments as
// "i<int32>", "l<int64>", "s<string>" or "b" (a binder). List bounds are proved above.
TEST(ServiceStub, UnmarshalsEveryCodeAndRefusesAWrongToken) {
    const struct {
        uint32_t code;
        std::vector<std::string> args;
        std::string call;       // "" when no operation may run
        Words reply = {0, 17};  // a string reply is checked by length after these words
        int textLength = -1;
        android::status_t status = 0;
    } rows[] = {
            {1, {"b", "i536870913"}, "registerListener,1,536870913"},
            {2, {"b"}, "unregisterListener,1"},
            {3, {"i1", "i3", "i11"}, "doFreezer,1,11 0 0"},  // missing pids read as 0
            {4, {"i5"}, "setKstateMask,5"},
            {5, {"i9"}, "getKstateSync,9"},
            {8, {"i77"}, "getProcUTime,77"},
            // The whole 102400-byte buffer comes zeroed; the text ends inside it.
            {9, {"i2", "i2", "i7", "i8"}, "getProcCpuTime,2,7 8,102400", {0}, 102399},
            {10, {"i321"}, "getCmdLineByPid,321,64,64", {0}, 63},
            {11,
             {"ssystem_server", "i1000"},
             "getPidByNameAndUid,system_server,1000,1001",
             {0, 1001}},
            {12, {"i3", "i5", "i-1", "i6"}, "killProcess,5 -1 6"},
            {12, {"i2", "i5"}, "killProcess,5 0"},
            {9, {"i1", "i3", "i7"}, "getProcCpuTime,1,7 0 0,102400", {0}, 102399},
            // Refused counts: nothing of the list is read, no operation runs.
            {3, {"i2", "i-5", "i9"}, "", {0, -1}},
            {9, {"i4", "i201", "i9"}, "", {0}},
            {12, {"i0", "i9"}, "", {0, -1}},
            {13, {"i3", "s\xc3\xa9t\xc3\xa9", "i9"}, "setKWakelock,3,\xc3\xa9t\xc3\xa9,9,5"},
            {14, {"i10001", "i0"}, "destroySockets,10001,0"},
            {15, {"i1", "l4294967301", "l4294967295", "sx"}, "setPowerWatchdog,1,5,-1,x"},
            {16, {"s/sys/x", "s1"}, "writeFileNode,/sys/x,1", {0, 1}},
            {17, {"i300", "i25", "i1", "i2"}, "doSpear,300,25,1,1"},
            {18, {"i301", "i7"}, "pauseSpear,301,7"},
            {19, {"i302"}, "stopSpear,302"},
            {20, {}, "stopSpearAll"},
            {21, {"i303", "i40"}, "changeSpearParam,303,40"},
            {22, {"s/sys/y", "i-3"}, "readFileNode,/sys/y,-3"},
            {6, {"i1"}, "", {}, -1, android::UNKNOWN_TRANSACTION},
            {7, {"i1"}, "", {}, -1, android::UNKNOWN_TRANSACTION},
            {23, {"i1"}, "", {}, -1, android::UNKNOWN_TRANSACTION},
    };
    qmed::host::LogCapture logs;
    for (int mode = 0; mode < 4; mode++) {
        bDebug = mode & 1;
        const bool badToken = mode & 2;
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << "code " << row.code << " mode " << mode);
            sp<Recorder> service = new Recorder();
            Parcel data, reply;
            data.writeInterfaceToken(badToken ? String16("qmed.Other") : service->descriptor);
            for (const std::string& a : row.args) {
                if (a[0] == 'i') data.writeInt32(std::stoi(a.substr(1)));
                if (a[0] == 'l') data.writeInt64(std::stoll(a.substr(1)));
                if (a[0] == 's') data.writeString16(String16(a.substr(1).c_str()));
                if (a[0] == 'b') data.writeStrongBinder(new android::BBinder());
            }
            data.setDataPosition(0);
            const bool refused = badToken && row.status == 0;
            EXPECT_EQ(refused ? -1 : row.status, service->onTransact(row.code, data, &reply));
            EXPECT_EQ(refused ? "" : row.call, service->calls.empty() ? "" : service->calls[0]);
            Parcel want;  // the reply byte for byte
            for (int32_t w : refused ? Words() : row.reply) want.writeInt32(w);
            if (row.textLength >= 0 && !refused) {
                want.writeString16(String16(std::string(row.textLength, 'x').c_str()));
            }
            ASSERT_EQ(want.dataSize(), reply.dataSize());
            EXPECT_TRUE(std::equal(want.data(), want.data() + want.dataSize(), reply.data()));
        }
    }
    bDebug = false;
    // Every line the stub logged, in every mode, against the committed golden file.
    std::string got, golden = std::string(QMED_TEST_DATA) + "/stub_log.golden";
    for (const std::string& line : logs.lines()) {
        if (has(line, "/Qmed-IQmedBinderService: ")) got += line + "\n";
    }
    if (getenv("QMED_UPDATE_GOLDEN") != nullptr) writeFile(golden, got);
    EXPECT_EQ(readFile(golden), got);
}

// After the daemon is gone, as the service brings up a freezer of its own (left unused here).
TEST(ServiceOps, NullArgumentsDebugPropertyAndPluginFailures) {
    const std::string missing = "/tmp/qmed-no-watchdog-" + to_string(getpid());
    sp<QmedBinderService> service = new QmedBinderService(missing.c_str());
    int pids[1] = {-1};
    EXPECT_TRUE(service->killProcess(pids, 0) == -1 && service->killProcess(nullptr, 2) == -1);
    EXPECT_FALSE(service->writeFileNode("/dev/null", nullptr));
    EXPECT_EQ(-1, service->setPowerWatchdog(1, 1, 1, android::String8("y")));
    EXPECT_NE(0, access(missing.c_str(), F_OK));

    const std::string props = getenv("QMED_PROPERTY_FILE");  // set up by qmed-ns
    for (std::string value : {"true", "True", "true ", "true1", "", "-"}) {
        writeFile(props, value == "-" ? "" : "persist.sys.qmed.debug=" + value + "\n");
        bDebug = value != "true";
        readDebugProperty();
        EXPECT_EQ(value == "true", bDebug) << value;
    }
    bDebug = false;

    // The default name is on no search path here: one error line each, and nothing stays loaded.
    const std::string noEntry = qmedtest::binDir() + "/libvigild_noentry.so";
    for (const std::string& library : {std::string(), noEntry}) {
        const char* line = library.empty() ? "E/Qmed-Vigil: not find libvigild.so err:"
                                           : "E/Qmed-Vigil: dlsym err:";
        qmed::host::LogCapture logs;
        sp<Vigil> vigil = library.empty() ? new Vigil() : new Vigil(library.c_str());
        vigil->start();
        ASSERT_EQ(android::NO_ERROR, vigil->join());
        EXPECT_TRUE(logs.count(line) == 1 && logs.count("Qmed-Vigil") == 1) << line;
        EXPECT_EQ(nullptr, dlopen(noEntry.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    }
}

}  // namespace
