// The listener registry with in-process listeners, over the real cgroup freezer at /dev/frz
// (run through qmed-ns).

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <sys/stat.h>

#include <functional>

#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/support/HubWire.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::sp;
using android::String8;
using Registry = android::sp<IQmedBinderListenerService>;
using Listener = android::sp<qmedtest::RecordingListener>;

namespace qmedtest {
namespace {

Message kstateMsg(const Bytes& payload) {
    return Message{reinterpret_cast<intptr_t>(payload.data()),
                   static_cast<intptr_t>(payload.size())};
}

time_t gNow = 1000000;
time_t fakeClock(time_t* out) {
    return out ? *out = gNow : gNow;
}

TEST(Registry, RegistrationCodes) {
    Registry registry = new IQmedBinderListenerService(nullptr, nullptr);
    Listener a = new RecordingListener(), stranger = new RecordingListener();
    auto reg = [&](const Listener& l, int mask) { return registry->registerListener(l, mask); };
    auto unreg = [&](const Listener& l) { return registry->unregisterListener(l); };
    const std::function<int()> calls[] = {
            [&] { return reg(nullptr, 1); },    [&] { return reg(a, 0); },
            [&] { return reg(a, -1); },         [&] { return reg(a, 0x40000000); },
            [&] { return reg(a, 0x3FFFFFFF); }, [&] { return reg(a, 1); },
            [&] { return unreg(nullptr); },     [&] { return unreg(stranger); },
            [&] { return unreg(a); },           [&] { return unreg(a); }};
    const int codes[] = {1, 4, 4, 4, 0, 2, 1, 3, 0, 3};
    for (int i = 0; i < 10; i++) EXPECT_EQ(codes[i], calls[i]()) << i;
    EXPECT_EQ(0u, registry->listenerCount());
}

TEST(Registry, DeliversEachTypeToTheListenersWithItsBitOnly) {
    Registry registry = new IQmedBinderListenerService(nullptr, nullptr);
    const int masks[] = {1, 2, 4, 0x20000000, 0x20000001};
    Listener l[5];
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(0, registry->registerListener(l[i] = new RecordingListener(), masks[i]));
    }
    ASSERT_EQ(2, registry->registerListener(l[2], 1));  // the first mask stays
    qmed::host::LogCapture logs;
    const Bytes payload = eventPayload(5, "state");
    registry->handleMessage(1, kstateMsg(payload));
    int values[2] = {4, 5};
    registry->handleMessage(2, Message{reinterpret_cast<intptr_t>(values), 2});
    registry->handleMessage(4, Message{99, reinterpret_cast<intptr_t>("tgid_error")});
    android::Vector<android::String16> args;
    args.add(android::String16("a"));
    registry->dump(-1, args);
    for (int type : {0, -1, 0x40000000, 3, 5, 8, 0x20000000}) {  // invalid or unused
        registry->handleMessage(type, kstateMsg(payload));
    }
    const intptr_t at = reinterpret_cast<intptr_t>(payload.data());
    for (Message m : {Message{0, 10}, Message{at, 0}, Message{at, -4}, Message{at, INTPTR_MAX}}) {
        registry->handleMessage(1, m);
    }
    EXPECT_EQ(4u, logs.count("kstate message dropped"));
    const std::vector<std::string> want[5] = {
            {}, {"packets 4 5"}, {"release 99 tgid_error"}, {"dump a"}, {"dump a"}};
    Bytes words = payload;  // then zeros up to the len words the proxy sends
    words.resize(payload.size() * 4, 0);
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(want[i], l[i]->otherCalls()) << i;
        EXPECT_EQ(i % 4 ? std::vector<Bytes>() : std::vector<Bytes>{words}, l[i]->kstateCalls());
    }
}

TEST(Registry, ClearDeadListenersRemovesOnlyTheDeadBinder) {
    Registry registry = new IQmedBinderListenerService(nullptr, nullptr);
    Listener l[3];
    for (Listener& x : l) ASSERT_EQ(0, registry->registerListener(x = new RecordingListener(), 1));
    registry->clearDeadListeners(android::IInterface::asBinder(l[1]));
    // An empty reference matches only entries without a binder: none here.
    registry->clearDeadListeners(android::wp<android::IBinder>());
    EXPECT_EQ(3, registry->unregisterListener(l[1]));
    registry->handleMessage(1, kstateMsg(eventPayload(5, "after")));
    for (int i = 0; i < 3; i++) EXPECT_EQ(i == 1 ? 0u : 1u, l[i]->kstateCalls().size()) << i;
}

