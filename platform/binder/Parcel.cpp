// The flat parcel format: 32-bit values little-endian and 4-byte aligned,
// strings NUL-terminated and padded to 4. Of the platform's objects a host
// carries file descriptors only (see Wire.h); binder objects are not.
#define LOG_TAG "Parcel"

#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <log/log.h>
#include <utils/String8.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/binder/Wire.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "parcels are copied in host byte order, which must be little-endian");

namespace android {
namespace wire = vekd::binder::wire;
namespace {

constexpr size_t kMaxParcelBytes = INT32_MAX;

// Android 10 sets this bit in the policy word of every interface token.
constexpr int32_t kStrictModePenaltyGather = static_cast<int32_t>(1u << 31);

constexpr size_t pad4(size_t n) { return (n + 3) & ~static_cast<size_t>(3); }

}  // namespace

Parcel::Parcel() { initState(); }

Parcel::~Parcel() { freeDataNoInit(); }

void Parcel::initState() {
    mError = NO_ERROR;
    mData = nullptr;
    mDataSize = 0;
    mDataCapacity = 0;
    mDataPos = 0;
    mObjects = nullptr;
    mObjectsSize = 0;
    mObjectsCapacity = 0;
    mNextObjectHint = 0;
    mObjectsSorted = false;
    mRequestHeaderPresent = false;
    mWorkSourceRequestHeaderPosition = 0;
    mFdsKnown = true;
    mHasFds = false;
    mAllowFds = true;
    mOwner = nullptr;
    mOwnerCookie = nullptr;
    mOpenAshmemSize = 0;
}

void Parcel::freeDataNoInit() {
    releaseObjects();
    free(mObjects);
    free(mData);
}

// Closes the descriptors this parcel owns and forgets every object.
void Parcel::releaseObjects() {
    for (size_t i = 0; i < mObjectsSize; ++i) {
        const size_t at = static_cast<size_t>(mObjects[i]);
        if (at > mDataSize || wire::kFdObjectBytes > mDataSize - at) continue;
        const uint8_t* object = mData + at;
        const int fd = wire::fdOfObject(object);
        if (fd >= 0 && wire::ownsFd(object)) ::close(fd);
    }
    mObjectsSize = 0;
    mHasFds = false;
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (!mAllowFds) return FDS_NOT_ALLOWED;
    if (fd < 0) return BAD_VALUE;
    if (mObjectsSize == mObjectsCapacity) {
        const size_t capacity = mObjectsCapacity == 0 ? 4 : mObjectsCapacity * 2;
        void* grown = realloc(mObjects, capacity * sizeof(binder_size_t));
        if (grown == nullptr) return NO_MEMORY;
        mObjects = static_cast<binder_size_t*>(grown);
        mObjectsCapacity = capacity;
    }
    const size_t at = mDataPos;
    auto* where = static_cast<uint8_t*>(writeInplace(wire::kFdObjectBytes));
    if (where == nullptr) return NO_MEMORY;
    wire::putFdObject(where, static_cast<uint32_t>(fd), takeOwnership);
    mObjects[mObjectsSize++] = at;
    mHasFds = true;
    return NO_ERROR;
}

status_t Parcel::writeDupFileDescriptor(int fd) {
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return -errno;
    const status_t err = writeFileDescriptor(copy, true);
    if (err != NO_ERROR) ::close(copy);
    return err;
}

int Parcel::readFileDescriptor() const {
    const size_t at = mDataPos;
    if (at > mDataSize || wire::kFdObjectBytes > mDataSize - at) return BAD_TYPE;
    for (size_t i = 0; i < mObjectsSize; ++i) {
        if (mObjects[i] != at) continue;
        const int fd = wire::fdOfObject(mData + at);
        if (fd < 0) break;
        mDataPos += wire::kFdObjectBytes;
        return fd;
    }
    return BAD_TYPE;
}

// A request as it came off the wire: the bytes, with each descriptor object
// at `objects` already holding this process's descriptor and owning it.
void Parcel::ipcSetDataReference(const uint8_t* data, size_t dataSize, const binder_size_t* objects,
                                 size_t objectsCount, release_func /*relFunc*/, void* /*relCookie*/) {
    freeData();
    if (setData(data, dataSize) != NO_ERROR) {
        mError = NO_MEMORY;
        return;
    }
    if (objectsCount == 0) return;
    mObjects = static_cast<binder_size_t*>(malloc(objectsCount * sizeof(binder_size_t)));
    if (mObjects == nullptr) {
        freeData();
        mError = NO_MEMORY;
        return;
    }
    memcpy(mObjects, objects, objectsCount * sizeof(binder_size_t));
    mObjectsSize = mObjectsCapacity = objectsCount;
    mHasFds = true;
}

uintptr_t Parcel::ipcObjects() const { return reinterpret_cast<uintptr_t>(mObjects); }
size_t Parcel::ipcObjectsCount() const { return mObjectsSize; }

void Parcel::freeData() {
    freeDataNoInit();
    initState();
}

const uint8_t* Parcel::data() const { return mData; }
size_t Parcel::dataSize() const { return mDataSize; }
size_t Parcel::dataAvail() const { return mDataPos < mDataSize ? mDataSize - mDataPos : 0; }
size_t Parcel::dataPosition() const { return mDataPos; }
size_t Parcel::dataCapacity() const { return mDataCapacity; }
size_t Parcel::objectsCount() const { return mObjectsSize; }
bool Parcel::hasFileDescriptors() const { return mHasFds; }
status_t Parcel::errorCheck() const { return mError; }
void Parcel::setError(status_t err) { mError = err; }
bool Parcel::allowFds() const { return mAllowFds; }

bool Parcel::pushAllowFds(bool allowFds) {
    const bool previous = mAllowFds;
    if (!allowFds) mAllowFds = false;
    return previous;
}

void Parcel::restoreAllowFds(bool lastValue) { mAllowFds = lastValue; }

status_t Parcel::continueWrite(size_t desired) {
    if (desired > kMaxParcelBytes) return BAD_VALUE;
    if (desired > mDataCapacity) {
        void* grown = realloc(mData, desired);
        if (grown == nullptr) {
            mError = NO_MEMORY;
            return NO_MEMORY;
        }
        mData = static_cast<uint8_t*>(grown);
        mDataCapacity = desired;
    }
    if (desired > mDataSize) memset(mData + mDataSize, 0, desired - mDataSize);
    mDataSize = desired;
    if (mDataPos > desired) mDataPos = desired;
    return NO_ERROR;
}

status_t Parcel::restartWrite(size_t desired) {
    releaseObjects();
    mDataSize = 0;
    mDataPos = 0;
    mRequestHeaderPresent = false;
    return continueWrite(desired);
}

status_t Parcel::setDataSize(size_t size) { return continueWrite(size); }

void Parcel::setDataPosition(size_t pos) const {
    // Reads and writes check the position, so any value is safe to keep.
    mDataPos = pos;
    mNextObjectHint = 0;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > kMaxParcelBytes) return BAD_VALUE;
    if (size <= mDataCapacity) return NO_ERROR;
    void* grown = realloc(mData, size);
    if (grown == nullptr) return NO_MEMORY;
    mData = static_cast<uint8_t*>(grown);
    mDataCapacity = size;
    return NO_ERROR;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxParcelBytes || (len > 0 && buffer == nullptr)) return BAD_VALUE;
    status_t err = restartWrite(len);
    if (err == NO_ERROR && len > 0) memcpy(mData, buffer, len);
    return err;
}

