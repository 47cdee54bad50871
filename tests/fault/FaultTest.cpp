// Faults of its peers and load against the real ykqmed, run through tools/qmed-ns. Built twice:
// fault_test has Fault.*, fault_load_test Load.*, its durations scaled by QMED_FAULT_SCALE.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>

#include "daemon/IQmedBinderService.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/FrzGroups.h"

using namespace qmedtest;
using Clock = std::chrono::steady_clock;
using Pids = std::vector<pid_t>;
constexpr auto kBusy = TestChild::Kind::Busy, kSleep = TestChild::Kind::Sleep;

namespace {

double msSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}
void record() {}
template <typename... Rest>
void record(const char* name, double v, const Rest&... rest) {
    printf("FIGURE %s %.1f\n", name, v);
    record(rest...);
}
long rssKb(pid_t pid) {
    std::string s = readFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = s.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(s.c_str() + at + 6);
}
template <typename... T>
std::vector<std::string> cmd(const char* name, T... v) {
    return {name, std::to_string(v)...};
}

// A real daemon under the simulator; children and clients die with the test, thawed first.
class Fault : public ::testing::Test {
  protected:
    void SetUp() override {
        // A small quarantine, so VmRSS shows what the daemon keeps.
        std::string a = std::string(getenv("ASAN_OPTIONS") ?: "") + ":quarantine_size_mb=4";
        a += ":verify_asan_link_order=0";
        d = std::make_unique<Daemon>(
                DaemonOptions{{}, {}, {{"ASAN_OPTIONS", a}}, logLevel, true, true});
        ASSERT_TRUE(d->start()) << d->log();
        ASSERT_EQ(0, d->kmodsim({"wait-identified", "5000"}).exitCode);
        rss0 = rssKb(d->pid());
    }
    Pids spawn(TestChild::Kind k, int n = 1) {
        Pids out;
        for (int i = 0; i < n; i++) out.push_back(kids.emplace_back(TestChild::spawn(k)).pid());
        return out;
    }
    ::testing::AssertionResult ctl(const std::vector<std::string>& args) {
        ToolResult r = d->qmedctl(args);
        if (r.out.find("(result 1)") != std::string::npos) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "qmedctl " << args[0] << ": " << r.out << r.err;
    }
    // Some child is in one of states: T stopped, D frozen (frozen tasks sleep uninterruptibly).
    bool anyIn(const char* states) {
        return std::any_of(kids.begin(), kids.end(),
                           [&](const TestChild& k) { return strchr(states, procState(k.pid())); });
    }
    bool freeze(const Pids& pids) {
        std::vector<std::string> a{"freeze"};
        for (pid_t p : pids) a.push_back(std::to_string(p));
        return d->qmedctl(a).exitCode == 0 && std::all_of(pids.begin(), pids.end(), [](pid_t p) {
                   return waitFrozen("/dev/frz", p);
               });
    }
    // Limiting begins on the fourth cycle, so the first stop comes after a few seconds.
    bool limit(const Pids& pids, int rate) {
        for (pid_t p : pids)
            if (!ctl(cmd("spear", p, rate))) return false;
        return waitUntil([&] { return procState(pids.back()) == 'T'; }, 12000);  // the last
    }
    std::unique_ptr<BackgroundTool> listen(const char* mask) {
        auto l = std::make_unique<BackgroundTool>(
                "qmedctl", std::vector<std::string>{"listen", mask}, d->clientOptions());
        EXPECT_TRUE(l->waitForLine("listening")) << l->output();
        return l;
    }
    void expectHealthy(long rssSlackKb) {
        ASSERT_TRUE(d->running()) << d->log().substr(0, 4000);
        EXPECT_EQ(0, d->qmedctl({"cmdline", "1"}).exitCode);
        EXPECT_LT(rssKb(d->pid()), rss0 + rssSlackKb);
    }

    const char* logLevel = "d";
    long rss0 = 0;
    std::unique_ptr<Daemon> d;
    std::vector<TestChild> kids;
};

