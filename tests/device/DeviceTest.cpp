// What cannot be built or run here but must stay in step: the Java the aidl tool generates
// against the daemon's wire codes, the device build files against the CMake build, and the
// 32-bit word sizes of the target.

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
// GCC 12 at -O1 warns inside libstdc++'s regex compiler (a known false positive).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <set>
#include <sstream>
#include <string>

#include "daemon/IQmedBinderService.h"
#include "listener/IQmedBinderListener.h"
#include "tests/limiter/LimiterHarness.h"

namespace {

const std::string kRoot = QMED_SOURCE_DIR "/";

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << "cannot read " << path;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> matches(const std::string& text, const std::string& pattern) {
    std::vector<std::string> out;
    std::regex re(pattern);
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it) {
        out.push_back((*it)[1]);
    }
    return out;
}

// Per method of a generated proxy: "<code> <parcel writes> -> <reply reads>", e.g.
// "3 Int IntArray -> Int"; the descriptor under "".
std::map<std::string, std::string> generatedWire(const std::string& file) {
    std::map<std::string, std::string> wire, calls;
    std::istringstream in(fileText(QMED_AIDL_JAVA_DIR + file));
    std::string line, current, call;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_search(line, m, std::regex(R"(DESCRIPTOR = "([^"]*)\";)"))) {
            wire.emplace("", m[1]);
        } else if (std::regex_search(line, m, std::regex(R"(TRANSACTION_(\w+) = .*\+ (\d+)\);)"))) {
            wire[m[1]] = std::to_string(1 + std::stoi(m[2])) + calls[m[1]];
        } else if (line.find("writeInterfaceToken") != std::string::npos) {
            call.clear();
        } else if (std::regex_search(line, m, std::regex(R"(_data\.write(\w+)\()"))) {
            call += " " + m[1].str();
        } else if (std::regex_search(line, m, std::regex(R"(TRANSACTION_(\w+),)"))) {
            current = m[1];
            calls[current] = call + " ->";
        } else if (line.find("finally") != std::string::npos) {
            current.clear();
        } else if (!current.empty() &&
                   std::regex_search(line, m, std::regex(R"(_reply\.read(\w+)\()")) &&
                   m[1] != "Exception") {
            calls[current] += " " + m[1].str();
        }
    }
    return wire;
}

// Code, parcel writes and reply reads of each method, against the generated proxy and the
// daemon's own numbering: a code that moves on either side fails here.
TEST(Device, GeneratedInterfacesMatchTheWireTables) {
    using S = IQmedBinderService;
    using L = IQmedBinderListener;
    const struct {
        std::string method;
        int code;
        std::string wire;
    } rows[] = {
            {"registerListener", S::REGISTER_LISTENER, "1 StrongBinder Int -> Int"},
            {"unregisterListener", S::UNREGISTER_LISTENER, "2 StrongBinder -> Int"},
            {"doFreezer", S::DO_FREEZER, "3 Int IntArray -> Int"},
            {"setKstateMask", S::SET_KSTATE_MASK, "4 Int -> Int"},
            {"getKstateSync", S::GET_KSTATE_SYNC, "5 Int -> Int"},
            {"monitorNetPacket", S::MONITOR_NET_PACKET, "6 Int -> Int"},
            {"getProcUTime", S::GET_PROC_UTIME, "8 Int -> Int"},
            {"getProcCpuTime", S::GET_PROC_CPU_TIME, "9 Int IntArray -> String"},
            {"getCmdLineByPid", S::GET_CMDLINE_BY_PID, "10 Int -> String"},
            {"getPidByNameAndUid", S::GET_PID_BY_NAME_AND_UID, "11 String Int -> Int"},
            {"killProcess", S::KILL_PROCESS, "12 IntArray -> Int"},
            {"setKWakelock", S::SET_KWAKELOCK, "13 Int String Int -> Int"},
            {"destroySockets", S::DESTROY_SOCKETS, "14 Int Int -> Int"},
            {"setPowerWatchdog", S::SET_POWER_WATCHDOG, "15 Int Long Long String -> Int"},
            {"writeFileNode", S::WRITE_FILE_NODE, "16 String String -> Int"},
            {"doSpear", S::DO_SPEAR, "17 Int Int Int Int -> Int"},
            {"pauseSpear", S::PAUSE_SPEAR, "18 Int Int -> Int"},
            {"stopSpear", S::STOP_SPEAR, "19 Int -> Int"},
            {"stopSpearAll", S::STOP_SPEAR_ALL, "20 -> Int"},
            {"changeSpearParam", S::CHANGE_SPEAR_PARAM, "21 Int Int -> Int"},
            {"readFileNode", S::READ_FILE_NODE, "22 String Int -> Int"},
            {"onKstateCallback", L::ON_KSTATE_CALLBACK, "1 Int IntArray -> Int"},
            {"onNetworkPacketCallback", L::ON_NETWORK_PACKET_CALLBACK, "2 Int IntArray -> Int"},
            {"onStopProcSpearCallback", L::ON_STOP_PROC_SPEAR_CALLBACK, "3 Int String -> Int"},
            {"onDump", L::DUMP, "100 RawFileDescriptor StringArray -> Int"},
    };
    std::map<std::string, std::string> generated = generatedWire("IQmedBinder.java");
    generated.merge(generatedWire("IQmedBinderListener.java"));  // its descriptor is left out
    for (const auto& row : rows) {
        EXPECT_EQ(row.wire, generated[row.method]) << row.method;
        EXPECT_EQ(row.code, std::stoi(row.wire)) << row.method;
        generated.erase(row.method);
    }
    const std::string descriptor = android::String8(IQmedBinderService::descriptor).c_str();
    EXPECT_EQ((std::map<std::string, std::string>{{"", descriptor}}), generated);
    EXPECT_EQ(descriptor + "Listener", generatedWire("IQmedBinderListener.java")[""]);
}

