#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include "binder/VekdBind.h"
#include "tests/support/LogCapture.h"

namespace {

using android::Parcel;
using android::String16;

// Records what the stub dispatches, answering with a recognisable result.
class RecordingVekd : public BnVekd {
  public:
    std::vector<std::string> calls;
    int updateUidNuv(int uid, int mode) override { return record("update", uid, mode); }
    int removeUidNuv(int uid, int mode) override { return record("remove", uid, mode); }
    int notifyWlanInetNuv(bool hasInternet) override { return record("wlan", hasInternet, 0); }
    int updateIfaceParamNuv(int index, std::string params) override {
        calls.push_back("iface " + std::to_string(index) + " [" + params + "]");
        return 5;
    }
    int notifyIfaceParamReadyNuv() override { return record("ready", 0, 0); }

  private:
    int record(const char* what, int a, int b) {
        calls.push_back(std::string(what) + " " + std::to_string(a) + " " + std::to_string(b));
        return 5;
    }
};

class Stub : public testing::Test {
  protected:
    android::status_t transact(uint32_t code, Parcel& data, Parcel* reply) {
        data.setDataPosition(0);
        return service->onTransact(code, data, reply, 0);
    }
    static void expectReplyIsOneZero(const Parcel& reply) {
        ASSERT_EQ(reply.dataSize(), 4u);
        reply.setDataPosition(0);
        EXPECT_EQ(reply.readInt32(), 0);
    }

    android::sp<RecordingVekd> service = new RecordingVekd();
    vekd::test::LogCapture log;
};

TEST_F(Stub, EveryCodeIsDispatchedLoggedAndAnsweredWithZero) {
    struct Case {
        uint32_t code;
        std::function<void(Parcel&)> args;
        std::string call;
        std::string logLine;
    };
    const std::vector<Case> cases = {
        {1, [](Parcel& p) { p.writeInt32(10123); p.writeInt32(2); }, "update 10123 2",
         "D vekd: BnVekd::onTransact updateUidNuv(10123, 2) = 5"},
        {2, [](Parcel& p) { p.writeInt32(10123); p.writeInt32(-1); }, "remove 10123 -1",
         "D vekd: BnVekd::onTransact removeUidNuv(10123, -1) = 5"},
        {3, [](Parcel& p) { p.writeInt32(7); }, "wlan 1 0", "D vekd: BnVekd::onTransact notifyWlanInetNuv(7) = 5"},
        {3, [](Parcel& p) { p.writeInt32(0); }, "wlan 0 0", "D vekd: BnVekd::onTransact notifyWlanInetNuv(0) = 5"},
        {4, [](Parcel& p) { p.writeInt32(1); p.writeCString("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1"); },
         "iface 1 [wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1]",
         "D vekd: BnVekd::onTransact updateIfaceParamNuv(wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1) = 5"},
        {4, [](Parcel& p) { p.writeInt32(2); p.writeCString(""); }, "iface 2 []",
         "D vekd: BnVekd::onTransact updateIfaceParamNuv() = 5"},
        {5, [](Parcel&) {}, "ready 0 0", "D vekd: BnVekd::onTransact notifyIfaceParamReadyNuv() = 5"},
    };
    for (const Case& c : cases) {
        Parcel data, reply;
        data.writeInterfaceToken(IVekd::descriptor);
        c.args(data);
        log.clear();
        service->calls.clear();
        EXPECT_EQ(transact(c.code, data, &reply), android::NO_ERROR) << c.code;
        EXPECT_EQ(service->calls, std::vector<std::string>{c.call});
        EXPECT_EQ(log.lines(), std::vector<std::string>{c.logLine});
        expectReplyIsOneZero(reply);
    }
}

TEST_F(Stub, WrongInterfaceTokenIsStillServed) {
    Parcel data, reply;
    data.writeInterfaceToken(String16("not.vekd"));
    data.writeInt32(10123);
    data.writeInt32(1);
    EXPECT_EQ(transact(1, data, &reply), android::NO_ERROR);
    EXPECT_EQ(service->calls, std::vector<std::string>{"update 10123 1"});
    expectReplyIsOneZero(reply);
}

TEST_F(Stub, InterfaceStringMissingSkipsTheCallButStillAnswers) {
    Parcel data, reply;
    data.writeInterfaceToken(IVekd::descriptor);
    data.writeInt32(0);
    EXPECT_EQ(transact(4, data, &reply), android::NO_ERROR);
    EXPECT_TRUE(service->calls.empty());
    expectReplyIsOneZero(reply);
}

TEST_F(Stub, OtherCodesGoToThePlatformHandler) {
    for (uint32_t code : {0u, 6u, 0x1000u}) {
        Parcel data, reply;
        data.writeInterfaceToken(IVekd::descriptor);
        EXPECT_EQ(transact(code, data, &reply), android::UNKNOWN_TRANSACTION) << code;
    }
    Parcel data, reply;
    EXPECT_EQ(transact(android::IBinder::INTERFACE_TRANSACTION, data, &reply), android::NO_ERROR);
    reply.setDataPosition(0);
    EXPECT_EQ(reply.readString16(), IVekd::descriptor);
    EXPECT_TRUE(service->calls.empty());
    EXPECT_EQ(log.count("onTransact"), 0u);
}

TEST_F(Stub, LocalInterfaceIsFoundByItsDescriptorOnly) {
    EXPECT_EQ(service->queryLocalInterface(String16("vekd")).get(), static_cast<IVekd*>(service.get()));
    EXPECT_EQ(service->queryLocalInterface(String16("other")), nullptr);
    EXPECT_EQ(service->getInterfaceDescriptor(), String16("vekd"));
}

}  // namespace
