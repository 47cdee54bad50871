#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "proc/ParseProcInfo.h"
#include "tests/support/ProcTree.h"

using qmedtest::statLine;

namespace {

std::string cpuText(ParseProcInfo& p, int type, std::vector<int> ids) {
    std::vector<char> buf(ParseProcInfo::kCpuTimeBufferSize, 0);
    EXPECT_EQ(p.getProcCpuTime(buf.data(), type, ids.data(), static_cast<int>(ids.size())), 0);
    return buf.data();
}

// Process 100 + i: owner, stat, cmdline, and its record ("" when left out).
// clang-format off
const std::tuple<uid_t, std::string, std::optional<std::string>, std::string> kProcs[] = {
    {2000, statLine("one", 3, 2), {}, "2000\t5\tone"},
    // Fields as the parser takes them, whatever the reader finds: a number or its prefix.
    {0, "1 (x) S 1 1 1 0 -1 0 0 0 0 0 abc -7\n", {}, "0\t4294967289\tx"},
    {1000, statLine("nocmd", 1, 0), {}, ""},  // pid 102: no cmdline node
    {1000, statLine("sys", 1, 0), std::string(), "1000\t1\t"},
    {1000, statLine("sys", 2, 0), std::string(200, 'c'), "1000\t2\t" + std::string(64, 'c')},
    // Records of exactly 99 bytes, and 100 bytes after a tab, for the buffer bound.
    {0, statLine(std::string(95, 'a'), 1, 2), {}, "0\t3\t" + std::string(95, 'a')},
    {0, statLine(std::string(96, 'b'), 1, 2), {}, "0\t3\t" + std::string(96, 'b')},
};
// clang-format on
constexpr int kFull = 105, kOver = 106;

}  // namespace

TEST(ParseProcInfo, CpuTimeRecordsOfACannedTree) {
    qmedtest::ProcTree tree;
    for (int i = 0; i < static_cast<int>(std::size(kProcs)); i++) {
        const auto& [uid, stat, cmdline, record] = kProcs[i];
        ASSERT_TRUE(tree.add(100 + i, uid, stat, cmdline));
    }
    android::sp<ParseProcInfo> p = new ParseProcInfo(tree.root().c_str());
    for (int i = 0; i < static_cast<int>(std::size(kProcs)); i++) {
        EXPECT_EQ(cpuText(*p, 2, {100 + i}), std::get<3>(kProcs[i])) << 100 + i;
    }
    // 1024 records fill all but the final NUL; one byte more is refused, so is a short one after.
    const size_t size = ParseProcInfo::kCpuTimeBufferSize;
    const std::string rec = std::get<3>(kProcs[kFull - 100]);
    std::vector<int> over(1023, kFull);
    over.insert(over.end(), {kOver, 100});
    for (auto [ids, records] : {std::pair{std::vector<int>(1024, kFull), 1024}, {over, 1023}}) {
        std::vector<char> buf(size + 64, 0);
        memset(buf.data() + size, 0x5a, 64);
        ASSERT_EQ(p->getProcCpuTime(buf.data(), 2, ids.data(), static_cast<int>(ids.size())), 0);
        std::string want = rec;
        while (--records > 0) want += "\t" + rec;
        EXPECT_TRUE(want == std::string(buf.data(), strnlen(buf.data(), size))) << ids.size();
        EXPECT_EQ(std::count(buf.begin() + size, buf.end(), 0x5a), 64) << ids.size();
    }
    int ids[] = {5, 7, 9};
    EXPECT_TRUE(p->matchId(9, ids, 3) && !p->matchId(9, ids, 2));
    EXPECT_EQ(cpuText(*p, 2, {999999}), "");
    // A walk skips the same ones, with tabs only between records, whoever else walks at once.
    std::string all = cpuText(*p, 0, {});
    EXPECT_EQ(std::count(all.begin(), all.end(), '\t'), 3 * 6 - 1);  // six records
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; i++) EXPECT_EQ(cpuText(*p, 0, {}), all);
        });
    }
    for (auto& th : threads) th.join();
}
