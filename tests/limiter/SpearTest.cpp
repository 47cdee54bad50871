#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "limiter/Spear.h"
#include "tests/limiter/DrivenLimiter.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner-inl.h"

using android::sp;
using qmedtest::DrivenLimiter;
using qmedtest::TestChild;

namespace {

class SpearTest : public ::testing::Test {
  protected:
    void SetUp() override {
        limiter = new DrivenLimiter();
        spear = new Spear(limiter);
    }
    sp<DrivenLimiter> limiter;
    sp<Spear> spear;
};

TEST_F(SpearTest, ReturnCodesOfDoSpear) {
    qmed::host::LogCapture log;
    ASSERT_TRUE(spear->isSpearInited());
    EXPECT_EQ(-2, spear->doSpear(0, 30, 0, false));
    EXPECT_TRUE(log.contains("Sr P: 0 not found!"));
    EXPECT_EQ(-3, spear->doSpear(999999, 30, 0, false));
    EXPECT_TRUE(log.contains("Sr P found but you aren't allowed to control it! No such process"));

    EXPECT_EQ(-4, spear->doSpear(getpid(), 30, 0, false));
    EXPECT_TRUE(log.contains("is qmed itself, checking abnormality!"));
    EXPECT_FLOAT_EQ(0.04f, limiter->mSelfGroup->targetRate);
    EXPECT_EQ(-4, spear->doSpear(getpid(), 30, 0, false));
    EXPECT_FLOAT_EQ(0.03f, limiter->mSelfGroup->targetRate);
    EXPECT_EQ(0, limiter->getPgroupNum());

    std::atomic<int> tid{0};
    std::atomic<bool> done{false};
    std::thread t([&] {
        tid = static_cast<int>(syscall(SYS_gettid));
        while (!done) usleep(1000);
    });
    while (tid == 0) usleep(1000);
    EXPECT_EQ(-5, spear->doSpear(tid, 30, 0, false));
    done = true;
    t.join();

    TestChild c = TestChild::spawn(TestChild::Kind::Sleep);
    EXPECT_EQ(1, spear->doSpear(c.pid(), 30, 0, true));
    EXPECT_EQ(1, spear->isSpeared(c.pid()));
    EXPECT_EQ(1, spear->doSpear(c.pid(), 50, 0, true));  // a change, not a second group
    EXPECT_EQ(1, limiter->getPgroupNum());
    EXPECT_FLOAT_EQ(0.5f, limiter->groupOf(c.pid())->targetRate);
    EXPECT_TRUE(limiter->groupOf(c.pid())->includeChildren);
    EXPECT_EQ(1, limiter->mLoopStarts);
}

}  // namespace
