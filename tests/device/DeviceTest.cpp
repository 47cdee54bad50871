// What must stay in step though it cannot run here: the Java the aidl tool generates, the
// device build file, and the 32-bit word sizes of the target.

#include <gtest/gtest.h>
#include <host/LogCapture.h>

#include <filesystem>
// GCC 12 at -O1 warns inside libstdc++'s regex compiler (a known false positive).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <map>
#include <set>
#include <sstream>

#include "daemon/IQmedBinderService.h"
#include "tests/limiter/LimiterHarness.h"
#include "tests/support/ToolRunner.h"

namespace {

std::vector<std::string> matches(const std::string& text, const std::string& pattern) {
    std::vector<std::string> out;
    std::regex re(pattern);
    for (std::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it) {
        out.push_back((*it)[1]);
    }
    return out;
}

// The generated proxies' descriptors and codes (FIRST_CALL_TRANSACTION + id, so id + 1): a code
// that moves fails here. The daemon's side is pinned by its stub and listener tests.
TEST(Device, GeneratedInterfacesKeepTheWireCodes) {
    const std::string descriptor = android::String8(IQmedBinderService::descriptor).c_str();
    std::string codes;
    for (const char* file : {"IQmedBinder.java", "IQmedBinderListener.java"}) {
        const std::string java = qmedtest::readFile(QMED_AIDL_JAVA_DIR + std::string(file));
        codes += matches(java, R"(DESCRIPTOR = "([^"]*)\")").at(0) + ":";
        const std::regex code(R"(TRANSACTION_(\w+) = .*\+ (\d+)\);)");
        for (std::sregex_iterator it(java.begin(), java.end(), code), end; it != end; ++it) {
            codes += " " + (*it)[1].str() + "=" + std::to_string(1 + std::stoi((*it)[2]));
        }
        codes += "\n";
    }
    EXPECT_EQ(descriptor +
                      ": registerListener=1 unregisterListener=2 doFreezer=3 setKstateMask=4 "
                      "getKstateSync=5 monitorNetPacket=6 getProcUTime=8 getProcCpuTime=9 "
                      "getCmdLineByPid=10 getPidByNameAndUid=11 killProcess=12 setKWakelock=13 "
                      "destroySockets=14 setPowerWatchdog=15 writeFileNode=16 doSpear=17 "
                      "pauseSpear=18 stopSpear=19 stopSpearAll=20 changeSpearParam=21 "
                      "readFileNode=22\n" +
                      descriptor +
                      "Listener: onKstateCallback=1 onNetworkPacketCallback=2 "
                      "onStopProcSpearCallback=3 onDump=100\n",
              codes);
}

// Android.bp compiles what the CMake build compiles into the daemon, module by module (the
// build writes "module|dir|sources" lines), and every file it names exists.
TEST(Device, BuildFileCompilesWhatTheBuildCompilesAndNamesOnlyFilesThatExist) {
    const std::string root = QMED_SOURCE_DIR "/",
                      bp = qmedtest::readFile(root + "device/Android.bp");
    std::map<std::string, std::set<std::string>> built, listed;
    std::istringstream lines(qmedtest::readFile(QMED_DAEMON_SOURCES));
    for (std::string line; std::getline(lines, line);) {
        const size_t a = line.find('|'), b = line.find('|', a + 1);
        std::istringstream files(line.substr(b + 1));
        for (std::string f; std::getline(files, f, ';');) {
            const auto path = std::filesystem::path(line.substr(a + 1, b - a - 1)) / f;
            if (path.extension() == ".cpp") {
                built[line.substr(0, a)].insert(path.lexically_relative(root).string());
            }
        }
    }
    ASSERT_EQ(3u, built.size());
    // bpfmt's layout: a module's name first, its lists one level in.
    const std::regex module(
            R"re(\n\w+ \{\n    name: "([^"]+)",\n[^}]*?\n    srcs: \[([^\]]*)\])re");
    for (std::sregex_iterator it(bp.begin(), bp.end(), module), end; it != end; ++it) {
        for (const std::string& f : matches((*it)[2], R"re("([^"]+)")re")) {
            if (built.count((*it)[1]) != 0) listed[(*it)[1]].insert(f);
        }
    }
    EXPECT_EQ(built, listed);
    const std::string named =
            std::regex_replace(bp, std::regex(R"((//[^\n]*|\bout: \[[^\]]*\]))"), "");
    for (const std::string& f : matches(named, R"re("([A-Za-z0-9_./-]+\.(cpp|h|rc))")re")) {
        EXPECT_TRUE(std::filesystem::exists(root + f)) << f;
    }
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
