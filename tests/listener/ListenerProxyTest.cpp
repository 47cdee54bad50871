// Exact request bytes of the listener proxy, captured by a local binder that records
// every transaction it receives.

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "listener/IQmedBinderListener.h"

using android::BBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::Vector;

namespace {

struct Recorded {
    uint32_t code = 0;
    uint32_t flags = 0;
    std::vector<uint8_t> bytes;
    int fd = -1;
};

class RecordingBinder : public BBinder {
  public:
    explicit RecordingBinder(int32_t result) : mResult(result) {}

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        Recorded r;
        r.code = code;
        r.flags = flags;
        r.bytes.assign(data.data(), data.data() + data.dataSize());
        if (code == IQmedBinderListener::DUMP) {
            data.setDataPosition(tokenSize());
            int fd = data.readFileDescriptor();
            r.fd = fd >= 0 ? dup(fd) : -1;
        }
        calls.push_back(r);
        if (!mEmptyReply) reply->writeInt32(mResult);
        return android::NO_ERROR;
    }

    static size_t tokenSize() {
        Parcel p;
        p.writeInterfaceToken(IQmedBinderListener::descriptor);
        return p.dataSize();
    }

    std::vector<Recorded> calls;
    bool mEmptyReply = false;

  private:
    int32_t mResult;
};

// Golden bytes, built by hand in the platform's layout.
class Bytes {
  public:
    Bytes& i32(int32_t v) {
        uint8_t b[4];
        memcpy(b, &v, 4);
        mBytes.insert(mBytes.end(), b, b + 4);
        return *this;
    }
    Bytes& raw(const void* p, size_t n) {
        const uint8_t* b = static_cast<const uint8_t*>(p);
        mBytes.insert(mBytes.end(), b, b + n);
        while (mBytes.size() % 4) mBytes.push_back(0);
        return *this;
    }
    Bytes& str16(const std::string& ascii) {
        i32(static_cast<int32_t>(ascii.size()));
        for (char c : ascii) {
            mBytes.push_back(static_cast<uint8_t>(c));
            mBytes.push_back(0);
        }
        mBytes.push_back(0);
        mBytes.push_back(0);
        while (mBytes.size() % 4) mBytes.push_back(0);
        return *this;
    }
    // Strict-mode word with the gather bit, unset work source, 'SYST', descriptor.
    Bytes& token() {
        i32(static_cast<int32_t>(0x80000000u));
        i32(-1);
        i32(0x53595354);
        return str16("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener");
    }
    const std::vector<uint8_t>& get() const { return mBytes; }

  private:
    std::vector<uint8_t> mBytes;
};

sp<IQmedBinderListener> proxyOver(const sp<RecordingBinder>& binder) {
    return new BpQmedBinderListener(binder);
}

TEST(ListenerProxy, DescriptorAndLocalLookup) {
    EXPECT_EQ(String16("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener"),
              IQmedBinderListener::descriptor);
    EXPECT_EQ(nullptr, IQmedBinderListener::asInterface(nullptr).get());
    sp<RecordingBinder> binder = new RecordingBinder(0);
    sp<IQmedBinderListener> proxy = IQmedBinderListener::asInterface(binder);
    ASSERT_NE(nullptr, proxy.get());
    EXPECT_NE(nullptr, dynamic_cast<BpQmedBinderListener*>(proxy.get()));
}

TEST(ListenerProxy, KstateSendsLenTwiceAndLenWordsOfPayload) {
    sp<RecordingBinder> binder = new RecordingBinder(7);
    sp<IQmedBinderListener> proxy = proxyOver(binder);
    // A 5-byte event travels as five words: the buffer holds 20 bytes.
    unsigned char payload[20];
    for (int i = 0; i < 20; i++) payload[i] = static_cast<unsigned char>(0xA0 + i);
    EXPECT_EQ(7, proxy->onKstateCallback(5, payload));
    ASSERT_EQ(1u, binder->calls.size());
    EXPECT_EQ(1u, binder->calls[0].code);
    EXPECT_EQ(0u, binder->calls[0].flags);
    EXPECT_EQ(Bytes().token().i32(5).i32(5).raw(payload, 20).get(), binder->calls[0].bytes);
}

