// The listener proxy's request bytes, captured by a local binder, and the registry with
// in-process listeners over the real cgroup freezer at /dev/frz (run through qmed-ns).

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <tuple>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListener.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/support/HubWire.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::Parcel;
using Registry = android::sp<IQmedBinderListenerService>;
using Listener = android::sp<qmedtest::RecordingListener>;

namespace qmedtest {
namespace {

struct RecordingBinder : android::BBinder {
    android::status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                 uint32_t flags) override {
        calls.emplace_back(code, flags, Bytes(data.data(), data.data() + data.dataSize()), -1);
        if (code == IQmedBinderListener::DUMP) {
            data.setDataPosition(W().token().b.size());
            std::get<3>(calls.back()) = dup(data.readFileDescriptor());
        }
        if (replies) reply->writeInt32(7);
        return android::NO_ERROR;
    }
    // Golden bytes in the platform's layout, built by hand.
    struct W {
        W& i32(int32_t v) { return raw(&v, 4); }
        W& raw(const void* p, size_t n) {
            b.insert(b.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
            b.resize((b.size() + 3) & ~size_t(3), 0);
            return *this;
        }
        W& str16(const std::string& ascii) {
            std::u16string s(ascii.begin(), ascii.end());
            return i32(static_cast<int32_t>(s.size())).raw(s.c_str(), (s.size() + 1) * 2);
        }
        // Strict-mode word with the gather bit, unset work source, 'SYST', descriptor.
        W& token() {
            return i32(INT_MIN)
                    .i32(-1)
                    .i32(0x53595354)
                    .str16("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener");
        }
        Bytes b;
    };
    std::vector<std::tuple<uint32_t, uint32_t, Bytes, int>> calls;  // code, flags, bytes, fd
    bool replies = true;
};
using W = RecordingBinder::W;

TEST(ListenerProxy, RequestBytesPerCallback) {
    android::sp<RecordingBinder> binder = new RecordingBinder();
    android::sp<IQmedBinderListener> proxy = IQmedBinderListener::asInterface(binder);
    unsigned char payload[20];
    for (int i = 0; i < 20; i++) payload[i] = static_cast<unsigned char>(0xA0 + i);
    const int values[3] = {10, -2, 0x7fffffff};
    // {call, transaction code (0: refused without one), request bytes}
    const std::tuple<std::function<int()>, uint32_t, Bytes> rows[] = {
            // A 5-byte event travels as five words: the buffer holds 20 bytes.
            {[&] { return proxy->onKstateCallback(5, payload); }, 1,
             W().token().i32(5).i32(5).raw(payload, 20).b},
            {[&] { return proxy->onKstateCallback(0, payload); }, 0, {}},
            {[&] { return proxy->onKstateCallback(INT_MAX / 4 + 1, payload); }, 0, {}},
            {[&] { return proxy->onKstateCallback(5, nullptr); }, 0, {}},
            {[&] { return proxy->onNetworkPacketCallback(3, values); }, 2,
             W().token().i32(3).i32(3).i32(10).i32(-2).i32(0x7fffffff).b},
            {[&] { return proxy->onNetworkPacketCallback(0, nullptr); }, 2,
             W().token().i32(0).i32(0).b},
            {[&] { return proxy->onStopProcSpearCallback(4321, "low_rate"); }, 3,
             W().token().i32(4321).str16("low_rate").b},
            {[&] { return proxy->onStopProcSpearCallback(1, ""); }, 3,
             W().token().i32(1).str16("").b},
    };
    for (const auto& [call, code, bytes] : rows) {
        binder->calls.clear();
        EXPECT_EQ(code ? 7 : -1, call()) << hexOf(bytes);
        ASSERT_EQ(code ? 1u : 0u, binder->calls.size()) << hexOf(bytes);
        if (code != 0) {
            EXPECT_EQ(std::make_tuple(code, 0u, bytes, -1), binder->calls[0]);
        }
    }
    binder->replies = false;  // an empty reply reads as 0
    EXPECT_EQ(0, proxy->onKstateCallback(1, payload));
}

TEST(ListenerProxy, DumpSendsTheCallersFdThenCountAndArguments) {
    android::sp<RecordingBinder> binder = new RecordingBinder();
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    android::Vector<android::String16> args;
    args.add(android::String16("debug"));
    args.add(android::String16("x"));
    IQmedBinderListener::asInterface(binder)->dump(fds[1], args);
    Parcel prefix;  // the fd takes one object slot
    prefix.writeInterfaceToken(IQmedBinderListener::descriptor);
    prefix.writeFileDescriptor(fds[1], false);
    ASSERT_EQ(1u, binder->calls.size());
    const auto& [code, flags, bytes, fd] = binder->calls[0];
    EXPECT_EQ(100u, code);
    Bytes token = W().token().b, tail = W().i32(2).str16("debug").str16("x").b;
    ASSERT_EQ(prefix.dataSize() + tail.size(), bytes.size());
    EXPECT_EQ(token, Bytes(bytes.begin(), bytes.begin() + token.size()));
    EXPECT_EQ(tail, Bytes(bytes.begin() + prefix.dataSize(), bytes.end()));
    char c = 0;  // the fd that arrives is the caller's pipe, still open on its side
    ASSERT_EQ(1, write(fd, "z", 1));
    ASSERT_EQ(1, read(fds[0], &c, 1));
    for (int f : {fd, fds[0], fds[1]}) close(f);
}

Message kstateMsg(const Bytes& payload) {
    return Message{reinterpret_cast<intptr_t>(payload.data()),
                   static_cast<intptr_t>(payload.size())};
}

TEST(Registry, RegistersOnceAndDeliversEachTypeToTheListenersWithItsBit) {
    Registry registry = new IQmedBinderListenerService(nullptr, nullptr);
    Listener l[5], stranger = new RecordingListener();
    for (Listener& x : l) x = new RecordingListener();
    // {listener (-1: none), mask, code}; registering again keeps the first mask.
    const int regs[][3] = {{-1, 1, 1},         {0, 0, 4},         {0, -1, 4}, {0, 0x40000000, 4},
                           {0, 1, 0},          {1, 2, 0},         {2, 4, 0},  {0, 2, 2},
                           {3, 0x20000000, 0}, {4, 0x3FFFFFFF, 0}};
    for (const auto& r : regs) {
        EXPECT_EQ(r[2], registry->registerListener(r[0] < 0 ? Listener() : l[r[0]], r[1])) << r[1];
    }
    EXPECT_EQ(1, registry->unregisterListener(nullptr));
    EXPECT_EQ(3, registry->unregisterListener(stranger));
    qmed::host::LogCapture logs;
    const Bytes payload = eventPayload(5, "state");
    const intptr_t at = reinterpret_cast<intptr_t>(payload.data());
    int values[2] = {4, 5};
    registry->handleMessage(1, kstateMsg(payload));
    registry->handleMessage(2, Message{reinterpret_cast<intptr_t>(values), 2});
    registry->handleMessage(4, Message{99, reinterpret_cast<intptr_t>("tgid_error")});
    android::Vector<android::String16> args;
    args.add(android::String16("a"));
    registry->dump(-1, args);
    for (int type : {0, -1, 0x40000000, 3, 5, 8, 0x20000000}) {  // invalid or unused
        registry->handleMessage(type, kstateMsg(payload));
    }
    for (Message m : {Message{0, 10}, Message{at, 0}, Message{at, -4}, Message{at, INTPTR_MAX}}) {
        registry->handleMessage(1, m);
    }
    EXPECT_EQ(4u, logs.count("kstate message dropped"));
    const std::vector<std::string> want[5] = {{},
                                              {"packets 4 5"},
                                              {"release 99 tgid_error"},
                                              {"dump a"},
                                              {"packets 4 5", "release 99 tgid_error", "dump a"}};
    Bytes words = payload;  // then zeros up to the len words the proxy sends
    words.resize(payload.size() * 4, 0);
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(want[i], l[i]->otherCalls()) << i;
        EXPECT_EQ(i % 4 ? std::vector<Bytes>() : std::vector<Bytes>{words}, l[i]->kstateCalls());
    }
    // Removal: a death notice takes only the dead binder; an empty reference matches only
    // entries without one.
    registry->clearDeadListeners(android::IInterface::asBinder(l[1]));
    registry->clearDeadListeners(android::wp<android::IBinder>());
    EXPECT_EQ(3, registry->unregisterListener(l[1]));
    EXPECT_EQ(0, registry->unregisterListener(l[0]));
    EXPECT_EQ(3, registry->unregisterListener(l[0]));
    EXPECT_EQ(3u, registry->listenerCount());
}

time_t gNow = 1000000;
time_t fakeClock(time_t* out) {
    return out ? *out = gNow : gNow;
}

TEST(Registry, ReportsSystemServerCallsOncePerTargetEvery15s) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    // Over a freezer root that does not exist: nothing is ever frozen.
    Registry registry = new IQmedBinderListenerService(
            new Freezer(android::String8("/nonexistent/qmed-registry-test")), nullptr);
    registry->setClock(fakeClock);
    EXPECT_FALSE(registry->shouldReport(0, 100));  // no system server known yet
    Listener a = new RecordingListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    ASSERT_GT(registry->systemServerPid(), 0);
    const std::string ss = std::to_string(registry->systemServerPid());
    auto post = [&](int kind, int target, const std::string& caller) {
        std::string text = "[TPID " + std::to_string(target) + " CALLED][PID " + caller + "]";
        registry->handleMessage(1, kstateMsg(eventPayload(kind, text)));
        return a->kstateCalls().size();
    };
    EXPECT_EQ(0u, post(16, 4242, "4343"));  // not from the system server
    EXPECT_EQ(1u, post(2, 4242, "4343"));   // other kinds go out as they are
    const std::pair<int, size_t> rows[] = {{0, 2}, {14, 2}, {1, 3}, {14, 3}};  // {+s, reports}
    for (const auto& [advance, reports] : rows) {
        gNow += advance;
        EXPECT_EQ(reports, post(16, 5000, ss)) << advance;
    }
    // Target 5000 is one entry; 18 more keep the table, the twentieth empties it.
    for (int t = 1; t <= 18; t++) post(16, 6000 + t, ss);
    EXPECT_EQ(19u, registry->reportTimeCount());
    EXPECT_EQ(22u, post(16, 7000, ss));
    EXPECT_EQ(0u, registry->reportTimeCount());
    EXPECT_EQ(23u, post(16, 5000, ss));  // reported at once with the table empty
}

