// The listener registry with in-process listeners: registration codes, delivery by
// mask, the system-server report throttle, death clean-up and hostile payloads.

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/listener/FakeListener.h"
#include "tests/support/TestChild.h"

using android::sp;
using android::String16;
using android::String8;
using android::Vector;
using android::wp;
using qmedtest::TestChild;

namespace {

// A freezer over a root that does not exist: never initialised, so nothing is frozen,
// but the binder-call bookkeeping and the report throttle are active.
sp<Freezer> idleFreezer() {
    return new Freezer(String8("/nonexistent/qmed-registry-test"));
}

Message kstateMsg(const std::vector<unsigned char>& payload) {
    return Message{reinterpret_cast<intptr_t>(payload.data()),
                   static_cast<intptr_t>(payload.size())};
}

time_t gNow = 1000000;
time_t fakeClock(time_t* out) {
    if (out) *out = gNow;
    return gNow;
}

TEST(Registry, RegistrationCodes) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<FakeListener> a = new FakeListener();
    EXPECT_EQ(1, registry->registerListener(nullptr, 1));
    EXPECT_EQ(4, registry->registerListener(a, 0));
    EXPECT_EQ(4, registry->registerListener(a, -1));
    EXPECT_EQ(4, registry->registerListener(a, 0x40000000));
    EXPECT_EQ(0, registry->registerListener(a, 0x3FFFFFFF));
    EXPECT_EQ(2, registry->registerListener(a, 1));
    EXPECT_EQ(1u, registry->listenerCount());

    EXPECT_EQ(1, registry->unregisterListener(nullptr));
    sp<FakeListener> stranger = new FakeListener();
    EXPECT_EQ(3, registry->unregisterListener(stranger));
    EXPECT_EQ(0, registry->unregisterListener(a));
    EXPECT_EQ(3, registry->unregisterListener(a));
    EXPECT_EQ(0u, registry->listenerCount());
}

TEST(Registry, SecondRegistrationKeepsFirstMask) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<FakeListener> a = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(a, TYPE_LISTENER_onStopProcSpearCallback));
    ASSERT_EQ(2, registry->registerListener(a, TYPE_LISTENER_onKstateCallback));
    std::vector<unsigned char> payload = kstatePayload(3, "hello");
    registry->handleMessage(TYPE_LISTENER_onKstateCallback, kstateMsg(payload));
    EXPECT_EQ(0u, a->kstateCount());
    registry->handleMessage(TYPE_LISTENER_onStopProcSpearCallback,
                            Message{77, reinterpret_cast<intptr_t>("empty")});
    ASSERT_EQ(1u, a->released.size());
    EXPECT_EQ("77:empty", a->released[0]);
}

TEST(Registry, DeliversEachTypeOnlyToItsMaskBit) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<FakeListener> kstate = new FakeListener();
    sp<FakeListener> packets = new FakeListener();
    sp<FakeListener> released = new FakeListener();
    sp<FakeListener> dumper = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(kstate, 1));
    ASSERT_EQ(0, registry->registerListener(packets, 2));
    ASSERT_EQ(0, registry->registerListener(released, 4));
    ASSERT_EQ(0, registry->registerListener(dumper, 0x20000000));

    std::vector<unsigned char> payload = kstatePayload(5, "state");
    registry->handleMessage(1, kstateMsg(payload));
    int values[2] = {4, 5};
    registry->handleMessage(2, Message{reinterpret_cast<intptr_t>(values), 2});
    registry->handleMessage(4, Message{99, reinterpret_cast<intptr_t>("tgid_error")});
    Vector<String16> args;
    args.add(String16("a"));
    registry->dump(-1, args);

    ASSERT_EQ(1u, kstate->kstate.size());
    EXPECT_EQ(static_cast<int>(payload.size()), kstate->kstate[0].len);
    // The first len bytes are the payload; the rest of the len words are zero.
    const std::vector<unsigned char>& words = kstate->kstate[0].words;
    ASSERT_EQ(payload.size() * 4, words.size());
    EXPECT_TRUE(std::equal(payload.begin(), payload.end(), words.begin()));
    EXPECT_TRUE(std::all_of(words.begin() + payload.size(), words.end(),
                            [](unsigned char c) { return c == 0; }));
    ASSERT_EQ(1u, packets->packets.size());
    EXPECT_EQ((std::vector<int>{4, 5}), packets->packets[0]);
    ASSERT_EQ(1u, released->released.size());
    EXPECT_EQ("99:tgid_error", released->released[0]);
    ASSERT_EQ(1u, dumper->dumps.size());
    EXPECT_EQ("a", dumper->dumps[0]);

    EXPECT_TRUE(packets->kstate.empty() && released->kstate.empty() && dumper->kstate.empty());
    EXPECT_TRUE(kstate->packets.empty() && released->packets.empty() && dumper->packets.empty());
    EXPECT_TRUE(kstate->released.empty() && packets->released.empty());
    EXPECT_TRUE(kstate->dumps.empty() && released->dumps.empty());
}

