#include <gtest/gtest.h>
#include <host/LogCapture.h>

#include "freezer/Freezer.h"
#include "limiter/Spear.h"
#include "listener/IQmedBinderListenerService.h"
#include "msghub/ChannelManager.h"
#include "msghub/Kstate.h"
#include "tests/msghub/HubTestUtil.h"

using android::sp;
using hubtest::KeepingListener;
using hubtest::PairChannel;
using hubtest::tlvMessage;

namespace {

// The kernel channel of the process-wide hub, played by the test. The hub
// thread is not started: sends only need getChannelById.
PairChannel* kernelChannel() {
    static PairChannel* channel = [] {
        PairChannel* c = new PairChannel(TLV_ID_KERNEL);
        EXPECT_EQ(0, ChannelManager::getInstance()->add(c));
        return c;
    }();
    channel->mId = TLV_ID_KERNEL;
    while (!channel->sent().empty()) {
    }
    return channel;
}

std::vector<uint8_t> bytesOf(const std::string& s) {
    return std::vector<uint8_t>(s.begin(), s.end());
}

TEST(Kstate, SendsFailUntilTheModuleIdentifiedItself) {
    PairChannel* channel = kernelChannel();
    channel->mId = 0;
    sp<Kstate> k = new Kstate();
    EXPECT_EQ(-1, k->setMask(5, 0));
    EXPECT_EQ(-1, k->setKWakelock(3, "abc", 1, 3));
    EXPECT_EQ(-1, k->checkWaitingBinder(1234));
    EXPECT_TRUE(channel->sent().empty());
    channel->mId = TLV_ID_KERNEL;
    EXPECT_EQ(0, k->setMask(5, 0));
}

TEST(Kstate, MaskMessageGolden) {
    PairChannel* channel = kernelChannel();
    sp<Kstate> k = new Kstate();
    ASSERT_EQ(0, k->setMask(5, 777));
    EXPECT_EQ(tlvMessage(4, 8, 4, 4, {5, 0, 0, 0}), channel->sent());
    ASSERT_EQ(0, k->setMask(-1, 0));
    EXPECT_EQ(tlvMessage(4, 8, 4, 4, {0xff, 0xff, 0xff, 0xff}), channel->sent());
}

TEST(Kstate, WakelockSendsOnlyTheUsedPartAndRefusesLongNames) {
    PairChannel* channel = kernelChannel();
    sp<Kstate> k = new Kstate();
    ASSERT_EQ(0, k->setKWakelock(3, "abc", 1, 3));
    EXPECT_EQ(tlvMessage(5, 4, 4, 5, {3, 1, 'a', 'b', 'c'}), channel->sent());

    // Code and argument are cut to 8 bits.
    ASSERT_EQ(0, k->setKWakelock(0x103, "x", 300, 1));
    EXPECT_EQ(tlvMessage(5, 4, 4, 3, {3, 44, 'x'}), channel->sent());

    const std::string name64(64, 'n');
    ASSERT_EQ(0, k->setKWakelock(2, name64.c_str(), 0, 64));
    std::vector<uint8_t> payload = {2, 0};
    std::vector<uint8_t> name = bytesOf(name64);
    payload.insert(payload.end(), name.begin(), name.end());
    EXPECT_EQ(tlvMessage(5, 4, 4, 66, payload), channel->sent());

    const std::string name65(65, 'n');
    EXPECT_EQ(-1, k->setKWakelock(2, name65.c_str(), 0, 65));
    EXPECT_TRUE(channel->sent().empty());
}

TEST(Kstate, CheckWaitingBinderSendsTheWholeRecord) {
    PairChannel* channel = kernelChannel();
    sp<Kstate> k = new Kstate();
    ASSERT_EQ(0, k->checkWaitingBinder(1234));
    std::vector<uint8_t> payload(66, 0);
    payload[0] = 6;
    payload[1] = 210;  // 1234 mod 256
    memcpy(&payload[2], "1234", 4);
    EXPECT_EQ(tlvMessage(5, 4, 4, 66, payload), channel->sent());
    EXPECT_EQ(-1, k->getSync(0));
    EXPECT_EQ(-1, k->getSync(42));
}

class KstateInbound : public ::testing::Test {
  protected:
    void SetUp() override {
        registry = new IQmedBinderListenerService(nullptr, nullptr);
        listener = new KeepingListener();
        ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onKstateCallback));
        kstate = new Kstate();
        ASSERT_EQ(0, kstate->binderListener(registry));
    }
    int feed(const std::vector<uint8_t>& msg) {
        // An exact-size heap copy, so reading past it is caught by the sanitizers.
        std::vector<char> copy(msg.begin(), msg.end());
        return kstate->processClientData(copy.data(), copy.size());
    }

    sp<IQmedBinderListenerService> registry;
    sp<KeepingListener> listener;
    sp<Kstate> kstate;
};

