// The process's binder state. On a host the "driver" is a directory of
// service sockets under the root directory: mDriverName keeps the path the
// process asked for ("/dev/vndbinder"), mRootDir the directory it stands for.
#define LOG_TAG "ProcessState"

#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <log/log.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "platform/Root.h"
#include "platform/binder/Client.h"
#include "platform/binder/Driver.h"
#include "platform/binder/HostBinder.h"
#include "platform/binder/SocketOps.h"

namespace android {
namespace {

constexpr const char* kDefaultDriver = "/dev/binder";
constexpr size_t kDefaultMaxThreads = 15;

std::mutex& processMutex() {
    static std::mutex* m = new std::mutex();
    return *m;
}

// Never destroyed, like the driver: pool threads outlive static destructors.
sp<ProcessState>& processSlot() {
    static sp<ProcessState>* slot = new sp<ProcessState>();
    return *slot;
}

}  // namespace

sp<ProcessState> ProcessState::self() {
    std::lock_guard<std::mutex> lock(processMutex());
    sp<ProcessState>& slot = processSlot();
    if (slot == nullptr) slot = new ProcessState(kDefaultDriver);
    return slot;
}

sp<ProcessState> ProcessState::selfOrNull() {
    std::lock_guard<std::mutex> lock(processMutex());
    return processSlot();
}

sp<ProcessState> ProcessState::initWithDriver(const char* driver) {
    if (driver == nullptr || driver[0] != '/') {
        ALOGE("initWithDriver: '%s' is not an absolute path", driver ? driver : "(null)");
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(processMutex());
    sp<ProcessState>& slot = processSlot();
    if (slot != nullptr) {
        if (strcmp(slot->mDriverName.string(), driver) != 0) {
            ALOGE("initWithDriver(%s): already using %s", driver, slot->mDriverName.string());
        }
        return slot;
    }
    slot = new ProcessState(driver);
    if (!vekd::binder::sys().makeDirectories(slot->mRootDir.string())) {
        ALOGE("initWithDriver: cannot create %s: %s", slot->mRootDir.string(), strerror(errno));
    }
    return slot;
}

ProcessState::ProcessState(const char* driver)
    : mDriverName(driver),
      mDriverFD(-1),
      mVMStart(nullptr),
      mExecutingThreadsCount(0),
      mMaxThreads(kDefaultMaxThreads),
      mStarvationStartTimeMs(0),
      mBinderContextCheckFunc(nullptr),
      mBinderContextUserData(nullptr),
      mRootDir(vekd::platform::rootedPath(driver).c_str()),
      mThreadPoolStarted(false),
      mThreadPoolSeq(1),
      mCallRestriction(CallRestriction::NONE) {
    pthread_mutex_init(&mThreadCountLock, nullptr);
    pthread_cond_init(&mThreadCountDecrement, nullptr);
}

ProcessState::~ProcessState() {
    pthread_cond_destroy(&mThreadCountDecrement);
    pthread_mutex_destroy(&mThreadCountLock);
}

// Services are found by name through the service manager; there is no
// context object to talk to.
sp<IBinder> ProcessState::getContextObject(const sp<IBinder>& /*caller*/) { return nullptr; }

bool ProcessState::becomeContextManager(context_check_func /*checkFunc*/, void* /*userData*/) {
    return false;
}

sp<IBinder> ProcessState::getStrongProxyForHandle(int32_t handle) {
    if (!vekd::binder::Client::instance().knowsHandle(handle)) return nullptr;
    return BpBinder::create(handle);
}

void ProcessState::startThreadPool() {
    {
        AutoMutex lock(mLock);
        if (mThreadPoolStarted) return;
        mThreadPoolStarted = true;
    }
    spawnPooledThread(true);
}

String8 ProcessState::makeBinderThreadName() {
    const int32_t seq = __atomic_fetch_add(&mThreadPoolSeq, 1, __ATOMIC_RELAXED);
    return String8::format("Binder:%d_%X", getpid(), seq);
}

void ProcessState::spawnPooledThread(bool isMain) {
    {
        AutoMutex lock(mLock);
        if (!mThreadPoolStarted) return;
    }
    vekd::binder::Driver::instance().spawnLooper(isMain, makeBinderThreadName().string());
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    AutoMutex lock(mLock);
    mMaxThreads = maxThreads;
    vekd::binder::Driver::instance().setMaxThreads(maxThreads);
    return NO_ERROR;
}

void ProcessState::giveThreadPoolName() {
    pthread_setname_np(pthread_self(), makeBinderThreadName().string());
}

String8 ProcessState::getDriverName() { return mDriverName; }

void ProcessState::setCallRestriction(CallRestriction restriction) {
    AutoMutex lock(mLock);
    mCallRestriction = restriction;
}

}  // namespace android

namespace vekd::binder {

std::string serviceDirectory() {
    return platform::rootedPath(android::ProcessState::self()->getDriverName().string());
}

}  // namespace vekd::binder

namespace vekd::binder {

std::string socketPath(const std::string& name) { return serviceDirectory() + "/" + name; }

void resetForTesting() {
    android::IPCThreadState::shutdown();
    Client::instance().closeIdleConnections();
    android::setDefaultServiceManager(nullptr);
    std::lock_guard<std::mutex> lock(android::processMutex());
    android::processSlot() = nullptr;
}

void setStallTimeoutForTesting(int ms) { Driver::instance().setStallTimeoutMs(ms); }

}  // namespace vekd::binder
