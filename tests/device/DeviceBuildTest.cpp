// The device build files cannot be built here; these checks keep them in step
// with the CMake build and with each other.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>
// GCC 12 at -O1 warns inside libstdc++'s regex compiler (a known false positive).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <set>
#include <sstream>
#include <string>

namespace {

const std::string kRoot = QMED_SOURCE_DIR;
const char* const kLibraryFolders[] = {"daemon",  "listener", "msghub",  "freezer",
                                       "limiter", "proc",     "sockdiag"};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << "cannot read " << path;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string stripComments(const std::string& text, const std::string& marker) {
    std::istringstream in(text);
    std::string out, line;
    while (std::getline(in, line)) {
        out += line.substr(0, line.find(marker)) + "\n";
    }
    return out;
}

// Source files named in the first "<opener> ... )" call of a CMakeLists.txt.
std::set<std::string> cmakeSources(const std::string& folder, const std::regex& opener) {
    std::string text = stripComments(readFile(kRoot + "/" + folder + "/CMakeLists.txt"), "#");
    std::set<std::string> out;
    for (std::sregex_iterator it(text.begin(), text.end(), opener), end; it != end; ++it) {
        size_t from = it->position() + it->length();
        std::string body = text.substr(from, text.find(')', from) - from);
        std::istringstream words(body);
        std::string word;
        while (words >> word) {
            if (word.size() > 4 && word.substr(word.size() - 4) == ".cpp") {
                out.insert(folder + "/" + word);
            }
        }
    }
    return out;
}

// Quoted entries between "// <tag>-begin" and "// <tag>-end" in Android.bp.
std::set<std::string> bpList(const std::string& bp, const std::string& tag) {
    size_t begin = bp.find("// " + tag + "-begin");
    size_t end = bp.find("// " + tag + "-end");
    EXPECT_NE(begin, std::string::npos) << tag;
    EXPECT_NE(end, std::string::npos) << tag;
    std::set<std::string> out;
    if (begin == std::string::npos || end == std::string::npos) return out;
    std::string body = bp.substr(begin, end - begin);
    std::regex quoted("\"([^\"]+)\"");
    for (std::sregex_iterator it(body.begin(), body.end(), quoted), e; it != e; ++it) {
        out.insert((*it)[1]);
    }
    return out;
}

TEST(DeviceBuild, LibraryListsTheSameDaemonSourcesAsCMake) {
    std::set<std::string> cmake;
    for (const char* folder : kLibraryFolders) {
        auto part = cmakeSources(folder, std::regex(R"(target_sources\s*\(\s*qmed\s+PRIVATE)"));
        cmake.insert(part.begin(), part.end());
    }
    std::set<std::string> bp = bpList(readFile(kRoot + "/device/Android.bp"), "qmed-srcs");
    EXPECT_FALSE(bp.empty());
    for (const auto& f : cmake)
        EXPECT_TRUE(bp.count(f)) << f
                                 << " missing from Android.bp (run scripts/sync-android-bp.sh)";
    for (const auto& f : bp) {
        EXPECT_TRUE(cmake.count(f)) << f << " is in Android.bp but not built by CMake";
        EXPECT_TRUE(exists(kRoot + "/" + f)) << f;
    }
}

TEST(DeviceBuild, BinaryListsTheSameEntrySourcesAsCMake) {
    std::set<std::string> cmake;
    for (const char* folder : kLibraryFolders) {
        auto part = cmakeSources(folder, std::regex(R"(add_executable\s*\(\s*ykqmed\b)"));
        cmake.insert(part.begin(), part.end());
    }
    std::set<std::string> bp = bpList(readFile(kRoot + "/device/Android.bp"), "ykqmed-srcs");
    EXPECT_EQ(bp, cmake);
}

TEST(DeviceBuild, EveryFileItNamesExists) {
    // Generated outputs ("out:") name files of the build, not of the tree.
    std::string bp = std::regex_replace(stripComments(readFile(kRoot + "/device/Android.bp"), "//"),
                                        std::regex(R"(\bout: \[[^\]]*\])"), "");
    std::regex quoted(R"re("([A-Za-z0-9_./-]+\.(cpp|h|rc))")re");
    int files = 0;
    for (std::sregex_iterator it(bp.begin(), bp.end(), quoted), e; it != e; ++it, ++files) {
        EXPECT_TRUE(exists(kRoot + "/" + (*it)[1].str())) << (*it)[1];
    }
    EXPECT_GT(files, 20);
}

TEST(DeviceBuild, InitAndPolicyAgreeOnPathsAndCapabilities) {
    std::string rc = stripComments(readFile(kRoot + "/device/ykqmed.rc"), "#");
    std::string te = stripComments(readFile(kRoot + "/device/sepolicy/ykqmed.te"), "#");
    std::string fc = readFile(kRoot + "/device/sepolicy/file_contexts");
    std::string bp = readFile(kRoot + "/device/Android.bp");

    std::smatch m;
    ASSERT_TRUE(std::regex_search(rc, m, std::regex(R"(service ykqmed (\S+))")));
    EXPECT_EQ(m[1], "/system/bin/ykqmed");
    EXPECT_TRUE(
            std::regex_search(fc, std::regex(R"(^/system/bin/ykqmed\s+u:object_r:ykqmed_exec:s0)",
                                             std::regex::multiline)));
    for (const char* node : {"/dev/frz", "/dev/power_watchdog"}) {
        EXPECT_NE(rc.find(node), std::string::npos) << node;
        EXPECT_NE(fc.find(node), std::string::npos) << node;
    }
    EXPECT_NE(bp.find("init_rc: [\"device/ykqmed.rc\"]"), std::string::npos);

    std::set<std::string> rcCaps, teCaps;
    ASSERT_TRUE(std::regex_search(rc, m, std::regex(R"(capabilities ([A-Z_ ]+))")));
    std::istringstream rcWords(m[1].str());
    for (std::string w; rcWords >> w;) {
        std::transform(w.begin(), w.end(), w.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        rcCaps.insert(w);
    }
    ASSERT_TRUE(std::regex_search(te, m,
                                  std::regex(R"(self:global_capability_class_set \{([^}]*)\})")));
    std::istringstream teWords(m[1].str());
    for (std::string w; teWords >> w;) teCaps.insert(w);
    EXPECT_EQ(rcCaps, teCaps);
    EXPECT_TRUE(rcCaps.count("kill") && rcCaps.count("net_admin"));
}

}  // namespace
