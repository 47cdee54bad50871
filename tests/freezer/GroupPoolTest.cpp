#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "daemon/QmedGlobals.h"
#include "freezer/GroupPool.h"
#include "host/LogCapture.h"
#include "tests/freezer/FrzTestRoot.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::sp;
using android::String8;
using frztest::FrzTestRoot;
using frztest::groupPids;
using qmedtest::TestChild;

namespace {

class GroupPoolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(mRoot.ok()) << "no writable cgroup-v1 freezer hierarchy";
        mOldType = vp_type;
    }
    void TearDown() override {
        if (mPool != nullptr) mPool->deleteGroupPool();
        vp_type = mOldType;
    }
    sp<GroupPool> makePool(unsigned size, const char* random = GroupPool::kRandomSource) {
        mPool = new GroupPool(size, root(), String8(random));
        return mPool;
    }
    pid_t spawn(TestChild::Kind kind = TestChild::Kind::Busy) {
        mChildren.push_back(TestChild::spawn(kind));
        return mChildren.back().pid();
    }
    String8 root() const { return String8(mRoot.path().c_str()); }

    std::vector<TestChild> mChildren;
    FrzTestRoot mRoot;
    sp<GroupPool> mPool;
    int mOldType = 0;
};

TEST_F(GroupPoolTest, StartUpLeavesExactlyPoolSizeFreeUniquelyNamedGroups) {
    sp<GroupPool> pool = makePool(20);
    ASSERT_TRUE(pool->createGroupPool());
    auto groups = mRoot.groups();
    ASSERT_EQ(20u, groups.size());
    for (const auto& g : groups) {
        EXPECT_TRUE(frztest::isGroupName(g, "Group_")) << g;
        EXPECT_EQ("THAWED", frztest::groupState(mRoot.group(g)));
    }
    EXPECT_EQ(20u, pool->size());
    EXPECT_EQ(20u, pool->freeCount());
    pool->deleteGroupPool();
    EXPECT_TRUE(mRoot.groups().empty());
    EXPECT_EQ(0u, pool->size());
}

TEST_F(GroupPoolTest, PrefixFollowsTypeOption) {
    vp_type = 0;
    EXPECT_STREQ("Group_", GroupPool::getNamePrefix().c_str());
    vp_type = 2;
    EXPECT_STREQ("VP2_Group_", GroupPool::getNamePrefix().c_str());
    vp_type = -3;
    EXPECT_STREQ("VP-3_Group_", GroupPool::getNamePrefix().c_str());
    vp_type = 2;
    sp<GroupPool> pool = makePool(3);
    ASSERT_TRUE(pool->createGroupPool());
    auto groups = mRoot.groups();
    ASSERT_EQ(3u, groups.size());
    for (const auto& g : groups) EXPECT_TRUE(frztest::isGroupName(g, "VP2_Group_")) << g;
}

TEST_F(GroupPoolTest, StartUpRemovesOwnLeftoversEvenWithFrozenProcessesAndSparesOthers) {
    pid_t inOwn = spawn();
    pid_t inOther = spawn();
    ASSERT_TRUE(mRoot.makeGroup("Group_0000000001", inOwn, true));
    ASSERT_TRUE(mRoot.makeGroup("Group_0000000002"));
    ASSERT_TRUE(mRoot.makeGroup("VP1_Group_0000000003", inOther, true));
    ASSERT_TRUE(mRoot.makeGroup("Groupie"));
    ASSERT_EQ('D', qmedtest::procState(inOwn));

    vp_type = 0;
    sp<GroupPool> pool = makePool(0);
    auto groups = mRoot.groups();
    EXPECT_EQ((std::vector<std::string>{"Groupie", "VP1_Group_0000000003"}), groups);
    // The process that sat in the removed group runs again, from the root.
    auto rootPids = groupPids(mRoot.path());
    EXPECT_NE(rootPids.end(), std::find(rootPids.begin(), rootPids.end(), inOwn));
    long before = qmedtest::procUtime(inOwn);
    EXPECT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procUtime(inOwn) > before; }, 5000));
    // The other instance's group keeps its process frozen.
    EXPECT_EQ("FROZEN", frztest::groupState(mRoot.group("VP1_Group_0000000003")));
    EXPECT_EQ(std::vector<pid_t>{inOther}, groupPids(mRoot.group("VP1_Group_0000000003")));
}

