// The binder control service "vekd": five transactions that drive the link
// manager.
#pragma once

#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/String16.h>

#include <string>

class NuvManager;

class IVekd : public android::IInterface {
  public:
    enum {
        UPDATE_UID_NUV = 1,
        REMOVE_UID_NUV = 2,
        NOTIFY_WLAN_INET_NUV = 3,
        UPDATE_IFACE_PARAM_NUV = 4,
        NOTIFY_IFACE_PARAM_READY_NUV = 5,
    };

    static const android::String16 descriptor;

    virtual int updateUidNuv(int uid, int mode) = 0;
    virtual int removeUidNuv(int uid, int mode) = 0;
    virtual int notifyWlanInetNuv(bool hasInternet) = 0;
    virtual int updateIfaceParamNuv(int index, std::string params) = 0;
    virtual int notifyIfaceParamReadyNuv() = 0;
    virtual const android::String16& getInterfaceDescriptor() const;

    // Opens the vendor binder driver, registers "vekd" and starts the pool.
    static void startBind();
};

class BnVekd : public android::BnInterface<IVekd> {
  public:
    android::status_t onTransact(uint32_t code, const android::Parcel& data,
                                 android::Parcel* reply, uint32_t flags = 0) override;
};

class Vekd : public BnVekd {
  public:
    Vekd();
    int updateUidNuv(int uid, int mode) override;
    int removeUidNuv(int uid, int mode) override;
    int notifyWlanInetNuv(bool hasInternet) override;
    int updateIfaceParamNuv(int index, std::string params) override;
    int notifyIfaceParamReadyNuv() override;
    // The operator's report, written to `fd`.
    android::status_t dump(int fd, const android::Vector<android::String16>& args) override;

  private:
    NuvManager* m_manager;
};