TEST(Registry, GetPidByNameReadsTheFirstWordOfTheFirstStatusLine) {
    char root[] = "/tmp/qmed-proc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(root));
    for (const std::string& name : {std::string(200, 'x'), std::string("my app")}) {
        std::string dir = root + ("/" + std::to_string(name.size()));
        mkdir(dir.c_str(), 0755);
        writeFile(dir + "/status", "Name:\t" + name + "\nUmask:\t0022\n");
    }
    EXPECT_EQ(6, getPidByName("my", root));  // the first word of the name, at most 50 bytes
    EXPECT_EQ(200, getPidByName(std::string(50, 'x').c_str(), root));
    EXPECT_EQ(0, getPidByName("my app", root));
    EXPECT_EQ(0, getPidByName("my", "/nonexistent/proc"));
    runCommand({"rm", "-rf", root});
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "qmedRegPidName");
    EXPECT_EQ(child.pid(), getPidByName("qmedRegPidName"));
}

TEST(RegistryFreezer, OnlyOneWayCallsAndLowMemoryKillsThaw) {
    android::sp<Freezer> freezer = new Freezer(android::String8("/dev/frz"));
    ASSERT_TRUE(freezer->isFrzInited()) << "run through qmed-ns";
    Registry registry = new IQmedBinderListenerService(freezer, nullptr);
    Listener a = new RecordingListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedRegFrz");
    struct Thaw {  // before the child is killed, whatever happens
        android::sp<Freezer> f;
        ~Thaw() { f->thawAll(false); }
    } thaw{freezer};
    const std::string pid = std::to_string(child.pid());
    const std::tuple<int, std::string, bool> rows[] = {
            // {kind, text, still frozen}
            {8, "[PID " + pid + " KILLED][SIG 9]", true},
            {8, "[PID " + pid + " KILLED][SIG 15]", true},
            {8, "[PID " + pid + " KILLED][SIG 0]", false},
            {16, "[TPID " + pid + " CALLED][PID -1]", false},
            {16, "[TPID " + pid + " CALLED][PID 4343]", true}};
    size_t reports = 0;
    for (const auto& [kind, text, frozen] : rows) {
        int list[2] = {child.pid(), -1};
        if (!freezer->isFreezed(child.pid())) {
            ASSERT_EQ(0, freezer->freezeProcess(Freezer::FREEZE_CMD_FREEZE, list, 2));
        }
        registry->handleMessage(1, kstateMsg(eventPayload(kind, text)));
        EXPECT_EQ(frozen, freezer->isFreezed(child.pid())) << text;
        EXPECT_EQ(++reports, a->kstateCalls().size()) << text;  // reported: the target is frozen
    }
    android::Mutex::Autolock lock(freezer->lockForTest());  // on record for the binder check
    const BinderCallInfo* info = freezer->getLastBinderCallInfo(child.pid());
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(4343, info->callingPid);
}

}  // namespace
}  // namespace qmedtest
