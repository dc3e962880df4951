#include "binder/VekdBind.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "manager/NuvManager.h"
#include "foundation/Counters.h"

using android::Parcel;
using android::status_t;

const android::String16 IVekd::descriptor("vekd");

const android::String16& IVekd::getInterfaceDescriptor() const { return descriptor; }

void IVekd::startBind() {
    android::ProcessState::initWithDriver("/dev/vndbinder");
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Init with vndbinder");
    {
        android::sp<android::IServiceManager> serviceManager = android::defaultServiceManager();
        android::sp<Vekd> service = new Vekd();
        serviceManager->addService(android::String16("vekd"), service, false,
                                   android::IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    }
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Added service");
    android::ProcessState::self()->startThreadPool();
}

status_t BnVekd::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    // A mismatching token is served all the same; the check consumes it so
    // the arguments are read from the right place.
    vekd::counters::countTransaction(code);
    data.checkInterface(this);
    if (code < UPDATE_UID_NUV || code > NOTIFY_IFACE_PARAM_READY_NUV) {
        // The platform's own transactions carry no token: they read from the start.
        data.setDataPosition(0);
        return android::BBinder::onTransact(code, data, reply, flags);
    }

    switch (code) {
        case UPDATE_UID_NUV: {
            const int uid = data.readInt32();
            const int mode = data.readInt32();
            const int result = updateUidNuv(uid, mode);
            __android_log_print(ANDROID_LOG_DEBUG, nullptr, "BnVekd::onTransact updateUidNuv(%i, %i) = %i",
                                uid, mode, result);
            break;
        }
        case REMOVE_UID_NUV: {
            const int uid = data.readInt32();
            const int mode = data.readInt32();
            const int result = removeUidNuv(uid, mode);
            __android_log_print(ANDROID_LOG_DEBUG, nullptr, "BnVekd::onTransact removeUidNuv(%i, %i) = %i",
                                uid, mode, result);
            break;
        }
        case NOTIFY_WLAN_INET_NUV: {
            const int flag = data.readInt32();
            const int result = notifyWlanInetNuv(flag != 0);
            __android_log_print(ANDROID_LOG_DEBUG, nullptr, "BnVekd::onTransact notifyWlanInetNuv(%i) = %i",
                                flag, result);
            break;
        }
        case UPDATE_IFACE_PARAM_NUV: {
            const int index = data.readInt32();
            const char* params = data.readCString();
            // Without its text the request cannot be carried out; it is still answered.
            if (params != nullptr) {
                const std::string text(params);
                const int result = updateIfaceParamNuv(index, text);
                __android_log_print(ANDROID_LOG_DEBUG, nullptr,
                                    "BnVekd::onTransact updateIfaceParamNuv(%s) = %d", text.c_str(), result);
            }
            break;
        }
        case NOTIFY_IFACE_PARAM_READY_NUV: {
            const int result = notifyIfaceParamReadyNuv();
            __android_log_print(ANDROID_LOG_DEBUG, nullptr,
                                "BnVekd::onTransact notifyIfaceParamReadyNuv() = %d", result);
            break;
        }
    }
    if (reply != nullptr) reply->writeInt32(0);
    return android::NO_ERROR;
}

Vekd::Vekd() : m_manager(NuvManager::instance()) {}

int Vekd::updateUidNuv(int uid, int mode) {
    NuvManager* manager = NuvManager::instance();
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Vekd::updateUidNuv(%i, %i)", uid, mode);
    manager->setRuleForUid(uid, mode);
    return 0;
}

int Vekd::removeUidNuv(int uid, int mode) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Vekd::removeUidNuv(%i, %i)", uid, mode);
    m_manager->removeRuleForUid(uid, mode);
    return 0;
}

int Vekd::notifyWlanInetNuv(bool hasInternet) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Vekd::notifyWlanInetNuv(%i)", hasInternet ? 1 : 0);
    m_manager->notifyWlanHasInternet(hasInternet);
    return 0;
}

int Vekd::updateIfaceParamNuv(int index, std::string params) {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Vekd::updateIfaceParamNuv(%d, %s)", index,
                        params.c_str());
    m_manager->setInterfaceParamsNuv(index, params);
    return 0;
}

int Vekd::notifyIfaceParamReadyNuv() {
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Vekd::notifyIfaceParamReadyNuv()");
    m_manager->configInterfaceRelatedParams();
    return 0;
}
