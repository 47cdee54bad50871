#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "proc/ParseProcInfo.h"
#include "tests/support/TestChild.h"

using android::sp;
using qmed::host::LogCapture;
using qmedtest::TestChild;

namespace {

struct Record {
    int uid;
    unsigned cpu;
    std::string name;
};

// Splits the tab-separated text into records; fails the test on a malformed text.
std::vector<Record> parseRecords(const std::string& text) {
    std::vector<Record> out;
    if (text.empty()) return out;
    std::vector<std::string> fields;
    size_t start = 0;
    while (true) {
        size_t tab = text.find('\t', start);
        fields.push_back(text.substr(start, tab == std::string::npos ? tab : tab - start));
        if (tab == std::string::npos) break;
        start = tab + 1;
    }
    EXPECT_EQ(fields.size() % 3, 0u) << "text: " << text.substr(0, 200);
    for (size_t i = 0; i + 2 < fields.size(); i += 3) {
        out.push_back({atoi(fields[i].c_str()),
                       static_cast<unsigned>(strtoul(fields[i + 1].c_str(), nullptr, 10)),
                       fields[i + 2]});
    }
    return out;
}

std::string statLine(int pid, const std::string& name, unsigned utime, unsigned stime) {
    return std::to_string(pid) + " (" + name + ") S 1 1 1 0 -1 4194560 0 0 0 0 " +
           std::to_string(utime) + " " + std::to_string(stime) + " 0 0 20 0 1 0 100 0 0\n";
}

void writeFile(const std::string& path, const std::string& data) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(fd);
}

// A private stand-in for /proc whose process directories carry the given owners.
class ProcTree {
  public:
    ProcTree() {
        // tmpfs: the walk-limit test builds ten thousand process directories.
        char tmpl[] = "/dev/shm/qmed-proc-XXXXXX";
        mRoot = mkdtemp(tmpl);
    }
    ~ProcTree() {
        nftw(
                mRoot.c_str(),
                [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 16,
                FTW_DEPTH | FTW_PHYS);
    }
    void add(int pid, uid_t uid, const std::string& stat, const char* cmdline = nullptr,
             size_t cmdlineLen = 0) {
        std::string dir = mRoot + "/" + std::to_string(pid);
        mkdir(dir.c_str(), 0755);
        writeFile(dir + "/stat", stat);
        if (cmdline != nullptr) writeFile(dir + "/cmdline", std::string(cmdline, cmdlineLen));
        ASSERT_EQ(chown(dir.c_str(), uid, uid), 0);
    }
    const char* root() const { return mRoot.c_str(); }

  private:
    std::string mRoot;
};

std::string cpuTimeText(ParseProcInfo& p, int type, std::vector<int> ids) {
    std::vector<char> buf(ParseProcInfo::kCpuTimeBufferSize, 0);
    EXPECT_EQ(p.getProcCpuTime(buf.data(), type, ids.data(), static_cast<int>(ids.size())), 0);
    return std::string(buf.data());
}

void waitForCpu(pid_t pid) {
    for (int i = 0; i < 500 && qmedtest::procCpuTicks(pid) <= 0; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

TEST(ParseProcInfo, ReportsRealChildrenByShortNameOrSystemCmdline) {
    TestChild blank = TestChild::spawn(TestChild::Kind::Busy, "qm blank");
    TestChild paren = TestChild::spawn(TestChild::Kind::Busy, "qm) (x)");
    TestChild sys = TestChild::spawn(TestChild::Kind::Busy, "qmsys", 1000, "com.qmed.system.app");
    ASSERT_GT(blank.pid(), 0);
    ASSERT_GT(paren.pid(), 0);
    ASSERT_GT(sys.pid(), 0);
    for (TestChild* c : {&blank, &paren, &sys}) {
        waitForCpu(c->pid());
        c->kill(SIGSTOP);
    }

    sp<ParseProcInfo> p = ParseProcInfo::getInstance();
    ASSERT_EQ(p.get(), ParseProcInfo::getInstance().get());
    std::vector<Record> recs =
            parseRecords(cpuTimeText(*p, 2, {blank.pid(), paren.pid(), sys.pid()}));
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].uid, 0);
    EXPECT_EQ(recs[0].name, "qm blank");
    EXPECT_EQ(recs[1].name, "qm) (x)");
    EXPECT_EQ(recs[2].uid, 1000);
    EXPECT_EQ(recs[2].name, "com.qmed.system.app");
    for (size_t i = 0; i < recs.size(); i++) {
        pid_t pid = i == 0 ? blank.pid() : i == 1 ? paren.pid() : sys.pid();
        EXPECT_EQ(recs[i].cpu, static_cast<unsigned>(qmedtest::procCpuTicks(pid)));
    }

    // The full walk lists them too; type 1 keeps only the owners asked for.
    std::string all = cpuTimeText(*p, 0, {});
    EXPECT_NE(all.find("\t0\t" + std::to_string(recs[1].cpu) + "\tqm) (x)"), std::string::npos);
    EXPECT_NE(all.find("1000\t" + std::to_string(recs[2].cpu) + "\tcom.qmed.system.app"),
              std::string::npos);
    for (const Record& r : parseRecords(cpuTimeText(*p, 1, {1000}))) {
        EXPECT_EQ(r.uid, 1000);
        EXPECT_GT(r.cpu, 0u);
    }
}

TEST(ParseProcInfo, LeavesOutIdleProcessesAndSeparatesRecordsByTabs) {
    ProcTree tree;
    const char cmd[] = "com.qmed.pkg\0--flag";
    tree.add(10, 0, statLine(10, "idle", 0, 0));
    tree.add(11, 2000, statLine(11, "one", 3, 2));
    tree.add(12, 1000, statLine(12, "main", 8, 1), cmd, sizeof(cmd));
    tree.add(13, 0, statLine(13, "idle2", 0, 0));
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root());