TEST(ListenerProxy, KstateRefusesEmptyOrNullWithoutTransaction) {
    sp<RecordingBinder> binder = new RecordingBinder(0);
    sp<IQmedBinderListener> proxy = proxyOver(binder);
    unsigned char payload[4] = {1, 2, 3, 4};
    EXPECT_EQ(-1, proxy->onKstateCallback(0, payload));
    EXPECT_EQ(-1, proxy->onKstateCallback(-3, payload));
    EXPECT_EQ(-1, proxy->onKstateCallback(5, nullptr));
    EXPECT_TRUE(binder->calls.empty());
    EXPECT_EQ(0, proxy->onKstateCallback(1, payload));
    EXPECT_EQ(1u, binder->calls.size());
}

TEST(ListenerProxy, NetworkPacketSendsCountTwiceThenValues) {
    sp<RecordingBinder> binder = new RecordingBinder(0);
    sp<IQmedBinderListener> proxy = proxyOver(binder);
    const int values[3] = {10, -2, 0x7fffffff};
    proxy->onNetworkPacketCallback(3, values);
    proxy->onNetworkPacketCallback(0, nullptr);
    ASSERT_EQ(2u, binder->calls.size());
    EXPECT_EQ(2u, binder->calls[0].code);
    EXPECT_EQ(Bytes().token().i32(3).i32(3).i32(10).i32(-2).i32(0x7fffffff).get(),
              binder->calls[0].bytes);
    EXPECT_EQ(Bytes().token().i32(0).i32(0).get(), binder->calls[1].bytes);
}

TEST(ListenerProxy, StopProcSpearSendsPidAndReasonAsString16) {
    sp<RecordingBinder> binder = new RecordingBinder(0);
    sp<IQmedBinderListener> proxy = proxyOver(binder);
    proxy->onStopProcSpearCallback(4321, "low_rate");
    proxy->onStopProcSpearCallback(1, "");
    ASSERT_EQ(2u, binder->calls.size());
    EXPECT_EQ(3u, binder->calls[0].code);
    EXPECT_EQ(Bytes().token().i32(4321).str16("low_rate").get(), binder->calls[0].bytes);
    EXPECT_EQ(Bytes().token().i32(1).str16("").get(), binder->calls[1].bytes);
}

TEST(ListenerProxy, DumpSendsFdCountAndArguments) {
    sp<RecordingBinder> binder = new RecordingBinder(0);
    sp<IQmedBinderListener> proxy = proxyOver(binder);
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Vector<String16> args;
    proxy->dump(fds[1], args);
    args.add(String16("debug"));
    args.add(String16("x"));
    proxy->dump(fds[1], args);
    ASSERT_EQ(2u, binder->calls.size());
    for (const Recorded& r : binder->calls) {
        EXPECT_EQ(100u, r.code);
        ASSERT_GE(r.fd, 0);
        // The fd that arrives is the caller's pipe, still open on the caller's side.
        ASSERT_EQ(1, write(r.fd, "z", 1));
        char c = 0;
        ASSERT_EQ(1, read(fds[0], &c, 1));
        EXPECT_EQ('z', c);
        close(r.fd);
    }
    // The fd occupies one object slot: what follows it is the count and the arguments.
    Parcel withFd;
    withFd.writeInterfaceToken(IQmedBinderListener::descriptor);
    withFd.writeFileDescriptor(fds[1], false);
    const size_t prefix = withFd.dataSize();
    const std::vector<uint8_t>& noArgs = binder->calls[0].bytes;
    const std::vector<uint8_t>& twoArgs = binder->calls[1].bytes;
    ASSERT_EQ(prefix + 4, noArgs.size());
    EXPECT_EQ(Bytes().i32(0).get(), std::vector<uint8_t>(noArgs.begin() + prefix, noArgs.end()));
    EXPECT_EQ(Bytes().i32(2).str16("debug").str16("x").get(),
              std::vector<uint8_t>(twoArgs.begin() + prefix, twoArgs.end()));
    std::vector<uint8_t> token = Bytes().token().get();
    EXPECT_TRUE(std::equal(token.begin(), token.end(), noArgs.begin()));
    close(fds[0]);
    close(fds[1]);
}

TEST(ListenerProxy, EmptyReplyReadsAsZero) {
    sp<RecordingBinder> binder = new RecordingBinder(55);
    binder->mEmptyReply = true;
    sp<IQmedBinderListener> proxy = proxyOver(binder);
    unsigned char payload[4] = {0};
    EXPECT_EQ(0, proxy->onKstateCallback(1, payload));
    EXPECT_EQ(0, proxy->onStopProcSpearCallback(1, "empty"));
}

}  // namespace
