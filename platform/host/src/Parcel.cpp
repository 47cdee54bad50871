#define LOG_TAG "HostBinder"

#include <binder/BpBinder.h>
#include <binder/IBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <log/log.h>
#include <string.h>
#include <unistd.h>

#include "WireFormat.h"

namespace android {

using hostbinder::FlatObject;
using hostbinder::kFlatObjectSize;

namespace {

// Must match the platform's StrictMode PENALTY_GATHER bit.
constexpr int32_t kStrictModePenaltyGather = int32_t(1u << 31);
constexpr int32_t kHeader = B_PACK_CHARS('S', 'Y', 'S', 'T');
constexpr int32_t EX_HAS_NOTED_APPOPS_REPLY_HEADER = -127;
constexpr int32_t EX_HAS_REPLY_HEADER = -128;
constexpr int32_t EX_SERVICE_SPECIFIC = -8;

inline size_t padSize(size_t s) {
    return (s + 3) & ~size_t(3);
}

}  // namespace

Parcel::Parcel() : mDataPos(0), mError(NO_ERROR), mAllowFds(true) {}

Parcel::~Parcel() {
    closeOwnedFds();
}

void Parcel::closeOwnedFds() {
    for (auto& o : mObjects) {
        if (o.fd >= 0 && o.ownsFd) close(o.fd);
        o.fd = -1;
    }
}

const uint8_t* Parcel::data() const {
    return mData.empty() ? nullptr : mData.data();
}
size_t Parcel::dataSize() const {
    return mData.size();
}
size_t Parcel::dataAvail() const {
    return mDataPos < mData.size() ? mData.size() - mDataPos : 0;
}
size_t Parcel::dataPosition() const {
    return mDataPos;
}
size_t Parcel::dataCapacity() const {
    return mData.capacity();
}
size_t Parcel::dataBufferSize() const {
    return mData.size();
}

status_t Parcel::setDataSize(size_t size) {
    if (size > INT32_MAX) return BAD_VALUE;
    mData.resize(size);
    if (mDataPos > size) mDataPos = size;
    for (size_t i = mObjects.size(); i-- > 0;) {
        if (mObjects[i].offset + kFlatObjectSize > size) {
            if (mObjects[i].fd >= 0 && mObjects[i].ownsFd) close(mObjects[i].fd);
            mObjects.erase(mObjects.begin() + i);
            mObjectOffsets.erase(mObjectOffsets.begin() + i);
        }
    }
    return NO_ERROR;
}

void Parcel::setDataPosition(size_t pos) const {
    mDataPos = pos;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > INT32_MAX) return BAD_VALUE;
    if (size > mData.capacity()) mData.reserve(size);
    return NO_ERROR;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > INT32_MAX) return BAD_VALUE;
    freeData();
    if (len > 0 && buffer != nullptr) mData.assign(buffer, buffer + len);
    return NO_ERROR;
}

status_t Parcel::appendFrom(const Parcel* parcel, size_t offset, size_t len) {
    if (parcel == nullptr || len == 0) return NO_ERROR;
    if (offset > parcel->mData.size() || len > parcel->mData.size() - offset) return BAD_VALUE;
    const size_t startPos = mDataPos;
    status_t err = write(parcel->mData.data() + offset, len);
    if (err != NO_ERROR) return err;
    for (const auto& o : parcel->mObjects) {
        if (o.offset < offset || o.offset + kFlatObjectSize > offset + len) continue;
        Object copy = o;
        copy.offset = startPos + (o.offset - offset);
        if (o.fd >= 0) {
            if (!mAllowFds) return FDS_NOT_ALLOWED;
            copy.fd = fcntl(o.fd, F_DUPFD_CLOEXEC, 0);
            if (copy.fd < 0) return -errno;
            copy.ownsFd = true;
        }
        mObjects.push_back(copy);
        mObjectOffsets.push_back(copy.offset);
    }
    return NO_ERROR;
}