TEST(Registry, InvalidAndUnusedTypesDeliverNothing) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<FakeListener> all = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(all, 0x3FFFFFFF));
    std::vector<unsigned char> payload = kstatePayload(5, "x");
    for (int type : {0, -1, 0x40000000, 3, 5, 8, 0x20000000}) {
        registry->handleMessage(type, kstateMsg(payload));
    }
    EXPECT_TRUE(all->kstate.empty());
    EXPECT_TRUE(all->packets.empty());
    EXPECT_TRUE(all->released.empty());
    EXPECT_TRUE(all->dumps.empty());
}

TEST(Registry, ClearDeadListenersRemovesOnlyTheDeadBinder) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<FakeListener> a = new FakeListener();
    sp<FakeListener> b = new FakeListener();
    sp<FakeListener> c = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    ASSERT_EQ(0, registry->registerListener(b, 1));
    ASSERT_EQ(0, registry->registerListener(c, 1));
    wp<android::IBinder> who = android::IInterface::asBinder(b);
    registry->clearDeadListeners(who);
    EXPECT_EQ(2u, registry->listenerCount());
    EXPECT_EQ(3, registry->unregisterListener(b));
    // An empty weak reference matches only entries without a binder: none here.
    registry->clearDeadListeners(wp<android::IBinder>());
    EXPECT_EQ(2u, registry->listenerCount());

    std::vector<unsigned char> payload = kstatePayload(5, "after");
    registry->handleMessage(1, kstateMsg(payload));
    EXPECT_EQ(1u, a->kstateCount());
    EXPECT_EQ(0u, b->kstateCount());
    EXPECT_EQ(1u, c->kstateCount());
}

TEST(Registry, BinderCallFromOtherCallerIsNotReported) {
    sp<IQmedBinderListenerService> registry =
            new IQmedBinderListenerService(idleFreezer(), nullptr);
    sp<FakeListener> a = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    std::vector<unsigned char> call = kstatePayload(16, "[TPID 4242 CALLED][PID 4343]");
    registry->handleMessage(1, kstateMsg(call));
    EXPECT_EQ(0u, a->kstateCount());
    // Other kinds are reported without inspection.
    std::vector<unsigned char> other = kstatePayload(2, "[TPID 4242 CALLED][PID 4343]");
    registry->handleMessage(1, kstateMsg(other));
    EXPECT_EQ(1u, a->kstateCount());
}

TEST(Registry, SystemServerThrottleAndTableReset) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    sp<IQmedBinderListenerService> registry =
            new IQmedBinderListenerService(idleFreezer(), nullptr);
    registry->setClock(fakeClock);
    sp<FakeListener> a = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    const int ss = registry->systemServerPid();
    ASSERT_GT(ss, 0);

    std::string text = "[TPID 5000 CALLED][PID " + std::to_string(ss) + "]";
    std::vector<unsigned char> call = kstatePayload(16, text);
    gNow = 1000000;
    registry->handleMessage(1, kstateMsg(call));
    EXPECT_EQ(1u, a->kstateCount());
    gNow += 14;
    registry->handleMessage(1, kstateMsg(call));
    EXPECT_EQ(1u, a->kstateCount());
    gNow += 1;  // 15 s after the first report
    registry->handleMessage(1, kstateMsg(call));
    EXPECT_EQ(2u, a->kstateCount());
    gNow += 14;
    registry->handleMessage(1, kstateMsg(call));
    EXPECT_EQ(2u, a->kstateCount());

    // Target 5000 is one entry; 18 more keep the table, the twentieth empties it.
    for (int t = 1; t <= 18; t++) {
        std::vector<unsigned char> p =
                kstatePayload(16, "[TPID " + std::to_string(6000 + t) + " CALLED][PID " +
                                          std::to_string(ss) + "]");
        registry->handleMessage(1, kstateMsg(p));
    }
    EXPECT_EQ(19u, registry->reportTimeCount());
    std::vector<unsigned char> p20 =
            kstatePayload(16, "[TPID 7000 CALLED][PID " + std::to_string(ss) + "]");
    registry->handleMessage(1, kstateMsg(p20));
    EXPECT_EQ(0u, registry->reportTimeCount());
    EXPECT_EQ(2u + 19u, a->kstateCount());
    // With the table empty, target 5000 reports again at once.
    registry->handleMessage(1, kstateMsg(call));
    EXPECT_EQ(22u, a->kstateCount());
}

