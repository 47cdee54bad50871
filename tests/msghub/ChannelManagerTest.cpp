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
using hubtest::PairFactory;
using hubtest::tlvMessage;

namespace {

const std::vector<uint8_t> kIdentifyRequest = tlvMessage(TLV_TAG_REGISTER, 0, 0, 0);

// A hub whose thread ran is kept for the life of the process: the platform
// thread drops its own last reference after join() returns, so destroying the
// hub here would race with that.
void keepForever(const sp<ChannelManager>& hub) {
    static auto* kept = new std::vector<sp<ChannelManager>>();
    kept->push_back(hub);
}

// Runs one select-and-read pass of the hub, as its thread does.
void pump(ChannelManager& hub) {
    ASSERT_EQ(0, hub.waitForMessage());
}

TEST(ChannelManager, AddSendsIdentificationOnceAndAnswerSetsId) {
    sp<ChannelManager> hub = new ChannelManager();
    PairChannel* channel = nullptr;
    ASSERT_TRUE(hub->addChannel(new PairFactory(&channel)));
    EXPECT_EQ(kIdentifyRequest, channel->sent());
    EXPECT_TRUE(channel->sent().empty());
    EXPECT_EQ(nullptr, hub->getChannelById(4));

    // The module's answer: tag 1, src 4, dst 0 names the channel and goes nowhere.
    ASSERT_TRUE(channel->inject(tlvMessage(TLV_TAG_REGISTER, 4, 0, 0)));
    pump(*hub);
    EXPECT_EQ(4, channel->mId);
    EXPECT_EQ(channel, hub->getChannelById(4));
    EXPECT_TRUE(channel->sent().empty());

    // A channel that already knows its peer is not asked.
    PairChannel* known = new PairChannel(2);
    ASSERT_EQ(0, hub->add(known));
    EXPECT_TRUE(known->sent().empty());
}

TEST(ChannelManager, SevenChannelsAcceptedEighthRefused) {
    qmed::host::LogCapture log;
    sp<ChannelManager> hub = new ChannelManager();
    for (int i = 0; i < ChannelManager::CHANNEL_MAX; ++i) {
        ASSERT_TRUE(hub->addChannel(new PairFactory())) << i;
    }
    EXPECT_FALSE(log.contains("Exceed maximum channel number"));
    bool destroyed = false;
    PairFactory* factory = new PairFactory(nullptr, false, &destroyed);
    EXPECT_FALSE(hub->addChannel(factory));
    EXPECT_TRUE(log.contains("Exceed maximum channel number, retry later"));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(7u, hub->channelCount());
    delete factory;  // kept by the manager on failure
}

TEST(ChannelManager, FailedInitIsNotListedAndHubStillRuns) {
    qmed::host::LogCapture log;
    bool destroyed = false;
    PairFactory* factory = new PairFactory(nullptr, true, &destroyed);
    sp<ChannelManager> hub = new ChannelManager(factory);
    // The thread's start-up: a failure is logged and the loop still runs.
    ASSERT_EQ(android::NO_ERROR, hub->run("HubTest"));
    ASSERT_TRUE(hubtest::waitFor([&] { return log.contains("Nothing to select, ignored"); }));
    EXPECT_TRUE(log.contains("Add netlink channel to ChannelManager failed"));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(0u, hub->channelCount());
    hub->requestExit();
    hub->join();
    keepForever(hub);
    delete factory;
}

TEST(ChannelManager, RoutesByDestination) {
    qmed::host::LogCapture log;
    sp<ChannelManager> hub = new ChannelManager();
    PairChannel* a = new PairChannel(4);
    PairChannel* b = new PairChannel(6);
    ASSERT_EQ(0, hub->add(a));
    ASSERT_EQ(0, hub->add(b));

    // To another channel: the whole message, header included.
    std::vector<uint8_t> toB = tlvMessage(9, 4, 6, 3, {1, 2, 3});
    ASSERT_TRUE(a->inject(toB));
    pump(*hub);
    EXPECT_EQ(toB, b->sent());

    // dst 0 goes nowhere, nor does a message addressed to its own channel.
    ASSERT_TRUE(a->inject(tlvMessage(9, 4, 0, 0)));
    pump(*hub);
    ASSERT_TRUE(a->inject(tlvMessage(9, 4, 4, 0)));
    pump(*hub);
    EXPECT_TRUE(a->sent().empty());
    EXPECT_TRUE(b->sent().empty());
    EXPECT_FALSE(log.contains("Failed to get channel by id"));

    // An unknown id is logged and dropped.
    ASSERT_TRUE(a->inject(tlvMessage(9, 4, 5, 0)));
    pump(*hub);
    EXPECT_TRUE(log.contains("Failed to get channel by id, ignore forwarding"));
    EXPECT_TRUE(b->sent().empty());
}

TEST(ChannelManager, LocalServerChannelIsNeverRouted) {
    qmed::host::LogCapture log;
    sp<ChannelManager> hub = new ChannelManager();
    PairChannel* local = new PairChannel(TLV_ID_HUB);
    PairChannel* other = new PairChannel(6);
    ASSERT_EQ(0, hub->add(local));
    ASSERT_EQ(0, hub->add(other));
    // Even an identification answer does not rename it.
    ASSERT_TRUE(local->inject(tlvMessage(TLV_TAG_REGISTER, 6, 6, 0)));
    pump(*hub);
    EXPECT_EQ(TLV_ID_HUB, local->mId);
    EXPECT_TRUE(other->sent().empty());
    EXPECT_TRUE(log.contains("Message is from local server, ignore forwarding"));
}

TEST(ChannelManager, KernelStateGoesToBridgeFromAnyChannel) {
    sp<IQmedBinderListenerService> registry = new IQmedBinderListenerService(nullptr, nullptr);
    sp<KeepingListener> listener = new KeepingListener();
    ASSERT_EQ(0, registry->registerListener(listener, TYPE_LISTENER_onKstateCallback));
    ASSERT_EQ(0, Kstate::getInstance()->binderListener(registry));

    sp<ChannelManager> hub = new ChannelManager();
    PairChannel* a = new PairChannel(4);
    PairChannel* b = new PairChannel(6);
    ASSERT_EQ(0, hub->add(a));
    ASSERT_EQ(0, hub->add(b));
    std::vector<uint8_t> payload = hubtest::eventPayload(99, "hello");
    ASSERT_TRUE(a->inject(tlvMessage(TLV_TAG_KSTATE, 4, TLV_ID_KSTATE, payload.size(), payload)));
    pump(*hub);
    ASSERT_TRUE(b->inject(tlvMessage(TLV_TAG_KSTATE, 6, TLV_ID_KSTATE, payload.size(), payload)));
    pump(*hub);
    // Another tag for the bridge is accepted and ignored.
    ASSERT_TRUE(b->inject(tlvMessage(7, 6, TLV_ID_KSTATE, payload.size(), payload)));
    pump(*hub);

    std::vector<KeepingListener::Call> calls = listener->calls();
    ASSERT_EQ(2u, calls.size());
    for (const auto& c : calls) {
        EXPECT_EQ(static_cast<int>(payload.size()), c.len);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), c.words.begin()));
    }
}

