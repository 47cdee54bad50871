#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "freezer/Freezer.h"
#include "tests/support/FrzGroups.h"
#include "tests/support/TestChild.h"

using namespace qmedtest;

// Binder threads freeze, thaw, record calls and query at once; the listener thaws on events;
// a dying client forces a thaw-all. Afterwards nothing may be held and every group is free.
TEST(FreezerConcurrency, ParallelFreezeThawRecordAndForcedThawAllLeaveNothingHeld) {
    std::vector<TestChild> kids;
    FrzTestRoot root;
    android::sp<Freezer> freezer = new Freezer(android::String8(root.path.c_str()));
    std::vector<int> p;
    while (p.size() < 8)
        kids.push_back(TestChild::spawn(TestChild::Kind::Sleep)), p.push_back(kids.back().pid());
    std::atomic<int> frozen{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; i++) {
                int batch[] = {p[(i + t) % 8], p[(i * 3 + t) % 8], -1};
                (freezer->freezeProcess(i % 2 ? 1 : 4, batch, 3) == 0 ? frozen : refused)++;
                freezer->freezeProcess(2, &batch[1], 1);
            }
        });
    }
    threads.emplace_back([&] {
        // One-way calls and calls from a fellow child; the latter refuse some batches.
        for (int i = 0; i < 2000; i++) {
            freezer->recordBinderCallTime(i % 3 == 0 ? p[(i / 3) % 8] : -1, p[i % 8]);
            if (i % 7 == 0 && freezer->isFreezed(p[i % 8])) freezer->freezeProcess(2, &p[i % 8], 1);
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 20; i++) {
            freezer->thawAll(i % 2 == 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    for (auto& th : threads) th.join();
    freezer->thawAll(false);
    EXPECT_TRUE(frozen > 0 && refused > 0) << frozen << " " << refused;
    EXPECT_EQ(0u, freezer->frozenCount());
    EXPECT_EQ(freezer->getGroupPool()->size(), freezer->getGroupPool()->freeCount());
    for (const auto& g : frzGroups(root.path))
        EXPECT_TRUE(groupPids(g).empty() && !groupFrozen(g)) << g;
    freezer.clear();
    EXPECT_TRUE(frzGroups(root.path).empty());
}