TEST_F(KstateInbound, DropsEverythingBeforeTheRegistryIsKnown) {
    qmed::host::LogCapture log;
    sp<Kstate> bare = new Kstate();
    EXPECT_EQ(-1, bare->binderListener(nullptr));
    std::vector<uint8_t> p = hubtest::eventPayload(16, "[TPID 5 CALLED][PID 6]");
    std::vector<char> msg;
    for (uint8_t b : tlvMessage(4, 4, 8, p.size(), p)) msg.push_back(static_cast<char>(b));
    EXPECT_EQ(0, bare->processClientData(msg.data(), msg.size()));
    EXPECT_TRUE(log.contains("Error : Binder service is null !!"));
    EXPECT_EQ(-1, bare->processClientData(nullptr, 0));
}

TEST_F(KstateInbound, DeliversPayloadWithHeaderLengthAndRoomForTheProxy) {
    std::vector<uint8_t> p = hubtest::eventPayload(16, "[TPID 5 CALLED][PID 6]");
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, p.size(), p)));
    // Other tags are ignored.
    EXPECT_EQ(0, feed(tlvMessage(5, 4, 8, p.size(), p)));
    auto calls = listener->calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(static_cast<int>(p.size()), calls[0].len);
    ASSERT_EQ(p.size() * 4, calls[0].words.size());
    EXPECT_TRUE(std::equal(p.begin(), p.end(), calls[0].words.begin()));
    // Beyond the payload the proxy reads zeros, not someone else's memory.
    for (size_t i = p.size(); i < calls[0].words.size(); ++i) ASSERT_EQ(0, calls[0].words[i]);
}

TEST_F(KstateInbound, HostileLengthsNeverReadPastTheMessage) {
    qmed::host::LogCapture log;
    // len larger than what arrived: what is missing reads as zero.
    std::vector<uint8_t> p = hubtest::eventPayload(8, "[PID 1 KILLED][SIG 9]");
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, 2032, p)));
    EXPECT_TRUE(log.contains("shorter than its header says"));
    // The largest the hub can receive, and one more.
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, 2033, p)));
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, -1, p)));
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, 0x7fffffff, p)));
    // A message shorter than a header, a text without NUL or unparsable.
    EXPECT_EQ(0, feed({4, 0, 0}));
    std::vector<uint8_t> noNul(16, 0);
    noNul[0] = 16;
    noNul.insert(noNul.end(), 40, 'A');
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, noNul.size(), noNul)));
    EXPECT_EQ(0, feed(tlvMessage(4, 4, 8, 3, {16, 0, 0})));

    auto calls = listener->calls();
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ(2032, calls[0].len);
    EXPECT_TRUE(std::equal(p.begin(), p.end(), calls[0].words.begin()));
    EXPECT_EQ(0, calls[0].words[p.size()]);
    EXPECT_EQ(static_cast<int>(noNul.size()), calls[1].len);
    EXPECT_EQ(3, calls[2].len);
    EXPECT_TRUE(log.contains("bad length 2033"));
    EXPECT_TRUE(log.contains("bad length -1"));
}

}  // namespace