// Quoted entries between "// <tag>-begin" and "// <tag>-end" of Android.bp.
std::set<std::string> bpList(const std::string& tag) {
    const std::string bp = fileText(kRoot + "device/Android.bp");
    const size_t begin = bp.find("// " + tag + "-begin"), end = bp.find("// " + tag + "-end");
    EXPECT_TRUE(begin != std::string::npos && end != std::string::npos) << tag;
    auto list = matches(bp.substr(begin, end - begin), R"re("([^"]+)")re");
    return {list.begin(), list.end()};
}

// Sources named in the "<opener> ... )" calls of the engine folders' CMakeLists.txt.
std::set<std::string> cmakeSources(const std::string& opener) {
    std::set<std::string> out;
    for (const char* folder :
         {"daemon", "listener", "msghub", "freezer", "limiter", "proc", "sockdiag"}) {
        const std::string text = std::regex_replace(fileText(kRoot + folder + "/CMakeLists.txt"),
                                                    std::regex("#[^\n]*"), "");
        for (const std::string& body : matches(text, opener + R"(([^)]*)\))")) {
            for (const std::string& f : matches(body, R"((\S+\.cpp))"))
                out.insert(folder + ("/" + f));
        }
    }
    return out;
}

TEST(Device, BuildFilesAgreeWithCMakeAndEachOther) {
    EXPECT_EQ(cmakeSources(R"(target_sources\s*\(\s*qmed\s+PRIVATE)"), bpList("qmed-srcs"));
    EXPECT_EQ(cmakeSources(R"(add_executable\s*\(\s*ykqmed\b)"), bpList("ykqmed-srcs"));
    // Every file Android.bp names exists; generated outputs ("out:") name files of the build.
    std::string bp = std::regex_replace(fileText(kRoot + "device/Android.bp"),
                                        std::regex(R"((//[^\n]*|\bout: \[[^\]]*\]))"), "");
    const auto files = matches(bp, R"re("([A-Za-z0-9_./-]+\.(cpp|h|rc))")re");
    EXPECT_GT(files.size(), 20u);
    struct stat st;
    for (const std::string& f : files) EXPECT_EQ(0, stat((kRoot + f).c_str(), &st)) << f;

    EXPECT_NE(std::string::npos, bp.find("init_rc: [\"device/ykqmed.rc\"]"));
}

// The loop's age is taken in microseconds as an unsigned 32-bit value, so it wraps after
// 4294.967296 s (71 min 34.97 s): 71 minutes still read 71, 72 read 0.
TEST(Device, StatisticsDurationWrapsWithThe32BitMicrosecondCount) {
    android::sp<qmedtest::DrivenLimiter> pl = new qmedtest::DrivenLimiter();
    qmed::host::LogCapture log;
    pl->mLoopRunning = true;
    for (const auto& [seconds, minutes] :
         {std::pair{71L * 60, 71}, {4294L, 71}, {4295L, 0}, {72L * 60, 0}, {4295L + 71 * 60, 71}}) {
        pl->mLoopStart = pl->now;
        pl->mLoopStart.tv_sec -= seconds;
        const std::string text = ", duration: " + std::to_string(minutes) + "min value=";
        const size_t before = log.count(text);
        pl->reportQmedState();
        EXPECT_EQ(before + 1, log.count(text)) << seconds << " s";
    }
    pl->mLoopRunning = false;
}

}  // namespace
