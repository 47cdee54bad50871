// The registry under concurrent posters, registrations and dumps (meant for TSan too).

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/listener/FakeListener.h"

using android::sp;
using android::String16;
using android::String8;
using android::Vector;

namespace {

TEST(RegistryConcurrency, PostersRegistrarsAndDumpsInterleave) {
    sp<Freezer> freezer = new Freezer(String8("/nonexistent/qmed-registry-concurrency"));
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(freezer, nullptr);
    sp<FakeListener> steady = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(steady, 0x20000007));

    constexpr int kEvents = 400;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    // Kernel-state posters, as the hub thread does, with binder-call events too.
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEvents; i++) {
                std::vector<unsigned char> p =
                        i % 2 ? kstatePayload(3, "event " + std::to_string(i))
                              : kstatePayload(16, "[TPID " + std::to_string(100 + i) +
                                                          " CALLED][PID " + std::to_string(t) +
                                                          "]");
                registry->handleMessage(1, Message{reinterpret_cast<intptr_t>(p.data()),
                                                   static_cast<intptr_t>(p.size())});
            }
        });
    }
    // Release notices, as the limiter loop posts them.
    threads.emplace_back([&] {
        for (int i = 0; i < kEvents; i++) {
            registry->handleMessage(4, Message{i, reinterpret_cast<intptr_t>("low_rate")});
        }
    });
    // Clients coming and going, and dumps.
    threads.emplace_back([&] {
        while (!stop.load()) {
            sp<FakeListener> transient = new FakeListener();
            registry->registerListener(transient, 0x3FFFFFFF);
            registry->clearDeadListeners(android::IInterface::asBinder(transient));
            registry->registerListener(transient, 1);
            registry->unregisterListener(transient);
        }
    });
    threads.emplace_back([&] {
        Vector<String16> args;
        while (!stop.load()) registry->dump(-1, args);
    });
    for (int i = 0; i < 3; i++) threads[i].join();
    stop.store(true);
    for (size_t i = 3; i < threads.size(); i++) threads[i].join();

    // Every plain event reached the steady listener; binder calls from non-system callers
    // to unfrozen targets did not.
    EXPECT_EQ(static_cast<size_t>(kEvents), steady->kstateCount());
    EXPECT_EQ(1u, registry->listenerCount());
    std::lock_guard<std::mutex> lock(steady->mLock);
    EXPECT_EQ(static_cast<size_t>(kEvents), steady->released.size());
}

}  // namespace
