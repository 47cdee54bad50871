// The stub's caller check over a real cross-process call: a forked child that
// switches to uid 2000 reaches none of the daemon's codes, only the generic ones.

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/daemon/RecordingService.h"

using android::defaultServiceManager;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;

namespace {

const char* kName = "Binder.QmedCallerCheck";

// In the child: every code 1..22 with a valid token and a few ints, then a dump.
// Writes the statuses to fd, one int32 each.
void clientCalls(uid_t uid, int fd) {
    if (uid != 0 && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(3);
    sp<IBinder> service = defaultServiceManager()->checkService(String16(kName));
    if (service == nullptr) _exit(4);
    std::vector<int32_t> statuses;
    for (uint32_t code = 1; code <= 22; code++) {
        Parcel data, reply;
        data.writeInterfaceToken(IQmedBinderService::descriptor);
        for (int i = 0; i < 4; i++) data.writeInt32(1);
        statuses.push_back(service->transact(code, data, &reply, 0));
    }
    int devnull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    statuses.push_back(service->dump(devnull, android::Vector<String16>()));
    ssize_t size = static_cast<ssize_t>(statuses.size() * sizeof(int32_t));
    _exit(write(fd, statuses.data(), statuses.size() * sizeof(int32_t)) == size ? 0 : 5);
}

std::vector<int32_t> runClient(uid_t uid) {
    int fds[2];
    if (pipe(fds) != 0) return {};
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        clientCalls(uid, fds[1]);
    }
    close(fds[1]);
    std::vector<int32_t> statuses(23, 1);
    ssize_t got = read(fds[0], statuses.data(), statuses.size() * sizeof(int32_t));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != static_cast<ssize_t>(statuses.size() * sizeof(int32_t))) return {};
    return statuses;
}

class CallerCheck : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        std::string ns = "qmed-callercheck-" + std::to_string(getpid());
        setenv("BINDER_HOST_NS", ns.c_str(), 1);
        sService = new RecordingService();
        ASSERT_EQ(android::NO_ERROR,
                  defaultServiceManager()->addService(String16(kName), sService));
        android::ProcessState::self()->startThreadPool();
    }
    static sp<RecordingService> sService;
};
sp<RecordingService> CallerCheck::sService;

TEST_F(CallerCheck, ShellUidGetsUnknownTransactionForEveryCode) {
    size_t before = sService->calls().size();
    std::vector<int32_t> statuses = runClient(2000);
    ASSERT_EQ(23u, statuses.size());
    for (uint32_t code = 1; code <= 22; code++) {
        EXPECT_EQ(android::UNKNOWN_TRANSACTION, statuses[code - 1]) << "code " << code;
    }
    // The dump request is generic: it still reaches dump, which checks for itself.
    EXPECT_EQ(android::NO_ERROR, statuses[22]);
    std::vector<std::string> calls = sService->calls();
    ASSERT_EQ(before + 1, calls.size());
    EXPECT_EQ("dump", calls.back());
}

TEST_F(CallerCheck, SystemUidReachesEveryCodeButSixAndSeven) {
    size_t before = sService->calls().size();
    std::vector<int32_t> statuses = runClient(1000);
    ASSERT_EQ(23u, statuses.size());
    for (uint32_t code = 1; code <= 22; code++) {
        if (code == 6 || code == 7) {
            EXPECT_EQ(android::UNKNOWN_TRANSACTION, statuses[code - 1]) << "code " << code;
        } else {
            EXPECT_EQ(android::NO_ERROR, statuses[code - 1]) << "code " << code;
        }
    }
    // 20 operations and the dump.
    EXPECT_EQ(before + 21, sService->calls().size());
}

}  // namespace