status_t Parcel::appendFrom(const Parcel* parcel, size_t start, size_t len) {
    if (parcel == nullptr || start > parcel->mDataSize || len > parcel->mDataSize - start) {
        return BAD_VALUE;
    }
    if (len == 0) return NO_ERROR;
    return writeUnpadded(parcel->mData + start, len);
}

int Parcel::compareData(const Parcel& other) {
    if (mDataSize != other.mDataSize) return mDataSize < other.mDataSize ? -1 : 1;
    return mDataSize == 0 ? 0 : memcmp(mData, other.mData, mDataSize);
}

// Makes room for `len` more bytes at the current position.
status_t Parcel::growData(size_t len) {
    if (len > kMaxParcelBytes || mDataPos > kMaxParcelBytes - len) return BAD_VALUE;
    const size_t needed = mDataPos + len;
    if (needed <= mDataCapacity) return NO_ERROR;
    size_t capacity = needed + needed / 2;
    if (capacity > kMaxParcelBytes) capacity = needed;
    return setDataCapacity(capacity);
}

status_t Parcel::finishWrite(size_t len) {
    if (mDataPos > mDataSize) memset(mData + mDataSize, 0, mDataPos - mDataSize);
    mDataPos += len;
    if (mDataPos > mDataSize) mDataSize = mDataPos;
    return NO_ERROR;
}