    EXPECT_EQ(cpuTimeText(*p, 2, {10, 11, 12}), "2000\t5\tone\t1000\t9\tcom.qmed.pkg");
    EXPECT_EQ(cpuTimeText(*p, 2, {12, 10, 11}), "1000\t9\tcom.qmed.pkg\t2000\t5\tone");
    EXPECT_EQ(cpuTimeText(*p, 2, {11}), "2000\t5\tone");
    EXPECT_EQ(cpuTimeText(*p, 2, {10, 13}), "");
    EXPECT_EQ(cpuTimeText(*p, 2, {}), "");
    // Type 1 selects by owner; the owner list is ignored by type 2.
    EXPECT_EQ(cpuTimeText(*p, 1, {2000}), "2000\t5\tone");
    EXPECT_EQ(cpuTimeText(*p, 1, {0}), "");
    EXPECT_EQ(parseRecords(cpuTimeText(*p, 0, {})).size(), 2u);
}

TEST(ParseProcInfo, SurvivesHostileStatAndCmdlineContents) {
    ProcTree tree;
    tree.add(20, 0, "20 (noclose S 1 1 1 0 -1 0 0 0 0 0 9 9 0\n");
    tree.add(21, 0, "21 (short) S 1\n");
    tree.add(22, 0, "");
    tree.add(23, 0, "23");
    tree.add(24, 0, "24 ");
    tree.add(25, 0, "25 (a)");
    tree.add(26, 0, "26 (x) S 1 1 1 0 -1 0 0 0 0 0 abc -7\n");
    tree.add(27, 0, std::string(5000, '7'));
    std::string huge = statLine(28, std::string(980, 'n'), 1, 1);
    tree.add(28, 0, huge);
    tree.add(29, 1000, statLine(29, "nocmd", 1, 0));
    tree.add(30, 1000, statLine(30, "sys", 1, 0), "", 0);
    std::string longCmd(200, 'c');
    tree.add(31, 1000, statLine(31, "sys", 2, 0), longCmd.data(), longCmd.size());
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root());

    LogCapture log;
    std::vector<Record> recs = parseRecords(
            cpuTimeText(*p, 2, {20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 999999}));
    // Only the well-formed ones survive: 26 sums "abc" and -7, 28 has a 980-byte name.
    ASSERT_EQ(recs.size(), 4u);
    EXPECT_EQ(recs[0].name, "x");
    EXPECT_EQ(recs[0].cpu, static_cast<unsigned>(-7));
    EXPECT_EQ(recs[1].name, std::string(980, 'n'));
    EXPECT_EQ(recs[2].name, "");
    EXPECT_EQ(recs[3].name, std::string(64, 'c'));
    EXPECT_EQ(log.count("Qmed-ParseProcInfo: open failed, cmdline: " + std::string(tree.root()) +
                        "/29/cmdline"),
              1u);
    EXPECT_EQ(log.count("open failed, statline: " + std::string(tree.root()) + "/999999/stat"), 1u);
}

