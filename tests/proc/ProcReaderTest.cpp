#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "freezer/Freezer.h"
#include "limiter/ProcessLimiter.h"
#include "listener/IQmedBinderListenerService.h"
#include "proc/ParseProcInfo.h"
#include "proc/ProcDir.h"
#include "proc/ProcStat.h"
#include "tests/support/ProcTree.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;

namespace {

// Counts node opens; without signals every thread-group check reads the status node.
struct CountingFiles : ProcFiles {
    explicit CountingFiles(bool signals) : signals(signals) {}
    int openNode(const char* rel) override { return opens++, ProcFiles::openNode(rel); }
    int signalLeader(int tid) override { return signals ? ProcFiles::signalLeader(tid) : -1; }
    bool signals;
    int opens = 0;
};

}  // namespace

// Process 100 + i has the row's stat and status nodes; the reader takes every shape one way.
// Views: the name ("!": none) with fields 4 and 14; words 2 and 4; the status name and tgid.
TEST(ProcReader, CannedNodesOfEveryShape) {
    const std::string stat14 = " S 7 1 1 0 -1 0 0 0 0 0 3 4 0\n", big(2000, 'n');
    const std::string rows[][5] = {
            {"100 (init)" + stat14, "Name:\tinit\nTgid:\t100\n", "init|7|3", "(init)|7",
             "init|100"},
            // Fields follow the last ')'; words shift with the blank, the status name ends at it.
            {"101 (my a)b)" + stat14, "Name:\tmy a)b\nTgid:\t5\n", "my a)b|7|3", "(my|S", "my|5"},
            // A newline in the name ends the words, not the name.
            {"102 (a\nb)" + stat14, "Name:\ta\\nb\nTgid:\t\n", "a\nb|7|3", "(a\n|", "a\\nb|0"},
            {"103 (x", "Tgid:\t", "!||", "(x|", "!|-1"},
            {"104", "Name:\n\tlate\nTgid:\t104", "!||", "|", "!|104"},
            {"105 (y) S", "Name:\t" + big + "\n", "y||", "(y)|", big.substr(0, 50) + "|-1"},
            // Each node is read once into 1023 bytes: here the ')' lies beyond them.
            {"106 (" + big + ")" + stat14, "", "!||", "(" + big.substr(0, 1018) + "|", "!|-1"},
    };
    ProcTree tree;
    const ProcReader proc(tree.root().c_str());
    for (int pid = 100; pid < 100 + static_cast<int>(std::size(rows)); pid++) {
        const std::string* r = rows[pid - 100];
        SCOPED_TRACE(pid);
        ASSERT_TRUE(tree.add(pid, 2000 + pid, r[0]) &&
                    tree.node(std::to_string(pid) + "/status", r[1]));
        ProcStat s, w;
        ASSERT_EQ(std::min<ssize_t>(r[0].size(), 1023), s.read(proc, pid));
        ASSERT_GE(w.read(proc, pid), 0);
        w.splitWords();
        const std::string name = s.splitAtName() ? s.name() : "!";
        EXPECT_EQ(r[2], name + "|" + s.field(4) + "|" + s.field(14));
        EXPECT_EQ(r[3], std::string(w.word(2)) + "|" + w.word(4));
        char shortName[51];
        int tgid = 7;
        EXPECT_TRUE(proc.threadGroupOf(pid, &tgid));
        EXPECT_EQ(r[4], std::string(proc.statusName(pid, shortName, 51) ? shortName : "!") + "|" +
                                std::to_string(tgid));
    }
    // Gone, and a stat node that cannot be read.
    char buf[8] = "x";
    EXPECT_TRUE(ProcReader::kOpenFailed == proc.read(999999, "stat", buf, 8) && errno == ENOENT);
    EXPECT_TRUE(proc.ownerOf(999999) == 0 && buf[0] == 0);
    ASSERT_TRUE(tree.node("107/stat/"));
    EXPECT_EQ(ProcReader::kReadFailed, proc.read(107, "stat", buf, sizeof(buf)));
    // Only names of digits without a leading zero, up to INT_MAX, are pids.
    for (auto d : {"self/", "5x/", "07/", "0/", "-1/", "2147483648/", "2147483647/"}) tree.node(d);
    std::vector<int> walked;
    ProcDir dir(proc);
    for (const char* e; (e = dir.next()) != nullptr;) {
        if (int pid = ProcDir::pidOf(e)) walked.push_back(pid);
    }
    std::sort(walked.begin(), walked.end());
    EXPECT_EQ(std::vector<int>({100, 101, 102, 103, 104, 105, 106, 107, INT_MAX}), walked);
    // The users over the same tree: the registry and the limiter by words, the parser by name.
    EXPECT_EQ(101, getPidByName("my", proc));
    int found = 0;
    android::sp<ParseProcInfo> parser = new ParseProcInfo(proc);
    EXPECT_TRUE(parser->getPidByNameAndUid("my a)b", 2101, &found) == 0 && found == 101);
    android::sp<ProcessLimiter> limiter = new ProcessLimiter(proc);
    char name[PACKAGE_NAME_SIZE];
    process p{};
    EXPECT_TRUE(limiter->getProcName(101, name) == 0 && std::string(name) == "my");
    EXPECT_TRUE(limiter->readProcessInfo(101, &p) == 0 && p.ppid == 0 &&
                limiter->getPpidOf(100) == 7);
    EXPECT_FALSE(limiter->isPidEqualTgid(101) || limiter->isPidEqualTgid(999999));
}

