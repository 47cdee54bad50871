// The daemon's pieces in-process, run through qmed-ns (the service brings up /dev/frz): the
// stub's unmarshalling against a recording service, the service's own operations on real
// files and processes, the command line and the plug-in host.

#include <binder/Parcel.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "daemon/QmedBinderService.h"
#include "daemon/QmedGlobals.h"
#include "daemon/Vigil.h"
#include "daemon/Zoqmed.h"
#include "freezer/Freezer.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::Parcel;
using android::sp;
using android::String16;
using android::String8;
using qmedtest::readFile;
using qmedtest::TestChild;
using qmedtest::writeFile;

namespace {

// Records each operation with its arguments, so the stub is seen apart from the engines.
class Recorder : public BnQmedBinderService {
  public:
    std::vector<std::string> calls;

    template <typename... A>
    int rec(const char* op, A... args) {
        std::ostringstream out;
        const char* sep = "";
        out << op << "(";
        ((out << sep << args, sep = ","), ..., (void)sep);
        calls.push_back(out.str() + ")");
        return 17;
    }
    static std::string list(const int* p, int n) {
        std::string s;
        for (int i = 0; i < n; i++) s += (i ? " " : "") + std::to_string(p[i]);
        return s;
    }
    // Counts the zero bytes handed in, then fills the whole buffer with 'x'.
    static int fill(char* b, int len) {
        int zero = 0;
        for (int i = 0; i < len; i++) zero += b[i] == 0;
        memset(b, 'x', static_cast<size_t>(len));
        return zero;
    }
    int registerListener(const sp<IQmedBinderListener>& l, int t) override {
        return rec("register", l != nullptr, t);
    }
    int unregisterListener(const sp<IQmedBinderListener>& l) override {
        return rec("unregister", l != nullptr);
    }
    int doFreezer(int a, int* p, int n) override { return rec("freezer", a, list(p, n)); }
    int setKstateMask(int m) override { return rec("mask", m); }
    int setKWakelock(int c, const char* s, int t, unsigned n) override {
        return rec("wakelock", c, s, t, n);
    }
    int getKstateSync(int c) override { return rec("sync", c); }
    int getProcUTime(int pid) override { return rec("utime", pid); }
    int getProcCpuTime(char* b, int t, int* p, int n) override {
        return rec("cputime", t, list(p, n), fill(b, kCpuTimeBufferSize));
    }
    int getCmdLineByPid(char* b, int pid, int len) override {
        return rec("cmdline", pid, len, fill(b, len));
    }
    int getPidByNameAndUid(const char* s, int uid, int* out) override {
        *out = uid + 1;
        return rec("pidof", s, uid);
    }
    int killProcess(int* p, int n) override { return rec("kill", list(p, n)); }
    int destroySockets(int uid, int pid) override { return rec("sockets", uid, pid); }
    int setPowerWatchdog(int t, long a, long b, const String8& e) override {
        return rec("watchdog", t, a, b, e.c_str());
    }
    bool writeFileNode(const char* p, const char* c) override { return rec("write", p, c); }
    int doSpear(int pid, int r, int t, bool c) override { return rec("spear", pid, r, t, c); }
    int stopSpear(int pid) override { return rec("stop", pid); }
    int pauseSpear(int pid, int t) override { return rec("pause", pid, t); }
    int stopSpearAll() override { return rec("stopAll"); }
    int changeSpearParam(int pid, int r) override { return rec("rate", pid, r); }
    int readFileNode(const char* p, int d) override { return rec("read", p, d); }
};

// Arguments as "i<int32>", "l<int64>", "s<string>", "b" (null binder) or "b1" (a binder).
void writeArgs(Parcel* p, const std::vector<std::string>& args) {
    for (const std::string& a : args) {
        const std::string v = a.substr(1);
        if (a[0] == 'i') p->writeInt32(std::stoi(v));
        if (a[0] == 'l') p->writeInt64(std::stoll(v));
        if (a[0] == 's') p->writeString16(String16(v.c_str()));
        if (a[0] == 'b') p->writeStrongBinder(v.empty() ? nullptr : new android::BBinder());
    }
}

struct StubRow {
    uint32_t code;
    std::vector<std::string> args;
    std::string call;                      // "" when no operation may run
    std::vector<int32_t> reply = {0, 17};  // reply words; a string reply is checked by length
    int textLength = -1;
    android::status_t status = 0;
};

TEST(ServiceStub, UnmarshalsEveryCodeAndRefusesBadLists) {
    const int32_t kUnknown = android::UNKNOWN_TRANSACTION;
    std::vector<StubRow> rows = {
            {1, {"b1", "i536870913"}, "register(1,536870913)"},
            {1, {"b", "i1"}, "register(0,1)"},
            {2, {"b1"}, "unregister(1)"},
            {3, {"i1", "i3", "i11"}, "freezer(1,11 0 0)"},  // missing pids read as 0
            {4, {"i5"}, "mask(5)"},
            {5, {"i9"}, "sync(9)"},
            {8, {"i77"}, "utime(77)"},
            // The whole 102400-byte buffer comes zeroed; the text ends inside it.
            {9, {"i2", "i2", "i7", "i8"}, "cputime(2,7 8,102400)", {0}, 102399},
            {10, {"i321"}, "cmdline(321,64,64)", {0}, 63},
            {11, {"ssystem_server", "i1000"}, "pidof(system_server,1000)", {0, 1001}},
            {12, {"i3", "i5", "i-1", "i6"}, "kill(5 -1 6)"},
            {13, {"i3", "s\xc3\xa9t\xc3\xa9", "i9"}, "wakelock(3,\xc3\xa9t\xc3\xa9,9,5)"},
            {14, {"i10001", "i0"}, "sockets(10001,0)"},
            {15, {"i1", "l4294967301", "l4294967295", "sx"}, "watchdog(1,5,-1,x)"},
            {16, {"s/sys/x", "s1"}, "write(/sys/x,1)", {0, 1}},
            {16, {}, "write(,)", {0, 1}},
            {17, {"i300", "i25", "i1", "i2"}, "spear(300,25,1,1)"},
            {17, {}, "spear(0,0,0,0)"},
            {18, {"i301", "i7"}, "pause(301,7)"},
            {19, {"i302"}, "stop(302)"},
            {20, {}, "stopAll()"},
            {21, {"i303", "i40"}, "rate(303,40)"},
            {22, {"s/sys/y", "i-3"}, "read(/sys/y,-3)"},
    };
    for (uint32_t code : {0u, 6u, 7u, 23u}) rows.push_back({code, {"i1"}, "", {}, -1, kUnknown});
    std::vector<std::string> full = {"i4", "i200"};
    std::string listText;
    for (int i = 0; i < 200; i++) {
        full.push_back("i" + std::to_string(1000 + i));
        listText += (i ? " " : "") + std::to_string(1000 + i);
    }
    rows.push_back({3, full, "freezer(4," + listText + ")"});
    rows.push_back({9, full, "cputime(4," + listText + ",102400)", {0}, 102399});
    full.erase(full.begin());
    rows.push_back({12, full, "kill(" + listText + ")"});
    for (const char* num : {"i0", "i-5", "i201"}) {
        rows.push_back({3, {"i1", num, "i1"}, "", {0, -1}});
        rows.push_back({9, {"i1", num, "i1"}, "", {0}});
        rows.push_back({12, {num, "i1"}, "", {0, -1}});
    }

    for (bool debug : {false, true}) {
        qmed::host::LogCapture logs;
        bDebug = debug;
        for (bool badToken : {false, true}) {
            for (const StubRow& row : rows) {
                SCOPED_TRACE(testing::Message() << "code " << row.code << " " << row.call
                                                << (badToken ? " bad token" : ""));
                sp<Recorder> service = new Recorder();
                Parcel data, reply;
                data.writeInterfaceToken(badToken ? String16("qmed.Other") : service->descriptor);
                writeArgs(&data, row.args);
                data.setDataPosition(0);
                const bool refused = badToken && row.status == 0;
                EXPECT_EQ(refused ? -1 : row.status, service->onTransact(row.code, data, &reply));
                EXPECT_EQ(refused || row.call.empty() ? "" : row.call,
                          service->calls.empty() ? "" : service->calls[0]);
                reply.setDataPosition(0);
                std::vector<int32_t> words;
                if (refused) {
                    EXPECT_EQ(0u, reply.dataSize());
                    continue;
                }
                while (reply.dataAvail() >= 4 && words.size() < row.reply.size()) {
                    words.push_back(reply.readInt32());
                }
                EXPECT_EQ(row.reply, words);
                if (row.textLength >= 0 && !row.call.empty()) {
                    EXPECT_EQ(String16(std::string(row.textLength, 'x').c_str()),
                              reply.readString16());
                }
                EXPECT_EQ(0u, reply.dataAvail());
            }
        }
        EXPECT_EQ(2u, logs.count("E/Qmed-IQmedBinderService: monitorNetPacket not support now"));
        EXPECT_EQ(debug, logs.contains("D/Qmed-IQmedBinderService: stopSpear in Bn"));
        EXPECT_EQ(1u, logs.count("E/Qmed-IQmedBinderService: ****killProcess num is too larger. "
                                 "pid num is 201***"));
    }
    bDebug = false;
}

class ServiceOps : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_NE(nullptr, mkdtemp(sDir));
        ASSERT_TRUE(writeFile(path("watchdog"), ""));
        sService = new QmedBinderService(path("watchdog").c_str());
    }
    static void TearDownTestSuite() {
        sService.clear();
        qmedtest::runCommand({"rm", "-rf", sDir});
    }
    static std::string path(const std::string& name) { return std::string(sDir) + "/" + name; }

    static inline char sDir[] = "/tmp/qmed-ops-XXXXXX";
    static inline sp<QmedBinderService> sService;
};

