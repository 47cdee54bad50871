// The registry sending through listener proxies to recording binders, over the real freezer at
// /dev/frz (through qmed-ns), and under concurrent posters and registrations (TSan too).

#include <gtest/gtest.h>
#include <limits.h>

#include <atomic>
#include <thread>
#include <tuple>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/support/HubWire.h"
#include "tests/support/TestChild.h"

using android::sp;

namespace qmedtest {
namespace {

const char* kName = "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener";

// The request a listener receives: the interface token, then what follows.
struct W : android::Parcel {
    W() { writeInterfaceToken(android::String16(kName)); }
    W& i32(int32_t v) { return writeInt32(v), *this; }
    W& raw(const void* p, size_t n) { return write(p, n), *this; }
    W& str16(const char* s) { return writeString16(android::String16(s)), *this; }
    W& fd(int f) { return writeFileDescriptor(f, false), *this; }
    Bytes b() const { return Bytes(data(), data() + dataSize()); }
};

Message kstateMsg(const Bytes& p) {
    return Message{(intptr_t)p.data(), (intptr_t)p.size()};
}

time_t gNow = 1000000;

// Over the real freezer: a system server process, a target to freeze, a fake clock.
TEST(Registry, RegistersDeliversByBitThrottlesAndThaws) {
    sp<Freezer> freezer = new Freezer(android::String8("/dev/frz"));
    ASSERT_TRUE(freezer->isFrzInited()) << "run through qmed-ns";
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedRegFrz");
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(freezer, nullptr);
    registry->setClock([](time_t* out) { return out ? *out = gNow : gNow; });
    // No system server known yet: a call from pid 0 is not taken for one.
    registry->handleMessage(1, kstateMsg(eventPayload(16, "[TPID 100 CALLED][PID 0]")));
    EXPECT_EQ(0u, registry->reportTimeCount());
    sp<RecordingBinder> l[5];
    for (auto& x : l) x = new RecordingBinder();
    // {listener (-1: none), mask, code}; registering again keeps the first mask.
    const int regs[][3] = {{-1, 1, 1},         {0, 0, 4},         {0, -1, 4}, {0, 0x40000000, 4},
                           {0, 1, 0},          {1, 2, 0},         {2, 4, 0},  {0, 2, 2},
                           {3, 0x20000000, 0}, {4, 0x3FFFFFFF, 0}};
    for (const auto& r : regs) {
        auto who = r[0] < 0 ? sp<IQmedBinderListener>() : l[r[0]]->proxy();
        EXPECT_EQ(r[2], registry->registerListener(who, r[1])) << r[1];
    }
    EXPECT_EQ(1, registry->unregisterListener(nullptr));
    EXPECT_EQ(3, registry->unregisterListener(sp<RecordingBinder>(new RecordingBinder())->proxy()));
    const Bytes payload = eventPayload(5, "state");
    const intptr_t at = reinterpret_cast<intptr_t>(payload.data());
    int values[2] = {4, -5};
    android::Vector<android::String16> args;
    args.add(android::String16("debug"));
    registry->handleMessage(1, kstateMsg(payload));
    registry->handleMessage(2, Message{reinterpret_cast<intptr_t>(values), 2});
    registry->handleMessage(4, Message{99, reinterpret_cast<intptr_t>("tgid_error")});
    registry->dump(2, args);
    for (int type : {0, 3}) registry->handleMessage(type, kstateMsg(payload));  // invalid, unused
    for (Message m : {Message{0, 10}, Message{at, 0}, Message{at, -4}, Message{at, INTPTR_MAX}}) {
        registry->handleMessage(1, m);  // dropped
    }
    Bytes words = payload;  // a 22-byte event travels as 22 words: the payload, then zeros
    words.resize(88, 0);
    const RecordingBinder::Call k{1, W().i32(22).i32(22).raw(words.data(), 88).b()},
            p{2, W().i32(2).i32(2).i32(4).i32(-5).b()}, r{3, W().i32(99).str16("tgid_error").b()},
            d{100, W().fd(2).i32(1).str16("debug").b()};
    const std::vector<RecordingBinder::Call> want[5] = {{k}, {p}, {r}, {d}, {k, p, r, d}};
    for (int i = 0; i < 5; i++) EXPECT_EQ(want[i], l[i]->calls()) << i;
    // Removal: a death notice takes only the dead binder; an empty reference matches only
    // entries without one.
    registry->clearDeadListeners(l[1]);
    registry->clearDeadListeners(android::wp<android::IBinder>());
    EXPECT_EQ(3, registry->unregisterListener(l[1]->proxy()));
    EXPECT_EQ(4u, registry->listenerCount());

    const std::string ss = std::to_string(registry->systemServerPid()),
                      pid = std::to_string(child.pid());
    auto callOf = [](const std::string& target, const std::string& caller) {
        return "[TPID " + target + " CALLED][PID " + caller + "]";
    };
    // {+s, kind, text, freeze the child first, reported, child frozen after}
    const std::tuple<int, int, std::string, bool, bool, bool> rows[] = {
            {0, 16, callOf("5000", "4343"), false, false, false},  // not from the system server
            {0, 2, callOf("5000", "4343"), false, true, false},    // other kinds go out as they are
            {0, 16, callOf("5000", ss), false, true, false},
            {14, 16, callOf("5000", ss), false, false, false},
            {1, 16, callOf("5000", ss), false, true, false},
            {14, 16, callOf("5000", ss), false, false, false},
            {0, 8, "[PID " + pid + " KILLED][SIG 9]", true, true, true},
            {0, 8, "[PID " + pid + " KILLED][SIG 15]", true, true, true},
            {0, 8, "[PID " + pid + " KILLED][SIG 0]", true, true, false},
            {0, 16, callOf(pid, "-1"), true, true, false},  // reported: the target is frozen
            {0, 16, callOf(pid, "4343"), true, true, true}};
    long reports = 1;
    for (const auto& [advance, kind, text, freeze, reported, frozen] : rows) {
        int list[2] = {child.pid(), -1};
        if (freeze && !freezer->isFreezed(child.pid())) {
            ASSERT_EQ(0, freezer->freezeProcess(Freezer::FREEZE_CMD_FREEZE, list, 2));
        }
        gNow += advance;
        registry->handleMessage(1, kstateMsg(eventPayload(kind, text)));
        EXPECT_EQ(frozen, freezer->isFreezed(child.pid())) << text;
        EXPECT_EQ(reports += reported, long(l[0]->calls().size())) << text << " +" << advance;
    }
    // The proxy refuses what it cannot send whole and returns the listener's answer.
    unsigned char b4[4] = {1, 2, 3, 4};
    for (int len : {0, INT_MAX / 4 + 1}) EXPECT_EQ(-1, l[3]->proxy()->onKstateCallback(len, b4));
    EXPECT_EQ(-1, l[3]->proxy()->onKstateCallback(5, nullptr));
    EXPECT_EQ(7, l[3]->proxy()->onKstateCallback(1, b4));
    android::Mutex::Autolock lock(freezer->lockForTest());  // on record for the binder check
    const BinderCallInfo* info = freezer->getLastBinderCallInfo(child.pid());
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(4343, info->callingPid);
}

TEST(RegistryConcurrency, PostersRegistrarsAndDumpsInterleave) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(
            new Freezer(android::String8("/nonexistent/qmed-registry-concurrency")), nullptr);
    sp<RecordingBinder> kstate = new RecordingBinder(), released = new RecordingBinder();
    ASSERT_EQ(0, registry->registerListener(kstate->proxy(), 1));
    ASSERT_EQ(0, registry->registerListener(released->proxy(), 4));
    std::atomic<bool> stop{false};
    std::vector<std::thread> posters;
    const Bytes ev = eventPayload(3, "event"), call = eventPayload(16, "[TPID 5 CALLED][PID 7]");
    // Kernel-state posters as the hub thread, binder calls among them, and release notices
    // as the limiter loop posts them.
    for (int t = 0; t < 3; t++) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < 400; i++) {
                registry->handleMessage(t == 2 ? 4 : 1, t == 2 ? Message{i, (intptr_t) "low"}
                                                               : kstateMsg(i % 2 ? ev : call));
            }
        });
    }
    std::thread clients([&] {  // coming and going, and dumps
        android::Vector<android::String16> args;
        while (!stop.load()) {
            sp<RecordingBinder> transient = new RecordingBinder();
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
    EXPECT_EQ(400u, kstate->calls().size());
    EXPECT_EQ(400u, released->calls().size());
    EXPECT_EQ(2u, registry->listenerCount());
}

}  // namespace
}  // namespace qmedtest
