#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <map>
#include <thread>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "tests/support/FrzGroups.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::sp;
using android::String8;
using namespace qmedtest;

namespace {

std::atomic<int64_t> gNow{1000000};
// Stand-ins in rows for pids known only at run time.
const int A = -101, B = -102, SELF = -103, GONE = -104, TID = -105;

class FreezerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(mRoot.path.empty()) << "no writable cgroup-v1 freezer hierarchy";
        bDebug = true;  // the debug paths must hold up too
        mFreezer = new Freezer(root(), [] { return gNow.load(); });
        ASSERT_TRUE(mFreezer->isFrzInited());
        for (auto& kid : mKids) kid = TestChild::spawn(TestChild::Kind::Busy);
        int gone = TestChild::spawn(TestChild::Kind::Sleep).pid();
        mPids = {{A, mKids[0].pid()}, {B, mKids[1].pid()}, {SELF, getpid()}, {GONE, gone}};
    }
    void TearDown() override { vp_type = 0, bDebug = false; }
    int pid(int p) { return mPids.count(p) != 0 ? mPids[p] : p; }
    int run(int cmd, std::vector<int> list) {
        for (int& p : list) p = pid(p);
        return mFreezer->freezeProcess(cmd, list.data(), (int)list.size());
    }
    String8 root() const { return String8(mRoot.path.c_str()); }
    std::string at(const std::string& name) const { return mRoot.path + "/" + name; }

    TestChild mKids[2];  // reaped after the freezer and the root have thawed them
    FrzTestRoot mRoot;
    sp<Freezer> mFreezer;
    std::map<int, int> mPids;  // stand-in to pid
};

// Rows run in turn: freeze `pre`, record a call into B by `caller` `ago` ms before, run the
// command, check what is held, thaw all.
TEST_F(FreezerTest, CommandListAndBinderCallRows) {
    std::atomic<pid_t> tid{0};
    std::thread thread([&] { tid = gettid(), waitUntil([&] { return tid < 0; }, 20000); });
    struct Join {
        std::thread& t;
        std::atomic<pid_t>& tid;
        ~Join() { tid = -1, t.join(); }
    } join{thread, tid};
    ASSERT_TRUE(waitUntil([&] { return tid > 0; }, 3000));
    mPids[TID] = tid;
    const struct {
        std::vector<int> pre;
        int caller, ago, cmd;
        std::vector<int> list;
        int ret;
        std::vector<int> held;
    } rows[] = {
            {{}, 0, 0, 1, {A}, -1, {}},                      // no terminator
            {{}, 0, 0, 4, {A, B}, -1, {}},                   // no terminator
            {{}, 0, 0, 1, {A, -1, B, -1}, 0, {A}},           // the first terminator ends the list
            {{}, 0, 0, 0, {A, -1}, -1, {}},                  // unknown command
            {{}, 0, 0, 9, {A, -1}, -1, {}},                  // unknown command
            {{}, 0, 0, 1, {SELF, A, -1}, 0, {A}},            // own pid skipped
            {{}, 0, 0, 1, {TID, B, -1}, 0, {B}},             // a thread is not frozen
            {{A, -1}, 0, 0, 4, {A, A, -1}, 0, {A}},          // a frozen pid keeps its group
            {{}, 0, 0, 1, {0, -3, B, -1}, 0, {B}},           // pids below 1 refused
            {{}, 0, 0, 1, {GONE, -1}, 0, {GONE}},            // a vanished pid is held until thawed
            {{A, B, -1}, 0, 0, 2, {A}, 0, {B}},              // thaw needs no terminator
            {{A, B, -1}, 0, 0, 2, {A, -1, B}, 0, {B}},       // but stops at one
            {{A, -1}, 0, 0, 2, {424242, -5, SELF}, 0, {A}},  // unknown, negative and own pid
            {{GONE, -1}, 0, 0, 2, {GONE}, 0, {}},            // a vanished pid
            {{}, 7777, 1999, 1, {A, B, -1}, -1, {}},         // recent call from outside
            {{}, 7777, 2000, 4, {A, B, -1}, -1, {}},
            {{}, 7777, 2001, 1, {A, B, -1}, 0, {A, B}},  // old call
            {{}, 7777, -5000, 1, {A, B, -1}, -1, {}},    // stamped in the future
            {{}, A, 0, 4, {A, B, -1}, 0, {A, B}},        // caller inside the batch
            {{}, -1, 0, 1, {A, B, -1}, 0, {A, B}},       // one-way call
    };
    for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
        SCOPED_TRACE("row " + std::to_string(i));
        if (!rows[i].pre.empty()) ASSERT_EQ(0, run(1, rows[i].pre));
        gNow += 10000;
        if (rows[i].caller != 0) mFreezer->recordBinderCallTime(pid(rows[i].caller), pid(B));
        gNow += rows[i].ago;
        EXPECT_EQ(rows[i].ret, run(rows[i].cmd, rows[i].list));
        EXPECT_EQ(rows[i].held.size(), mFreezer->frozenCount());
        EXPECT_EQ(20u - rows[i].held.size(), mFreezer->getGroupPool()->freeCount());
        for (int p : rows[i].held) {
            EXPECT_TRUE(mFreezer->isFreezed(pid(p)) && !mFreezer->groupNameOf(pid(p)).isEmpty());
        }
        ASSERT_EQ(0, run(3, {0}));
    }
    EXPECT_EQ(-1, mFreezer->freezeProcess(3, nullptr, 1));
    EXPECT_EQ(-1, mFreezer->freezeProcess(3, &mPids[A], 0));
    // Calls are kept in two buffers of 31: B's call is forgotten once the 62nd other call
    // switches back to its buffer.
    mFreezer->recordBinderCallTime(7777, pid(B));
    for (int i = 0; i < 62; i++) {
        EXPECT_EQ(-1, run(1, {A, B, -1})) << i;
        mFreezer->recordBinderCallTime(7777, 100000 + i);
    }
    EXPECT_EQ(0, run(1, {A, B, -1}));
    ASSERT_EQ(0, run(3, {0}));
    // The newer call, in the current buffer, wins over the older one in the other.
    mFreezer->recordBinderCallTime(7777, pid(B));
    for (int i = 0; i < 29; i++) mFreezer->recordBinderCallTime(7777, 200000 + i);
    mFreezer->recordBinderCallTime(pid(A), pid(B));
    EXPECT_EQ(0, run(1, {A, B, -1}));
    // Called alone, freezePid refuses the daemon's own pid.
    android::Mutex::Autolock lock(mFreezer->lockForTest());
    EXPECT_FALSE(mFreezer->freezePid(getpid(), false));
}

