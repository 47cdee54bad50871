// The registry under concurrent posters, registrations and dumps (meant for TSan too).

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/support/HubWire.h"

namespace qmedtest {
namespace {

TEST(RegistryConcurrency, PostersRegistrarsAndDumpsInterleave) {
    android::sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(
            new Freezer(android::String8("/nonexistent/qmed-registry-concurrency")), nullptr);
    android::sp<RecordingBinder> steady = new RecordingBinder();
    ASSERT_EQ(0, registry->registerListener(steady->proxy(), 0x20000007));
    std::atomic<bool> stop{false};
    std::vector<std::thread> posters;
    // Kernel-state posters as the hub thread, binder calls among them, and release notices
    // as the limiter loop posts them.
    for (int t = 0; t < 3; t++) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < 400; i++) {
                Bytes p = eventPayload(i % 2 ? 3 : 16,
                                       "[TPID " + std::to_string(i) + " CALLED][PID 7]");
                registry->handleMessage(t == 2 ? 4 : 1,
                                        t == 2 ? Message{i, (intptr_t) "low"}
                                               : Message{(intptr_t)p.data(), (intptr_t)p.size()});
            }
        });
    }
    std::thread clients([&] {  // coming and going, and dumps
        android::Vector<android::String16> args;
        while (!stop.load()) {
            android::sp<RecordingBinder> transient = new RecordingBinder();
            registry->registerListener(transient->proxy(), 0x3FFFFFFF);
            registry->dump(2, args);
            registry->clearDeadListeners(transient);
            registry->registerListener(transient->proxy(), 1);
            registry->unregisterListener(transient->proxy());
        }
    });
    for (std::thread& t : posters) t.join();
    stop.store(true);
    clients.join();
    // Every plain event arrived; binder calls from other callers to unfrozen targets did not.
    EXPECT_EQ(400, steady->count(1));
    EXPECT_EQ(400, steady->count(3));
    EXPECT_EQ(1u, registry->listenerCount());
}

}  // namespace
}  // namespace qmedtest