#ifndef QMED_FAULT_LOAD
// One daemon's life: its module goes and comes back, a release listener gets stuck, and the
// client holding frozen and limited processes dies.
TEST_F(Fault, PeersDieWhileProcessesAreFrozenAndStopped) {
    auto client = listen("5");  // kernel events and release notices
    ASSERT_EQ(0, d->kmodsim({"event", "kind", "77", "before"}).exitCode);
    ASSERT_TRUE(client->waitForLine("text=\"before\"")) << client->output();
    // Without its module the hub blocks instead of spinning; module commands come back.
    d->stopSimulator();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    long cpu0 = procCpuTicks(d->pid());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_LT(procCpuTicks(d->pid()) - cpu0, sysconf(_SC_CLK_TCK)) << "busy without its module";
    EXPECT_NE(128 + SIGKILL, d->qmedctl({"mask", "5"}).exitCode);
    Pids frozen = spawn(kSleep, 18), busy = spawn(kBusy, 2), limited = spawn(kBusy, 3);
    frozen.insert(frozen.end(), busy.begin(), busy.end());
    ASSERT_TRUE(freeze(frozen)) << d->log();  // freezing also tells the missing module
    ASSERT_TRUE(limit(limited, 10)) << d->log();
    // It opened its channel once at start-up: a reconnect is recorded, not assumed.
    ASSERT_TRUE(d->startSimulator());
    bool back = d->kmodsim({"wait-connected", "2000"}).exitCode == 0;
    bool delivered = back && d->kmodsim({"event", "kind", "77", "after"}).exitCode == 0 &&
                     client->waitForLine("text=\"after\"", 2000);
    record("simulator_back_reconnected", back, "simulator_back_event_delivered", delivered);

    // A release notice sent from the limiter's loop would keep the others stopped and its
    // lock taken while the listener is stuck.
    client->kill(SIGSTOP);
    kids.back().kill(SIGKILL);  // its group is released as empty on the next cycle
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_TRUE(progresses(limited[0], 3000)) << "stopped while the listener was stuck";
    EXPECT_TRUE(ctl(cmd("rate", limited[0], 10))) << "while the listener was stuck";

    client->kill(SIGKILL);
    auto t0 = Clock::now();
    ASSERT_TRUE(waitUntil([&] { return !anyIn("D"); }, 5000));
    record("client_death_thaw_ms", msSince(t0));
    for (pid_t p : busy) EXPECT_TRUE(progresses(p)) << p;
    // Its limits outlive it (a rate change still finds each group) and keep cycling.
    limited.pop_back();
    for (pid_t p : limited) EXPECT_TRUE(ctl(cmd("rate", p, 20)) && progresses(p)) << p;

    expectHealthy(32 * 1024);
}

#else
const double kScale = atof(getenv("QMED_FAULT_SCALE") ?: "1");

struct Load : Fault {
    Load() { logLevel = "i"; }  // the flood's events are logged at debug level
};

// A listener that never returns holds the hub (and the registry) until it dies, as a stuck
// binder peer would. Binder threads keep serving and a dead client's processes are thawed
// meanwhile; once the peer is gone the hub delivers the whole backlog.
TEST_F(Load, EventFloodWithOneListenerStuckInItsCallback) {
    const std::chrono::duration<double> secs(10 * kScale);
    std::atomic<long> sent{0};
    std::atomic<int> probeFailures{0};
    std::atomic<double> probeMaxMs{0};
    std::atomic<bool> probing{true};
    auto a = listen("1"), b = listen("1"), stuck = listen("1"), holder = listen("2");
    ASSERT_TRUE(freeze(spawn(kBusy)));
    const auto start = Clock::now();
    const auto end = start + secs;
    // 1,000 events every 100 ms. The simulator answers once the daemon took the whole
    // flood, so an overrunning tick is not made up.
    std::thread flooder([&] {
        for (auto tick = start; Clock::now() < end;) {
            ToolResult r = runTool("kmodsim",
                                   {"--ctl", d->simulatorCtl(), "flood", "1000", "kind", "77", "f"},
                                   {0, {}, 60000});
            long n = 0;
            if (r.exitCode == 0 && sscanf(r.out.c_str(), "sent %ld", &n) == 1) sent += n;
            std::this_thread::sleep_until(tick += std::chrono::milliseconds(100));
        }
    });
    std::thread prober([&, o = RunOptions{0, d->clientEnv(), 20000}] {  // cheap side calls
        for (; probing; std::this_thread::sleep_for(std::chrono::milliseconds(250))) {
            auto t0 = Clock::now();
            probeFailures += runTool("qmedctl", {"cmdline", "1"}, o).exitCode != 0;
            probeMaxMs = std::max(probeMaxMs.load(), msSince(t0));
        }
    });
    std::this_thread::sleep_until(start + secs * 0.3);  // all three keep up at first
    stuck->kill(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    holder->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return !anyIn("D"); }, 5000)) << "left frozen";
    std::this_thread::sleep_until(end);
    probing = false;
    prober.join();
    auto killed = Clock::now();
    stuck->kill(SIGKILL);
    flooder.join();
    EXPECT_EQ(0, d->kmodsim({"event", "kind", "78", "end"}).exitCode);
    EXPECT_TRUE(a->waitForLine("text=\"end\"", 30000) && b->waitForLine("text=\"end\"", 5000));
    long gotA = a->countLines("kind=77"), gotB = b->countLines("kind=77");
    record("flood_drain_ms_after_stuck_death", msSince(killed), "flood_events_sent", sent,
           "flood_delivered_a", gotA, "flood_delivered_b", gotB, "flood_dropped",
           sent - std::min(gotA, gotB), "flood_probe_max_ms", probeMaxMs);
    EXPECT_EQ(sent.load(), gotA);  // none dropped
    EXPECT_EQ(sent.load(), gotB);
    EXPECT_TRUE(progresses(kids[0].pid()));
    EXPECT_EQ(0, probeFailures);
    EXPECT_LT(probeMaxMs, 5000);  // a binder thread answers while the hub is blocked
    expectHealthy(64 * 1024);
}

