#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "proc/ParseProcInfo.h"
#include "tests/support/ProcTree.h"

using namespace std::string_literals;
using android::sp;
using qmed::host::LogCapture;
using qmedtest::statLine;

namespace {

std::string cpuText(ParseProcInfo& p, int type, std::vector<int> ids) {
    std::vector<char> buf(ParseProcInfo::kCpuTimeBufferSize, 0);
    EXPECT_EQ(p.getProcCpuTime(buf.data(), type, ids.data(), static_cast<int>(ids.size())), 0);
    return buf.data();
}

struct Proc {
    uid_t uid;
    std::string stat;
    std::optional<std::string> cmdline;
    std::string record;  // what the pid reads as; "" when it is left out
};

// Process 100 + i of every tree.
// clang-format off
const Proc kProcs[] = {
    {2000, statLine("one", 3, 2), {}, "2000\t5\tone"},
    {0, statLine("idle", 0, 0), {}, ""},
    {1000, statLine("main", 8, 1), "com.qmed.pkg\0--flag"s, "1000\t9\tcom.qmed.pkg"},
    {0, statLine("a) (b", 1, 1), {}, "0\t2\ta) (b"},
    {0, statLine("my app", 0, 4), {}, "0\t4\tmy app"},
    {0, "1 (noclose S 1 1 1 0 -1 0 0 0 0 0 9 9 0\n", {}, ""},
    {0, "1 (short) S 1\n", {}, ""}, {0, "", {}, ""}, {0, "1", {}, ""}, {0, "1 ", {}, ""},
    {0, "1 (a)", {}, ""}, {0, std::string(5000, '7'), {}, ""},
    {0, "1 (x) S 1 1 1 0 -1 0 0 0 0 0 abc -7\n", {}, "0\t4294967289\tx"},
    // The stat read stops at 1023 bytes, just past the times of this one.
    {0, statLine(std::string(980, 'n'), 1, 1), {}, "0\t2\t" + std::string(980, 'n')},
    {1000, statLine("nocmd", 1, 0), {}, ""},  // pid 114: no cmdline node
    {1000, statLine("sys", 1, 0), ""s, "1000\t1\t"},
    {1000, statLine("sys", 2, 0), std::string(200, 'c'), "1000\t2\t" + std::string(64, 'c')},
    // Records of exactly 99 bytes, and 100 bytes after a tab, for the buffer bound.
    {0, statLine(std::string(95, 'a'), 1, 2), {}, "0\t3\t" + std::string(95, 'a')},
    {0, statLine(std::string(96, 'b'), 1, 2), {}, "0\t3\t" + std::string(96, 'b')},
};
// clang-format on
constexpr int kFull = 100 + 17, kOver = 100 + 18;

class ProcTreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (int i = 0; i < static_cast<int>(std::size(kProcs)); i++) {
            const Proc& p = kProcs[i];
            ASSERT_TRUE(tree.add(100 + i, p.uid, p.stat, p.cmdline));
        }
    }
    qmedtest::ProcTree tree;
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root().c_str());
};

}  // namespace

TEST_F(ProcTreeTest, CpuTimeRecordsLeaveOutIdleAndMalformedProcesses) {
    LogCapture log;
    std::string all = cpuText(*p, 0, {});
    int records = 0;
    for (int i = 0; i < static_cast<int>(std::size(kProcs)); i++) {
        SCOPED_TRACE(100 + i);
        EXPECT_EQ(cpuText(*p, 2, {100 + i}), kProcs[i].record);
        if (kProcs[i].record.empty()) continue;
        records++;
        EXPECT_NE(all.find(kProcs[i].record), std::string::npos);
    }
    // The full walk holds each record once, with a tab only between two records.
    EXPECT_EQ(std::count(all.begin(), all.end(), '\t'), 3 * records - 1);
    EXPECT_EQ(
            log.count("Qmed-ParseProcInfo: open failed, cmdline: " + tree.root() + "/114/cmdline"),
            2u);
    EXPECT_EQ(cpuText(*p, 2, {999999}), "");
    EXPECT_EQ(log.count("open failed, statline: " + tree.root() + "/999999/stat"), 1u);
    // A list keeps its order; type 1 picks by owner.
    EXPECT_EQ(cpuText(*p, 2, {100, 101, 102}), "2000\t5\tone\t1000\t9\tcom.qmed.pkg");
    EXPECT_EQ(cpuText(*p, 2, {102, 101, 100}), "1000\t9\tcom.qmed.pkg\t2000\t5\tone");
    EXPECT_EQ(cpuText(*p, 2, {}), "");
    EXPECT_EQ(cpuText(*p, 1, {2000}), "2000\t5\tone");
}