bool Parcel::allowFds() const {
    return mAllowFds;
}
bool Parcel::pushAllowFds(bool allowFds) {
    const bool origValue = mAllowFds;
    if (!allowFds) mAllowFds = false;
    return origValue;
}
void Parcel::restoreAllowFds(bool lastValue) {
    mAllowFds = lastValue;
}

bool Parcel::hasFileDescriptors() const {
    for (const auto& o : mObjects) {
        if (o.fd >= 0) return true;
    }
    return false;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    return writeInterfaceToken(interface.string(), interface.size());
}

status_t Parcel::writeInterfaceToken(const char16_t* str, size_t len) {
    const IPCThreadState* threadState = IPCThreadState::self();
    writeInt32(threadState->getStrictModePolicy() | kStrictModePenaltyGather);
    writeInt32(threadState->shouldPropagateWorkSource()
                       ? int32_t(threadState->getCallingWorkSourceUid())
                       : IPCThreadState::kUnsetWorkSource);
    writeInt32(kHeader);
    return writeString16(str, len);
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* threadState) const {
    return enforceInterface(interface.string(), interface.size(), threadState);
}

bool Parcel::enforceInterface(const char16_t* interface, size_t len,
                              IPCThreadState* threadState) const {
    const int32_t strictPolicy = readInt32();
    if (threadState == nullptr) threadState = IPCThreadState::self();
    if ((threadState->getLastTransactionBinderFlags() & IBinder::FLAG_ONEWAY) != 0) {
        threadState->setStrictModePolicy(strictPolicy & ~kStrictModePenaltyGather);
    } else {
        threadState->setStrictModePolicy(strictPolicy);
    }
    const int32_t workSource = readInt32();
    threadState->setCallingWorkSourceUidWithoutPropagation(uid_t(workSource));
    const int32_t header = readInt32();
    if (header != kHeader) {
        ALOGE("Expecting header 0x%x but found 0x%x. Mixing copies of libbinder?", kHeader, header);
        return false;
    }
    size_t parcelLen = 0;
    const char16_t* parcelInterface = readString16Inplace(&parcelLen);
    if (parcelInterface != nullptr && len == parcelLen &&
        (len == 0 || memcmp(parcelInterface, interface, len * sizeof(char16_t)) == 0)) {
        return true;
    }
    ALOGW("**** enforceInterface() expected '%s' but read '%s'", String8(interface, len).string(),
          parcelInterface ? String8(parcelInterface, parcelLen).string() : "");
    return false;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return enforceInterface(binder->getInterfaceDescriptor());
}

void Parcel::freeData() {
    closeOwnedFds();
    mObjects.clear();
    mObjectOffsets.clear();
    mData.clear();
    mDataPos = 0;
    mError = NO_ERROR;
}

size_t Parcel::objectsCount() const {
    return mObjects.size();
}

status_t Parcel::errorCheck() const {
    return mError;
}

void Parcel::setError(status_t err) {
    mError = err;
}

status_t Parcel::growData(size_t len) {
    if (len > INT32_MAX || mDataPos > INT32_MAX - len) {
        mError = NO_MEMORY;
        return NO_MEMORY;
    }
    if (mDataPos + len > mData.size()) mData.resize(mDataPos + len);
    return NO_ERROR;
}

void* Parcel::writeInplace(size_t len) {
    if (len > INT32_MAX) return nullptr;
    const size_t padded = padSize(len);
    if (growData(padded) != NO_ERROR) return nullptr;
    uint8_t* const d = mData.data() + mDataPos;
    if (padded != len) memset(d + len, 0, padded - len);
    mDataPos += padded;
    return d;
}

status_t Parcel::write(const void* data, size_t len) {
    void* const d = writeInplace(len);
    if (d == nullptr) return len > INT32_MAX ? BAD_VALUE : mError;
    if (len > 0) memcpy(d, data, len);
    return NO_ERROR;
}

status_t Parcel::writeUnpadded(const void* data, size_t len) {
    if (len > INT32_MAX) return BAD_VALUE;
    if (growData(len) != NO_ERROR) return NO_MEMORY;
    if (len > 0) memcpy(mData.data() + mDataPos, data, len);
    mDataPos += len;
    return NO_ERROR;
}