TEST(ParseProcInfo, NeverOverrunsTheOutputBuffer) {
    ProcTree tree;
    // ~970-byte records: a few hundred of them are far more than the buffer holds.
    for (int pid = 100; pid < 400; pid++) {
        tree.add(pid, 0, statLine(pid, std::string(960, 'a' + pid % 26), 1, 2));
    }
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root());
    const size_t size = ParseProcInfo::kCpuTimeBufferSize;
    std::vector<char> buf(size + 4096, 0);
    memset(buf.data() + size, 0x5a, 4096);
    ASSERT_EQ(p->getProcCpuTime(buf.data(), 0, nullptr, 0), 0);
    size_t len = strnlen(buf.data(), size);
    ASSERT_LT(len, size);
    EXPECT_GT(len, size - 1024);
    for (size_t i = size; i < buf.size(); i++) ASSERT_EQ(buf[i], 0x5a) << i;
    std::vector<Record> recs = parseRecords(std::string(buf.data()));
    ASSERT_GT(recs.size(), 90u);
    for (const Record& r : recs) {
        EXPECT_EQ(r.cpu, 3u);
        EXPECT_EQ(r.name.size(), 960u);
    }

    // The same with a whole buffer of short records: the text stays complete records.
    ProcTree small;
    for (int pid = 1000; pid < 2500; pid++) {
        small.add(pid, 0, statLine(pid, std::string(80, 's'), 1, 0));
    }
    sp<ParseProcInfo> q = new ParseProcInfo(small.root());
    std::fill(buf.begin(), buf.begin() + size, 0);
    ASSERT_EQ(q->getProcCpuTime(buf.data(), 0, nullptr, 0), 0);
    for (size_t i = size; i < buf.size(); i++) ASSERT_EQ(buf[i], 0x5a) << i;
    recs = parseRecords(std::string(buf.data(), strnlen(buf.data(), size)));
    // 84 bytes for the first record, 85 for each further one, within 102399.
    EXPECT_EQ(recs.size(), 1204u);
    EXPECT_EQ(recs.back().name, std::string(80, 's'));
}

TEST(ParseProcInfo, StopsTheWalkAfterTenThousandEntries) {
    ProcTree tree;
    // Entries that are not processes count against the limit too, and cost one file each.
    // Processes on both sides of the filler, so that some fall past the limit whatever the
    // file system's directory order.
    for (int pid = 100; pid < 250; pid++) tree.add(pid, 0, statLine(pid, "a", 1, 0));
    for (int i = 0; i < ParseProcInfo::kMaxWalkEntries; i++) {
        std::string path = std::string(tree.root()) + "/x" + std::to_string(i);
        close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    }
    for (int pid = 250; pid < 400; pid++) tree.add(pid, 0, statLine(pid, "a", 1, 0));
    size_t expected = 0;
    DIR* d = opendir(tree.root());
    struct dirent* de;
    for (int i = 0; i < ParseProcInfo::kMaxWalkEntries && (de = readdir(d)) != nullptr; i++) {
        expected += isdigit(static_cast<unsigned char>(de->d_name[0])) != 0;
    }
    closedir(d);

    sp<ParseProcInfo> p = new ParseProcInfo(tree.root());
    LogCapture log;
    std::vector<Record> recs = parseRecords(cpuTimeText(*p, 0, {}));
    EXPECT_EQ(recs.size(), expected);
    EXPECT_GT(expected, 0u);
    EXPECT_LT(expected, 300u);
    EXPECT_EQ(log.count("Qmed-ParseProcInfo: getProcCpuTime loop time reach max"), 1u);
}

TEST(ParseProcInfo, FailsOnlyWhenTheRootCannotBeOpened) {
    sp<ParseProcInfo> p = new ParseProcInfo("/nonexistent-qmed-root");
    char buf[16] = {0};
    int id = 1;
    EXPECT_EQ(p->getProcCpuTime(buf, 0, &id, 1), -1);
    int out = 77;
    EXPECT_EQ(p->getPidByNameAndUid("init", -1, &out), -1);
    EXPECT_EQ(out, 77);
}

TEST(ParseProcInfo, FindsPidByShortNameAndOwner) {
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "qmed-pid-probe");
    TestChild sys = TestChild::spawn(TestChild::Kind::Sleep, "qmed-sys-probe", 1000);
    ASSERT_GT(child.pid(), 0);
    sp<ParseProcInfo> p = ParseProcInfo::getInstance();
    LogCapture log;

    int out = -1;
    EXPECT_EQ(p->getPidByNameAndUid("qmed-pid-probe", -1, &out), 0);
    EXPECT_EQ(out, child.pid());
    out = -1;
    EXPECT_EQ(p->getPidByNameAndUid("qmed-pid-probe", 0, &out), 0);
    EXPECT_EQ(out, child.pid());
    EXPECT_EQ(log.count("match uid: 0, pid: " + std::to_string(child.pid())), 1u);
    out = -1;
    EXPECT_EQ(p->getPidByNameAndUid("qmed-sys-probe", 1000, &out), 0);
    EXPECT_EQ(out, sys.pid());

    // Wrong owner, unknown name and names past the kernel's 15 characters leave out alone.
    out = -1;
    EXPECT_EQ(p->getPidByNameAndUid("qmed-pid-probe", 1000, &out), 0);
    EXPECT_EQ(out, -1);
    EXPECT_EQ(p->getPidByNameAndUid("qmed-no-such-x", -1, &out), 0);
    EXPECT_EQ(out, -1);
    TestChild longName = TestChild::spawn(TestChild::Kind::Sleep, "qmed-long-name-probe");
    EXPECT_EQ(p->getPidByNameAndUid("qmed-long-name-probe", -1, &out), 0);
    EXPECT_EQ(out, -1);
    EXPECT_EQ(p->getPidByNameAndUid("qmed-long-name-", -1, &out), 0);
    EXPECT_EQ(out, longName.pid());
    EXPECT_EQ(p->getPidByNameAndUid(nullptr, -1, &out), -1);
}

