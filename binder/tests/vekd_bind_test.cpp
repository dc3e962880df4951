#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <functional>

#include "binder/VekdBind.h"
#include "tests/support/LogCapture.h"

namespace {

using android::Parcel;
using android::String16;
using Lines = std::vector<std::string>;

// Records what the stub dispatches, answering with a recognisable result.
class RecordingVekd : public BnVekd {
  public:
    Lines calls;
    int updateUidNuv(int uid, int mode) override { return record("update", uid, mode); }
    int removeUidNuv(int uid, int mode) override { return record("remove", uid, mode); }
    int notifyWlanInetNuv(bool hasInternet) override { return record("wlan", hasInternet, 0); }
    int updateIfaceParamNuv(int index, std::string params) override { return record("iface [" + params + "]", index, 0); }
    int notifyIfaceParamReadyNuv() override { return record("ready", 0, 0); }

  private:
    int record(const std::string& what, int a, int b) {
        calls.push_back(what + " " + std::to_string(a) + " " + std::to_string(b));
        return 5;
    }
};

TEST(Stub, EveryCodeIsDispatchedLoggedAndAnsweredWithOneZero) {
    android::sp<RecordingVekd> service = new RecordingVekd();
    vekd::test::LogCapture log;
    const struct {
        uint32_t code;
        std::function<void(Parcel&)> args;
        std::string call, logged;  // the recorded call, the logged one (none when empty)
        const char* token = "vekd";
    } cases[] = {
        {1, [](Parcel& p) { p.writeInt32(10123), p.writeInt32(2); }, "update 10123 2", "updateUidNuv(10123, 2)"},
        {2, [](Parcel& p) { p.writeInt32(10123), p.writeInt32(-1); }, "remove 10123 -1", "removeUidNuv(10123, -1)"},
        {3, [](Parcel& p) { p.writeInt32(7); }, "wlan 1 0", "notifyWlanInetNuv(7)"},
        {3, [](Parcel& p) { p.writeInt32(0); }, "wlan 0 0", "notifyWlanInetNuv(0)"},
        {4, [](Parcel& p) { p.writeInt32(1), p.writeCString("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1"); },
         "iface [wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1] 1 0", "updateIfaceParamNuv(wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1)"},
        {4, [](Parcel& p) { p.writeInt32(2), p.writeCString(""); }, "iface [] 2 0", "updateIfaceParamNuv()"},
        {4, [](Parcel& p) { p.writeInt32(0); }, "", ""},  // no text: no call, still answered
        {5, [](Parcel&) {}, "ready 0 0", "notifyIfaceParamReadyNuv()"},
        {1, [](Parcel& p) { p.writeInt32(10123), p.writeInt32(1); }, "update 10123 1", "updateUidNuv(10123, 1)", "not.vekd"},
    };
    for (const auto& c : cases) {
        Parcel data, reply;
        data.writeInterfaceToken(String16(c.token));
        c.args(data);
        data.setDataPosition(0);
        log.clear();
        service->calls.clear();
        EXPECT_EQ(service->onTransact(c.code, data, &reply, 0), android::NO_ERROR) << c.code;
        EXPECT_EQ(service->calls, c.call.empty() ? Lines{} : Lines{c.call});
        Lines logged;  // a wrong token is warned about, the call still served
        if (c.token != std::string("vekd")) logged.push_back("W Parcel: interface token mismatch: expected 'vekd', got 'not.vekd'");
        if (!c.logged.empty()) logged.push_back("D vekd: BnVekd::onTransact " + c.logged + " = 5");
        EXPECT_EQ(log.lines(), logged);
        EXPECT_EQ(reply.dataSize(), 4u);
        reply.setDataPosition(0);
        EXPECT_EQ(reply.readInt32(), 0);
    }

    // Other codes go to the platform's handler, unlogged.
    log.clear();
    Parcel data, reply;
    for (uint32_t code : {0u, 6u, 0x1000u}) EXPECT_EQ(service->onTransact(code, data, &reply, 0), android::UNKNOWN_TRANSACTION) << code;
    EXPECT_EQ(service->onTransact(android::IBinder::INTERFACE_TRANSACTION, data, &reply, 0), android::NO_ERROR);
    reply.setDataPosition(0);
    EXPECT_EQ(reply.readString16(), String16("vekd"));
    EXPECT_EQ(log.count("onTransact"), 0u);
    EXPECT_EQ(service->queryLocalInterface(String16("vekd")).get(), static_cast<IVekd*>(service.get()));
    EXPECT_EQ(service->queryLocalInterface(String16("other")), nullptr);
}

}  // namespace
