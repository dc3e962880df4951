// The service manager of a host: a service is its socket in the service
// directory, so registering listens there and looking up connects there.
// Lookups always hand out a proxy, also for services of the calling process,
// so that every call takes the same path through the socket.
#define LOG_TAG "ServiceManager"

#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <log/log.h>
#include <sys/stat.h>
#include <utils/String8.h>

#include <mutex>
#include <string>

#include "platform/Clock.h"
#include "platform/binder/Client.h"
#include "platform/binder/Driver.h"
#include "platform/binder/HostBinder.h"
#include "platform/binder/SocketOps.h"

namespace android {
namespace {

// getService waits this long for a service to appear, like a device does.
constexpr int kGetServiceTries = 50;
constexpr useconds_t kGetServiceSleepUs = 100 * 1000;

// A name that is one file in the service directory.
bool validName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

class HostServiceManager : public IServiceManager {
  public:
    sp<IBinder> getService(const String16& name) const override {
        for (int attempt = 0; attempt < kGetServiceTries; ++attempt) {
            sp<IBinder> found = checkService(name);
            if (found != nullptr) return found;
            if (attempt == 0) ALOGI("Waiting for service '%s'...", String8(name).string());
            vekd::Seam<vekd::platform::Clock>::get().sleepMicros(kGetServiceSleepUs);
        }
        return nullptr;
    }

    sp<IBinder> checkService(const String16& name) const override {
        const std::string text = String8(name).string();
        if (!validName(text)) return nullptr;
        vekd::binder::Client& client = vekd::binder::Client::instance();
        const int32_t handle = client.handleForPath(vekd::binder::socketPath(text));
        if (!client.probe(handle)) return nullptr;
        return ProcessState::self()->getStrongProxyForHandle(handle);
    }

    status_t addService(const String16& name, const sp<IBinder>& service, bool /*allowIsolated*/,
                        int /*dumpsysFlags*/) override {
        const std::string text = String8(name).string();
        if (!validName(text) || service == nullptr) return BAD_VALUE;
        // Only an object of this process can be served from its socket.
        if (service->localBinder() == nullptr) return INVALID_OPERATION;
        const std::string dir = vekd::binder::serviceDirectory();
        if (!vekd::binder::sys().makeDirectories(dir)) {
            ALOGE("addService(%s): cannot create %s", text.c_str(), dir.c_str());
            return UNKNOWN_ERROR;
        }
        return vekd::binder::Driver::instance().publish(dir + "/" + text, service);
    }

    Vector<String16> listServices(int /*dumpsysFlags*/) override {
        Vector<String16> names;
        const std::string dir = vekd::binder::serviceDirectory();
        DIR* d = opendir(dir.c_str());
        if (d == nullptr) return names;
        while (struct dirent* entry = readdir(d)) {
            struct stat st;
            const std::string path = dir + "/" + entry->d_name;
            if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
                names.add(String16(entry->d_name));
            }
        }
        closedir(d);
        return names;
    }

    sp<IBinder> waitForService(const String16& name) override {
        while (true) {
            sp<IBinder> found = checkService(name);
            if (found != nullptr) return found;
            vekd::Seam<vekd::platform::Clock>::get().sleepMicros(kGetServiceSleepUs);
        }
    }

    // No manifest declares services on a host.
    bool isDeclared(const String16& /*name*/) override { return false; }

  protected:
    // The manager is not itself a binder object here.
    IBinder* onAsBinder() override { return nullptr; }
};

std::mutex& managerMutex() {
    static std::mutex* m = new std::mutex();
    return *m;
}

sp<IServiceManager>& managerSlot() {
    static sp<IServiceManager>* slot = new sp<IServiceManager>();
    return *slot;
}

}  // namespace

IServiceManager::IServiceManager() {}
IServiceManager::~IServiceManager() {}

const String16& IServiceManager::getInterfaceDescriptor() const {
    static const String16* descriptor = new String16("android.os.IServiceManager");
    return *descriptor;
}

sp<IServiceManager> defaultServiceManager() {
    std::lock_guard<std::mutex> lock(managerMutex());
    sp<IServiceManager>& slot = managerSlot();
    if (slot == nullptr) {
        ProcessState::self();
        slot = new HostServiceManager();
    }
    return slot;
}

void setDefaultServiceManager(const sp<IServiceManager>& sm) {
    std::lock_guard<std::mutex> lock(managerMutex());
    managerSlot() = sm;
}

}  // namespace android
