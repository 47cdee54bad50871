// The real ykqmed under load: a kernel event flood with a listener stuck in its callback,
// and eight clients issuing mixed transactions while the limiter runs. Durations scale
// with QMED_FAULT_SCALE. Runs through tools/qmed-ns.

#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utils/String16.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/IQmedBinderService.h"
#include "tests/fault/FaultTestUtil.h"
#include "tests/support/DaemonHarness.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::Parcel;
using android::sp;
using android::String16;
using faulttest::join;
using qmedtest::BackgroundTool;
using qmedtest::Daemon;
using qmedtest::DaemonOptions;
using qmedtest::TestChild;
using qmedtest::waitUntil;
using Clock = std::chrono::steady_clock;

namespace {

void record(const std::string& name, double value) {
    printf("FIGURE %s %.1f\n", name.c_str(), value);
    ::testing::Test::RecordProperty(name, std::to_string(value));
}

Clock::time_point after(Clock::time_point t, double seconds) {
    return t + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

double msSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

// Asks the daemon something cheap from the side, every period, and keeps the slowest answer.
class Prober {
  public:
    Prober(const Daemon& daemon, int periodMs) : mDaemon(daemon) {
        mThread = std::thread([this, periodMs] {
            while (!mStop) {
                qmedtest::RunOptions o = mDaemon.clientOptions();
                o.timeoutMs = 20000;
                auto t0 = Clock::now();
                qmedtest::ToolResult r = qmedtest::runTool("qmedctl", {"cmdline", "1"}, o);
                double ms = msSince(t0);
                {
                    std::lock_guard<std::mutex> l(mLock);
                    mCount++;
                    if (r.exitCode != 0) mFailures++;
                    if (ms > mMaxMs) mMaxMs = ms;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(periodMs));
            }
        });
    }
    ~Prober() { stop(); }
    void stop() {
        mStop = true;
        if (mThread.joinable()) mThread.join();
    }
    int count() const { return mCount; }
    int failures() const { return mFailures; }
    double maxMs() const { return mMaxMs; }

  private:
    const Daemon& mDaemon;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::mutex mLock;
    int mCount = 0;
    int mFailures = 0;
    double mMaxMs = 0;
};

class Load : public faulttest::DaemonFixture {
  protected:
    void startDaemon() { faulttest::DaemonFixture::startDaemon("i"); }
    std::unique_ptr<BackgroundTool> listen(const std::string& mask) {
        std::unique_ptr<BackgroundTool> l(
                new BackgroundTool("qmedctl", {"listen", mask}, mDaemon->clientOptions()));
        EXPECT_TRUE(l->waitForLine("listening mask=")) << l->output();
        return l;
    }

    // 1,000 events every 100 ms until deadline. The simulator answers a flood once the daemon
    // took all of it, so a tick that overruns is not made up.
    void floodUntil(Clock::time_point deadline, double seconds, std::atomic<long>* sent,
                    std::atomic<int>* commands) const {
        const auto start = Clock::now();
        for (int t = 0; Clock::now() < deadline; t++) {
            qmedtest::RunOptions o;
            o.timeoutMs = static_cast<int>(seconds * 1000) + 30000;
            qmedtest::ToolResult r = qmedtest::runTool(
                    "kmodsim",
                    {"--ctl", mDaemon->simulatorCtl(), "flood", "1000", "kind", "77", "f"}, o);
            long n = 0;
            if (r.exitCode == 0 && sscanf(r.out.c_str(), "sent %ld", &n) == 1) *sent += n;
            (*commands)++;
            std::this_thread::sleep_until(start + std::chrono::milliseconds(100 * (t + 1)));
        }
    }

};

// Listener callbacks are synchronous, so a listener that never returns holds the hub (and
// the registry) until it dies, as a stuck binder peer would on the device. The binder
// threads must keep serving meanwhile, and the hub must go on once the peer is gone.
TEST_F(Load, EventFloodWithOneListenerStuckInItsCallback) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    const double seconds = 10 * faulttest::scale();
    // Baseline: the same offered load with nobody listening.
    std::atomic<long> unheard{0};
    std::atomic<int> commands{0};
    auto t0 = Clock::now();
    floodUntil(after(t0, seconds * 0.2), seconds, &unheard, &commands);
    record("flood_events_per_second_no_listener", unheard / (msSince(t0) / 1000));

    auto a = listen("1");
    auto b = listen("1");
    auto stuck = listen("1");
    // A client holding a frozen process, which dies while the hub is blocked.
    auto holder = listen("2");
    mChildren.push_back(TestChild::spawn(TestChild::Kind::Busy));
    const pid_t held = mChildren.back().pid();
    ASSERT_EQ(0, mDaemon->qmedctl({"freeze", std::to_string(held)}).exitCode);
    ASSERT_TRUE(waitUntil([&] { return qmedtest::procState(held) == 'D'; }, 5000));
    long rss0 = faulttest::rssKb(mDaemon->pid());

    const auto start = Clock::now();
    const auto deadline = after(start, seconds);
    std::atomic<long> sent{0};
    commands = 0;
    std::thread flood([&] { floodUntil(deadline, seconds, &sent, &commands); });
    Prober prober(*mDaemon, 250);
    // All three keep up for the first 30 %, then one stops inside its callback.
    std::this_thread::sleep_until(start + std::chrono::duration<double>(seconds * 0.3));
    long sentHealthy = sent;
    double healthyS = msSince(start) / 1000;
    stuck->kill(SIGSTOP);
    // The hub holds the listener table while it waits; the death notice thaws first anyway.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    holder->kill(SIGKILL);
    auto holderDied = Clock::now();
    bool thawedWhileStuck = waitUntil(
            [&] {
                std::vector<pid_t> f = faulttest::frozenPids();
                return std::find(f.begin(), f.end(), held) == f.end();
            },
            5000);
    double thawMs = msSince(holderDied);
    std::this_thread::sleep_until(deadline);
    prober.stop();
    size_t aWhileStuck = a->countLines("kind=77");
    size_t bWhileStuck = b->countLines("kind=77");
    long rss1 = faulttest::rssKb(mDaemon->pid());
    bool survived = mDaemon->running();

    // The stuck peer dies: its pending call fails and the hub carries on with the backlog.
    auto killed = Clock::now();
    stuck->kill(SIGKILL);
    flood.join();
    ASSERT_TRUE(survived) << mDaemon->log().substr(0, 4000);
    double floodS = msSince(start) / 1000;
    qmedtest::RunOptions o;
    o.timeoutMs = 20000;
    qmedtest::ToolResult m = qmedtest::runTool(
            "kmodsim", {"--ctl", mDaemon->simulatorCtl(), "event", "kind", "78", "end"}, o);
    EXPECT_EQ(0, m.exitCode) << "marker not accepted: " << m.out << m.err;
    bool aDone = a->waitForLine("text=\"end\"", 30000);
    bool bDone = b->waitForLine("text=\"end\"", 5000);
    double drainMs = msSince(killed);
    size_t gotA = a->countLines("kind=77");
    size_t gotB = b->countLines("kind=77");

    record("flood_seconds", floodS);
    record("flood_commands", commands);
    record("flood_events_sent", sent);
    record("flood_events_per_second_all_listening", sentHealthy / healthyS);
    record("flood_delivered_a_while_stuck", aWhileStuck);
    record("flood_delivered_b_while_stuck", bWhileStuck);
    record("flood_delivered_a", gotA);
    record("flood_delivered_b", gotB);
    record("flood_dropped_a", sent - static_cast<long>(gotA));
    record("flood_dropped_b", sent - static_cast<long>(gotB));
    record("flood_drain_ms_after_stuck_death", drainMs);
    record("flood_thaw_ms_after_client_death_while_stuck", thawMs);
    record("flood_probe_count", prober.count());
    record("flood_probe_max_ms", prober.maxMs());
    record("flood_rss_before_kb", rss0);
    record("flood_rss_after_kb", rss1);

    EXPECT_TRUE(thawedWhileStuck) << "a dead client's frozen process stayed frozen";
    EXPECT_TRUE(faulttest::progresses(held, 5000));
    EXPECT_TRUE(aDone) << "listener a got " << gotA << " of " << sent;
    EXPECT_TRUE(bDone) << "listener b got " << gotB << " of " << sent;
    // Everything the module handed over reaches the healthy listeners.
    EXPECT_EQ(sent.load(), static_cast<long>(gotA));
    EXPECT_EQ(sent.load(), static_cast<long>(gotB));
    EXPECT_EQ(0, prober.failures());
    EXPECT_GT(prober.count(), 0);
    // Loose: a binder thread answers while the hub is blocked.
    EXPECT_LT(prober.maxMs(), 5000);
    EXPECT_LT(rss1, rss0 + 64 * 1024);
    EXPECT_TRUE(mDaemon->waitForLog("Binder client died !!! do fixing"));
    ASSERT_TRUE(mDaemon->running());
    EXPECT_EQ(0, mDaemon->qmedctl({"cmdline", "1"}).exitCode);
}

// One client process: its own sleeping child to freeze and thaw and its own busy child to
// limit, plus queries. Writes "transactions errors" to fd and exits.
[[noreturn]] void runClient(const std::map<std::string, std::string>& env, pid_t sleeper,
                            pid_t busy, double seconds, int fd) {
    for (auto& kv : env) setenv(kv.first.c_str(), kv.second.c_str(), 1);
    sp<android::IBinder> service =
            android::defaultServiceManager()->checkService(String16("Binder.Qmed"));
    long ok = 0, errors = 0;
    auto call = [&](uint32_t code, const std::function<void(Parcel&)>& fill) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        fill(data);
        if (service != nullptr && service->transact(code, data, &reply, 0) == android::NO_ERROR &&
            reply.readInt32() == 0) {
            ok++;
        } else {
            errors++;
        }
    };
    auto freezer = [&](int action, pid_t pid) {
        call(IQmedBinderService::DO_FREEZER, [&](Parcel& p) {
            p.writeInt32(action);
            p.writeInt32(2);
            p.writeInt32(pid);
            p.writeInt32(-1);
        });
    };
    auto one = [&](uint32_t code, std::vector<int> words) {
        call(code, [&](Parcel& p) {
            for (int w : words) p.writeInt32(w);
        });
    };
    auto end = Clock::now() + std::chrono::duration<double>(seconds);
    for (int round = 0; Clock::now() < end; round++) {
        freezer(1, sleeper);
        one(IQmedBinderService::GET_CMDLINE_BY_PID, {busy});
        one(IQmedBinderService::GET_PROC_UTIME, {busy});
        one(IQmedBinderService::DO_SPEAR, {busy, 40 + round % 20, 0, 0});
        freezer(2, sleeper);
        one(IQmedBinderService::GET_PROC_CPU_TIME, {2, 1, busy});
        one(IQmedBinderService::CHANGE_SPEAR_PARAM, {busy, 50});
        one(IQmedBinderService::PAUSE_SPEAR, {busy, 1});
        call(IQmedBinderService::GET_PID_BY_NAME_AND_UID, [&](Parcel& p) {
            p.writeString16(String16("init"));
            p.writeInt32(-1);
        });
        if (round % 10 == 9) one(IQmedBinderService::STOP_SPEAR, {busy});
    }
    one(IQmedBinderService::STOP_SPEAR, {busy});
    freezer(2, sleeper);
    dprintf(fd, "%ld %ld\n", ok, errors);
    _exit(0);
}