TEST(Registry, ReportsSystemServerCallsOncePerTargetEvery15sAndHostileTextsSafely) {
    TestChild systemServer = TestChild::spawn(TestChild::Kind::Sleep, "system_server");
    // Over a freezer root that does not exist: nothing is ever frozen.
    Registry registry = new IQmedBinderListenerService(
            new Freezer(String8("/nonexistent/qmed-registry-test")), nullptr);
    registry->setClock(fakeClock);
    EXPECT_FALSE(registry->shouldReport(0, 100));  // no system server known yet
    Listener a = new RecordingListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    ASSERT_GT(registry->systemServerPid(), 0);
    const std::string ss = std::to_string(registry->systemServerPid());
    auto post = [&](int kind, const std::string& text) {
        registry->handleMessage(1, kstateMsg(eventPayload(kind, text)));
        return a->kstateCalls().size();
    };
    auto call = [&](int target, const std::string& caller) {
        return post(16, "[TPID " + std::to_string(target) + " CALLED][PID " + caller + "]");
    };
    EXPECT_EQ(0u, call(4242, "4343"));                       // not from the system server
    EXPECT_EQ(1u, post(2, "[TPID 4242 CALLED][PID 4343]"));  // other kinds go out as they are
    const std::pair<int, size_t> rows[] = {{0, 2}, {14, 2}, {1, 3}, {14, 3}};  // {+s, reports}
    for (const auto& [advance, reports] : rows) {
        gNow += advance;
        EXPECT_EQ(reports, call(5000, ss)) << advance;
    }
    // Target 5000 is one entry; 18 more keep the table, the twentieth empties it.
    for (int t = 1; t <= 18; t++) call(6000 + t, ss);
    EXPECT_EQ(19u, registry->reportTimeCount());
    EXPECT_EQ(22u, call(7000, ss));
    EXPECT_EQ(0u, registry->reportTimeCount());
    EXPECT_EQ(23u, call(5000, ss));  // reported at once with the table empty

    // Texts without NUL or that do not parse: the kill ones are reported.
    qmed::host::LogCapture logs;
    bDebug = true;
    Bytes noNul(40, 'A');
    for (uint8_t kind : {16, 8}) {
        noNul[0] = kind, noNul[1] = noNul[2] = noNul[3] = 0;
        registry->handleMessage(1, kstateMsg(noNul));
    }
    registry->handleMessage(1, kstateMsg({16, 0}));
    bDebug = false;
    EXPECT_EQ(25u, post(8, "[PID x KILLED]"));
    EXPECT_EQ(160u, a->kstateCalls()[23].size());
    EXPECT_TRUE(logs.contains("freezer mask, data:" + std::string(24, 'A')));
}

TEST(Registry, GetPidByNameReadsTheFirstWordOfTheFirstStatusLine) {
    char root[] = "/tmp/qmed-proc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(root));
    // Not a number, 0, a name of two words, a long one, the one; then a plain file.
    const std::pair<std::string, std::string> procs[] = {{"abc", "system_server"},
                                                         {"0", "system_server"},
                                                         {"17", "my app"},
                                                         {"23", std::string(200, 'x')},
                                                         {"31", "system_server"}};
    for (const auto& [dir, name] : procs) {
        mkdir((root + ("/" + dir)).c_str(), 0755);
        writeFile(root + ("/" + dir) + "/status", "Name:\t" + name + "\nUmask:\t0022\n");
    }
    writeFile(root + std::string("/41"), "Name:\tsystem_server\n");
    const std::pair<const char*, int> rows[] = {
            {"system_server", 31}, {"my", 17}, {"my app", 0}, {"nothing", 0}};
    for (const auto& [name, pid] : rows) EXPECT_EQ(pid, getPidByName(name, root)) << name;
    EXPECT_EQ(0, getPidByName("system_server", "/nonexistent/proc"));
    runCommand({"rm", "-rf", root});
    TestChild child = TestChild::spawn(TestChild::Kind::Sleep, "qmedRegPidName");
    EXPECT_EQ(child.pid(), getPidByName("qmedRegPidName"));
}

TEST(RegistryFreezer, OnlyOneWayCallsAndLowMemoryKillsThaw) {
    sp<Freezer> freezer = new Freezer(String8("/dev/frz"));
    ASSERT_TRUE(freezer->isFrzInited()) << "run through qmed-ns";
    Registry registry = new IQmedBinderListenerService(freezer, nullptr);
    Listener a = new RecordingListener();
    ASSERT_EQ(0, registry->registerListener(a, 1));
    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedRegFrz");
    struct Thaw {  // before the child is killed, whatever happens
        sp<Freezer> f;
        ~Thaw() { f->thawAll(false); }
    } thaw{freezer};
    const std::string pid = std::to_string(child.pid());
    const std::tuple<int, std::string, bool> rows[] = {
            // {kind, text, still frozen}
            {8, "[PID " + pid + " KILLED][SIG 9]", true},
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