TEST_F(ProcTreeTest, CpuTimeTextEndsWithTheLastRecordThatFits) {
    const size_t size = ParseProcInfo::kCpuTimeBufferSize;
    const std::string rec = kProcs[kFull - 100].record;
    // 1024 records fill all but the final NUL; one byte more refuses the record, and the
    // short ones after it too.
    const std::pair<std::vector<int>, size_t> rows[] = {{std::vector<int>(1024, kFull), 1024},
                                                        {[] {
                                                             std::vector<int> ids(1023, kFull);
                                                             ids.insert(ids.end(), {kOver, 100});
                                                             return ids;
                                                         }(),
                                                         1023}};
    for (auto [ids, records] : rows) {
        std::vector<char> buf(size + 64, 0);
        memset(buf.data() + size, 0x5a, 64);
        ASSERT_EQ(p->getProcCpuTime(buf.data(), 2, ids.data(), static_cast<int>(ids.size())), 0);
        std::string want = rec;
        while (--records > 0) want += "\t" + rec;
        EXPECT_TRUE(want == std::string(buf.data(), strnlen(buf.data(), size))) << ids.size();
        EXPECT_EQ(std::count(buf.begin() + size, buf.end(), 0x5a), 64) << ids.size();
    }
}

TEST_F(ProcTreeTest, FindsPidsByShortNameAndOwner) {
    const std::tuple<const char*, int, int> rows[] = {
            {"a) (b", -1, 103}, {"b", -1, 0},     {"my app", 0, 104},  {"my app", 2000, 0},
            {"one", 2000, 100}, {"one", 1000, 0}, {"main", 1000, 102}, {"mai", -1, 0}};
    LogCapture log;
    for (const auto& [name, uid, pid] : rows) {
        int out = 0;
        EXPECT_EQ(p->getPidByNameAndUid(name, uid, &out), 0);
        EXPECT_EQ(out, pid) << name << " " << uid;
    }
    EXPECT_EQ(log.count("match uid: 2000, pid: 100"), 1u);
    EXPECT_EQ(p->getPidByNameAndUid(nullptr, -1, nullptr), -1);
    EXPECT_FALSE(p->matchNameAndUidByPid("my app", -1, 42));
}

TEST_F(ProcTreeTest, CmdlineIsBoundedByTheBufferLength) {
    const std::string z(64, 'z');
    const std::tuple<int, int, std::string> rows[] = {
            {102, 64, "com.qmed.pkg\0--flag\0"s + z.substr(20)},
            {102, 5, "com.\0"s + z.substr(5)},
            {102, 1, "\0"s + z.substr(1)},
            {102, 0, z},
            {999999, 64, "\0"s + z.substr(1)},
            {116, 64, std::string(63, 'c') + '\0'}};
    for (const auto& [pid, len, want] : rows) {
        char buf[64];
        memset(buf, 'z', sizeof(buf));
        EXPECT_EQ(p->getCmdLineByPid(buf, pid, len), 0);
        EXPECT_EQ(std::string(buf, sizeof(buf)), want) << pid << " " << len;
    }
}

TEST_F(ProcTreeTest, ConcurrentScansKeepTheirOwnSeparators) {
    std::vector<std::thread> threads;
    std::vector<int> bad(4, 0);
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; i++) {
                bad[t] += cpuText(*p, 2, {100, 102}) != "2000\t5\tone\t1000\t9\tcom.qmed.pkg";
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(bad, std::vector<int>(4, 0));
}

TEST(ParseProcInfo, StopsTheWalkAfterTenThousandEntries) {
    // Entries that are not processes count too. Processes on both sides of the filler, so
    // that some fall past the limit whatever the directory order.
    qmedtest::ProcTree tree;
    for (int pid = 100; pid < 250; pid++) tree.add(pid, 0, statLine("a", 1, 0));
    for (int i = 0; i < ParseProcInfo::kMaxWalkEntries; i++) {
        close(open((tree.root() + "/x" + std::to_string(i)).c_str(), O_CREAT | O_CLOEXEC, 0644));
    }
    for (int pid = 250; pid < 400; pid++) tree.add(pid, 0, statLine("a", 1, 0));
    int expected = 0;
    DIR* d = opendir(tree.root().c_str());
    for (int i = 0; i < ParseProcInfo::kMaxWalkEntries; i++) {
        struct dirent* de = readdir(d);
        expected += de != nullptr && isdigit(static_cast<unsigned char>(de->d_name[0]));
    }
    closedir(d);
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root().c_str());
    LogCapture log;
    std::string all = cpuText(*p, 0, {});
    EXPECT_EQ(std::count(all.begin(), all.end(), 'a'), expected);
    EXPECT_GT(expected, 0);
    EXPECT_LT(expected, 300);
    EXPECT_EQ(log.count("Qmed-ParseProcInfo: getProcCpuTime loop time reach max"), 1u);
}

TEST(ParseProcInfo, OnlyAnUnreadableRootFailsAndIdsCountUpToNum) {
    sp<ParseProcInfo> p = new ParseProcInfo("/nonexistent-qmed-root");
    char buf[16] = {0};
    int out = 77, ids[] = {5, 7, 9};
    EXPECT_EQ(p->getProcCpuTime(buf, 0, ids, 1), -1);
    EXPECT_EQ(p->getPidByNameAndUid("init", -1, &out), -1);
    EXPECT_EQ(out, 77);
    EXPECT_EQ(ParseProcInfo::getInstance().get(), ParseProcInfo::getInstance().get());
    EXPECT_TRUE(p->matchId(9, ids, 3));
    EXPECT_FALSE(p->matchId(9, ids, 2) || p->matchId(5, ids, 0) || p->matchId(4, nullptr, 3));
    EXPECT_TRUE(p->matchId(4, nullptr, -1));
}