void* Parcel::writeInplace(size_t len) {
    if (len > kMaxParcelBytes) return nullptr;
    const size_t padded = pad4(len);
    if (growData(padded) != NO_ERROR) return nullptr;
    uint8_t* where = mData + mDataPos;
    // Gap bytes left by an earlier setDataPosition must not leak old memory.
    finishWrite(padded);
    memset(where + len, 0, padded - len);
    return where;
}

status_t Parcel::write(const void* data, size_t len) {
    if (len > 0 && data == nullptr) return BAD_VALUE;
    void* where = writeInplace(len);
    if (where == nullptr) return BAD_VALUE;
    if (len > 0) memcpy(where, data, len);
    return NO_ERROR;
}

status_t Parcel::writeUnpadded(const void* data, size_t len) {
    if (len > 0 && data == nullptr) return BAD_VALUE;
    status_t err = growData(len);
    if (err != NO_ERROR) return err;
    uint8_t* where = mData + mDataPos;
    finishWrite(len);
    if (len > 0) memcpy(where, data, len);
    return NO_ERROR;
}

template <class T>
status_t Parcel::writeAligned(T val) {
    static_assert(sizeof(T) % 4 == 0, "parcel values are whole 32-bit words");
    status_t err = growData(sizeof(T));
    if (err != NO_ERROR) return err;
    uint8_t* where = mData + mDataPos;
    finishWrite(sizeof(T));
    memcpy(where, &val, sizeof(T));
    return NO_ERROR;
}

status_t Parcel::writeInt32(int32_t val) { return writeAligned(val); }
status_t Parcel::writeUint32(uint32_t val) { return writeAligned(val); }
status_t Parcel::writeInt64(int64_t val) { return writeAligned(val); }
status_t Parcel::writeUint64(uint64_t val) { return writeAligned(val); }
status_t Parcel::writeFloat(float val) { return writeAligned(val); }
status_t Parcel::writeDouble(double val) { return writeAligned(val); }
status_t Parcel::writeBool(bool val) { return writeInt32(val ? 1 : 0); }
status_t Parcel::writeChar(char16_t val) { return writeInt32(static_cast<int32_t>(val)); }
status_t Parcel::writeByte(int8_t val) { return writeInt32(static_cast<int32_t>(val)); }
status_t Parcel::writeNoException() { return writeInt32(0); }

status_t Parcel::writeCString(const char* str) {
    if (str == nullptr) return BAD_VALUE;
    return write(str, strlen(str) + 1);
}

status_t Parcel::writeString8(const String8& str) {
    status_t err = writeInt32(static_cast<int32_t>(str.bytes()));
    if (err == NO_ERROR) err = write(str.string(), str.bytes() + 1);
    return err;
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
    if (len >= kMaxParcelBytes / sizeof(char16_t)) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != NO_ERROR) return err;
    const size_t bytes = len * sizeof(char16_t);
    auto* where = static_cast<uint8_t*>(writeInplace(bytes + sizeof(char16_t)));
    if (where == nullptr) return BAD_VALUE;
    memcpy(where, str, bytes);
    memset(where + bytes, 0, sizeof(char16_t));
    return NO_ERROR;
}

status_t Parcel::writeUtf8AsUtf16(const std::string& str) {
    return writeString16(String16(str.data(), str.size()));
}

status_t Parcel::writeInt32Array(size_t len, const int32_t* val) {
    if (val == nullptr) return writeInt32(-1);
    if (len > INT32_MAX / sizeof(int32_t)) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err == NO_ERROR) err = write(val, len * sizeof(int32_t));
    return err;
}

