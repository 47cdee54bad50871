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

// Android.bp compiles what the CMake build compiles into each daemon module (found by bpfmt's
// layout: the name first, lists one level in), and names only files that exist.
TEST(Device, BuildFileCompilesWhatTheBuildCompilesAndNamesOnlyFilesThatExist) {
    const std::string root = QMED_SOURCE_DIR "/",
                      bp = qmedtest::readFile(root + "device/Android.bp");
    std::map<std::string, std::set<std::string>> built;
    for (const std::string& line : matches(qmedtest::readFile(QMED_DAEMON_SOURCES), "([^\n]+)")) {
        const auto f = matches(line, "([^|;]+)");  // module, its directory, its sources
        for (size_t i = 2; i < f.size(); i++) {
            const auto path = std::filesystem::path(f[1]) / f[i];
            if (path.extension() == ".cpp") built[f[0]].insert(path.lexically_relative(root));
        }
    }
    ASSERT_EQ(3u, built.size());
    for (const auto& [module, sources] : built) {
        const auto srcs =
                matches(bp, "\n    name: \"" + module + "\",\n[^}]*?\n    srcs: \\[([^\\]]*)\\]");
        const auto listed = matches(srcs.empty() ? "" : srcs[0], R"re("([^"]+)")re");
        EXPECT_EQ(sources, std::set<std::string>(listed.begin(), listed.end())) << module;
    }
    const std::string named =
            std::regex_replace(bp, std::regex(R"((//[^\n]*|\bout: \[[^\]]*\]))"), "");
    for (const std::string& f : matches(named, R"re("([A-Za-z0-9_./-]+\.(cpp|h|rc))")re"))
        EXPECT_TRUE(std::filesystem::exists(root + f)) << f;
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