TEST_F(ServiceOps, KillStopsAtTheMinusOneTerminatorAndUserTimeReadsStat) {
    TestChild first = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillA");
    TestChild second = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillB");
    int pids[3] = {first.pid(), -1, second.pid()};
    EXPECT_EQ(0, sService->killProcess(pids, 3));
    EXPECT_TRUE(first.reap(2000));
    EXPECT_TRUE(qmedtest::processExists(second.pid()));
    EXPECT_EQ(-1, sService->killProcess(pids, 0));
    EXPECT_EQ(-1, sService->killProcess(nullptr, 2));
    EXPECT_EQ(0, sService->killProcess(pids, 1));  // already gone: fails alone
    EXPECT_EQ(-1, sService->getProcUTime(first.pid()));

    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "qmedUtime");
    // The name is scanned as one blank-free token: a blank breaks the scan and gives 0.
    TestChild blank = TestChild::spawn(TestChild::Kind::Busy, "qmed u t");
    ASSERT_TRUE(qmedtest::waitUntil(
            [&] {
                return qmedtest::procUtime(busy.pid()) > 2 && qmedtest::procUtime(blank.pid()) > 2;
            },
            5000));
    long before = qmedtest::procUtime(busy.pid());
    int utime = sService->getProcUTime(busy.pid());
    EXPECT_TRUE(before <= utime && utime <= qmedtest::procUtime(busy.pid())) << utime;
    EXPECT_EQ(0, sService->getProcUTime(blank.pid()));
}