status_t Parcel::writeByteArray(size_t len, const uint8_t* val) {
    if (val == nullptr) return writeInt32(-1);
    if (len > INT32_MAX) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err == NO_ERROR) err = write(val, len);
    return err;
}

void Parcel::updateWorkSourceRequestHeaderPosition() const {
    // Only the first token of a parcel is the request header.
    if (!mRequestHeaderPresent) {
        mWorkSourceRequestHeaderPosition = mDataPos;
        mRequestHeaderPresent = true;
    }
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    IPCThreadState* state = IPCThreadState::self();
    writeInt32(state->getStrictModePolicy() | kStrictModePenaltyGather);
    updateWorkSourceRequestHeaderPosition();
    writeInt32(state->shouldPropagateWorkSource()
                   ? static_cast<int32_t>(state->getCallingWorkSourceUid())
                   : IPCThreadState::kUnsetWorkSource);
    return writeString16(interface);
}

bool Parcel::checkInterface(IBinder* binder) const {
    if (binder == nullptr) return false;
    return enforceInterface(binder->getInterfaceDescriptor());
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* threadState) const {
    if (threadState == nullptr) threadState = IPCThreadState::self();
    threadState->setStrictModePolicy(readInt32());
    updateWorkSourceRequestHeaderPosition();
    threadState->setCallingWorkSourceUidWithoutPropagation(static_cast<uid_t>(readInt32()));
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str != nullptr && len == interface.size() &&
        memcmp(str, interface.string(), len * sizeof(char16_t)) == 0) {
        return true;
    }
    ALOGW("interface token mismatch: expected '%s', got '%s'", String8(interface).string(),
          str ? String8(str, len).string() : "<none>");
    return false;
}

uid_t Parcel::readCallingWorkSourceUid() const {
    if (!mRequestHeaderPresent) return static_cast<uid_t>(IPCThreadState::kUnsetWorkSource);
    const size_t saved = mDataPos;
    mDataPos = mWorkSourceRequestHeaderPosition;
    const int32_t uid = readInt32();
    mDataPos = saved;
    return static_cast<uid_t>(uid);
}

bool Parcel::replaceCallingWorkSourceUid(uid_t uid) {
    if (!mRequestHeaderPresent) return false;
    const size_t saved = mDataPos;
    mDataPos = mWorkSourceRequestHeaderPosition;
    const status_t err = writeInt32(static_cast<int32_t>(uid));
    mDataPos = saved;
    return err == NO_ERROR;
}

// --- reading ---------------------------------------------------------------

const void* Parcel::readInplace(size_t len) const {
    if (len > kMaxParcelBytes) return nullptr;
    const size_t padded = pad4(len);
    if (mDataPos > mDataSize || padded > mDataSize - mDataPos) return nullptr;
    const uint8_t* where = mData + mDataPos;
    mDataPos += padded;
    return where;
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* where = readInplace(len);
    if (where == nullptr) return NOT_ENOUGH_DATA;
    if (len > 0) memcpy(outData, where, len);
    return NO_ERROR;
}

template <class T>
status_t Parcel::readAligned(T* pArg) const {
    static_assert(sizeof(T) % 4 == 0, "parcel values are whole 32-bit words");
    if (mDataPos > mDataSize || sizeof(T) > mDataSize - mDataPos) return NOT_ENOUGH_DATA;
    memcpy(pArg, mData + mDataPos, sizeof(T));
    mDataPos += sizeof(T);
    return NO_ERROR;
}

template <class T>
T Parcel::readAligned() const {
    T result{};
    if (readAligned(&result) != NO_ERROR) result = T{};
    return result;
}

int32_t Parcel::readInt32() const { return readAligned<int32_t>(); }
status_t Parcel::readInt32(int32_t* pArg) const { return readAligned(pArg); }
uint32_t Parcel::readUint32() const { return readAligned<uint32_t>(); }
status_t Parcel::readUint32(uint32_t* pArg) const { return readAligned(pArg); }
int64_t Parcel::readInt64() const { return readAligned<int64_t>(); }
status_t Parcel::readInt64(int64_t* pArg) const { return readAligned(pArg); }
uint64_t Parcel::readUint64() const { return readAligned<uint64_t>(); }
status_t Parcel::readUint64(uint64_t* pArg) const { return readAligned(pArg); }
float Parcel::readFloat() const { return readAligned<float>(); }
status_t Parcel::readFloat(float* pArg) const { return readAligned(pArg); }
double Parcel::readDouble() const { return readAligned<double>(); }
status_t Parcel::readDouble(double* pArg) const { return readAligned(pArg); }
bool Parcel::readBool() const { return readInt32() != 0; }
char16_t Parcel::readChar() const { return static_cast<char16_t>(readInt32()); }
int8_t Parcel::readByte() const { return static_cast<int8_t>(readInt32()); }