TEST(Registry, ShouldReportNeedsTheSystemServer) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    // No registration yet: the system server pid is unknown.
    EXPECT_FALSE(registry->shouldReport(0, 100));
    EXPECT_FALSE(registry->shouldReport(1, 100));
    EXPECT_EQ(0u, registry->reportTimeCount());
}

TEST(Registry, HostilePayloadsNeverOverrun) {
    sp<IQmedBinderListenerService> registry =
            new IQmedBinderListenerService(idleFreezer(), nullptr);
    sp<FakeListener> a = new FakeListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    qmed::host::LogCapture logs;
    bDebug = true;
    // Shorter than the text offset, a kind-16 text without NUL, garbage text.
    std::vector<unsigned char> tiny = {16, 0};
    registry->handleMessage(1, kstateMsg(tiny));
    std::vector<unsigned char> noNul(40, 'A');
    int kind = 16;
    memcpy(noNul.data(), &kind, 4);
    registry->handleMessage(1, kstateMsg(noNul));
    kind = 8;
    memcpy(noNul.data(), &kind, 4);
    registry->handleMessage(1, kstateMsg(noNul));
    std::vector<unsigned char> garbage = kstatePayload(8, "[PID x KILLED]");
    registry->handleMessage(1, kstateMsg(garbage));
    // Null, empty, negative and oversized lengths are dropped.
    registry->handleMessage(1, Message{0, 10});
    registry->handleMessage(1, Message{reinterpret_cast<intptr_t>(tiny.data()), 0});
    registry->handleMessage(1, Message{reinterpret_cast<intptr_t>(tiny.data()), -4});
    registry->handleMessage(1, Message{reinterpret_cast<intptr_t>(tiny.data()), INTPTR_MAX});
    bDebug = false;
    // The kind-16 ones come from no system server: not reported; kind 8 ones are.
    ASSERT_EQ(2u, a->kstateCount());
    EXPECT_EQ(40, a->kstate[0].len);
    EXPECT_TRUE(logs.contains(
            "TYPE_LISTENER_onKstateCallback freezer mask, data:AAAAAAAAAAAAAAAAAAAAAAAA"));
    EXPECT_EQ(4u, logs.count("kstate message dropped"));
}

TEST(Registry, GetPidByNameReadsTheFirstLineOfStatus) {
    char root[] = "/tmp/qmed-proc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(root));
    auto makeProc = [&](const std::string& dir, const std::string& firstLine) {
        std::string path = std::string(root) + "/" + dir;
        mkdir(path.c_str(), 0755);
        std::ofstream(path + "/status") << firstLine << "\nUmask:\t0022\n";
    };
    makeProc("abc", "Name:\tsystem_server");  // not a number
    makeProc("0", "Name:\tsystem_server");    // converts to 0
    makeProc("17", "Name:\tmy app");          // only the first word of the name counts
    makeProc("23", std::string("Name:\t") + std::string(200, 'x'));
    makeProc("31", "Name:\tsystem_server");
    std::ofstream(std::string(root) + "/41") << "Name:\tsystem_server\n";  // a file
    EXPECT_EQ(31, getPidByName("system_server", root));
    EXPECT_EQ(17, getPidByName("my", root));
    EXPECT_EQ(0, getPidByName("my app", root));
    EXPECT_EQ(0, getPidByName("nothing", root));
    EXPECT_EQ(0, getPidByName("system_server", "/nonexistent/proc"));
    std::string cmd = std::string("rm -rf ") + root;
    ASSERT_EQ(0, system(cmd.c_str()));

    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "qmedRegPidName");
    EXPECT_EQ(child.pid(), getPidByName("qmedRegPidName"));
}

}  // namespace