TEST_F(FreezerTest, ForcedThawAllProceedsWhileAnotherThreadHoldsTheLock) {
    ASSERT_EQ(0, run(1, {A, B, -1}));
    ASSERT_TRUE(waitFrozen(mRoot.path, pid(A)) && waitFrozen(mRoot.path, pid(B)));
    std::atomic<bool> held{false}, release{false}, done{false};
    std::thread holder([&] {
        android::Mutex::Autolock lock(mFreezer->lockForTest());
        held = true;
        waitUntil([&] { return release.load(); }, 10000);
    });
    EXPECT_TRUE(waitUntil([&] { return held.load(); }, 3000));
    std::thread thawer([&] { done = mFreezer->thawAll(true); });
    bool doneWhileHeld = waitUntil([&] { return done.load(); }, 5000);
    release = true;
    holder.join();
    thawer.join();
    EXPECT_TRUE(doneWhileHeld);
    EXPECT_EQ(20u, mFreezer->getGroupPool()->freeCount());
    EXPECT_TRUE(waitThawed(mRoot.path, pid(A)) && progresses(pid(A)));
    // Uninit removes every group, thawing what it held.
    ASSERT_EQ(0, run(1, {B, -1}));
    ASSERT_TRUE(waitFrozen(mRoot.path, pid(B)));
    mFreezer->uninitFrz();
    EXPECT_TRUE(frzGroups(mRoot.path).empty() && progresses(pid(B)));
}

TEST_F(FreezerTest, GroupsRefuseWhatTheyCannotDo) {
    sp<CGroup> g = new CGroup(String8("g1"), root());
    String8 state("freezer.state");
    mode_t oldMask = umask(022);
    EXPECT_TRUE(g->createCGroup());
    umask(oldMask);
    struct stat st;
    EXPECT_TRUE(stat(at("g1").c_str(), &st) == 0 && (st.st_mode & 07777) == 0774);
    EXPECT_FALSE(g->createCGroup());
    EXPECT_FALSE(g->attachPid(-1) || g->detachPid(-1));
    // 0 reaches the kernel, which takes it as the writer: put ourselves straight back.
    EXPECT_TRUE(g->attachPid(0) && groupPids(at("g1")) == std::vector<pid_t>{getpid()});
    EXPECT_TRUE(g->detachPid(getpid()) && g->attachPid(pid(A)) && g->attachPid(pid(B)));
    const char* refused[][2] = {
            {"", "FROZEN"}, {"freezer.state", ""}, {"freezer.state", "SLUSHY"}, {"no.such", "1"}};
    for (auto nv : refused)
        EXPECT_FALSE(g->setCGroup(String8(nv[0]), String8(nv[1]))) << nv[0] << nv[1];
    EXPECT_TRUE(g->setCGroup(state, String8("FROZEN")) && waitFrozen(mRoot.path, pid(A)));
    // Delete moves every member out first.
    EXPECT_TRUE(g->setCGroup(state, String8("THAWED")) && g->deleteCGroup());
    EXPECT_TRUE(waitThawed(mRoot.path, pid(A)) && waitThawed(mRoot.path, pid(B)));
    EXPECT_FALSE(g->deleteCGroup());
}

