// Per-thread binder state: the caller of the transaction being served, and the
// way out for this thread's outgoing calls.
#include <binder/IPCThreadState.h>
#include <pthread.h>
#include <unistd.h>

#include <mutex>

#include "platform/binder/Client.h"
#include "platform/binder/Driver.h"
#include "platform/binder/Wire.h"

namespace android {
namespace {

pthread_key_t gThreadKey;
std::once_flag gThreadKeyOnce;

}  // namespace

IPCThreadState* IPCThreadState::self() {
    std::call_once(gThreadKeyOnce, [] { pthread_key_create(&gThreadKey, threadDestructor); });
    auto* state = static_cast<IPCThreadState*>(pthread_getspecific(gThreadKey));
    return state != nullptr ? state : new IPCThreadState();
}

IPCThreadState* IPCThreadState::selfOrNull() {
    std::call_once(gThreadKeyOnce, [] { pthread_key_create(&gThreadKey, threadDestructor); });
    return static_cast<IPCThreadState*>(pthread_getspecific(gThreadKey));
}

void IPCThreadState::threadDestructor(void* st) { delete static_cast<IPCThreadState*>(st); }

// Stops the pool and frees the calling thread's state.
void IPCThreadState::shutdown() {
    vekd::binder::Driver::instance().shutdown();
    IPCThreadState* state = selfOrNull();
    if (state != nullptr) {
        pthread_setspecific(gThreadKey, nullptr);
        delete state;
    }
}

// The thread state holds no reference to the process state: the process state
// lives in its process-wide slot, and a reference dropped at thread exit would
// race with resetForTesting() in ways the thread sanitizer cannot see through
// the platform's uninstrumented reference counting.
IPCThreadState::IPCThreadState()
    : mProcess(nullptr),
      mLastError(NO_ERROR),
      mServingStackPointer(nullptr),
      mCallingPid(getpid()),
      mCallingSid(nullptr),
      mCallingUid(getuid()),
      mWorkSource(kUnsetWorkSource),
      mPropagateWorkSource(false),
      mStrictModePolicy(0),
      mLastTransactionBinderFlags(0),
      mCallRestriction(ProcessState::CallRestriction::NONE) {
    pthread_setspecific(gThreadKey, this);
}

IPCThreadState::~IPCThreadState() {}

sp<ProcessState> IPCThreadState::process() { return ProcessState::self(); }

status_t IPCThreadState::clearLastError() {
    const status_t err = mLastError;
    mLastError = NO_ERROR;
    return err;
}

pid_t IPCThreadState::getCallingPid() const { return mCallingPid; }
const char* IPCThreadState::getCallingSid() const { return mCallingSid; }
uid_t IPCThreadState::getCallingUid() const { return mCallingUid; }

void IPCThreadState::setStrictModePolicy(int32_t policy) { mStrictModePolicy = policy; }
int32_t IPCThreadState::getStrictModePolicy() const { return mStrictModePolicy; }

int64_t IPCThreadState::setCallingWorkSourceUid(uid_t uid) {
    const int64_t token = setCallingWorkSourceUidWithoutPropagation(uid);
    mPropagateWorkSource = true;
    return token;
}

int64_t IPCThreadState::setCallingWorkSourceUidWithoutPropagation(uid_t uid) {
    // The token packs the propagation flag above the previous uid.
    const int64_t token = (static_cast<int64_t>(mPropagateWorkSource) << 32) |
                          static_cast<uint32_t>(mWorkSource);
    mWorkSource = static_cast<int32_t>(uid);
    return token;
}

uid_t IPCThreadState::getCallingWorkSourceUid() const { return static_cast<uid_t>(mWorkSource); }

int64_t IPCThreadState::clearCallingWorkSource() {
    return setCallingWorkSourceUid(static_cast<uid_t>(kUnsetWorkSource));
}

void IPCThreadState::restoreCallingWorkSource(int64_t token) {
    mWorkSource = static_cast<int32_t>(token & 0xffffffff);
    mPropagateWorkSource = ((token >> 32) & 1) != 0;
}

void IPCThreadState::clearPropagateWorkSource() { mPropagateWorkSource = false; }
bool IPCThreadState::shouldPropagateWorkSource() const { return mPropagateWorkSource; }

void IPCThreadState::setLastTransactionBinderFlags(int32_t flags) {
    mLastTransactionBinderFlags = flags;
}

int32_t IPCThreadState::getLastTransactionBinderFlags() const {
    return mLastTransactionBinderFlags;
}

int64_t IPCThreadState::clearCallingIdentity() {
    const int64_t token = (static_cast<int64_t>(mCallingUid) << 32) |
                          static_cast<uint32_t>(mCallingPid);
    clearCaller();
    return token;
}

void IPCThreadState::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(token >> 32);
    mCallingPid = static_cast<pid_t>(token & 0xffffffff);
}