status_t Parcel::writeInt32(int32_t val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeUint32(uint32_t val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeInt64(int64_t val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeUint64(uint64_t val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeFloat(float val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeDouble(double val) {
    return write(&val, sizeof(val));
}
status_t Parcel::writeBool(bool val) {
    return writeInt32(int32_t(val));
}
status_t Parcel::writeChar(char16_t val) {
    return writeInt32(int32_t(val));
}
status_t Parcel::writeByte(int8_t val) {
    return writeInt32(int32_t(val));
}

status_t Parcel::writeCString(const char* str) {
    return write(str, strlen(str) + 1);
}

status_t Parcel::writeString8(const String8& str) {
    return writeString8(str.string(), str.size());
}

status_t Parcel::writeString8(const char* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= INT32_MAX) return BAD_VALUE;
    status_t err = writeInt32(int32_t(len));
    if (err != NO_ERROR) return err;
    uint8_t* d = static_cast<uint8_t*>(writeInplace(len + 1));
    if (d == nullptr) return mError;
    memcpy(d, str, len);
    d[len] = 0;
    return NO_ERROR;
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const std::unique_ptr<String16>& str) {
    if (!str) return writeInt32(-1);
    return writeString16(*str);
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= INT32_MAX / 2) return BAD_VALUE;
    status_t err = writeInt32(int32_t(len));
    if (err != NO_ERROR) return err;
    const size_t bytes = len * sizeof(char16_t);
    uint8_t* d = static_cast<uint8_t*>(writeInplace(bytes + sizeof(char16_t)));
    if (d == nullptr) return mError;
    memcpy(d, str, bytes);
    memset(d + bytes, 0, sizeof(char16_t));
    return NO_ERROR;
}

status_t Parcel::writeInt32Array(size_t len, const int32_t* val) {
    if (len > INT32_MAX / sizeof(int32_t)) return BAD_VALUE;
    if (val == nullptr) return writeInt32(-1);
    status_t err = writeInt32(int32_t(len));
    if (err == NO_ERROR) err = write(val, len * sizeof(*val));
    return err;
}

status_t Parcel::writeByteArray(size_t len, const uint8_t* val) {
    if (len > INT32_MAX) return BAD_VALUE;
    if (val == nullptr) return writeInt32(-1);
    status_t err = writeInt32(int32_t(len));
    if (err == NO_ERROR) err = write(val, len);
    return err;
}

status_t Parcel::writeObjectSlot(uint32_t type, Object obj) {
    FlatObject flat = {};
    flat.type = type;
    if (obj.fd >= 0) {
        flat.handle = uint64_t(obj.fd);
        flat.cookie = obj.ownsFd ? 1 : 0;
    }
    obj.offset = mDataPos;
    status_t err = write(&flat, sizeof(flat));
    if (err != NO_ERROR) {
        if (obj.fd >= 0 && obj.ownsFd) close(obj.fd);
        return err;
    }
    mObjects.push_back(obj);
    mObjectOffsets.push_back(obj.offset);
    return NO_ERROR;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    if (val == nullptr) {
        FlatObject flat = {};
        flat.type = hostbinder::kFlatTypeBinder;
        return write(&flat, sizeof(flat));
    }
    Object obj{0, val, -1, false};
    return writeObjectSlot(val->localBinder() != nullptr ? hostbinder::kFlatTypeBinder
                                                         : hostbinder::kFlatTypeHandle,
                           obj);
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (!mAllowFds) return FDS_NOT_ALLOWED;
    if (fd < 0) return BAD_VALUE;
    Object obj{0, nullptr, fd, takeOwnership};
    return writeObjectSlot(hostbinder::kFlatTypeFd, obj);
}

status_t Parcel::writeDupFileDescriptor(int fd) {
    if (!mAllowFds) return FDS_NOT_ALLOWED;
    const int dupFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) return -errno;
    return writeFileDescriptor(dupFd, true);
}

status_t Parcel::writeNoException() {
    return writeInt32(0);
}

const void* Parcel::readInplace(size_t len) const {
    if (len > INT32_MAX) return nullptr;
    const size_t padded = padSize(len);
    if (mDataPos > mData.size() || padded > mData.size() - mDataPos) return nullptr;
    const void* d = mData.data() + mDataPos;
    mDataPos += padded;
    return d;
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* d = readInplace(len);
    if (d == nullptr) return NOT_ENOUGH_DATA;
    memcpy(outData, d, len);
    return NO_ERROR;
}

namespace {
template <typename T>
status_t readValue(const Parcel& p, T* out) {
    static_assert(sizeof(T) % 4 == 0, "aligned");
    T v{};
    status_t err = p.read(&v, sizeof(T));
    *out = err == NO_ERROR ? v : T{};
    return err;
}
template <typename T>
T readValue(const Parcel& p) {
    T v{};
    readValue(p, &v);
    return v;
}
}  // namespace

int32_t Parcel::readInt32() const {
    return readValue<int32_t>(*this);
}
status_t Parcel::readInt32(int32_t* pArg) const {
    return readValue(*this, pArg);
}
uint32_t Parcel::readUint32() const {
    return readValue<uint32_t>(*this);
}
status_t Parcel::readUint32(uint32_t* pArg) const {
    return readValue(*this, pArg);
}
int64_t Parcel::readInt64() const {
    return readValue<int64_t>(*this);
}
status_t Parcel::readInt64(int64_t* pArg) const {
    return readValue(*this, pArg);
}
uint64_t Parcel::readUint64() const {
    return readValue<uint64_t>(*this);
}
status_t Parcel::readUint64(uint64_t* pArg) const {
    return readValue(*this, pArg);
}
float Parcel::readFloat() const {
    return readValue<float>(*this);
}
status_t Parcel::readFloat(float* pArg) const {
    return readValue(*this, pArg);
}
double Parcel::readDouble() const {
    return readValue<double>(*this);
}
status_t Parcel::readDouble(double* pArg) const {
    return readValue(*this, pArg);
}
bool Parcel::readBool() const {
    return readInt32() != 0;
}
status_t Parcel::readBool(bool* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    *pArg = v != 0;
    return err;
}
char16_t Parcel::readChar() const {
    return char16_t(readInt32());
}
status_t Parcel::readChar(char16_t* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    *pArg = char16_t(v);
    return err;
}
int8_t Parcel::readByte() const {
    return int8_t(readInt32());
}
status_t Parcel::readByte(int8_t* pArg) const {
    int32_t v = 0;
    status_t err = readInt32(&v);
    *pArg = int8_t(v);
    return err;
}

const char* Parcel::readCString() const {
    if (mDataPos >= mData.size()) return nullptr;
    const size_t avail = mData.size() - mDataPos;
    const char* str = reinterpret_cast<const char*>(mData.data() + mDataPos);
    const void* eos = memchr(str, 0, avail);
    if (eos == nullptr) return nullptr;
    const size_t len = static_cast<const char*>(eos) - str;
    mDataPos += std::min(padSize(len + 1), avail);
    return str;
}

const char* Parcel::readString8Inplace(size_t* outLen) const {
    int32_t size = 0;
    if (readInt32(&size) == NO_ERROR && size >= 0 && size < INT32_MAX) {
        *outLen = size_t(size);
        const char* str = static_cast<const char*>(readInplace(size_t(size) + 1));
        // A position set off the word grid must not turn into a misaligned UTF-16 read.
        if (str != nullptr && reinterpret_cast<uintptr_t>(str) % alignof(char16_t) == 0 &&
            str[size] == 0) {
            return str;
        }
    }
    *outLen = 0;
    return nullptr;
}

String8 Parcel::readString8() const {
    size_t len = 0;
    const char* str = readString8Inplace(&len);
    return str ? String8(str, len) : String8();
}

status_t Parcel::readString8(String8* pArg) const {
    size_t len = 0;
    const char* str = readString8Inplace(&len);
    if (str == nullptr) {
        *pArg = String8();
        return UNEXPECTED_NULL;
    }
    pArg->setTo(str, len);
    return NO_ERROR;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    int32_t size = 0;
    if (readInt32(&size) == NO_ERROR && size >= 0 && size < INT32_MAX / 2) {
        *outLen = size_t(size);
        const char16_t* str =
                static_cast<const char16_t*>(readInplace((size_t(size) + 1) * sizeof(char16_t)));
        // A position set off the word grid must not turn into a misaligned UTF-16 read.
        if (str != nullptr && reinterpret_cast<uintptr_t>(str) % alignof(char16_t) == 0 &&
            str[size] == 0) {
            return str;
        }
    } else if (size == -1) {
        *outLen = 0;
        return nullptr;
    }
    *outLen = 0;
    return nullptr;
}

String16 Parcel::readString16() const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    return str ? String16(str, len) : String16();
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) {
        *pArg = String16();
        return UNEXPECTED_NULL;
    }
    pArg->setTo(str, len);
    return NO_ERROR;
}