TEST(ChannelManager, VanishedChannelIsDropped) {
    sp<ChannelManager> hub = new ChannelManager();
    bool destroyed = false;
    PairChannel* gone = new PairChannel(6, false, &destroyed);
    PairChannel* stays = new PairChannel(4);
    ASSERT_EQ(0, hub->add(gone));
    ASSERT_EQ(0, hub->add(stays));
    gone->hangUp();
    pump(*hub);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(1u, hub->channelCount());
    EXPECT_EQ(nullptr, hub->getChannelById(6));
    EXPECT_EQ(stays, hub->getChannelById(4));
}

TEST(ChannelManager, ThreadIdentifiesItsFirstChannel) {
    PairChannel* channel = nullptr;
    sp<ChannelManager> hub = new ChannelManager(new PairFactory(&channel));
    ASSERT_EQ(android::NO_ERROR, hub->run("HubTest"));
    ASSERT_TRUE(hubtest::waitFor([&] { return hub->channelCount() == 1; }));
    std::vector<uint8_t> request;
    ASSERT_TRUE(hubtest::waitFor([&] { return !(request = channel->sent()).empty(); }));
    EXPECT_EQ(kIdentifyRequest, request);
    ASSERT_TRUE(channel->inject(tlvMessage(TLV_TAG_REGISTER, 4, 0, 0)));
    ASSERT_TRUE(hubtest::waitFor([&] { return hub->getChannelById(4) == channel; }));
    hub->requestExit();
    // Wake the select so the loop can see the exit request.
    channel->inject(tlvMessage(0, 4, 0, 0));
    hub->join();
    keepForever(hub);
}

}  // namespace
