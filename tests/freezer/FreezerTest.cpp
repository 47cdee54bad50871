#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <thread>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "tests/support/FrzGroups.h"

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
        for (int i = 0; i < 8; i++)  // two busy, six asleep
            mKids.push_back(TestChild::spawn(TestChild::Kind(i >= 2)));
        int gone = TestChild::spawn(TestChild::Kind::Sleep).pid();
        mPids = {{A, mKids[0].pid()}, {B, mKids[1].pid()}, {SELF, getpid()}, {GONE, gone}};
    }
    int pid(int p) { return mPids.count(p) != 0 ? mPids[p] : p; }
    int run(int cmd, std::vector<int> list) {
        for (int& p : list) p = pid(p);
        return mFreezer->freezeProcess(cmd, list.data(), (int)list.size());
    }
    std::string at(const std::string& name) const { return mRoot.path + "/" + name; }
    String8 root() const { return String8(mRoot.path.c_str()); }

    std::vector<TestChild> mKids;  // reaped after the freezer and the root have thawed them
    FrzTestRoot mRoot;
    sp<Freezer> mFreezer;
    std::map<int, int> mPids;  // stand-in to pid
};

// Rows run in turn: freeze `pre`, record a call into B by `caller` `ago` ms before, run `cmd`
// on `list`, expect `ret` and `held`, thaw all.
TEST_F(FreezerTest, CommandListAndBinderCallRows) {
    std::atomic<pid_t> tid{0};  // a thread of ours; joined within 10 s on any exit
    auto thread = std::async(std::launch::async,
                             [&] { tid = gettid(), waitUntil([&] { return tid < 0; }, 10000); });
    ASSERT_TRUE(waitUntil([&] { return (mPids[TID] = tid) > 0; }, 3000));
    const struct {
        int caller, ago, cmd, ret;
        std::vector<int> pre, list, held;
    } rows[] = {
            {0, 0, 1, -1, {}, {A, B}, {}},                   // no terminator
            {0, 0, 1, 0, {}, {A, -1, B, -1}, {A}},           // the first terminator ends the list
            {0, 0, 9, -1, {}, {A, -1}, {}},                  // unknown command
            {0, 0, 3, -1, {A, -1}, {}, {A}},                 // an empty list
            {0, 0, 1, 0, {}, {SELF, A, -1}, {A}},            // own pid skipped
            {0, 0, 1, 0, {}, {TID, B, -1}, {B}},             // a thread is not frozen
            {0, 0, 4, 0, {A, -1}, {A, A, -1}, {A}},          // a frozen pid keeps its group
            {0, 0, 1, 0, {}, {0, -3, B, -1}, {B}},           // pids below 1 refused
            {0, 0, 1, 0, {}, {GONE, -1}, {GONE}},            // a vanished pid is held until thawed
            {0, 0, 2, 0, {A, B, -1}, {A}, {B}},              // thaw needs no terminator
            {0, 0, 2, 0, {A, B, -1}, {A, -1, B}, {B}},       // but stops at one
            {0, 0, 2, 0, {A, -1}, {424242, -5, SELF}, {A}},  // unknown, negative and own pid
            {7777, 2000, 4, -1, {}, {A, B, -1}, {}},         // recent call from outside
            {7777, 2001, 1, 0, {}, {A, B, -1}, {A, B}},      // old call
            {A, 0, 4, 0, {}, {A, B, -1}, {A, B}},            // caller inside the batch
            {-1, 0, 1, 0, {}, {A, B, -1}, {A, B}},           // one-way call
    };
    for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); i++) {
        SCOPED_TRACE("row " + std::to_string(i));
        ASSERT_EQ(0, rows[i].pre.empty() ? 0 : run(1, rows[i].pre));
        gNow += 10000;
        if (rows[i].caller != 0) mFreezer->recordBinderCallTime(pid(rows[i].caller), pid(B));
        gNow += rows[i].ago;
        EXPECT_EQ(rows[i].ret, run(rows[i].cmd, rows[i].list));
        EXPECT_EQ(rows[i].held.size(), mFreezer->frozenCount());
        EXPECT_EQ(20u - rows[i].held.size(), mFreezer->getGroupPool()->freeCount());
        for (int p : rows[i].held)
            EXPECT_TRUE(mFreezer->isFreezed(pid(p)) && !mFreezer->groupNameOf(pid(p)).isEmpty());
        ASSERT_EQ(0, run(3, {0}));
    }
    tid = -1;
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
    // Called alone: freezePid refuses our own pid, thawPids an empty list.
    android::Mutex::Autolock lock(mFreezer->lockForTest());
    EXPECT_FALSE(mFreezer->freezePid(getpid(), false) || mFreezer->thawPids(nullptr, 0));
}

