// The watchdog record from the wire to the device node: 64-bit parcel values
// reach a 32-bit long, and "%ld" prints what the device prints. Runs through
// qmed-ns because the service brings up the freezer at /dev/frz.

#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <utils/String16.h>

#include <cstdint>
#include <string>

#include "daemon/QmedBinderService.h"
#include "tests/support/ToolRunner.h"

namespace {

using android::Parcel;
using android::sp;
using android::String16;

TEST(WatchdogRecord, CarriesTheLow32BitsOfEachValueSigned) {
    char dir[] = "/tmp/qmed-watchdog-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string node = std::string(dir) + "/node";
    ASSERT_TRUE(qmedtest::writeFile(node, ""));
    sp<QmedBinderService> service = new QmedBinderService(node.c_str());

    struct Case {
        int64_t first, second;
        const char* record;
    };
    const Case cases[] = {
            {(int64_t{1} << 32) + 5, 20, "TYPE=7 DURATION=5 HOLDTIME=20 EXTEND=e"},
            {INT32_MAX, INT32_MIN, "TYPE=7 DURATION=2147483647 HOLDTIME=-2147483648 EXTEND=e"},
            {int64_t{INT32_MAX} + 1, -1, "TYPE=7 DURATION=-2147483648 HOLDTIME=-1 EXTEND=e"},
            {INT64_MIN, 0xFFFFFFFFLL, "TYPE=7 DURATION=0 HOLDTIME=-1 EXTEND=e"},
    };
    for (const Case& c : cases) {
        // The node is opened without O_TRUNC, as a device node would be.
        ASSERT_TRUE(qmedtest::writeFile(node, ""));
        Parcel data, reply;
        data.writeInterfaceToken(service->getInterfaceDescriptor());
        data.writeInt32(7);
        data.writeInt64(c.first);
        data.writeInt64(c.second);
        data.writeString16(String16("e"));
        data.setDataPosition(0);
        ASSERT_EQ(0, service->onTransact(BnQmedBinderService::SET_POWER_WATCHDOG, data, &reply));
        reply.setDataPosition(0);
        EXPECT_EQ(0, reply.readInt32());
        EXPECT_EQ(0, reply.readInt32());
        EXPECT_EQ(c.record, qmedtest::readFile(node)) << c.first << " " << c.second;
    }
    service.clear();
    system((std::string("rm -rf ") + dir).c_str());
}

}  // namespace
