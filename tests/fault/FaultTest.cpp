// Faults of the daemon's peers and load against the real ykqmed, its simulator and real
// clients. Built twice: fault_test has Fault.*, fault_load_test (QMED_FAULT_LOAD) Load.*.
// Load durations scale with QMED_FAULT_SCALE. Runs through tools/qmed-ns.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>

#include "daemon/IQmedBinderService.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/FrzGroups.h"

using namespace qmedtest;
using Clock = std::chrono::steady_clock;
using Pids = std::vector<pid_t>;

namespace {

double msSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}
void record(const std::vector<std::pair<const char*, double>>& figures) {
    for (auto& [name, v] : figures) {
        printf("FIGURE %s %.1f\n", name, v);
        ::testing::Test::RecordProperty(name, std::to_string(v));
    }
}
long rssKb(pid_t pid) {
    std::string s = readFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = s.find("VmRSS:");
    return at == std::string::npos ? -1 : atol(s.c_str() + at + 6);
}
bool has(const Pids& v, pid_t p) {
    return std::find(v.begin(), v.end(), p) != v.end();
}
// Pids in the daemon's FROZEN or FREEZING groups.
Pids frozenPids() {
    Pids out;
    for (const auto& g : frzGroups("/dev/frz"))
        if (readFile(g + "/freezer.state").rfind("FR", 0) == 0)
            for (pid_t p : groupPids(g)) out.push_back(p);
    return out;
}
bool isFrozen(pid_t p) {
    return has(frozenPids(), p) && procState(p) == 'D';
}
// Those of pids seen frozen or stopped over ms of sampling (a stop phase lasts under 1 s).
std::string heldDuring(const Pids& pids, int ms) {
    std::set<pid_t> held;
    for (auto end = Clock::now() + std::chrono::milliseconds(ms); Clock::now() < end;) {
        Pids f = frozenPids();
        for (pid_t p : pids)
            if (procState(p) == 'T' || has(f, p)) held.insert(p);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::string s;
    for (pid_t p : held) s += std::to_string(p) + " ";
    return s;
}
std::vector<std::string> cmd(const char* name, const Pids& pids, int arg = -1) {
    std::vector<std::string> a{name};
    for (pid_t p : pids) a.push_back(std::to_string(p));
    if (arg >= 0) a.push_back(std::to_string(arg));
    return a;
}

// Asks the daemon something cheap every periodMs; counts failures, keeps the slowest answer.
struct Prober {
    Prober(const Daemon& d, int periodMs)
        : t([this, periodMs, o = RunOptions{0, d.clientEnv(), 20000}] {
              for (; !stop; count++) {
                  auto t0 = Clock::now();
                  failures += runTool("qmedctl", {"cmdline", "1"}, o).exitCode != 0;
                  maxMs = std::max(maxMs.load(), msSince(t0));
                  std::this_thread::sleep_for(std::chrono::milliseconds(periodMs));
              }
          }) {}
    ~Prober() { finish(); }
    void finish() { stop = true, t.joinable() && (t.join(), true); }
    std::atomic<bool> stop{false};
    std::atomic<int> count{0}, failures{0};
    std::atomic<double> maxMs{0};
    std::thread t;
};

// A real daemon under the simulator; children and clients die with the test, thawed first.
class Fault : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, access("/dev/frz/cgroup.procs", F_OK)) << "run through qmed-ns";
        // A small quarantine, so VmRSS shows what the daemon keeps.
        std::string asan = std::string(getenv("ASAN_OPTIONS") ?: "") + ":quarantine_size_mb=4";
        DaemonOptions o{{}, {}, {{"ASAN_OPTIONS", asan + ":verify_asan_link_order=0"}}, logLevel};
        o.simulator = true;
        d = std::make_unique<Daemon>(o);
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
    ToolResult quick(const std::vector<std::string>& args) const {
        return runTool("qmedctl", args, {0, d->clientEnv(), 5000});
    }
    bool freeze(const Pids& pids) {
        return d->qmedctl(cmd("freeze", pids)).exitCode == 0 &&
               std::all_of(pids.begin(), pids.end(),
                           [](pid_t p) { return waitUntil([&] { return isFrozen(p); }, 5000); });
    }
    // Limiting begins on the fourth cycle, so the first stop comes after a few seconds.
    bool limit(const Pids& pids, int rate) {
        return std::all_of(pids.begin(), pids.end(),
                           [&](pid_t p) { return ctl(cmd("spear", {p}, rate)); }) &&
               std::all_of(pids.begin(), pids.end(), [](pid_t p) {
                   return waitUntil([&] { return procState(p) == 'T'; }, 12000);
               });
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
TEST_F(Fault, ClientKilledWhileHoldingFrozenAndLimitedProcesses) {
    auto client = listen("5");
    Pids frozen = spawn(TestChild::Kind::Sleep, 18), busy = spawn(TestChild::Kind::Busy, 2);
    Pids limited = spawn(TestChild::Kind::Busy, 2);
    frozen.insert(frozen.end(), busy.begin(), busy.end());
    ASSERT_TRUE(freeze(frozen)) << d->log();
    ASSERT_TRUE(limit(limited, 10)) << d->log();
    client->kill(SIGKILL);
    auto t0 = Clock::now();
    ASSERT_TRUE(waitUntil([&] { return frozenPids().empty(); }, 5000));
    record({{"client_death_thaw_ms", msSince(t0)}});
    EXPECT_TRUE(d->waitForLog("Binder client died !!! do fixing"));
    for (pid_t p : busy) EXPECT_TRUE(progresses(p)) << p;
    // Its limits outlive it (a rate change still finds each group) and keep cycling.
    for (pid_t p : limited) EXPECT_TRUE(ctl(cmd("rate", {p}, 20)) && progresses(p)) << p;
    EXPECT_TRUE(ctl({"stop-all"}));
    frozen.insert(frozen.end(), limited.begin(), limited.end());
    EXPECT_EQ("", heldDuring(frozen, 1500));
    EXPECT_TRUE(freeze(spawn(TestChild::Kind::Sleep)));  // the next client is served
    expectHealthy(32 * 1024);
}

TEST_F(Fault, DaemonKilledWithFrozenAndStoppedProcessesRecoversOnRestart) {
    Pids frozen = spawn(TestChild::Kind::Sleep, 4), busy = spawn(TestChild::Kind::Busy, 2);
    Pids limited = spawn(TestChild::Kind::Busy, 2);
    frozen.insert(frozen.end(), busy.begin(), busy.end());
    ASSERT_TRUE(freeze(frozen)) << d->log();
    // At 5 % both are stopped most of each second; kill the daemon when they are.
    ASSERT_TRUE(limit(limited, 5)) << d->log();
    auto bothStopped = [&] { return procState(limited[0]) == 'T' && procState(limited[1]) == 'T'; };
    ASSERT_TRUE(waitUntil(bothStopped, 5000));
    d->kill(SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    for (pid_t p : frozen) EXPECT_TRUE(isFrozen(p)) << p;
    ASSERT_TRUE(bothStopped());
    ASSERT_TRUE(d->start()) << d->log();
    // The pool's start-up clean-up thaws what the dead daemon froze and drops its groups.
    EXPECT_TRUE(waitUntil([&] { return frozenPids().empty(); }, 5000));
    EXPECT_EQ(20u, frzGroups("/dev/frz").size());
    for (pid_t p : busy) EXPECT_TRUE(progresses(p)) << p;
    // Nobody knows the stopped ones until a stop request names them.
    EXPECT_TRUE(bothStopped());
    for (pid_t p : limited) EXPECT_TRUE(ctl(cmd("stop", {p}))) << p;
    frozen.insert(frozen.end(), limited.begin(), limited.end());
    EXPECT_EQ("", heldDuring(frozen, 1500));
    for (pid_t p : limited) EXPECT_TRUE(progresses(p)) << p;
}

TEST_F(Fault, SimulatorVanishingAndComingBackNeitherKillsNorWedgesTheDaemon) {
    auto listener = listen("1");
    ASSERT_EQ(0, d->kmodsim({"event", "kind", "77", "before"}).exitCode);
    ASSERT_TRUE(listener->waitForLine("text=\"before\"")) << listener->output();
    d->stopSimulator();
    // A hub spinning on a dead socket would show here.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    long cpu0 = procCpuTicks(d->pid());
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_LT(procCpuTicks(d->pid()) - cpu0, sysconf(_SC_CLK_TCK)) << "busy without its module";
    // Commands for the module come back instead of hanging; freezing still works.
    EXPECT_NE(128 + SIGKILL, quick({"mask", "5"}).exitCode);
    Pids child = spawn(TestChild::Kind::Busy);
    EXPECT_EQ(0, quick(cmd("freeze", child)).exitCode);
    EXPECT_TRUE(waitUntil([&] { return isFrozen(child[0]); }, 5000));
    EXPECT_EQ(0, quick(cmd("thaw", child)).exitCode);
    EXPECT_TRUE(progresses(child[0], 3000));
    // It opened its channel once at start-up: a reconnect is recorded, not assumed.
    ASSERT_TRUE(d->startSimulator());
    bool back = d->kmodsim({"wait-connected", "2000"}).exitCode == 0;
    bool delivered = back && d->kmodsim({"event", "kind", "77", "after"}).exitCode == 0 &&
                     listener->waitForLine("text=\"after\"", 2000);
    record({{"simulator_back_reconnected", back}, {"simulator_back_event_delivered", delivered}});
    EXPECT_EQ("", heldDuring(child, 300));
    expectHealthy(32 * 1024);
}

// A release notice sent from the limiter's loop would hold every limited process stopped.
TEST_F(Fault, StuckReleaseListenerLeavesNoLimitedProcessStopped) {
    auto listener = listen("4");
    Pids pids = spawn(TestChild::Kind::Busy, 2);
    ASSERT_TRUE(limit(pids, 5)) << d->log();
    listener->kill(SIGSTOP);
    kids[0].kill(SIGKILL);  // its group is released as empty on the next cycle
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    bool progressed = progresses(pids[1], 3000);
    ToolResult stop = quick(cmd("stop", {pids[1]}));
    listener->kill(SIGKILL);
    EXPECT_TRUE(progressed) << "state " << procState(pids[1]) << " while the listener was stuck";
    EXPECT_EQ(0, stop.exitCode) << "stop while the listener was stuck: " << stop.out << stop.err;
    EXPECT_EQ("", heldDuring({pids[1]}, 1500));
    ASSERT_TRUE(d->running());
}

#else
const char* kScaleEnv = getenv("QMED_FAULT_SCALE");
const double kScale = kScaleEnv && atof(kScaleEnv) > 0 ? atof(kScaleEnv) : 1.0;

class Load : public Fault {
  protected:
    Load() { logLevel = "i"; }
    // 1,000 events every 100 ms until end. The simulator answers once the daemon took the
    // whole flood, so an overrunning tick is not made up.
    void flood(Clock::time_point end, std::atomic<long>* sent, std::atomic<int>* commands) {
        for (auto tick = Clock::now(); Clock::now() < end; (*commands)++) {
            ToolResult r = runTool("kmodsim",
                                   {"--ctl", d->simulatorCtl(), "flood", "1000", "kind", "77", "f"},
                                   {0, {}, 60000});
            long n = 0;
            if (r.exitCode == 0 && sscanf(r.out.c_str(), "sent %ld", &n) == 1) *sent += n;
            std::this_thread::sleep_until(tick += std::chrono::milliseconds(100));
        }
    }
};

// A listener that never returns holds the hub (and the registry) until it dies, as a stuck
// binder peer would on the device. Binder threads keep serving, a dead client's processes
// are thawed meanwhile, and once the peer is gone the hub delivers the whole backlog.
TEST_F(Load, EventFloodWithOneListenerStuckInItsCallback) {
    auto ms = [](double s) { return std::chrono::milliseconds(static_cast<long>(s * 1000)); };
    const double secs = 10 * kScale;
    std::atomic<long> sent{0};
    std::atomic<int> commands{0};
    auto a = listen("1"), b = listen("1"), stuck = listen("1"), holder = listen("2");
    Pids held = spawn(TestChild::Kind::Busy);
    ASSERT_TRUE(freeze(held));
    rss0 = rssKb(d->pid());
    const auto start = Clock::now(), end = start + ms(secs);
    std::thread flooder([&] { flood(end, &sent, &commands); });
    Prober prober(*d, 250);
    std::this_thread::sleep_until(start + ms(secs * 0.3));  // all three keep up at first
    record({{"flood_events_per_second_all_listening", sent / (msSince(start) / 1000)}});
    stuck->kill(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    holder->kill(SIGKILL);
    auto died = Clock::now();
    EXPECT_TRUE(waitUntil([&] { return frozenPids().empty(); }, 5000)) << "left frozen";
    record({{"flood_thaw_ms_after_client_death_while_stuck", msSince(died)}});
    std::this_thread::sleep_until(end);
    prober.finish();
    record({{"flood_delivered_a_while_stuck", a->countLines("kind=77")},
            {"flood_delivered_b_while_stuck", b->countLines("kind=77")}});
    ASSERT_TRUE(d->running()) << d->log().substr(0, 4000);
    auto killed = Clock::now();
    stuck->kill(SIGKILL);
    flooder.join();
    double floodSecs = msSince(start) / 1000;
    ToolResult m = d->kmodsim({"event", "kind", "78", "end"});
    EXPECT_EQ(0, m.exitCode) << m.out << m.err;
    EXPECT_TRUE(a->waitForLine("text=\"end\"", 30000) && b->waitForLine("text=\"end\"", 5000));
    record({{"flood_drain_ms_after_stuck_death", msSince(killed)},
            {"flood_seconds", floodSecs},
            {"flood_commands", commands},
            {"flood_events_sent", sent},
            {"flood_delivered_a", a->countLines("kind=77")},
            {"flood_delivered_b", b->countLines("kind=77")},
            {"flood_probe_max_ms", prober.maxMs}});
    for (auto* l : {a.get(), b.get()})  // none dropped
        EXPECT_EQ(sent.load(), static_cast<long>(l->countLines("kind=77")));
    EXPECT_TRUE(progresses(held[0]));
    EXPECT_EQ(0, prober.failures);
    EXPECT_GT(prober.count, 0);
    EXPECT_LT(prober.maxMs, 5000);  // a binder thread answers while the hub is blocked
    EXPECT_TRUE(d->waitForLog("Binder client died !!! do fixing"));
    expectHealthy(64 * 1024);
}

TEST_F(Load, EightClientsWithMixedTransactionsWhileTheLimiterRuns) {
    using S = IQmedBinderService;
    const double secs = 60 * kScale;
    Pids always = spawn(TestChild::Kind::Busy, 2), all = always;
    for (pid_t p : always) ASSERT_TRUE(ctl(cmd("spear", {p}, 30)));  // the loop never pauses
    Pids sleepers = spawn(TestChild::Kind::Sleep, 8), busies = spawn(TestChild::Kind::Busy, 8);
    all.insert(all.end(), sleepers.begin(), sleepers.end());
    all.insert(all.end(), busies.begin(), busies.end());
    int fds[2];  // after the spawns, so that only the clients hold its write end
    ASSERT_EQ(0, pipe(fds));
    std::vector<TestChild> clients;
    auto start = Clock::now();
    for (int i = 0; i < 8; i++) {
        // Freezes and thaws its own sleeper, limits its own busy child, asks questions.
        clients.push_back(TestChild::run([&, s = sleepers[i], b = busies[i]] {
            for (auto& kv : d->clientEnv()) setenv(kv.first.c_str(), kv.second.c_str(), 1);
            auto svc = android::defaultServiceManager()->checkService(
                    android::String16("Binder.Qmed"));
            long ok = 0, errors = 0;
            auto call = [&](uint32_t code, std::vector<int> words, const char* name = nullptr) {
                android::Parcel data, reply;
                data.writeInterfaceToken(S::descriptor);
                for (int w : words) data.writeInt32(w);
                if (name) data.writeString16(android::String16(name)), data.writeInt32(-1);
                bool good = svc && svc->transact(code, data, &reply, 0) == android::NO_ERROR &&
                            reply.readInt32() == 0;
                (good ? ok : errors)++;
            };
            for (int r = 0; Clock::now() < start + std::chrono::duration<double>(secs); r++) {
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
            call(S::STOP_SPEAR, {b});
            call(S::DO_FREEZER, {2, 2, s, -1});
            dprintf(fds[1], "%ld %ld\n", ok, errors);
        }));
    }
    close(fds[1]);
    Prober prober(*d, 1000);
    // A client still running 30 s after the end waits on a transaction that never came back.
    int done = 0;
    for (TestChild& c : clients)
        done += c.reap(std::max(0.0, secs * 1000 + 30000 - msSince(start)));
    prober.finish();
    EXPECT_EQ(8, done) << "clients still waiting on the daemon";
    clients.clear();
    long ok = 0, errors = 0, a, b;
    FILE* in = fdopen(fds[0], "r");
    while (fscanf(in, "%ld %ld", &a, &b) == 2) ok += a, errors += b;
    fclose(in);
    record({{"load_seconds", msSince(start) / 1000},
            {"load_transactions", ok},
            {"load_transactions_per_second", ok / secs},
            {"load_errors", errors},
            {"load_probe_max_ms", prober.maxMs}});
    EXPECT_GT(ok, 0);
    EXPECT_EQ(0, errors);  // refusals are answers; only transport failures count
    EXPECT_EQ(0, prober.failures);
    ASSERT_TRUE(d->running()) << d->log().substr(0, 4000);
    d->qmedctl({"stop-all"});
    EXPECT_EQ("", heldDuring(all, 1500));
    expectHealthy(64 * 1024);
}

#endif
}  // namespace
