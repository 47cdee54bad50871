// QmedBinderService's own operations on real files and processes, and its forwards to
// the real engines. Runs through qmed-ns: the constructor brings up the freezer at /dev/frz.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "daemon/QmedBinderService.h"
#include "daemon/QmedGlobals.h"
#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "tests/listener/FakeListener.h"
#include "tests/support/TestChild.h"
#include "tests/support/ToolRunner.h"

using android::sp;
using android::String16;
using android::String8;
using android::Vector;
using qmedtest::readFile;
using qmedtest::TestChild;
using qmedtest::writeFile;

namespace {

class ServiceOps : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        char dir[] = "/tmp/qmed-ops-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        sDir = dir;
        sWatchdog = sDir + "/watchdog";
        ASSERT_TRUE(writeFile(sWatchdog, ""));
        sService = new QmedBinderService(sWatchdog.c_str());
    }
    static void TearDownTestSuite() {
        sService.clear();
        std::string cmd = "rm -rf " + sDir;
        system(cmd.c_str());
    }
    void TearDown() override { bDebug = false; }

    static std::string path(const std::string& name) { return sDir + "/" + name; }

    static std::string sDir;
    static std::string sWatchdog;
    static sp<QmedBinderService> sService;
};
std::string ServiceOps::sDir;
std::string ServiceOps::sWatchdog;
sp<QmedBinderService> ServiceOps::sService;

TEST_F(ServiceOps, KillStopsAtTheMinusOneTerminator) {
    TestChild first = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillA");
    TestChild second = TestChild::spawn(TestChild::Kind::Sleep, "qmedKillB");
    const int a = first.pid(), b = second.pid();
    qmed::host::LogCapture logs;
    int pids[3] = {a, -1, b};
    EXPECT_EQ(0, sService->killProcess(pids, 3));
    EXPECT_TRUE(first.reap(2000));
    EXPECT_TRUE(qmedtest::processExists(b));
    EXPECT_TRUE(logs.contains("I/Qmed-QmedBinderService: kill " + std::to_string(a) + " succ"));

    EXPECT_EQ(-1, sService->killProcess(pids, 0));
    EXPECT_EQ(-1, sService->killProcess(nullptr, 2));
    EXPECT_EQ(2u, logs.count("killProcess Params format is not correct"));
    // A pid that no longer exists fails alone; the result is still 0.
    int gone[2] = {a, b};
    EXPECT_EQ(0, sService->killProcess(gone, 2));
    EXPECT_TRUE(logs.contains("E/Qmed-QmedBinderService: kill " + std::to_string(a) + " error"));
    EXPECT_TRUE(second.reap(2000));
}

TEST_F(ServiceOps, UserTimeOfALiveAndAMissingProcess) {
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "qmedUtime");
    ASSERT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procUtime(busy.pid()) >= 5; }, 5000));
    long before = qmedtest::procUtime(busy.pid());
    int utime = sService->getProcUTime(busy.pid());
    long after = qmedtest::procUtime(busy.pid());
    EXPECT_GE(utime, before);
    EXPECT_LE(utime, after);
    busy.kill();
    qmed::host::LogCapture logs;
    EXPECT_EQ(-1, sService->getProcUTime(busy.pid()));
    EXPECT_TRUE(logs.contains("E/Qmed-QmedBinderService: open /proc/" + std::to_string(busy.pid()) +
                              "/stat fail"));
}

TEST_F(ServiceOps, UserTimeTakesTheNameAsOneToken) {
    // The name is read as one blank-free token, so the rest of a name with blanks breaks
    // the scan and the value stays 0 although the process has used CPU time.
    TestChild busy = TestChild::spawn(TestChild::Kind::Busy, "qmed u t");
    ASSERT_TRUE(qmedtest::waitUntil([&] { return qmedtest::procUtime(busy.pid()) >= 2; }, 5000));
    EXPECT_EQ(0, sService->getProcUTime(busy.pid()));
}

TEST_F(ServiceOps, WatchdogRecordIsWrittenByteForByte) {
    ASSERT_TRUE(writeFile(sWatchdog, ""));
    EXPECT_EQ(0, sService->setPowerWatchdog(1, 10, 20, String8("x")));
    EXPECT_EQ("TYPE=1 DURATION=10 HOLDTIME=20 EXTEND=x", readFile(sWatchdog));
    // The node is neither truncated nor appended to: each record starts at offset 0.
    const std::string dots(48, '.');
    ASSERT_TRUE(writeFile(sWatchdog, dots));
    EXPECT_EQ(0, sService->setPowerWatchdog(-2, -1, 0, String8("")));
    const std::string record = "TYPE=-2 DURATION=-1 HOLDTIME=0 EXTEND=";
    EXPECT_EQ(record + dots.substr(record.size()), readFile(sWatchdog));

    sp<QmedBinderService> missing = new QmedBinderService(path("no-watchdog").c_str());
    qmed::host::LogCapture logs;
    EXPECT_EQ(-1, missing->setPowerWatchdog(1, 1, 1, String8("y")));
    EXPECT_TRUE(
            logs.contains("E/Qmed-QmedBinderService: Failed to open No such file or directory"));
    struct stat st;
    EXPECT_NE(0, stat(path("no-watchdog").c_str(), &st));
}