status_t Parcel::readString16(std::unique_ptr<String16>* pArg) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) {
        pArg->reset();
        return NO_ERROR;
    }
    pArg->reset(new String16(str, len));
    return NO_ERROR;
}

const Parcel::Object* Parcel::objectAt(size_t offset) const {
    for (const auto& o : mObjects) {
        if (o.offset == offset) return &o;
    }
    return nullptr;
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const {
    const size_t pos = mDataPos;
    FlatObject flat;
    if (read(&flat, sizeof(flat)) != NO_ERROR) {
        *val = nullptr;
        return BAD_TYPE;
    }
    const Object* obj = objectAt(pos);
    if (obj != nullptr && obj->binder != nullptr) {
        *val = obj->binder;
        return NO_ERROR;
    }
    *val = nullptr;
    if (obj == nullptr && flat.type == hostbinder::kFlatTypeBinder && flat.handle == 0) {
        return NO_ERROR;
    }
    return BAD_TYPE;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    status_t err = readNullableStrongBinder(val);
    if (err == NO_ERROR && val->get() == nullptr) err = UNEXPECTED_NULL;
    return err;
}

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> val;
    readNullableStrongBinder(&val);
    return val;
}

int32_t Parcel::readExceptionCode() const {
    int32_t code = readInt32();
    if (code == EX_HAS_NOTED_APPOPS_REPLY_HEADER) {
        const size_t start = mDataPos;
        const int32_t size = readInt32();
        if (size > 0) setDataPosition(start + size_t(size));
        code = readInt32();
    }
    if (code == EX_HAS_REPLY_HEADER) {
        const size_t start = mDataPos;
        const int32_t size = readInt32();
        if (size > 0) setDataPosition(start + size_t(size));
        return 0;
    }
    if (code != 0) {
        readString16();
        const size_t start = mDataPos;
        const int32_t traceSize = readInt32();
        if (traceSize > 0) setDataPosition(start + size_t(traceSize));
        if (code == EX_SERVICE_SPECIFIC) readInt32();
    }
    return code;
}

int Parcel::readFileDescriptor() const {
    const size_t pos = mDataPos;
    FlatObject flat;
    if (read(&flat, sizeof(flat)) != NO_ERROR) return BAD_TYPE;
    const Object* obj = objectAt(pos);
    if (obj == nullptr || obj->fd < 0) return BAD_TYPE;
    return obj->fd;
}

uintptr_t Parcel::ipcData() const {
    return reinterpret_cast<uintptr_t>(data());
}
size_t Parcel::ipcDataSize() const {
    return mData.size();
}
uintptr_t Parcel::ipcObjects() const {
    return reinterpret_cast<uintptr_t>(mObjectOffsets.empty() ? nullptr : mObjectOffsets.data());
}
size_t Parcel::ipcObjectsCount() const {
    return mObjectOffsets.size();
}

}  // namespace android
