#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "freezer/Freezer.h"
#include "tests/freezer/FrzTestRoot.h"
#include "tests/support/TestChild.h"

using android::sp;
using android::String8;
using qmedtest::TestChild;

namespace {

// Binder threads freeze, thaw, record calls and query at once; the listener thaws on events;
// a dying client forces a thaw-all. Afterwards nothing may be held and every group is free.
TEST(FreezerConcurrency, ParallelFreezeThawRecordAndForcedThawAllLeaveNothingHeld) {
    std::vector<TestChild> children;
    frztest::FrzTestRoot root;
    ASSERT_TRUE(root.ok());
    sp<Freezer> freezer = new Freezer(String8(root.path().c_str()));
    ASSERT_TRUE(freezer->isFrzInited());
    std::vector<int> pids;
    for (int i = 0; i < 8; i++) {
        children.push_back(TestChild::spawn(TestChild::Kind::Sleep));
        pids.push_back(children.back().pid());
    }

    std::atomic<bool> stop{false};
    std::atomic<int> frozenBatches{0}, refusedBatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; !stop && i < 200; i++) {
                int a = pids[(i + t) % pids.size()], b = pids[(i * 3 + t) % pids.size()];
                int batch[] = {a, b, -1};
                if (freezer->freezeProcess(i % 2 ? 1 : 4, batch, 3) == 0) {
                    frozenBatches++;
                } else {
                    refusedBatches++;
                }
                int one[] = {b};
                freezer->freezeProcess(2, one, 1);
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; !stop && i < 2000; i++) {
            int target = pids[i % pids.size()];
            // One-way calls and calls from a fellow child; the latter refuse some batches.
            int caller = i % 3 == 0 ? pids[(i / 3) % pids.size()] : -1;
            freezer->recordBinderCallTime(caller, target);
            if (freezer->isFreezed(target) && i % 7 == 0) freezer->freezeProcess(2, &target, 1);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; !stop && i < 20; i++) {
            freezer->thawAll(i % 2 == 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    for (auto& th : threads) th.join();
    freezer->thawAll(false);
    EXPECT_GT(frozenBatches.load(), 0);
    EXPECT_GT(refusedBatches.load(), 0);

    EXPECT_EQ(0u, freezer->frozenCount());
    sp<GroupPool> pool = freezer->getGroupPool();
    EXPECT_EQ(pool->size(), pool->freeCount());
    EXPECT_EQ(pool->size(), root.groups().size());
    for (const auto& g : root.groups()) {
        EXPECT_TRUE(frztest::groupPids(root.group(g)).empty()) << g;
        EXPECT_EQ("THAWED", frztest::groupState(root.group(g))) << g;
    }
    freezer.clear();
    EXPECT_TRUE(root.groups().empty());
}

}  // namespace
