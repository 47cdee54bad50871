// BnQmedBinderService::onTransact with crafted parcels, called in-process as root:
// every code's arguments, replies, refusals and log lines.

#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "daemon/QmedGlobals.h"
#include "tests/daemon/RecordingService.h"
#include "tests/listener/FakeListener.h"

using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;

namespace {

class ServiceStub : public ::testing::Test {
  protected:
    void SetUp() override { mService = new RecordingService(); }
    void TearDown() override { bDebug = false; }

    Parcel& request() {
        mData.freeData();
        mData.writeInterfaceToken(IQmedBinderService::descriptor);
        return mData;
    }

    status_t call(uint32_t code) {
        mReply.freeData();
        mData.setDataPosition(0);
        status_t status = mService->onTransact(code, mData, &mReply, 0);
        mReply.setDataPosition(0);
        return status;
    }

    // Reply words as int32s.
    std::vector<int32_t> replyInts() {
        std::vector<int32_t> out;
        mReply.setDataPosition(0);
        while (mReply.dataAvail() >= 4) out.push_back(mReply.readInt32());
        return out;
    }

    std::string lastCall() {
        std::vector<std::string> calls = mService->calls();
        return calls.empty() ? "" : calls.back();
    }

    sp<RecordingService> mService;
    Parcel mData;
    Parcel mReply;
};

TEST_F(ServiceStub, DescriptorAndLocalLookup) {
    EXPECT_EQ(String16("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinder"),
              IQmedBinderService::descriptor);
    EXPECT_EQ(IQmedBinderService::descriptor, mService->getInterfaceDescriptor());
    EXPECT_EQ(mService.get(), mService->queryLocalInterface(IQmedBinderService::descriptor).get());
    EXPECT_EQ(nullptr, mService->queryLocalInterface(String16("com.example.Other")).get());
}

TEST_F(ServiceStub, WrongTokenGivesMinusOneAndEmptyReply) {
    qmed::host::LogCapture logs;
    for (uint32_t code = 1; code <= 22; code++) {
        if (code == 6 || code == 7) continue;
        mData.freeData();
        mData.writeInterfaceToken(
                String16("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderX"));
        mData.writeInt32(1);
        mData.writeInt32(1);
        mData.writeInt32(1);
        EXPECT_EQ(-1, call(code)) << "code " << code;
        EXPECT_EQ(0u, mReply.dataSize()) << "code " << code;
    }
    // A parcel without any token is refused the same way.
    mData.freeData();
    EXPECT_EQ(-1, call(4));
    EXPECT_TRUE(mService->calls().empty());
    EXPECT_EQ(0u, logs.count("Qmed-IQmedBinderService"));
}

TEST_F(ServiceStub, UnsupportedCodesGoToTheDefaultHandler) {
    qmed::host::LogCapture logs;
    for (uint32_t code : {0u, 6u, 7u, 23u, 1000u}) {
        request().writeInt32(1);
        EXPECT_EQ(android::UNKNOWN_TRANSACTION, call(code)) << "code " << code;
    }
    EXPECT_TRUE(mService->calls().empty());
    EXPECT_EQ(1u, logs.count("E/Qmed-IQmedBinderService: monitorNetPacket not support now!!!"));
}

TEST_F(ServiceStub, ListenerCodesPassListenerOrNull) {
    sp<FakeListener> listener = new FakeListener();
    mService->result = 2;
    request().writeStrongBinder(android::IInterface::asBinder(listener));
    mData.writeInt32(0x20000001);
    ASSERT_EQ(0, call(1));
    EXPECT_EQ("registerListener(listener,536870913)", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, 2}), replyInts());

    request().writeStrongBinder(nullptr);
    mData.writeInt32(1);
    ASSERT_EQ(0, call(1));
    EXPECT_EQ("registerListener(null,1)", lastCall());

    request().writeStrongBinder(android::IInterface::asBinder(listener));
    ASSERT_EQ(0, call(2));
    EXPECT_EQ("unregisterListener(listener)", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, 2}), replyInts());
}

