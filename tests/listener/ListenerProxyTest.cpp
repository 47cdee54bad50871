// Exact request bytes of the listener proxy, captured by a local binder.

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <functional>
#include <tuple>

#include "listener/IQmedBinderListener.h"
#include "tests/support/HubWire.h"

using android::Parcel;

namespace qmedtest {
namespace {

struct RecordingBinder : android::BBinder {
    android::status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                 uint32_t flags) override {
        calls.emplace_back(code, flags, Bytes(data.data(), data.data() + data.dataSize()), -1);
        if (code == IQmedBinderListener::DUMP) {
            data.setDataPosition(W().token().b.size());
            std::get<3>(calls.back()) = dup(data.readFileDescriptor());
        }
        if (replies) reply->writeInt32(7);
        return android::NO_ERROR;
    }
    // Golden bytes in the platform's layout, built by hand.
    struct W {
        W& i32(int32_t v) { return raw(&v, 4); }
        W& raw(const void* p, size_t n) {
            b.insert(b.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
            b.resize((b.size() + 3) & ~size_t(3), 0);
            return *this;
        }
        W& str16(const std::string& ascii) {
            std::u16string s(ascii.begin(), ascii.end());
            return i32(static_cast<int32_t>(s.size())).raw(s.c_str(), (s.size() + 1) * 2);
        }
        // Strict-mode word with the gather bit, unset work source, 'SYST', descriptor.
        W& token() {
            return i32(INT_MIN)
                    .i32(-1)
                    .i32(0x53595354)
                    .str16("com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener");
        }
        Bytes b;
    };
    std::vector<std::tuple<uint32_t, uint32_t, Bytes, int>> calls;  // code, flags, bytes, fd
    bool replies = true;
};
using W = RecordingBinder::W;

TEST(ListenerProxy, RequestBytesPerCallback) {
    android::sp<RecordingBinder> binder = new RecordingBinder();
    android::sp<IQmedBinderListener> proxy = IQmedBinderListener::asInterface(binder);
    unsigned char payload[20];
    for (int i = 0; i < 20; i++) payload[i] = static_cast<unsigned char>(0xA0 + i);
    const int values[3] = {10, -2, 0x7fffffff};
    // {call, transaction code (0: refused without one), request bytes}
    const std::tuple<std::function<int()>, uint32_t, Bytes> rows[] = {
            // A 5-byte event travels as five words: the buffer holds 20 bytes.
            {[&] { return proxy->onKstateCallback(5, payload); }, 1,
             W().token().i32(5).i32(5).raw(payload, 20).b},
            {[&] { return proxy->onKstateCallback(0, payload); }, 0, {}},
            {[&] { return proxy->onKstateCallback(INT_MAX / 4 + 1, payload); }, 0, {}},
            {[&] { return proxy->onKstateCallback(5, nullptr); }, 0, {}},
            {[&] { return proxy->onNetworkPacketCallback(3, values); }, 2,
             W().token().i32(3).i32(3).i32(10).i32(-2).i32(0x7fffffff).b},
            {[&] { return proxy->onNetworkPacketCallback(0, nullptr); }, 2,
             W().token().i32(0).i32(0).b},
            {[&] { return proxy->onStopProcSpearCallback(4321, "low_rate"); }, 3,
             W().token().i32(4321).str16("low_rate").b},
            {[&] { return proxy->onStopProcSpearCallback(1, ""); }, 3,
             W().token().i32(1).str16("").b},
    };
    for (const auto& [call, code, bytes] : rows) {
        binder->calls.clear();
        EXPECT_EQ(code ? 7 : -1, call()) << hexOf(bytes);
        ASSERT_EQ(code ? 1u : 0u, binder->calls.size()) << hexOf(bytes);
        if (code != 0) {
            EXPECT_EQ(std::make_tuple(code, 0u, bytes, -1), binder->calls[0]);
        }
    }
    binder->replies = false;  // an empty reply reads as 0
    EXPECT_EQ(0, proxy->onKstateCallback(1, payload));
}

TEST(ListenerProxy, DumpSendsTheCallersFdThenCountAndArguments) {
    android::sp<RecordingBinder> binder = new RecordingBinder();
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    android::Vector<android::String16> args;
    args.add(android::String16("debug"));
    args.add(android::String16("x"));
    IQmedBinderListener::asInterface(binder)->dump(fds[1], args);
    Parcel prefix;  // the fd takes one object slot
    prefix.writeInterfaceToken(IQmedBinderListener::descriptor);
    prefix.writeFileDescriptor(fds[1], false);
    ASSERT_EQ(1u, binder->calls.size());
    const auto& [code, flags, bytes, fd] = binder->calls[0];
    EXPECT_EQ(100u, code);
    Bytes token = W().token().b, tail = W().i32(2).str16("debug").str16("x").b;
    ASSERT_EQ(prefix.dataSize() + tail.size(), bytes.size());
    EXPECT_EQ(token, Bytes(bytes.begin(), bytes.begin() + token.size()));
    EXPECT_EQ(tail, Bytes(bytes.begin() + prefix.dataSize(), bytes.end()));
    char c = 0;  // the fd that arrives is the caller's pipe, still open on its side
    ASSERT_EQ(1, write(fd, "z", 1));
    ASSERT_EQ(1, read(fds[0], &c, 1));
    for (int f : {fd, fds[0], fds[1]}) close(f);
}

}  // namespace
}  // namespace qmedtest
