#include "listener/IQmedBinderListener.h"

#include <limits.h>

using android::IBinder;
using android::Parcel;
using android::sp;
using android::String16;
using android::Vector;

IMPLEMENT_META_INTERFACE(QmedBinderListener,
                         "com.vantor.quartzmind.integration.adapter.qmed.IQmedBinderListener")

BpQmedBinderListener::BpQmedBinderListener(const sp<IBinder>& impl)
    : android::BpInterface<IQmedBinderListener>(impl) {}

// The receiver reads (int, int[]) for both callbacks: the byte payload therefore
// travels as len 32-bit words, len * 4 bytes taken from data.
int BpQmedBinderListener::onKstateCallback(int len, unsigned char* data) {
    if (len < 1 || data == nullptr) return -1;
    // A larger len could not be addressed on a 32-bit target and would not fit a transaction.
    if (len > INT_MAX / 4) return -1;
    Parcel request, reply;
    const String16& descriptor = IQmedBinderListener::getInterfaceDescriptor();
    // Token words, descriptor, the two counts and the payload words in one allocation.
    request.setDataCapacity(32 + 2 * descriptor.size() + static_cast<size_t>(len) * 4);
    request.writeInterfaceToken(descriptor);
    request.writeInt32(len);
    request.writeInt32(len);
    request.write(data, static_cast<size_t>(len) * 4);
    remote()->transact(ON_KSTATE_CALLBACK, request, &reply, 0);
    return reply.readInt32();
}

int BpQmedBinderListener::onNetworkPacketCallback(int count, const int* data) {
    Parcel request, reply;
    request.writeInterfaceToken(IQmedBinderListener::getInterfaceDescriptor());
    request.writeInt32(count);
    request.writeInt32(count);
    if (data != nullptr) {
        for (int i = 0; i < count; i++) request.writeInt32(data[i]);
    }
    remote()->transact(ON_NETWORK_PACKET_CALLBACK, request, &reply, 0);
    return reply.readInt32();
}

int BpQmedBinderListener::onStopProcSpearCallback(int pid, const char* reason) {
    Parcel request, reply;
    request.writeInterfaceToken(IQmedBinderListener::getInterfaceDescriptor());
    request.writeInt32(pid);
    request.writeString16(reason != nullptr ? String16(reason) : String16());
    remote()->transact(ON_STOP_PROC_SPEAR_CALLBACK, request, &reply, 0);
    return reply.readInt32();
}

int BpQmedBinderListener::dump(int fd, const Vector<String16>& args) {
    Parcel request, reply;
    request.writeInterfaceToken(IQmedBinderListener::getInterfaceDescriptor());
    request.writeFileDescriptor(fd, false);
    request.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; i < args.size(); i++) request.writeString16(args[i]);
    remote()->transact(DUMP, request, &reply, 0);
    return reply.readInt32();
}