TEST_F(ServiceStub, ListBoundsOfFreezeCpuTimeAndKill) {
    qmed::host::LogCapture logs;
    for (int num : {0, -5, 201}) {
        request().writeInt32(1);
        mData.writeInt32(num);
        mData.writeInt32(123);
        ASSERT_EQ(0, call(3));
        EXPECT_EQ((std::vector<int32_t>{0, -1}), replyInts()) << num;

        request().writeInt32(2);
        mData.writeInt32(num);
        ASSERT_EQ(0, call(9));
        // Only the no-exception marker: no string at all.
        EXPECT_EQ(4u, mReply.dataSize()) << num;

        request().writeInt32(num);
        ASSERT_EQ(0, call(12));
        EXPECT_EQ((std::vector<int32_t>{0, -1}), replyInts()) << num;
    }
    EXPECT_TRUE(mService->calls().empty());
    EXPECT_TRUE(
            logs.contains("E/Qmed-IQmedBinderService: ****doFreezer num is too larger. action is "
                          "1, pid num is 201***"));
    EXPECT_TRUE(
            logs.contains("E/Qmed-IQmedBinderService: qm get proc num is bad, type: 2, num: -5."));
    EXPECT_TRUE(logs.contains(
            "E/Qmed-IQmedBinderService: ****killProcess num is too larger. pid num is 0***"));
    EXPECT_TRUE(logs.contains("I/Qmed-IQmedBinderService: ****action is 1, pid num is -5***"));

    std::string expected = "[";
    request().writeInt32(4);
    mData.writeInt32(200);
    for (int i = 0; i < 200; i++) {
        mData.writeInt32(1000 + i);
        expected += (i ? " " : "") + std::to_string(1000 + i);
    }
    expected += "]";
    mService->result = 0;
    ASSERT_EQ(0, call(3));
    EXPECT_EQ("doFreezer(4," + expected + ")", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, 0}), replyInts());

    request().writeInt32(200);
    for (int i = 0; i < 200; i++) mData.writeInt32(1000 + i);
    ASSERT_EQ(0, call(12));
    EXPECT_EQ("killProcess(" + expected + ")", lastCall());

    request().writeInt32(1);
    mData.writeInt32(200);
    for (int i = 0; i < 200; i++) mData.writeInt32(1000 + i);
    ASSERT_EQ(0, call(9));
    EXPECT_EQ("getProcCpuTime(1," + expected + ")", lastCall());
    EXPECT_TRUE(logs.contains("I/Qmed-IQmedBinderService: ****killProcess, pid num is 200***"));
}

TEST_F(ServiceStub, CpuTimeGetsAZeroedBufferAndRepliesItsText) {
    request().writeInt32(0);
    mData.writeInt32(1);
    mData.writeInt32(0);
    ASSERT_EQ(0, call(9));
    EXPECT_TRUE(mService->bufferWasZero);
    EXPECT_EQ(0, mReply.readInt32());
    EXPECT_EQ(String16("0\t12\tinit\t"), mReply.readString16());
    EXPECT_EQ(0u, mReply.dataAvail());
}

TEST_F(ServiceStub, CmdLineUsesA64ByteBuffer) {
    request().writeInt32(321);
    ASSERT_EQ(0, call(10));
    EXPECT_EQ("getCmdLineByPid(321)", lastCall());
    EXPECT_EQ(64, mService->bufferLength);
    EXPECT_TRUE(mService->bufferWasZero);
    EXPECT_EQ(0, mReply.readInt32());
    EXPECT_EQ(String16("/system/bin/app"), mReply.readString16());

    // An operation that fills all 64 bytes still gives a terminated string.
    mService->cmdText = std::string(64, 'c');
    request().writeInt32(1);
    ASSERT_EQ(0, call(10));
    EXPECT_EQ(0, mReply.readInt32());
    EXPECT_EQ(String16(std::string(63, 'c').c_str()), mReply.readString16());
}

TEST_F(ServiceStub, PidByNameRepliesTheOutValueNotTheResult) {
    mService->result = -1;
    request().writeString16(String16("system_server"));
    mData.writeInt32(1000);
    ASSERT_EQ(0, call(11));
    EXPECT_EQ("getPidByNameAndUid(system_server,1000,-1)", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, -1}), replyInts());

    mService->outPid = 4242;
    request().writeString16(String16("x"));
    mData.writeInt32(-1);
    ASSERT_EQ(0, call(11));
    EXPECT_EQ((std::vector<int32_t>{0, 4242}), replyInts());
}

TEST_F(ServiceStub, WakelockPassesTheUtf8Length) {
    request().writeInt32(3);
    mData.writeString16(String16("abc"));
    mData.writeInt32(1);
    ASSERT_EQ(0, call(13));
    EXPECT_EQ("setKWakelock(3,abc,1,3)", lastCall());
    request().writeInt32(3);
    mData.writeString16(String16(u"\u00e9t\u00e9"));
    mData.writeInt32(9);
    ASSERT_EQ(0, call(13));
    EXPECT_EQ("setKWakelock(3,\xc3\xa9t\xc3\xa9,9,5)", lastCall());
}

TEST_F(ServiceStub, PowerWatchdogTakesTheLow32BitsOfEachLong) {
    qmed::host::LogCapture logs;
    bDebug = true;
    request().writeInt32(1);
    mData.writeInt64((int64_t{1} << 32) + 5);
    mData.writeInt64(0xFFFFFFFFll);
    mData.writeString16(String16("x"));
    ASSERT_EQ(0, call(15));
    EXPECT_EQ("setPowerWatchdog(1,5,-1,x)", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, 0}), replyInts());
    EXPECT_TRUE(
            logs.contains("D/Qmed-IQmedBinderService: ****type is 1 hold is 5 duration is -1***"));
}

