// qmedctl against the real daemon under qmed-ns: what status shows, exit codes and warnings.

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <algorithm>
#include <filesystem>

#include "tests/support/DaemonHarness.h"
#include "tests/support/FrzGroups.h"

using namespace qmedtest;
using std::to_string;

namespace {

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Qmedctl : public ::testing::Test {
  protected:
    void SetUp() override {
        d.options().simulator = true;  // without its kernel module the daemon exits
        ASSERT_TRUE(d.start()) << d.log();
    }
    Daemon d;
};

TEST_F(Qmedctl, StatusShowsFrozenAndStoppedProcessesWithTheirNames) {
    ToolResult idle = d.qmedctl({"status"});
    EXPECT_TRUE(idle.exitCode == 0 && has(idle.out, "ykqmed, pid " + to_string(d.pid()) + "\n") &&
                has(idle.out, "/dev/frz, 20 groups, none holding a process\n") &&
                (has(idle.out, "\nnothing held: ") || has(idle.out, "  stopped  ")))
            << idle.out << idle.err;

    const std::string odd = "a \"b\\c\x01";  // a blank, a quote, a backslash, a control byte
    TestChild frozen = TestChild::spawn(TestChild::Kind::Sleep, odd);
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "qmedStatusBusy");
    const std::string f = to_string(frozen.pid()), b = to_string(busy.pid());
    ASSERT_EQ(0, d.qmedctl({"freeze", f}).exitCode);
    ASSERT_EQ(0, d.qmedctl({"spear", b, "10"}).exitCode);
    std::string group;
    for (const std::string& g : frzGroups("/dev/frz")) {
        auto pids = groupPids(g);
        if (std::count(pids.begin(), pids.end(), frozen.pid())) group = g.substr(9);
    }
    ASSERT_FALSE(group.empty());
    // The limited child is stopped for most of each cycle once the limiter has warmed up.
    ToolResult table, json;
    EXPECT_TRUE(waitUntil(
            [&] {
                table = d.qmedctl({"status"});
                json = d.qmedctl({"status", "--json"});
                return has(table.out, "stopped  " + b) &&
                       has(json.out, "\"pid\": " + b + ", \"name\": \"qmedStatusBusy\"");
            },
            20000))
            << table.out << json.out;
    EXPECT_TRUE(has(table.out, "1 holding a process\n") &&
                has(table.out, group + "  FROZEN   " + f) && has(table.out, " a \"b\\\\c\\x01\n"))
            << table.out;
    const std::string path = d.workDir() + "/status.json";
    ASSERT_TRUE(writeFile(path, json.out));
    auto jq = [&](const std::string& filter) { return runCommand({"jq", "-j", filter, path}).out; };
    EXPECT_EQ(group + "|FROZEN|" + odd,
              jq(".held[] | select(.pid == " + f + ") | .group + \"|\" + .state + \"|\" + .name"));
    EXPECT_EQ("qmedStatusBusy", jq(".stopped[] | select(.pid == " + b + ") | .name"));
    EXPECT_EQ(to_string(d.pid()), jq(".daemon.pids[0]"));
}

// Exit status follows the reply: 0 done, 1 refused or failed, 2 usage; warnings go to stderr.
TEST_F(Qmedctl, ExitCodesFollowTheReplyAndWarningsGoToStderr) {
    const std::string dpid = to_string(d.pid());
    std::string tid;  // a thread of the daemon: not a process
    for (const auto& e : std::filesystem::directory_iterator("/proc/" + dpid + "/task"))
        if (e.path().filename() != dpid) tid = e.path().filename();
    // Arguments, exit status, stdout, a part of stderr.
    const std::tuple<std::vector<std::string>, int, std::string, std::string> rows[] = {
            {{"freeze", "999999"}, 0, "freeze: ok (result 0)\n", "no process has pid 999999;"},
            {{"thaw", tid}, 0, "thaw: ok (result 0)\n", " is a thread of process " + dpid},
            {{"dump"}, 0, "", "no listener takes dump requests"},
            {{"kstate-sync", "1"}, 1, "", "kstate-sync failed (result -1)"},
            {{"pidof", "qmedNoSuchName"}, 1, "", "no process named qmedNoSuchName"},
            {{"stop", "999999"}, 1, "", "stop failed"},
            {{"frobnicate"}, 2, "", "unknown command frobnicate"},
            {{"freeze"}, 2, "", "freeze needs at least one pid"},
            {{"cmdline", "x1"}, 2, "", "not a number: x1"},
            {{"status", "--yaml"}, 2, "", "usage: qmedctl status [--json]"},
    };
    for (const auto& [args, code, out, err] : rows) {
        ToolResult r = d.qmedctl(args);
        EXPECT_TRUE(r.exitCode == code && r.out == out && has(r.err, err))
                << args[0] << ": " << r.exitCode << "\n"
                << r.out << r.err;
    }
    // Usage errors are found before the service is looked for.
    RunOptions none{0, {{"BINDER_HOST_NS", "qmedctl-none."}}};
    EXPECT_EQ(2, runTool("qmedctl", {"mask"}, none).exitCode);
    EXPECT_EQ(1, runTool("qmedctl", {"mask", "1"}, none).exitCode);

    BackgroundTool listener("qmedctl", {"listen", "0x20000000"}, d.clientOptions());
    ASSERT_TRUE(listener.waitForLine("listening"));
    ToolResult dump = d.qmedctl({"dump"});
    EXPECT_TRUE(dump.exitCode == 0 && dump.err.empty() &&
                has(dump.out, "qmedctl listener pid " + to_string(listener.pid())))
            << dump.out << dump.err;
    EXPECT_EQ(1, d.qmedctl({"dump"}, 10050).exitCode);  // denied: no dump permission
}

// Runs last: it takes the freezer away from the whole namespace.
TEST_F(Qmedctl, StatusWithoutAHierarchySaysWhereItLooked) {
    ASSERT_EQ(0, umount2("/dev/frz", MNT_DETACH));
    ToolResult r = d.qmedctl({"status"});
    const std::string root = "/proc/" + to_string(d.pid()) + "/root/dev/frz";
    EXPECT_TRUE(r.exitCode == 1 && has(r.out, "freezer: not found at /dev/frz " + root) &&
                has(r.err, "no freezer hierarchy at /dev/frz nor at " + root))
            << r.out << r.err;
}

}  // namespace