TEST_F(Load, EightClientsWithMixedTransactionsWhileTheLimiterRuns) {
    using S = IQmedBinderService;
    const std::chrono::duration<double> secs(60 * kScale);
    for (pid_t p : spawn(kBusy, 2)) ASSERT_TRUE(ctl(cmd("spear", p, 30)));  // the loop never pauses
    Pids sleepers = spawn(kSleep, 8), busies = spawn(kBusy, 8);
    // Answered and failed transactions of all clients.
    auto* counts = static_cast<std::atomic<long>*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, counts);
    std::vector<TestChild> clients;
    auto start = Clock::now();
    for (int i = 0; i < 8; i++) {
        // Freezes and thaws its own sleeper, limits its own busy child, asks questions.
        clients.push_back(TestChild::run([&, s = sleepers[i], b = busies[i]] {
            for (auto& kv : d->clientEnv()) setenv(kv.first.c_str(), kv.second.c_str(), 1);
            auto svc = android::defaultServiceManager()->checkService(
                    android::String16("Binder.Qmed"));
            auto call = [&](uint32_t code, std::vector<int> words, const char* name = nullptr) {
                android::Parcel data, reply;
                data.writeInterfaceToken(S::descriptor);
                for (int w : words) data.writeInt32(w);
                if (name) data.writeString16(android::String16(name)), data.writeInt32(-1);
                bool good = svc && svc->transact(code, data, &reply, 0) == android::NO_ERROR &&
                            reply.readInt32() == 0;
                counts[good ? 0 : 1]++;
            };
            for (int r = 0; Clock::now() < start + secs; r++) {
                call(S::DO_FREEZER, {1, 2, s, -1});
                call(S::GET_CMDLINE_BY_PID, {b});
                call(S::GET_PROC_UTIME, {b});
                call(S::DO_SPEAR, {b, 40 + r % 20, 0, 0});
                call(S::DO_FREEZER, {2, 2, s, -1});
                call(S::GET_PROC_CPU_TIME, {2, 1, b});
                call(S::CHANGE_SPEAR_PARAM, {b, 50});
                call(S::PAUSE_SPEAR, {b, 1});
                call(S::GET_PID_BY_NAME_AND_UID, {}, "init");
                if (r % 10 == 9) call(S::STOP_SPEAR, {b});
            }
        }));
    }
    // A client still running 30 s after the end waits on a transaction that never came back.
    int done = 0;
    for (TestChild& c : clients)
        done += c.reap(std::max(0.0, secs.count() * 1000 + 30000 - msSince(start)));
    EXPECT_EQ(8, done) << "clients still waiting on the daemon";
    long ok = counts[0], errors = counts[1];
    record("load_seconds", msSince(start) / 1000, "load_transactions", ok,
           "load_transactions_per_second", ok / secs.count(), "load_errors", errors);
    EXPECT_GT(ok, 0);
    EXPECT_EQ(0, errors);  // refusals are answers; only transport failures count
    d->qmedctl({"stop-all"});
    EXPECT_FALSE(waitUntil([&] { return anyIn("TD"); }, 1500));  // a stop phase lasts under 1 s
    expectHealthy(64 * 1024);
}

#endif
}  // namespace