void IPCThreadState::clearCaller() {
    mCallingPid = getpid();
    mCallingSid = nullptr;
    mCallingUid = getuid();
}

// Requests are written straight to their socket; nothing is buffered.
void IPCThreadState::flushCommands() {}

status_t IPCThreadState::transact(int32_t handle, uint32_t code, const Parcel& data,
                                  Parcel* reply, uint32_t flags) {
    Parcel fakeReply;
    if (reply == nullptr && (flags & IBinder::FLAG_ONEWAY) == 0) reply = &fakeReply;
    // The descriptors of the request travel beside its bytes.
    std::vector<vekd::binder::OutgoingFd> fds;
    for (size_t i = 0; i < data.mObjectsSize; ++i) {
        const size_t at = static_cast<size_t>(data.mObjects[i]);
        if (at > data.mDataSize || vekd::binder::wire::kFdObjectBytes > data.mDataSize - at) continue;
        const int fd = vekd::binder::wire::fdOfObject(data.mData + at);
        if (fd >= 0) fds.push_back({at, fd});
    }
    const status_t err =
        vekd::binder::Client::instance().transact(handle, code, data, reply, flags, fds);
    if (err != NO_ERROR) mLastError = err;
    return err;
}

void IPCThreadState::joinThreadPool(bool isMain) {
    vekd::binder::Driver& driver = vekd::binder::Driver::instance();
    driver.looperEntered();
    (void)isMain;
    vekd::binder::Work work;
    while (driver.waitForWork(&work)) {
        Parcel reply;
        status_t status = NO_ERROR;
        {
            // Destroyed before the reply goes out, so that the caller sees its
            // descriptors closed by the time it has the answer.
            Parcel data;
            if (work.fds.fds.empty()) {
                status = data.setData(work.data.data(), work.data.size());
            } else {
                std::vector<binder_size_t> objects;
                for (size_t i = 0; i < work.fds.fds.size(); ++i) {
                    const size_t at = work.fds.offsets[i];
                    vekd::binder::wire::putFdObject(work.data.data() + at,
                                                    static_cast<uint32_t>(work.fds.fds[i]), true);
                    objects.push_back(at);
                }
                data.ipcSetDataReference(work.data.data(), work.data.size(), objects.data(),
                                         objects.size(), nullptr, nullptr);
                status = data.errorCheck();
                if (status == NO_ERROR) {
                    work.fds.release();  // the parcel closes them
                } else {
                    work.fds.closeAll();
                }
            }
            if (status == NO_ERROR) {
                const pid_t savedPid = mCallingPid;
                const uid_t savedUid = mCallingUid;
                const int32_t savedFlags = mLastTransactionBinderFlags;
                const int32_t savedPolicy = mStrictModePolicy;
                const int32_t savedWorkSource = mWorkSource;
                mCallingPid = work.callingPid;
                mCallingUid = work.callingUid;
                mLastTransactionBinderFlags = static_cast<int32_t>(work.flags);
                status = work.target->transact(work.code, data, &reply, work.flags);
                mCallingPid = savedPid;
                mCallingUid = savedUid;
                mLastTransactionBinderFlags = savedFlags;
                mStrictModePolicy = savedPolicy;
                mWorkSource = savedWorkSource;
            }
        }
        driver.finishWork(&work, status, reply);
    }
    driver.looperLeft();
}

}  // namespace android