status_t Parcel::readBool(bool* pArg) const {
    int32_t value = 0;
    status_t err = readInt32(&value);
    *pArg = value != 0;
    return err;
}

status_t Parcel::readChar(char16_t* pArg) const {
    int32_t value = 0;
    status_t err = readInt32(&value);
    *pArg = static_cast<char16_t>(value);
    return err;
}

status_t Parcel::readByte(int8_t* pArg) const {
    int32_t value = 0;
    status_t err = readInt32(&value);
    *pArg = static_cast<int8_t>(value);
    return err;
}

int32_t Parcel::readExceptionCode() const { return readInt32(); }

const char* Parcel::readCString() const {
    if (mDataPos >= mDataSize) return nullptr;
    const char* str = reinterpret_cast<const char*>(mData + mDataPos);
    const size_t avail = mDataSize - mDataPos;
    const void* end = memchr(str, 0, avail);
    if (end == nullptr) return nullptr;
    const size_t len = static_cast<size_t>(static_cast<const char*>(end) - str);
    // A last string whose padding is missing still reads; later reads fail.
    mDataPos += pad4(len + 1);
    return str;
}

status_t Parcel::readString8(String8* pArg) const {
    const size_t start = mDataPos;
    int32_t size = 0;
    status_t err = readInt32(&size);
    if (err == NO_ERROR && size >= 0 && size < INT32_MAX) {
        const auto* str = static_cast<const char*>(readInplace(static_cast<size_t>(size) + 1));
        if (str != nullptr && str[size] == '\0') {
            pArg->setTo(str, static_cast<size_t>(size));
            return NO_ERROR;
        }
    }
    mDataPos = start;
    pArg->clear();
    return size < 0 ? UNEXPECTED_NULL : BAD_VALUE;
}

String8 Parcel::readString8() const {
    String8 result;
    readString8(&result);
    return result;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    const int32_t size = readInt32();
    if (size >= 0 && static_cast<size_t>(size) < kMaxParcelBytes / sizeof(char16_t)) {
        const size_t units = static_cast<size_t>(size);
        const auto* str =
            static_cast<const char16_t*>(readInplace((units + 1) * sizeof(char16_t)));
        if (str != nullptr && str[units] == 0) {
            *outLen = units;
            return str;
        }
    }
    *outLen = 0;
    return nullptr;
}

status_t Parcel::readString16(String16* pArg) const {
    const size_t start = mDataPos;
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str != nullptr) {
        pArg->setTo(str, len);
        return NO_ERROR;
    }
    *pArg = String16();
    // A size of -1 is a null string; anything else is a damaged parcel.
    mDataPos = start;
    return readInt32() == -1 ? UNEXPECTED_NULL : BAD_VALUE;
}

status_t Parcel::readString16(std::unique_ptr<String16>* pArg) const {
    const size_t start = mDataPos;
    int32_t size = 0;
    status_t err = readInt32(&size);
    pArg->reset();
    if (err != NO_ERROR || size < 0) return err;
    mDataPos = start;
    pArg->reset(new String16());
    err = readString16(pArg->get());
    if (err != NO_ERROR) pArg->reset();
    return err;
}

String16 Parcel::readString16() const {
    String16 result;
    readString16(&result);
    return result;
}

status_t Parcel::readUtf8FromUtf16(std::string* str) const {
    size_t len = 0;
    const char16_t* src = readString16Inplace(&len);
    if (src == nullptr) return UNEXPECTED_NULL;
    const String8 utf8(src, len);
    str->assign(utf8.string(), utf8.bytes());
    return NO_ERROR;
}

}  // namespace android