TEST_F(ServiceOps, ReadFileNodeCases) {
    ASSERT_TRUE(writeFile(path("abc"), "abc"));
    ASSERT_TRUE(writeFile(path("n42"), "42\n"));
    ASSERT_TRUE(writeFile(path("neg"), "-17 trailing"));
    ASSERT_TRUE(writeFile(path("long"), "123456789012345678901234"));
    ASSERT_TRUE(writeFile(path("empty"), ""));
    EXPECT_EQ(0, sService->readFileNode(path("abc").c_str(), 7));
    EXPECT_EQ(42, sService->readFileNode(path("n42").c_str(), 7));
    EXPECT_EQ(-17, sService->readFileNode(path("neg").c_str(), 7));
    EXPECT_EQ(0, sService->readFileNode(path("empty").c_str(), 7));
    // Only the first 20 bytes count; atoi saturates like the device's.
    EXPECT_EQ(atoi("12345678901234567890"), sService->readFileNode(path("long").c_str(), 7));
    qmed::host::LogCapture logs;
    EXPECT_EQ(7, sService->readFileNode(path("missing").c_str(), 7));
    EXPECT_EQ(-9, sService->readFileNode(nullptr, -9));
    EXPECT_TRUE(logs.contains("readFileNode params are not valid"));
    // A directory opens but cannot be read.
    EXPECT_EQ(5, sService->readFileNode(sDir.c_str(), 5));
    EXPECT_TRUE(logs.contains("E/Qmed-QmedBinderService: Failed to read"));
}

TEST_F(ServiceOps, WriteFileNodeNeverCreates) {
    ASSERT_TRUE(writeFile(path("node"), "0000"));
    EXPECT_TRUE(sService->writeFileNode(path("node").c_str(), "12"));
    EXPECT_EQ("1200", readFile(path("node")));
    EXPECT_FALSE(sService->writeFileNode(path("not-there").c_str(), "1"));
    struct stat st;
    EXPECT_NE(0, stat(path("not-there").c_str(), &st));
    EXPECT_FALSE(sService->writeFileNode(nullptr, "1"));
    EXPECT_FALSE(sService->writeFileNode(path("node").c_str(), nullptr));
    // A write the node refuses. Not /proc/self: under qemu-arm that is the emulator's
    // own writable copy.
    EXPECT_FALSE(sService->writeFileNode("/proc/1/stat", "1"));
}

TEST_F(ServiceOps, DestroySocketsRefusesRootAndBadUids) {
    qmed::host::LogCapture logs;
    EXPECT_EQ(-1, sService->destroySockets(0, 0));
    EXPECT_EQ(-1, sService->destroySockets(-5, 100));
    EXPECT_EQ(2u, logs.count("destroySockets Params format is not correct"));
}

TEST_F(ServiceOps, KernelStateForwardsFailWithoutTheModule) {
    // No kernel module has identified itself: every send fails, getSync always does.
    EXPECT_EQ(-1, sService->getKstateSync(1));
    EXPECT_EQ(-1, sService->setKstateMask(5));
    EXPECT_EQ(-1, sService->setKWakelock(3, "abc", 1, 3));
}

TEST_F(ServiceOps, FreezerForwardAndThawOnClientDeath) {
    TestChild child = TestChild::spawn(TestChild::Kind::Busy, "qmedOpsFrz");
    int pid = child.pid();
    // Freeze lists end with -1.
    int list[2] = {pid, -1};
    EXPECT_EQ(-1, sService->doFreezer(1, list, 1));
    ASSERT_EQ(0, sService->doFreezer(1, list, 2));
    EXPECT_TRUE(Freezer::getInstance()->isFreezed(pid));
    EXPECT_EQ(-1, sService->doFreezer(9, list, 2));

    sp<FakeListener> listener = new FakeListener();
    ASSERT_EQ(0, sService->registerListener(listener, 1));
    EXPECT_EQ(2, sService->registerListener(listener, 4));
    qmed::host::LogCapture logs;
    sService->binderDied(android::IInterface::asBinder(listener));
    EXPECT_TRUE(logs.contains("E/Qmed-QmedBinderService: Binder client died !!! do fixing"));
    EXPECT_FALSE(Freezer::getInstance()->isFreezed(pid));
    EXPECT_EQ(3, sService->unregisterListener(listener));
}

TEST_F(ServiceOps, DumpForwardsAndDebugArgumentSticks) {
    sp<FakeListener> dumper = new FakeListener();
    ASSERT_EQ(0, sService->registerListener(dumper, TYPE_LISTENER_dump));
    char out[] = "/tmp/qmed-dump-XXXXXX";
    int fd = mkstemp(out);
    ASSERT_GE(fd, 0);

    Vector<String16> two;
    two.add(String16("debug"));
    two.add(String16("x"));
    EXPECT_EQ(0, sService->dump(fd, two));
    EXPECT_FALSE(bDebug);
    Vector<String16> one;
    one.add(String16("debug"));
    EXPECT_EQ(0, sService->dump(fd, one));
    EXPECT_TRUE(bDebug);
    EXPECT_EQ(0, sService->dump(fd, Vector<String16>()));
    EXPECT_TRUE(bDebug);
    close(fd);
    ASSERT_EQ(3u, dumper->dumps.size());
    EXPECT_EQ("debugx", dumper->dumps[0]);
    EXPECT_EQ("fake listener\nfake listener\nfake listener\n", readFile(out));
    unlink(out);
    EXPECT_EQ(0, sService->unregisterListener(dumper));
}

}  // namespace
