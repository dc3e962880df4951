// The proxy of a remote service. Its handle names the service's socket (see
// Client); calls go through the calling thread's IPCThreadState as on a
// device.
#define LOG_TAG "BpBinder"

#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <log/log.h>

namespace android {
namespace {

const String16& noDescriptor() {
    static const String16* empty = new String16();
    return *empty;
}

}  // namespace

BpBinder::ObjectManager::ObjectManager() {}

BpBinder::ObjectManager::~ObjectManager() { kill(); }

void BpBinder::ObjectManager::attach(const void* objectID, void* object, void* cleanupCookie,
                                     IBinder::object_cleanup_func func) {
    entry_t e;
    e.object = object;
    e.cleanupCookie = cleanupCookie;
    e.func = func;
    if (mObjects.indexOfKey(objectID) >= 0) {
        ALOGW("object %p attached twice; keeping the first", objectID);
        return;
    }
    mObjects.add(objectID, e);
}

void* BpBinder::ObjectManager::find(const void* objectID) const {
    const ssize_t i = mObjects.indexOfKey(objectID);
    return i < 0 ? nullptr : mObjects.valueAt(static_cast<size_t>(i)).object;
}

void BpBinder::ObjectManager::detach(const void* objectID) { mObjects.removeItem(objectID); }

void BpBinder::ObjectManager::kill() {
    for (size_t i = 0; i < mObjects.size(); ++i) {
        const entry_t& e = mObjects.valueAt(i);
        if (e.func != nullptr) e.func(mObjects.keyAt(i), e.object, e.cleanupCookie);
    }
    mObjects.clear();
}

BpBinder* BpBinder::create(int32_t handle) { return new BpBinder(handle, -1); }

BpBinder::BpBinder(int32_t handle, int32_t trackedUid)
    : mHandle(handle),
      mAlive(1),
      mObitsSent(0),
      mObituaries(nullptr),
      mConstantData(nullptr),
      mTrackedUid(trackedUid) {}

BpBinder::~BpBinder() { delete mObituaries; }

int32_t BpBinder::handle() const { return mHandle; }

bool BpBinder::isDescriptorCached() const {
    Mutex::Autolock lock(mLock);
    return mDescriptorCache.size() != 0;
}

const String16& BpBinder::getInterfaceDescriptor() const {
    if (isDescriptorCached()) return mDescriptorCache;
    Parcel send;
    Parcel reply;
    if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, send, &reply) != NO_ERROR) {
        return noDescriptor();
    }
    String16 descriptor;
    if (reply.readString16(&descriptor) != NO_ERROR || descriptor.size() == 0) {
        return noDescriptor();
    }
    Mutex::Autolock lock(mLock);
    // Written once, never changed afterwards, so the reference stays valid.
    if (mDescriptorCache.size() == 0) mDescriptorCache = descriptor;
    return mDescriptorCache;
}

bool BpBinder::isBinderAlive() const {
    return __atomic_load_n(&mAlive, __ATOMIC_ACQUIRE) != 0;
}

status_t BpBinder::pingBinder() {
    Parcel send;
    Parcel reply;
    return transact(PING_TRANSACTION, send, &reply);
}

// Dumping hands a file descriptor to the service, which a socket frame
// cannot carry.
status_t BpBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) { return INVALID_OPERATION; }

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!isBinderAlive()) return DEAD_OBJECT;
    const status_t status = IPCThreadState::self()->transact(mHandle, code, data, reply, flags);
    // The socket is gone: the service died, as a device would report it.
    if (status == DEAD_OBJECT) __atomic_store_n(&mAlive, 0, __ATOMIC_RELEASE);
    return status;
}

// A host proxy learns of its service's death only when a call fails, so no
// death notifications are offered.
status_t BpBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                               uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                 uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
    return NAME_NOT_FOUND;
}

void BpBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                            object_cleanup_func func) {
    Mutex::Autolock lock(mLock);
    mObjects.attach(objectID, object, cleanupCookie, func);
}

void* BpBinder::findObject(const void* objectID) const {
    Mutex::Autolock lock(mLock);
    return mObjects.find(objectID);
}

void BpBinder::detachObject(const void* objectID) {
    Mutex::Autolock lock(mLock);
    mObjects.detach(objectID);
}

BpBinder* BpBinder::remoteBinder() { return this; }

void BpBinder::onFirstRef() {}
void BpBinder::onLastStrongRef(const void* /*id*/) {}

bool BpBinder::onIncStrongAttempted(uint32_t /*flags*/, const void* /*id*/) {
    return isBinderAlive();
}

}  // namespace android
