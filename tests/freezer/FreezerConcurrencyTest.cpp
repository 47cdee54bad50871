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
    while (p.size() < 8) {
        kids.push_back(TestChild::spawn(TestChild::Kind::Sleep));
        p.push_back(kids.back().pid());
    }
    std::atomic<int> frozen{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 5; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; i++) {
                int batch[] = {p[(i + t) % 8], p[(i * 3 + t) % 8], -1};
                if (t == 3) {  // the listener: one-way calls, and calls from a fellow child
                    freezer->recordBinderCallTime(i % 3 == 0 ? batch[0] : -1, batch[1]);
                    if (freezer->isFreezed(batch[1])) freezer->freezeProcess(2, &batch[1], 1);
                } else if (t == 4) {  // dying clients
                    freezer->thawAll(i % 2 == 0);
                } else {
                    (freezer->freezeProcess(i % 2 ? 1 : 4, batch, 3) == 0 ? frozen : refused)++;
                    freezer->freezeProcess(2, &batch[1], 1);
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    freezer->thawAll(false);
    EXPECT_TRUE(frozen > 0 && refused > 0) << frozen << " " << refused;
    EXPECT_EQ(0u, freezer->frozenCount());
    EXPECT_EQ(freezer->getGroupPool()->size(), freezer->getGroupPool()->freeCount());
    EXPECT_EQ(freezer->getGroupPool()->size(), frzGroups(root.path).size());
    for (const auto& g : frzGroups(root.path))
        EXPECT_TRUE(groupPids(g).empty() && !groupFrozen(g)) << g;
    freezer.clear();
    EXPECT_TRUE(frzGroups(root.path).empty());
}
