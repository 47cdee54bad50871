// Behaviour that depends on the 32-bit target's word sizes: 32-bit long, 4-byte
// pointers, 8-byte aligned 64-bit fields. Runs natively and on armhf; both must
// give the device's answers.

#include <gtest/gtest.h>
#include <host/LogCapture.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "freezer/Freezer.h"
#include "tests/limiter/DrivenLimiter.h"

namespace {

TEST(WordSize, BinderCallInfoBytes) {
    BinderCallInfo info = {};
    info.time = 0x0102030405060708LL;
    info.callingPid = 0x11223344;
    unsigned char bytes[sizeof(BinderCallInfo)];
    memcpy(bytes, &info, sizeof(bytes));
    // The 64-bit time keeps 8-byte alignment under the ARM EAABI as on x86_64, so
    // there is no tail padding difference between the two.
    const unsigned char golden[16] = {8, 7, 6, 5, 4, 3, 2, 1, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0};
    ASSERT_EQ(sizeof(golden), sizeof(bytes));
    EXPECT_EQ(0, memcmp(golden, bytes, sizeof(golden)));
}

// The loop's age is taken in microseconds as an unsigned 32-bit value, so it wraps
// after 4294.967296 s (71 min 34.97 s): 71 minutes still read 71, 72 read 0.
TEST(WordSize, StatisticsDurationWrapsWithThe32BitMicrosecondCount) {
    android::sp<qmedtest::DrivenLimiter> pl = new qmedtest::DrivenLimiter();
    qmed::host::LogCapture log;
    pl->mLoopRunning = true;
    struct Case {
        long seconds;
        const char* text;
    };
    const Case cases[] = {
            {71 * 60, ", duration: 71min value="},
            {4294, ", duration: 71min value="},
            {4295, ", duration: 0min value="},
            {72 * 60, ", duration: 0min value="},
            {4295 + 71 * 60, ", duration: 71min value="},
    };
    for (const Case& c : cases) {
        pl->mLoopStart = pl->mNow;
        pl->mLoopStart.tv_sec -= c.seconds;
        size_t before = log.count(c.text);
        pl->reportQmedState();
        EXPECT_EQ(before + 1, log.count(c.text)) << c.seconds << " s";
    }
    pl->mLoopRunning = false;
}

}  // namespace