// 64-bit parcel values reach a 32-bit long and print as the device prints them.
TEST_F(ServiceOps, WatchdogRecordCarriesTheLow32BitsByteForByte) {
    const struct {
        int64_t first, second;
        std::string record;
    } rows[] = {
            {(int64_t{1} << 32) + 5, 20, "TYPE=7 DURATION=5 HOLDTIME=20 EXTEND=e"},
            {INT32_MAX, INT32_MIN, "TYPE=7 DURATION=2147483647 HOLDTIME=-2147483648 EXTEND=e"},
            {int64_t{INT32_MAX} + 1, -1, "TYPE=7 DURATION=-2147483648 HOLDTIME=-1 EXTEND=e"},
            {INT64_MIN, 0xFFFFFFFFLL, "TYPE=7 DURATION=0 HOLDTIME=-1 EXTEND=e"},
    };
    const std::string dots(64, '.');
    for (const auto& row : rows) {
        ASSERT_TRUE(writeFile(path("watchdog"), dots));  // neither truncated nor appended to
        Parcel data, reply;
        data.writeInterfaceToken(sService->getInterfaceDescriptor());
        data.writeInt32(7);
        data.writeInt64(row.first);
        data.writeInt64(row.second);
        data.writeString16(String16("e"));
        data.setDataPosition(0);
        ASSERT_EQ(0, sService->onTransact(IQmedBinderService::SET_POWER_WATCHDOG, data, &reply));
        EXPECT_EQ(8u, reply.dataSize());
        EXPECT_EQ(row.record + dots.substr(row.record.size()), readFile(path("watchdog")));
    }
    sp<QmedBinderService> missing = new QmedBinderService(path("none").c_str());
    EXPECT_EQ(-1, missing->setPowerWatchdog(1, 1, 1, String8("y")));
    EXPECT_NE(0, access(path("none").c_str(), F_OK));
}