// Names come from the random source and are redrawn on a repeat; beyond its size the pool
// makes groups on demand and hands out the oldest freed one first.
TEST_F(FreezerTest, PoolNamesGrowthAndReuse) {
    vp_type = 5;  // so its start-up spares the freezer's own groups
    std::string fifo = "/tmp/qmedfrz-random-" + std::to_string(getpid());
    unlink(fifo.c_str());
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int fd = open(fifo.c_str(), O_RDWR);  // held open, so every open by the pool finds the bytes
    uint32_t values[64] = {42, 42, 3000000001u, 42, 7};  // then spares, so no read blocks
    for (int i = 5; i < 64; i++) values[i] = 100 + i;
    EXPECT_EQ((ssize_t)sizeof(values), write(fd, values, sizeof(values)));
    sp<GroupPool> pool = new GroupPool(2, root(), String8(fifo.c_str()));
    EXPECT_TRUE(pool->createGroupPool());
    std::vector<sp<CGroup>> taken = {pool->getGroup(), pool->getGroup(), pool->getGroup()};
    close(fd);
    unlink(fifo.c_str());
    EXPECT_EQ((std::vector<std::string>{at("VP5_Group_0000000007"), at("VP5_Group_0000000042"),
                                        at("VP5_Group_3000000001")}),
              frzGroups(mRoot.path, "VP5_Group_"));
    EXPECT_EQ(20u, frzGroups(mRoot.path, "Group_").size());
    pool->putGroup(new CGroup(taken[0]->getName(), root()));  // not the pool's own
    pool->putGroup(nullptr);
    pool->putGroup(taken[1]);
    pool->putGroup(taken[0]);
    EXPECT_EQ(2u, pool->freeCount());
    EXPECT_TRUE(pool->getGroup() == taken[0] && pool->getGroup() == taken[1]);

    sp<GroupPool> none = new GroupPool(1, root(), String8("/nonexistent"));
    EXPECT_TRUE(!none->createGroupPool() && none->getGroup() == nullptr);
    // A short read leaves the name all zeros, and mkdir refuses a stranger of that name.
    sp<GroupPool> zeros = new GroupPool(1, root(), String8("/dev/null"));
    ASSERT_EQ(0, mkdir(at("VP5_Group_0000000000").c_str(), 0755));
    EXPECT_FALSE(zeros->createGroupPool());
    EXPECT_EQ(0u, zeros->size());
}

// The mounted flag is process-wide and never reset: the body runs in a fresh process.
TEST(FreezerUnmounted, InitFailsAndNothingTouchesTheFileSystem) {
    if (getenv("QMED_FRZ_FRESH_PROCESS") == nullptr) {
        RunOptions o;
        o.env["QMED_FRZ_FRESH_PROCESS"] = "1";
        auto r = runTool("freezer_test", {"--gtest_filter=FreezerUnmounted.*"}, o);
        EXPECT_NE(std::string::npos, r.out.find("[  PASSED  ] 1 test.")) << r.out << r.err;
        return;
    }
    char dir[] = "/tmp/qmedfrz.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    sp<Freezer> f = new Freezer(String8(dir));
    EXPECT_FALSE(f->isFrzInited());
    int list[] = {getppid(), -1};
    for (int cmd = 1; cmd <= 4; cmd++) EXPECT_EQ(-1, f->freezeProcess(cmd, list, 2)) << cmd;
    sp<CGroup> g = new CGroup(String8("Group_0000000001"), String8(dir));
    EXPECT_EQ(0, g->createCGroup() + g->attachPid(1) + g->detachPid(1) +
                         g->setCGroup(String8("freezer.state"), String8("FROZEN")));
    EXPECT_EQ(0, rmdir(dir)) << "something was created";
}

}  // namespace