TEST_F(ServiceStub, ScalarCodesUnmarshalInTableOrder) {
    struct Case {
        uint32_t code;
        std::vector<int32_t> args;
        std::string expected;
    };
    const std::vector<Case> cases = {
            {4, {5}, "setKstateMask(5)"},
            {5, {9}, "getKstateSync(9)"},
            {8, {77}, "getProcUTime(77)"},
            {14, {10001, 0}, "destroySockets(10001,0)"},
            {17, {300, 25, 1, 1}, "doSpear(300,25,1,1)"},
            {17, {300, 25, 0, 0}, "doSpear(300,25,0,0)"},
            {18, {301, 7}, "pauseSpear(301,7)"},
            {19, {302}, "stopSpear(302)"},
            {20, {}, "stopSpearAll()"},
            {21, {303, 40}, "changeSpearParam(303,40)"},
    };
    mService->result = 17;
    for (const Case& c : cases) {
        request();
        for (int32_t v : c.args) mData.writeInt32(v);
        ASSERT_EQ(0, call(c.code)) << c.code;
        EXPECT_EQ(c.expected, lastCall());
        EXPECT_EQ((std::vector<int32_t>{0, 17}), replyInts()) << c.code;
    }
}

TEST_F(ServiceStub, FileNodeCodesConvertStrings) {
    mService->result = 1;
    request().writeString16(String16("/sys/x"));
    mData.writeString16(String16("1"));
    ASSERT_EQ(0, call(16));
    EXPECT_EQ("writeFileNode(/sys/x,1)", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, 1}), replyInts());
    mService->result = 0;
    ASSERT_EQ(0, call(16));
    EXPECT_EQ((std::vector<int32_t>{0, 0}), replyInts());

    mService->result = 42;
    request().writeString16(String16("/sys/y"));
    mData.writeInt32(-3);
    ASSERT_EQ(0, call(22));
    EXPECT_EQ("readFileNode(/sys/y,-3)", lastCall());
    EXPECT_EQ((std::vector<int32_t>{0, 42}), replyInts());
}

TEST_F(ServiceStub, MissingArgumentsReadAsZeroOrEmpty) {
    request();
    ASSERT_EQ(0, call(17));
    EXPECT_EQ("doSpear(0,0,0,0)", lastCall());
    request();
    ASSERT_EQ(0, call(16));
    EXPECT_EQ("writeFileNode(,)", lastCall());
    request();
    ASSERT_EQ(0, call(3));  // num reads as 0: refused
    EXPECT_EQ((std::vector<int32_t>{0, -1}), replyInts());
    // Fewer pids than announced: the rest read as 0.
    request().writeInt32(1);
    mData.writeInt32(3);
    mData.writeInt32(11);
    ASSERT_EQ(0, call(3));
    EXPECT_EQ("doFreezer(1,[11 0 0])", lastCall());
}

TEST_F(ServiceStub, DebugLinesOnlyWithTheDebugFlag) {
    qmed::host::LogCapture logs;
    request().writeInt32(5);
    mData.writeInt32(6);
    ASSERT_EQ(0, call(18));
    EXPECT_EQ(0u, logs.count("D/Qmed-IQmedBinderService"));
    bDebug = true;
    request().writeInt32(5);
    mData.writeInt32(6);
    ASSERT_EQ(0, call(18));
    // Pause shares the stop wording.
    EXPECT_TRUE(logs.contains("D/Qmed-IQmedBinderService: stopSpear in BnQmedBinderService"));
    EXPECT_TRUE(logs.contains(
            "D/Qmed-IQmedBinderService: ****Pause Spear process, pid is 5, time is 6***"));
    request().writeInt32(9);
    mData.writeInt32(50);
    mData.writeInt32(2);
    mData.writeInt32(1);
    ASSERT_EQ(0, call(17));
    EXPECT_TRUE(
            logs.contains("D/Qmed-IQmedBinderService: ****Spear process, pid is 9, rate is 50%, "
                          "spear type is 2, include children 1***"));
    // Codes 10 and 11 log nothing, code 9 only its refusal.
    logs.clear();
    request().writeInt32(1);
    ASSERT_EQ(0, call(10));
    request().writeString16(String16("n"));
    mData.writeInt32(0);
    ASSERT_EQ(0, call(11));
    request().writeInt32(0);
    mData.writeInt32(1);
    mData.writeInt32(0);
    ASSERT_EQ(0, call(9));
    EXPECT_EQ(0u, logs.count("Qmed-IQmedBinderService"));
}

}  // namespace