TEST_F(ServiceOps, FileNodesReadTwentyBytesAndAreNeverCreated) {
    // Exactly 20 bytes are read: 19 would give 4, 21 would give 429. nullptr: no file.
    const std::pair<const char*, int> rows[] = {{"abc", 0},     {"42\n", 42},
                                                {"-17 x", -17}, {"", 0},
                                                {nullptr, 7},   {"                  429", 42}};
    for (const auto& [content, expected] : rows) {
        unlink(path("node").c_str());
        ASSERT_TRUE(content == nullptr || writeFile(path("node"), content));
        EXPECT_EQ(expected, sService->readFileNode(path("node").c_str(), 7)) << content;
    }
    EXPECT_EQ(-9, sService->readFileNode(nullptr, -9));
    EXPECT_EQ(5, sService->readFileNode(sDir, 5));  // opens, but cannot be read

    ASSERT_TRUE(writeFile(path("node"), "0000"));
    EXPECT_TRUE(sService->writeFileNode(path("node").c_str(), "12"));
    EXPECT_EQ("1200", readFile(path("node")));
    EXPECT_FALSE(sService->writeFileNode(path("none").c_str(), "1"));
    EXPECT_NE(0, access(path("none").c_str(), F_OK));
    EXPECT_FALSE(sService->writeFileNode(nullptr, "1") || sService->writeFileNode(sDir, nullptr));
    // Refused by the node. Not /proc/self: under qemu-arm that is the emulator's copy.
    EXPECT_FALSE(sService->writeFileNode("/proc/1/stat", "1"));
}

