// The netlink channel against the kernel-module simulator, through the
// preloaded interposer (this binary runs with LD_PRELOAD=libkmodshim.so).

#include <gtest/gtest.h>
#include <host/LogCapture.h>
#include <linux/netlink.h>
#include <stdlib.h>
#include <unistd.h>

#include "msghub/ChannelManager.h"
#include "msghub/ChannelNetlink.h"
#include "msghub/Kstate.h"
#include "tests/msghub/HubTestUtil.h"
#include "tests/support/ToolRunner.h"
#include "tools/kmodsim/KmodsimControl.h"

using android::sp;

namespace {

kmodsim::SimProcess* gSim = nullptr;

class SimEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        std::string base = "@hubshim-" + std::to_string(getpid());
        setenv("KMODSIM_SOCKET", base.c_str(), 1);
        gSim = new kmodsim::SimProcess();
        ASSERT_TRUE(gSim->start(qmedtest::toolPath("kmodsim"), base, base + "-ctl", "hold", "",
                                qmedtest::emulatorPrefix()));
    }
    void TearDown() override {
        delete gSim;
        gSim = nullptr;
    }
};

const auto* gEnv = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

std::string hexOf(const std::vector<uint8_t>& v) {
    std::string s;
    char b[3];
    for (uint8_t x : v) {
        snprintf(b, sizeof(b), "%02x", x);
        s += b;
    }
    return s;
}

std::vector<uint8_t> le32(uint32_t v) {
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}

std::vector<uint8_t> netlinkHeader(uint32_t len, uint32_t pid) {
    std::vector<uint8_t> h = le32(len);
    for (int i = 0; i < 8; ++i) h.push_back(0);
    std::vector<uint8_t> p = le32(pid);
    h.insert(h.end(), p.begin(), p.end());
    return h;
}

class ChannelNetlinkShim : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(nullptr, gSim);
        ctl = gSim->control();
        ASSERT_TRUE(ctl.ok("clear"));
        ASSERT_EQ(0, channel.init());
        ASSERT_TRUE(ctl.ok("wait-connected 2000"));
        const std::string bound = "bound=" + std::to_string(getpid());
        ASSERT_TRUE(hubtest::waitFor([&] {
            std::string status;
            return ctl.ok("status", &status) && status.find(bound) != std::string::npos;
        }));
    }
    std::vector<uint8_t> lastReceived(size_t expectCount) {
        EXPECT_TRUE(ctl.ok("wait-received " + std::to_string(expectCount) + " 2000"));
        auto all = ctl.received();
        return all.empty() ? std::vector<uint8_t>() : all.back();
    }
    int receive(std::vector<uint8_t>* out, unsigned capacity = 2048) {
        std::vector<char> buf(capacity + 8, 0x5a);
        unsigned len = capacity;
        int ret = channel.getMessage(buf.data(), &len);
        if (ret == 0) out->assign(buf.begin(), buf.begin() + len);
        // Nothing beyond the capacity was touched.
        for (unsigned i = capacity; i < buf.size(); ++i) EXPECT_EQ(0x5a, buf[i]);
        return ret;
    }

    kmodsim::Control ctl{""};
    ChannelNetlink channel;
};

TEST_F(ChannelNetlinkShim, BindsWithOwnPidAndFramesAlignedLength) {
    std::vector<uint8_t> p16 = hubtest::tlvMessage(4, 8, 4, 0);
    ASSERT_EQ(0, channel.putMessage(reinterpret_cast<const char*>(p16.data()), p16.size()));
    std::vector<uint8_t> expect = netlinkHeader(32, getpid());
    expect.insert(expect.end(), p16.begin(), p16.end());
    EXPECT_EQ(expect, lastReceived(1));

    std::vector<uint8_t> p17 = p16;
    p17.push_back(0xab);
    ASSERT_EQ(0, channel.putMessage(reinterpret_cast<const char*>(p17.data()), p17.size()));
    expect = netlinkHeader(36, getpid());
    expect.insert(expect.end(), p17.begin(), p17.end());
    expect.insert(expect.end(), 3, 0);
    EXPECT_EQ(expect, lastReceived(2));
    EXPECT_EQ(-1, channel.putMessage(nullptr, 4));
}

