// The registry's freezer side with the real cgroup freezer at /dev/frz (run through
// qmed-ns): asynchronous calls and low-memory kills thaw, other events do not.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/listener/FakeListener.h"
#include "tests/support/TestChild.h"

using android::sp;
using android::String8;
using qmedtest::TestChild;

namespace {

Message kstateMsg(const std::vector<unsigned char>& payload) {
    return Message{reinterpret_cast<intptr_t>(payload.data()),
                   static_cast<intptr_t>(payload.size())};
}

class RegistryFreezer : public ::testing::Test {
  protected:
    void SetUp() override {
        mFreezer = new Freezer(String8("/dev/frz"));
        ASSERT_TRUE(mFreezer->isFrzInited()) << "run through qmed-ns";
        mRegistry = new IQmedBinderListenerService(mFreezer, nullptr);
        mListener = new FakeListener();
        ASSERT_EQ(0, mRegistry->registerListener(mListener, 1));
    }
    void TearDown() override {
        if (mFreezer != nullptr) mFreezer->thawAll(false);
    }

    void freeze(int pid) {
        int list[2] = {pid, -1};
        ASSERT_EQ(0, mFreezer->freezeProcess(Freezer::FREEZE_CMD_FREEZE, list, 2));
        ASSERT_TRUE(mFreezer->isFreezed(pid));
    }

    void post(const std::string& text, int kind) {
        std::vector<unsigned char> p = kstatePayload(kind, text);
        mRegistry->handleMessage(1, kstateMsg(p));
    }

    sp<Freezer> mFreezer;
    sp<IQmedBinderListenerService> mRegistry;
    sp<FakeListener> mListener;
};

TEST_F(RegistryFreezer, AsyncCallThawsAndSyncCallOnlyReports) {
    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedRegFrz");
    freeze(child.pid());
    // A synchronous call from some process into a frozen target: reported, still frozen.
    post("[TPID " + std::to_string(child.pid()) + " CALLED][PID 4343]", 16);
    EXPECT_TRUE(mFreezer->isFreezed(child.pid()));
    EXPECT_EQ(1u, mListener->kstateCount());
    post("[TPID " + std::to_string(child.pid()) + " CALLED][PID 4343]", 16);
    EXPECT_EQ(2u, mListener->kstateCount());
    // The call is on record for the freezer's binder check.
    {
        android::Mutex::Autolock lock(mFreezer->lockForTest());
        const BinderCallInfo* info = mFreezer->getLastBinderCallInfo(child.pid());
        ASSERT_NE(nullptr, info);
        EXPECT_EQ(4343, info->callingPid);
    }
    // A one-way call thaws it and is reported too.
    post("[TPID " + std::to_string(child.pid()) + " CALLED][PID -1]", 16);
    EXPECT_FALSE(mFreezer->isFreezed(child.pid()));
    EXPECT_EQ(3u, mListener->kstateCount());
}

TEST_F(RegistryFreezer, OnlyTheLowMemoryKillerSignalThaws) {
    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedRegLmk");
    freeze(child.pid());
    post("[PID " + std::to_string(child.pid()) + " KILLED][SIG 9]", 8);
    EXPECT_TRUE(mFreezer->isFreezed(child.pid()));
    post("[PID " + std::to_string(child.pid()) + " KILLED][SIG 0]", 8);
    EXPECT_FALSE(mFreezer->isFreezed(child.pid()));
    EXPECT_EQ(2u, mListener->kstateCount());
}

}  // namespace
