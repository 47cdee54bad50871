// Host binder: Parcel with the byte layout of the Android 13 libbinder (32-bit little-endian
// words, 4-byte alignment). Binder objects and file descriptors occupy a 24-byte slot in the
// data and travel beside the bytes. Reads past the end yield 0 or empty and set no state.
// Not thread-safe: one thread uses a Parcel at a time.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <memory>
#include <vector>

namespace android {

class IBinder;
class IPCThreadState;

namespace hostbinder {
class Wire;
}

class Parcel {
  public:
    Parcel();
    ~Parcel();

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;
    size_t dataBufferSize() const;

    status_t setDataSize(size_t size);
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);
    status_t setData(const uint8_t* buffer, size_t len);
    status_t appendFrom(const Parcel* parcel, size_t start, size_t len);

    bool allowFds() const;
    bool pushAllowFds(bool allowFds);
    void restoreAllowFds(bool lastValue);
    bool hasFileDescriptors() const;

    status_t writeInterfaceToken(const String16& interface);
    status_t writeInterfaceToken(const char16_t* str, size_t len);
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool enforceInterface(const char16_t* interface, size_t len,
                          IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder*) const;

    void freeData();

    size_t objectsCount() const;

    status_t errorCheck() const;
    void setError(status_t err);

    status_t write(const void* data, size_t len);
    void* writeInplace(size_t len);
    status_t writeUnpadded(const void* data, size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeFloat(float val);
    status_t writeDouble(double val);
    status_t writeCString(const char* str);
    status_t writeString8(const String8& str);
    status_t writeString8(const char* str, size_t len);
    status_t writeString16(const String16& str);
    status_t writeString16(const std::unique_ptr<String16>& str);
    status_t writeString16(const char16_t* str, size_t len);
    status_t writeStrongBinder(const sp<IBinder>& val);
    status_t writeInt32Array(size_t len, const int32_t* val);
    status_t writeByteArray(size_t len, const uint8_t* val);
    status_t writeBool(bool val);
    status_t writeChar(char16_t val);
    status_t writeByte(int8_t val);

    // The fd stays owned by the caller unless takeOwnership is set.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);
    status_t writeDupFileDescriptor(int fd);

    status_t writeNoException();

    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readUint32(uint32_t* pArg) const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readUint64(uint64_t* pArg) const;
    float readFloat() const;
    status_t readFloat(float* pArg) const;
    double readDouble() const;
    status_t readDouble(double* pArg) const;
    bool readBool() const;
    status_t readBool(bool* pArg) const;
    char16_t readChar() const;
    status_t readChar(char16_t* pArg) const;
    int8_t readByte() const;
    status_t readByte(int8_t* pArg) const;

    const char* readCString() const;
    String8 readString8() const;
    status_t readString8(String8* pArg) const;
    const char* readString8Inplace(size_t* outLen) const;
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    status_t readString16(std::unique_ptr<String16>* pArg) const;
    const char16_t* readString16Inplace(size_t* outLen) const;

    sp<IBinder> readStrongBinder() const;
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;
    template <typename T>
    status_t readStrongBinder(sp<T>* val) const;
    template <typename T>
    status_t readNullableStrongBinder(sp<T>* val) const;

    int32_t readExceptionCode() const;

    // The fd stays owned by the Parcel; dup it to keep it beyond the Parcel's life.
    int readFileDescriptor() const;

    uintptr_t ipcData() const;
    size_t ipcDataSize() const;
    uintptr_t ipcObjects() const;
    size_t ipcObjectsCount() const;

    struct Object {
        size_t offset;
        sp<IBinder> binder;
        int fd;
        bool ownsFd;
    };

  private:
    friend class hostbinder::Wire;

    Parcel(const Parcel& o);
    Parcel& operator=(const Parcel& o);

    status_t growData(size_t len);
    status_t writeObjectSlot(uint32_t type, Object obj);
    const Object* objectAt(size_t offset) const;
    void closeOwnedFds();

    std::vector<uint8_t> mData;
    mutable size_t mDataPos;
    std::vector<Object> mObjects;
    std::vector<size_t> mObjectOffsets;
    status_t mError;
    bool mAllowFds;
};

template <typename T>
status_t Parcel::readStrongBinder(sp<T>* val) const {
    sp<IBinder> tmp;
    status_t ret = readStrongBinder(&tmp);
    if (ret == OK) {
        *val = T::asInterface(tmp);
        if (val->get() == nullptr) return UNKNOWN_ERROR;
    }
    return ret;
}

template <typename T>
status_t Parcel::readNullableStrongBinder(sp<T>* val) const {
    sp<IBinder> tmp;
    status_t ret = readNullableStrongBinder(&tmp);
    if (ret == OK) {
        *val = T::asInterface(tmp);
        if (val->get() == nullptr && tmp.get() != nullptr) ret = UNKNOWN_ERROR;
    }
    return ret;
}

}  // namespace android