TEST_F(GroupPoolTest, GrowsBeyondPoolSizeAndReusesOldestFreeGroupFirst) {
    sp<GroupPool> pool = makePool(20);
    ASSERT_TRUE(pool->createGroupPool());
    std::vector<sp<CGroup>> taken;
    for (int i = 0; i < 21; i++) {
        sp<CGroup> g = pool->getGroup();
        ASSERT_NE(nullptr, g.get());
        EXPECT_TRUE(g->isUsed());
        taken.push_back(g);
    }
    EXPECT_EQ(21u, mRoot.groups().size());
    EXPECT_EQ(21u, pool->size());
    EXPECT_EQ(0u, pool->freeCount());

    pool->putGroup(taken[2]);
    pool->putGroup(taken[17]);
    EXPECT_EQ(2u, pool->freeCount());
    EXPECT_EQ(taken[2].get(), pool->getGroup().get());
    EXPECT_EQ(taken[17].get(), pool->getGroup().get());
    // Nothing free again: a 22nd group is made.
    sp<CGroup> extra = pool->getGroup();
    ASSERT_NE(nullptr, extra.get());
    EXPECT_EQ(22u, mRoot.groups().size());
    for (const auto& g : taken) EXPECT_NE(g.get(), extra.get());
}

TEST_F(GroupPoolTest, PutOfUnknownOrNullGroupChangesNothing) {
    sp<GroupPool> pool = makePool(2);
    ASSERT_TRUE(pool->createGroupPool());
    sp<CGroup> a = pool->getGroup();
    sp<CGroup> stranger = new CGroup(a->getName(), root());
    stranger->setUsed(true);
    bool oldDebug = bDebug;
    bDebug = true;
    qmed::host::LogCapture log;
    pool->putGroup(stranger);
    bDebug = oldDebug;
    EXPECT_TRUE(log.contains("D/Qmed-GroupPool: Cgroup is not found"));
    pool->putGroup(nullptr);
    EXPECT_TRUE(a->isUsed());
    EXPECT_EQ(1u, pool->freeCount());
    EXPECT_TRUE(stranger->isUsed());
}

TEST_F(GroupPoolTest, EmptyPoolCreatesOnDemand) {
    sp<GroupPool> pool = makePool(0);
    ASSERT_TRUE(pool->createGroupPool());
    EXPECT_TRUE(mRoot.groups().empty());
    sp<CGroup> g = pool->getGroup();
    ASSERT_NE(nullptr, g.get());
    EXPECT_EQ(1u, mRoot.groups().size());
    EXPECT_EQ(1u, pool->size());
}

TEST_F(GroupPoolTest, RedrawsWhenRandomSourceRepeatsAName) {
    std::string fifo = "/tmp/qmedfrz-random-" + std::to_string(getpid());
    unlink(fifo.c_str());
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    // Held open for writing so every open by the pool finds the queued bytes.
    int fd = open(fifo.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    uint32_t values[] = {42, 42, 3000000001u, 42, 7};
    ASSERT_EQ((ssize_t)sizeof(values), write(fd, values, sizeof(values)));

    sp<GroupPool> pool = makePool(3, fifo.c_str());
    bool oldDebug = bDebug;
    bDebug = true;
    qmed::host::LogCapture log;
    bool created = pool->createGroupPool();
    bDebug = oldDebug;
    close(fd);
    unlink(fifo.c_str());
    ASSERT_TRUE(created);
    EXPECT_EQ(
            (std::vector<std::string>{"Group_0000000007", "Group_0000000042", "Group_3000000001"}),
            mRoot.groups());
    EXPECT_EQ(2u, log.count("D/Qmed-GroupPool: name Group_0000000042 already exists"));
}

TEST_F(GroupPoolTest, FailsWithoutRandomSourceOrWithLeftoverOfSameName) {
    sp<GroupPool> pool = makePool(1, "/nonexistent/urandom");
    qmed::host::LogCapture log;
    EXPECT_FALSE(pool->createGroupPool());
    EXPECT_TRUE(log.contains("E/Qmed-GroupPool: open /dev/urandom fail"));
    EXPECT_TRUE(log.contains("E/Qmed-GroupPool: Get available name error"));
    EXPECT_TRUE(log.contains("E/Qmed-GroupPool: Create pool failed"));
    EXPECT_EQ(nullptr, pool->getGroup().get());
    EXPECT_TRUE(mRoot.groups().empty());
    pool.clear();
    mPool.clear();

    // A short read from the random source leaves zero bytes: the name is all zeros, and a
    // directory of that name the pool does not know about makes the mkdir fail.
    std::string empty = "/tmp/qmedfrz-empty-" + std::to_string(getpid());
    ASSERT_TRUE(qmedtest::writeFile(empty, ""));
    vp_type = 5;
    sp<GroupPool> p2 = makePool(1, empty.c_str());
    ASSERT_TRUE(mRoot.makeGroup("VP5_Group_0000000000"));
    EXPECT_FALSE(p2->createGroupPool());
    EXPECT_EQ(0u, p2->size());
    unlink(empty.c_str());
}

}  // namespace