TEST_F(Load, EightClientsWithMixedTransactionsWhileTheLimiterRuns) {
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    const double seconds = 60 * faulttest::scale();
    const int kClients = 8;
    std::vector<pid_t> ours;
    // Limited for the whole run, so the limiter's loop and its signals never pause.
    for (int i = 0; i < 2; i++) {
        mChildren.push_back(TestChild::spawn(TestChild::Kind::Busy));
        ours.push_back(mChildren.back().pid());
        qmedtest::ToolResult r = mDaemon->qmedctl({"spear", std::to_string(ours.back()), "30"});
        ASSERT_NE(std::string::npos, r.out.find("(result 1)")) << r.out << r.err;
    }
    std::vector<pid_t> sleepers, busies;
    for (int i = 0; i < kClients; i++) {
        mChildren.push_back(TestChild::spawn(TestChild::Kind::Sleep));
        sleepers.push_back(mChildren.back().pid());
        mChildren.push_back(TestChild::spawn(TestChild::Kind::Busy));
        busies.push_back(mChildren.back().pid());
    }
    ours.insert(ours.end(), sleepers.begin(), sleepers.end());
    ours.insert(ours.end(), busies.begin(), busies.end());
    long rss0 = faulttest::rssKb(mDaemon->pid());

    int pipeFd[2];
    ASSERT_EQ(0, pipe(pipeFd));
    std::vector<pid_t> clients;
    auto start = Clock::now();
    for (int i = 0; i < kClients; i++) {
        pid_t c = fork();
        ASSERT_GE(c, 0);
        if (c == 0) {
            close(pipeFd[0]);
            runClient(mDaemon->clientEnv(), sleepers[i], busies[i], seconds, pipeFd[1]);
        }
        clients.push_back(c);
    }
    close(pipeFd[1]);

    double probeMax = 0;
    int probeFailures = 0;
    {
        Prober prober(*mDaemon, 1000);
        // Watchdog: a client that never finishes means a transaction never came back.
        size_t done = 0;
        auto deadline = start + std::chrono::duration<double>(seconds + 30);
        while (done < clients.size() && Clock::now() < deadline) {
            for (pid_t& c : clients) {
                if (c > 0 && waitpid(c, nullptr, WNOHANG) == c) {
                    c = -1;
                    done++;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        prober.stop();
        probeMax = prober.maxMs();
        probeFailures = prober.failures();
        for (pid_t c : clients) {
            if (c > 0) {
                kill(c, SIGKILL);
                waitpid(c, nullptr, 0);
            }
        }
        EXPECT_EQ(clients.size(), done) << "clients still waiting on the daemon";
    }
    double elapsed = msSince(start) / 1000;

    long ok = 0, errors = 0;
    FILE* in = fdopen(pipeFd[0], "r");
    long a, b;
    int reports = 0;
    while (in != nullptr && fscanf(in, "%ld %ld", &a, &b) == 2) {
        ok += a;
        errors += b;
        reports++;
    }
    if (in != nullptr) fclose(in);
    EXPECT_EQ(kClients, reports);
    record("load_seconds", elapsed);
    record("load_transactions", ok);
    record("load_transactions_per_second", ok / seconds);
    record("load_errors", errors);
    record("load_probe_max_ms", probeMax);
    EXPECT_GT(ok, 0);
    // Refusals are answers; only transport failures count here.
    EXPECT_EQ(0, errors);
    EXPECT_EQ(0, probeFailures);
    ASSERT_TRUE(mDaemon->running()) << mDaemon->log().substr(0, 4000);

    mDaemon->qmedctl({"stop-all"});
    EXPECT_EQ("", join(faulttest::heldDuring(ours, 1500)));
    long rss1 = faulttest::rssKb(mDaemon->pid());
    record("load_rss_before_kb", rss0);
    record("load_rss_after_kb", rss1);
    EXPECT_LT(rss1, rss0 + 64 * 1024);
}

}  // namespace