TEST_F(ChannelNetlinkShim, ReceivesPayloadAfterNetlinkHeader) {
    ASSERT_TRUE(ctl.ok("send 4 4 8 0102030405"));
    std::vector<uint8_t> got;
    ASSERT_EQ(0, receive(&got));
    EXPECT_EQ(hubtest::tlvMessage(4, 4, 8, 5, {1, 2, 3, 4, 5}), got);

    // nlmsg_len 16: an empty payload, and success.
    ASSERT_TRUE(ctl.ok("raw " + hexOf(netlinkHeader(16, 0))));
    ASSERT_EQ(0, receive(&got));
    EXPECT_TRUE(got.empty());
}

TEST_F(ChannelNetlinkShim, HostileFramingNeverOverrunsTheBuffer) {
    qmed::host::LogCapture log;
    std::vector<uint8_t> got;
    // nlmsg_len larger than what arrived: only what arrived is used.
    std::vector<uint8_t> m = netlinkHeader(1000, 0);
    std::vector<uint8_t> tlv = hubtest::tlvMessage(4, 4, 8, 4, {9, 9, 9, 9});
    m.insert(m.end(), tlv.begin(), tlv.end());
    ASSERT_TRUE(ctl.ok("raw " + hexOf(m)));
    ASSERT_EQ(0, receive(&got));
    EXPECT_EQ(tlv, got);
    EXPECT_TRUE(log.contains("Truncated netlink message"));

    // A payload larger than the caller's capacity is cut to it.
    ASSERT_TRUE(ctl.ok("send 4 4 8 " + std::string(200, 'a')));
    ASSERT_EQ(0, receive(&got, 8));
    EXPECT_EQ(8u, got.size());

    // nlmsg_len below the header size, and a datagram shorter than a header.
    ASSERT_TRUE(ctl.ok("raw " + hexOf(netlinkHeader(8, 0))));
    EXPECT_EQ(-1, receive(&got));
    ASSERT_TRUE(ctl.ok("raw 0a000000"));
    EXPECT_EQ(-1, receive(&got));
    EXPECT_TRUE(log.contains("Malformed netlink message"));

    // Still in step afterwards.
    ASSERT_TRUE(ctl.ok("send 1 4 0"));
    ASSERT_EQ(0, receive(&got));
    EXPECT_EQ(hubtest::tlvMessage(1, 4, 0, 0), got);
}

// Last: it starts the process-wide hub, which keeps its connection.
TEST(HubOverShim, IdentifiesOnceThenKernelCommandsFlow) {
    kmodsim::Control ctl = gSim->control();
    ASSERT_TRUE(ctl.ok("clear"));
    sp<Kstate> kstate = Kstate::getInstance();
    ChannelManager::getInstance()->start();
    ASSERT_TRUE(ctl.ok("wait-received 1 3000"));
    // Withheld answer: nothing can be sent yet.
    EXPECT_EQ(nullptr, ChannelManager::getInstance()->getChannelById(4));
    EXPECT_EQ(-1, kstate->setMask(5, 0));
    EXPECT_EQ(-1, kstate->checkWaitingBinder(1234));

    ASSERT_TRUE(ctl.ok("identify"));
    ASSERT_TRUE(hubtest::waitFor(
            [] { return ChannelManager::getInstance()->getChannelById(4) != nullptr; }));
    ASSERT_EQ(0, kstate->setMask(5, 0));
    ASSERT_EQ(0, kstate->checkWaitingBinder(1234));
    ASSERT_TRUE(ctl.ok("wait-received 3 3000"));

    auto all = ctl.received();
    ASSERT_EQ(3u, all.size());
    std::vector<uint8_t> identify = netlinkHeader(32, getpid());
    std::vector<uint8_t> req = hubtest::tlvMessage(1, 0, 0, 0);
    identify.insert(identify.end(), req.begin(), req.end());
    EXPECT_EQ(identify, all[0]);

    std::vector<uint8_t> mask = netlinkHeader(36, getpid());
    std::vector<uint8_t> tlv = hubtest::tlvMessage(4, 8, 4, 4, {5, 0, 0, 0});
    mask.insert(mask.end(), tlv.begin(), tlv.end());
    EXPECT_EQ(mask, all[1]);

    ASSERT_EQ(ChannelNetlink::nlSpace(82), all[2].size());
    EXPECT_EQ(5, all[2][16]);    // tag
    EXPECT_EQ(66, all[2][28]);   // len
    EXPECT_EQ(6, all[2][32]);    // cmd
    EXPECT_EQ(210, all[2][33]);  // arg
    EXPECT_EQ(0, memcmp(&all[2][34], "1234", 5));
}

}  // namespace
