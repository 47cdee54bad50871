#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "freezer/CGroup.h"
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

class CGroupTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(mRoot.ok()) << "no writable cgroup-v1 freezer hierarchy";
        ASSERT_TRUE(CGroup::initCGroup(String8(mRoot.path().c_str())));
    }
    pid_t spawn(TestChild::Kind kind = TestChild::Kind::Sleep) {
        mChildren.push_back(TestChild::spawn(kind));
        return mChildren.back().pid();
    }
    sp<CGroup> make(const char* name) { return new CGroup(String8(name), root()); }
    String8 root() const { return String8(mRoot.path().c_str()); }

    std::vector<TestChild> mChildren;  // destroyed last: groups are gone and thawed by then
    FrzTestRoot mRoot;
};

TEST_F(CGroupTest, CreatesGroupWithMode0774UnderRestrictiveUmask) {
    mode_t old = umask(022);
    sp<CGroup> g = make("Group_0000000001");
    bool created = g->createCGroup();
    umask(old);
    ASSERT_TRUE(created);
    struct stat st;
    ASSERT_EQ(0, stat(mRoot.group("Group_0000000001").c_str(), &st));
    EXPECT_EQ(0774u, st.st_mode & 07777);
    EXPECT_EQ(mRoot.group("Group_0000000001"), g->getPath().c_str());
    EXPECT_STREQ("Group_0000000001", g->getName().c_str());
    // A second create of the same directory is refused by mkdir.
    EXPECT_FALSE(make("Group_0000000001")->createCGroup());
}

TEST_F(CGroupTest, AttachMovesProcessAndDetachReturnsItToRoot) {
    pid_t pid = spawn();
    sp<CGroup> g = make("g1");
    ASSERT_TRUE(g->createCGroup());
    ASSERT_TRUE(g->attachPid(pid));
    EXPECT_EQ(std::vector<pid_t>{pid}, groupPids(mRoot.group("g1")));
    // Any instance can detach any pid: detaching writes only the root's file.
    ASSERT_TRUE(make("unrelated")->detachPid(pid));
    EXPECT_TRUE(groupPids(mRoot.group("g1")).empty());
    auto rootPids = groupPids(mRoot.path());
    EXPECT_NE(rootPids.end(), std::find(rootPids.begin(), rootPids.end(), pid));
    EXPECT_TRUE(g->deleteCGroup());
}

TEST_F(CGroupTest, RejectsNegativePidButAttemptsZero) {
    sp<CGroup> g = make("g1");
    ASSERT_TRUE(g->createCGroup());
    qmed::host::LogCapture log;
    EXPECT_FALSE(g->attachPid(-1));
    EXPECT_TRUE(log.contains("E/Qmed-CGroup: pid is not valid"));
    EXPECT_FALSE(g->detachPid(-1));
    // 0 passes the check and reaches the kernel, which takes it as the writer itself; put
    // ourselves straight back.
    EXPECT_TRUE(g->attachPid(0));
    EXPECT_EQ(std::vector<pid_t>{getpid()}, groupPids(mRoot.group("g1")));
    EXPECT_TRUE(g->detachPid(getpid()));
    EXPECT_TRUE(g->deleteCGroup());
}

TEST_F(CGroupTest, SetWritesControlFileAndRejectsEmptyArguments) {
    pid_t pid = spawn(TestChild::Kind::Busy);
    sp<CGroup> g = make("g1");
    ASSERT_TRUE(g->createCGroup());
    ASSERT_TRUE(g->attachPid(pid));
    qmed::host::LogCapture log;
    EXPECT_FALSE(g->setCGroup(String8(""), String8("FROZEN")));
    EXPECT_EQ(1u, log.count("E/Qmed-CGroup: Params are not valid"));
    EXPECT_FALSE(g->setCGroup(String8("freezer.state"), String8("")));
    EXPECT_EQ("THAWED", frztest::groupState(mRoot.group("g1")));
    ASSERT_TRUE(g->setCGroup(String8("freezer.state"), String8("FROZEN")));
    EXPECT_TRUE(frztest::waitGroupState(mRoot.group("g1"), "FROZEN"));
    // The kernel refuses a value it does not know; the write reports it.
    EXPECT_FALSE(g->setCGroup(String8("freezer.state"), String8("SLUSHY")));
    EXPECT_TRUE(log.contains("I/Qmed-CGroup: set group node fail, node name: " + mRoot.group("g1") +
                             "/freezer.state, value:SLUSHY"));
    EXPECT_FALSE(g->setCGroup(String8("no.such.node"), String8("1")));
    ASSERT_TRUE(g->setCGroup(String8("freezer.state"), String8("THAWED")));
    EXPECT_TRUE(frztest::waitGroupState(mRoot.group("g1"), "THAWED"));
    EXPECT_TRUE(g->detachPid(pid));
    EXPECT_TRUE(g->deleteCGroup());
}

TEST_F(CGroupTest, DeleteMovesEveryMemberOutThenRemovesDirectory) {
    pid_t a = spawn(), b = spawn(), c = spawn();
    sp<CGroup> g = make("g1");
    ASSERT_TRUE(g->createCGroup());
    for (pid_t p : {a, b, c}) ASSERT_TRUE(g->attachPid(p));
    ASSERT_EQ(3u, groupPids(mRoot.group("g1")).size());
    EXPECT_TRUE(g->deleteCGroup());
    EXPECT_TRUE(mRoot.groups().empty());
    auto rootPids = groupPids(mRoot.path());
    for (pid_t p : {a, b, c}) {
        EXPECT_NE(rootPids.end(), std::find(rootPids.begin(), rootPids.end(), p)) << p;
    }
    // The directory is gone now.
    EXPECT_FALSE(g->deleteCGroup());
}

TEST_F(CGroupTest, WriteFileFailsOnMissingPath) {
    sp<CGroup> g = make("g1");
    String8 path(mRoot.group("missing/file").c_str());
    String8 value("x");
    EXPECT_FALSE(g->writeFile(path, value));
}

// The mounted flag is process-wide and never reset: the body runs in a fresh process of this
// binary (through the emulator prefix when there is one).
TEST(CGroupUnmounted, EveryOperationFailsWithoutTouchingTheFileSystem) {
    if (getenv("QMED_FRZ_FRESH_PROCESS") == nullptr) {
        qmedtest::RunOptions o;
        o.env["QMED_FRZ_FRESH_PROCESS"] = "1";
        auto r = qmedtest::runTool("freezer_test", {"--gtest_filter=CGroupUnmounted.*"}, o);
        EXPECT_EQ(0, r.exitCode) << r.out << r.err;
        EXPECT_NE(std::string::npos, r.out.find("[  PASSED  ] 1 test.")) << r.out;
        return;
    }
    char tmpl[] = "/tmp/qmedfrz.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    qmed::host::LogCapture log;
    String8 root(tmpl);
    EXPECT_FALSE(CGroup::initCGroup(root));
    sp<CGroup> g = new CGroup(String8("Group_0000000001"), root);
    EXPECT_FALSE(g->createCGroup());
    EXPECT_FALSE(g->attachPid(getpid()));
    EXPECT_FALSE(g->detachPid(getpid()));
    EXPECT_FALSE(g->setCGroup(String8("freezer.state"), String8("FROZEN")));
    EXPECT_EQ(0, rmdir(tmpl)) << "something was created";
    EXPECT_EQ(5u, log.count("W/Qmed-CGroup: freezer group is not mounted"));
}

}  // namespace