TEST_F(ServiceOps, ForwardsRefusalsFreezerListenersAndDump) {
    EXPECT_EQ(-1, sService->destroySockets(0, 0));
    EXPECT_EQ(-1, sService->destroySockets(-5, 100));
    // No kernel module has identified itself: every send fails.
    EXPECT_EQ(-1, sService->getKstateSync(1));
    EXPECT_EQ(-1, sService->setKstateMask(5));
    EXPECT_EQ(-1, sService->setKWakelock(3, "abc", 1, 3));

    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedOpsFrz");
    int list[2] = {child.pid(), -1};  // freeze lists end with -1
    ASSERT_EQ(0, sService->doFreezer(1, list, 2));
    EXPECT_TRUE(Freezer::getInstance()->isFreezed(child.pid()));
    sp<IQmedBinderListener> listener = IQmedBinderListener::asInterface(new android::BBinder());
    EXPECT_EQ(0, sService->registerListener(listener, 1));
    EXPECT_EQ(2, sService->registerListener(listener, 4));
    EXPECT_EQ(1, sService->unregisterListener(nullptr));
    sService->binderDied(android::IInterface::asBinder(listener));
    EXPECT_FALSE(Freezer::getInstance()->isFreezed(child.pid()));
    EXPECT_EQ(3, sService->unregisterListener(listener));

    // Only the one argument "debug" switches debug logging on, and it stays on.
    android::Vector<String16> args;
    for (const char* arg : {"debug", "x"}) args.add(String16(arg));
    EXPECT_EQ(0, sService->dump(-1, args));
    EXPECT_FALSE(bDebug);
    args.removeAt(1);
    EXPECT_EQ(0, sService->dump(-1, args));
    EXPECT_EQ(0, sService->dump(-1, android::Vector<String16>()));
    EXPECT_TRUE(bDebug);
    bDebug = false;
}

TEST(Startup, OptionsAndDebugPropertySpellings) {
    const std::pair<std::vector<std::string>, int> rows[] = {
            {{"-v"}, 9}, {{"-t", "3", "-v"}, 3}, {{"-x", "-t", "-2"}, -2}, {{"-t5", "-t"}, 5}};
    for (auto [args, type] : rows) {
        args.insert(args.begin(), "ykqmed");
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(&a[0]);
        optind = 0;  // full getopt reset
        vp_type = 9;
        const int result = args.back() == "-v" ? -1 : 0;
        EXPECT_EQ(result, parse_args(static_cast<int>(argv.size()), argv.data())) << args[1];
        EXPECT_EQ(type, vp_type) << args[1];
    }
    vp_type = 0;

    const std::string props = "/tmp/qmed-props-" + std::to_string(getpid());
    setenv("QMED_PROPERTY_FILE", props.c_str(), 1);
    for (std::string value : {"true", "True", "true ", "true1", "TRUE", "1", "", "-"}) {
        const bool on = value == "true";
        writeFile(props, value == "-" ? "" : "persist.sys.qmed.debug=" + value + "\n");
        bDebug = !on;
        readDebugProperty();
        EXPECT_EQ(on, bDebug) << value;
    }
    unsetenv("QMED_PROPERTY_FILE");
    unlink(props.c_str());
    bDebug = false;
}

// The plug-in host runs the library's entry once on a thread of its own and unloads it.
TEST(Vigil, RunsTheEntryOnceOrLogsOneErrorAndUnloads) {
    const std::string bin = qmedtest::binDir() + "/", marker = bin + "vigil-marker";
    const struct {
        std::string library;  // "" for the default name, found on no search path here
        const char* line;
        const char* ran;
    } rows[] = {
            {bin + "libvigild_test.so", "I/Qmed-Vigil: vigild_main begin", "vigild_main ran\n"},
            {"", "E/Qmed-Vigil: not find libvigild.so err:", ""},
            {bin + "libvigild_noentry.so", "E/Qmed-Vigil: dlsym err:", ""},
    };
    setenv("VIGIL_TEST_MARKER", marker.c_str(), 1);
    for (const auto& row : rows) {
        unlink(marker.c_str());
        qmed::host::LogCapture logs;
        sp<Vigil> vigil = row.library.empty() ? new Vigil() : new Vigil(row.library.c_str());
        vigil->start();
        ASSERT_EQ(android::NO_ERROR, vigil->join());
        EXPECT_EQ(row.ran, readFile(marker)) << row.line;
        EXPECT_TRUE(logs.count(row.line) == 1 && logs.count("Qmed-Vigil") == 1) << row.line;
        EXPECT_TRUE(row.library.empty() || !dlopen(row.library.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    }
    unlink(marker.c_str());
    EXPECT_EQ(Vigil::getInstance().get(), Vigil::getInstance().get());
}

}  // namespace