// The signal that spares a leader its status read decides as the status node would.
TEST(ProcReader, ThreadGroupCheckOfLeadersThreadsZombiesAndGonePids) {
    std::atomic<pid_t> tid{0};
    auto thread = std::async(std::launch::async, [&] {
        tid = gettid();
        waitUntil([&] { return tid < 0; }, 10000);
    });
    TestChild leader = TestChild::spawn(TestChild::Kind::Sleep);
    TestChild zombie = TestChild::run([] {});
    // The leader exits alone; its thread keeps the group alive.
    TestChild zombieLeader = TestChild::run([] {
        std::thread([] { pause(); }).detach();
        syscall(SYS_exit, 0);
    });
    TestChild gone = TestChild::spawn(TestChild::Kind::Sleep);
    const pid_t gonePid = gone.pid();
    gone.kill();
    ASSERT_TRUE(waitUntil([&] { return tid > 0 && procState(zombie.pid()) == 'Z'; }, 3000));
    ASSERT_TRUE(waitUntil([&] { return procState(zombieLeader.pid()) == 'Z'; }, 3000));
    android::sp<CountingFiles> fast = new CountingFiles(true), slow = new CountingFiles(false);
    const ProcReader fastProc(fast), slowProc(slow);
    // pid, thread-group id (-1: no status node), status reads on the fast path
    const int rows[][3] = {{leader.pid(), leader.pid(), 0},
                           {zombie.pid(), zombie.pid(), 0},
                           {zombieLeader.pid(), zombieLeader.pid(), 0},
                           {tid.load(), getpid(), 1},
                           {gonePid, -1, 1}};
    for (const auto& r : rows) {
        int fastTgid = 0, slowTgid = 0, opens = fast->opens;
        EXPECT_EQ(r[1] != -1, fastProc.threadGroupOf(r[0], &fastTgid)) << r[0];
        EXPECT_EQ(r[1] != -1, slowProc.threadGroupOf(r[0], &slowTgid)) << r[0];
        EXPECT_TRUE(r[1] == fastTgid && r[1] == slowTgid && r[1] == Freezer::getTgid(r[0])) << r[0];
        EXPECT_EQ(r[2], fast->opens - opens) << r[0];
    }
    tid = -1;
}
