// Local binder objects, the interface base classes and the reference holder
// of proxy interfaces.
#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace android {
namespace {

// Never destroyed: pool threads may still answer while the process exits.
const String16& emptyDescriptor() {
    static const String16* empty = new String16();
    return *empty;
}

}  // namespace

// --- IBinder ---------------------------------------------------------------

IBinder::IBinder() : RefBase() {}
IBinder::~IBinder() {}
sp<IInterface> IBinder::queryLocalInterface(const String16& /*descriptor*/) { return nullptr; }
bool IBinder::checkSubclass(const void* /*subclassID*/) const { return false; }
BBinder* IBinder::localBinder() { return nullptr; }
BpBinder* IBinder::remoteBinder() { return nullptr; }

// --- BBinder ---------------------------------------------------------------

class BBinder::Extras {
  public:
    struct Entry {
        void* object;
        void* cleanupCookie;
        IBinder::object_cleanup_func func;
    };

    ~Extras() {
        for (auto& [id, entry] : objects) {
            if (entry.func != nullptr) entry.func(id, entry.object, entry.cleanupCookie);
        }
    }

    std::mutex lock;
    std::map<const void*, Entry> objects;
    sp<IBinder> extension;
    bool requestingSid = false;
};

BBinder::BBinder() : mExtras(nullptr), mReserved0(nullptr) {}

BBinder::~BBinder() { delete mExtras.load(std::memory_order_acquire); }

BBinder::Extras* BBinder::getOrCreateExtras() {
    Extras* extras = mExtras.load(std::memory_order_acquire);
    if (extras != nullptr) return extras;
    auto* created = new Extras();
    if (mExtras.compare_exchange_strong(extras, created, std::memory_order_acq_rel)) {
        return created;
    }
    delete created;
    return extras;
}

const String16& BBinder::getInterfaceDescriptor() const { return emptyDescriptor(); }
bool BBinder::isBinderAlive() const { return true; }
status_t BBinder::pingBinder() { return NO_ERROR; }
status_t BBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) { return NO_ERROR; }
BBinder* BBinder::localBinder() { return this; }
pid_t BBinder::getDebugPid() { return getpid(); }

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t err = onTransact(code, data, reply, flags);
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                             uint32_t /*flags*/) {
    switch (code) {
        case DUMP_TRANSACTION: {
            const int fd = data.readFileDescriptor();
            if (fd < 0) return BAD_TYPE;
            const int32_t argc = data.readInt32();
            Vector<String16> args;
            // A damaged argument ends the list; every read consumes at least
            // one word, so a huge count cannot keep this going.
            for (int32_t i = 0; i < argc && data.dataAvail() > 0; ++i) {
                String16 arg;
                if (data.readString16(&arg) != NO_ERROR) break;
                args.add(arg);
            }
            return dump(fd, args);
        }
        case PING_TRANSACTION:
            if (reply != nullptr) reply->writeInt32(pingBinder());
            return NO_ERROR;
        case INTERFACE_TRANSACTION:
            if (reply != nullptr) reply->writeString16(getInterfaceDescriptor());
            return NO_ERROR;
        default:
            return UNKNOWN_TRANSACTION;
    }
}

// A local object never dies while it is referenced.
status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                              uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

void BBinder::attachObject(const void* objectID, void* object, void* cleanupCookie,
                           object_cleanup_func func) {
    Extras* extras = getOrCreateExtras();
    std::lock_guard<std::mutex> lock(extras->lock);
    extras->objects[objectID] = Extras::Entry{object, cleanupCookie, func};
}

void* BBinder::findObject(const void* objectID) const {
    Extras* extras = mExtras.load(std::memory_order_acquire);
    if (extras == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(extras->lock);
    auto it = extras->objects.find(objectID);
    return it == extras->objects.end() ? nullptr : it->second.object;
}

void BBinder::detachObject(const void* objectID) {
    Extras* extras = mExtras.load(std::memory_order_acquire);
    if (extras == nullptr) return;
    std::lock_guard<std::mutex> lock(extras->lock);
    extras->objects.erase(objectID);
}

bool BBinder::isRequestingSid() {
    Extras* extras = mExtras.load(std::memory_order_acquire);
    if (extras == nullptr) return false;
    std::lock_guard<std::mutex> lock(extras->lock);
    return extras->requestingSid;
}

void BBinder::setRequestingSid(bool requestSid) {
    Extras* extras = getOrCreateExtras();
    std::lock_guard<std::mutex> lock(extras->lock);
    extras->requestingSid = requestSid;
}

sp<IBinder> BBinder::getExtension() {
    Extras* extras = mExtras.load(std::memory_order_acquire);
    if (extras == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(extras->lock);
    return extras->extension;
}

void BBinder::setExtension(const sp<IBinder>& extension) {
    Extras* extras = getOrCreateExtras();
    std::lock_guard<std::mutex> lock(extras->lock);
    extras->extension = extension;
}

// --- BpRefBase -------------------------------------------------------------

// The proxy interface keeps its remote object alive for its whole life.
BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o.get()), mRefs(nullptr), mState(0) {
    if (mRemote != nullptr) mRemote->incStrong(this);
}

BpRefBase::~BpRefBase() {
    if (mRemote != nullptr) mRemote->decStrong(this);
}

void BpRefBase::onFirstRef() {}
void BpRefBase::onLastStrongRef(const void* /*id*/) {}

bool BpRefBase::onIncStrongAttempted(uint32_t flags, const void* /*id*/) {
    return (flags & FIRST_INC_STRONG) != 0;
}

// --- IInterface ------------------------------------------------------------

IInterface::IInterface() : RefBase() {}
IInterface::~IInterface() {}

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    if (iface == nullptr) return nullptr;
    return const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    if (iface == nullptr) return nullptr;
    return iface->onAsBinder();
}

}  // namespace android