TEST(ParseProcInfo, MatchesNamesWithBlanksAndParentheses) {
    ProcTree tree;
    tree.add(40, 0, statLine(40, "a) (b", 1, 1));
    tree.add(41, 10001, statLine(41, "my app", 0, 0));
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root());
    EXPECT_TRUE(p->matchNameAndUidByPid("a) (b", -1, 40));
    EXPECT_FALSE(p->matchNameAndUidByPid("a", -1, 40));
    EXPECT_TRUE(p->matchNameAndUidByPid("my app", 10001, 41));
    EXPECT_FALSE(p->matchNameAndUidByPid("my app", 10002, 41));
    EXPECT_FALSE(p->matchNameAndUidByPid("my app", -1, 42));
}

TEST(ParseProcInfo, CmdlineIsBoundedByTheBufferLength) {
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "", 0, "com.qmed.cmdline.probe");
    ASSERT_GT(child.pid(), 0);
    sp<ParseProcInfo> p = ParseProcInfo::getInstance();
    char buf[64];
    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(p->getCmdLineByPid(buf, child.pid(), 64), 0);
    EXPECT_STREQ(buf, "com.qmed.cmdline.probe");
    // Arguments follow the first NUL.
    EXPECT_STREQ(buf + strlen(buf) + 1, "100000");

    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(p->getCmdLineByPid(buf, child.pid(), 5), 0);
    EXPECT_STREQ(buf, "com.");
    EXPECT_EQ(buf[5], 'z');
    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(p->getCmdLineByPid(buf, child.pid(), 1), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[1], 'z');
    EXPECT_EQ(p->getCmdLineByPid(buf, child.pid(), 0), 0);
    EXPECT_EQ(buf[1], 'z');

    memset(buf, 'z', sizeof(buf));
    EXPECT_EQ(p->getCmdLineByPid(buf, 999999, 64), 0);
    EXPECT_EQ(buf[0], '\0');

    ProcTree tree;
    std::string longCmd(300, 'q');
    tree.add(50, 0, statLine(50, "x", 1, 1), longCmd.data(), longCmd.size());
    sp<ParseProcInfo> canned = new ParseProcInfo(tree.root());
    memset(buf, 'z', sizeof(buf));
    canned->getCmdLineByPid(buf, 50, 64);
    EXPECT_EQ(std::string(buf), std::string(63, 'q'));
}

TEST(ParseProcInfo, MatchIdAndTokenizerBoundaries) {
    sp<ParseProcInfo> p = new ParseProcInfo("/proc");
    int ids[] = {5, 7, 9};
    EXPECT_TRUE(p->matchId(9, ids, 3));
    EXPECT_FALSE(p->matchId(9, ids, 2));
    EXPECT_FALSE(p->matchId(5, ids, 0));
    EXPECT_TRUE(p->matchId(4, ids, -1));
    EXPECT_TRUE(p->matchId(4, nullptr, -1));
    EXPECT_FALSE(p->matchId(4, nullptr, 3));

    char text[] = "a b,c";
    char* cursor = text;
    EXPECT_STREQ(p->nexttok(&cursor), "a");
    EXPECT_STREQ(p->nexttoksep(&cursor, ","), "b");
    EXPECT_STREQ(p->nexttok(&cursor), "c");
    EXPECT_EQ(cursor, nullptr);
    char* t = p->nexttok(&cursor);
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "");
}

TEST(ParseProcInfo, ConcurrentScansKeepTheirOwnSeparators) {
    ProcTree tree;
    const char cmd[] = "com.qmed.pkg";
    tree.add(11, 2000, statLine(11, "one", 3, 2));
    tree.add(12, 1000, statLine(12, "main", 8, 1), cmd, sizeof(cmd));
    sp<ParseProcInfo> p = new ParseProcInfo(tree.root());
    std::vector<std::thread> threads;
    std::vector<int> bad(4, 0);
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; i++) {
                bad[t] += cpuTimeText(*p, 2, {11, 12}) != "2000\t5\tone\t1000\t9\tcom.qmed.pkg";
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(bad, std::vector<int>(4, 0));
}