// Names come from the random source, redrawn on a repeat; beyond its size the pool grows, and
// the first freed group goes out first. The fixture's groups, of another prefix, are spared.
TEST_F(FreezerTest, PoolNamesGrowthAndReuse) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));  // the write end held open, so every reopen finds the bytes
    vp_type = 5;
    uint32_t values[] = {42, 42, 3000000001u, 42, 7, 8, 9, 10, 11};  // spares: no read blocks
    EXPECT_EQ((ssize_t)sizeof(values), write(fds[1], values, sizeof(values)));
    std::string random = "/proc/self/fd/" + std::to_string(fds[0]);
    sp<GroupPool> pool = new GroupPool(2, root(), String8(random.c_str()));
    EXPECT_TRUE(pool->createGroupPool());
    std::vector<sp<CGroup>> taken = {pool->getGroup(), pool->getGroup(), pool->getGroup()};
    close(fds[0]), close(fds[1]);
    EXPECT_EQ((std::vector<std::string>{at("VP5_Group_0000000007"), at("VP5_Group_0000000042"),
                                        at("VP5_Group_3000000001")}),
              frzGroups(mRoot.path, "VP5_Group_"));
    EXPECT_EQ(20u, frzGroups(mRoot.path).size());
    pool->putGroup(new CGroup(taken[0]->getName(), root()));  // a stranger of the same name
    pool->putGroup(nullptr);
    EXPECT_EQ(0u, pool->freeCount());
    pool->putGroup(taken[1]), pool->putGroup(taken[0]);
    EXPECT_TRUE(pool->getGroup() == taken[0] && pool->getGroup() == taken[1]);
    sp<GroupPool> none = new GroupPool(1, root(), String8("/nonexistent"));
    EXPECT_TRUE(!none->createGroupPool() && none->getGroup() == nullptr);
    // Groups: pid 0 (the writer) reaches the kernel; -1, an empty value, a missing node do not.
    sp<CGroup> g = new CGroup(String8("g1"), root());
    EXPECT_TRUE(g->createCGroup() && !g->createCGroup());
    EXPECT_TRUE(!g->attachPid(-1) && g->attachPid(0) && groupPids(at("g1")).at(0) == getpid());
    EXPECT_TRUE(g->detachPid(getpid()) && groupPids(at("g1")).empty());
    EXPECT_FALSE(g->setCGroup(String8("freezer.state"), String8("")));
    EXPECT_FALSE(g->setCGroup(String8("no.such"), String8("1")));
    EXPECT_TRUE(g->deleteCGroup() && !g->deleteCGroup());
    // Made again, the group is written afresh, not through a descriptor of the removed one.
    EXPECT_TRUE(g->createCGroup() && g->setCGroup(String8("freezer.state"), String8("THAWED")) &&
                g->attachPid(0) && g->detachPid(getpid()) && g->deleteCGroup());
    vp_type = 0;
}

// Binder threads freeze, thaw, record calls and query at once, and dying clients thaw all,
// forced even while a binder thread holds the lock. Nothing may stay held.
TEST_F(FreezerTest, ParallelFreezeThawRecordAndForcedThawAllLeaveNothingHeld) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 5; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; i++) {
                int batch[] = {mKids[(i + t) % 8].pid(), mKids[(i * 3 + t) % 8].pid(), -1};
                if (t == 3)  // the listener: one-way calls, and calls from a fellow child
                    mFreezer->recordBinderCallTime(i % 3 == 0 ? batch[0] : -1, batch[1]);
                if (t == 4) mFreezer->thawAll(i % 2 == 0);  // dying clients
                if (t >= 3) continue;
                mFreezer->freezeProcess(i % 2 ? 1 : 4, batch, 3);
                mFreezer->freezeProcess(2, &batch[1], 1);
                mFreezer->isFreezed(batch[0]);
            }
        });
    }
    for (auto& th : threads) th.join();
    mFreezer->thawAll(false);
    EXPECT_EQ(0u, mFreezer->frozenCount());
    ASSERT_EQ(0, run(1, {A, B, -1}));
    ASSERT_TRUE(waitFrozen(mRoot.path, pid(A)));
    mFreezer->lockForTest().lock();  // as a binder thread stuck inside a freeze would
    auto thawer = std::async(std::launch::async, [&] { return mFreezer->thawAll(true); });
    bool done = thawer.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    mFreezer->lockForTest().unlock();
    EXPECT_TRUE(done && thawer.get());
    EXPECT_EQ(20u, mFreezer->getGroupPool()->freeCount());
    EXPECT_TRUE(waitFrozen(mRoot.path, pid(A), false) && progresses(pid(A)));
    mFreezer->uninitFrz(), mFreezer->uninitFrz();  // removes every group, then finds none
    EXPECT_TRUE(frzGroups(mRoot.path).empty());
}

}  // namespace
