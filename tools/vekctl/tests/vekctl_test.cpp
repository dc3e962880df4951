// vekctl run as a subprocess, against a stand-in vekd service published by
// the test process under a temporary VEKD_ROOT.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include <mutex>

#include "platform/binder/HostBinder.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/TempRoot.h"

using namespace android;
using Lines = std::vector<std::string>;

namespace {

// Records each call as "CODE INTS... [TEXT]" and answers as told.
class FakeVekd : public BBinder {
  public:
    enum class Answer { kZero, kSeven, kNoResult, kUnknownStatus } answer = Answer::kZero;
    const String16& getInterfaceDescriptor() const override { return m_descriptor; }
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code < 1 || code > 5) return BBinder::onTransact(code, data, reply, flags);
        std::string call = std::to_string(code) + (data.enforceInterface(m_descriptor) ? "" : " !token");
        for (int i = 0; i < (code <= 2 ? 2 : code == 5 ? 0 : 1); ++i) call += " " + std::to_string(data.readInt32());
        if (code == 4) call += std::string(" [") + (data.readCString() ?: "<missing>") + "]";
        std::lock_guard<std::mutex> lock(m_mutex);
        calls.push_back(call);
        if (answer == Answer::kUnknownStatus) return UNKNOWN_TRANSACTION;
        if (answer != Answer::kNoResult) reply->writeInt32(answer == Answer::kZero ? 0 : 7);
        return NO_ERROR;
    }
    std::mutex m_mutex;
    Lines calls;

  private:
    const String16 m_descriptor{"vekd"};
};

class VekctlTest : public ::testing::Test {
  protected:
    void TearDown() override { vekd::binder::resetForTesting(); }

    // Runs vekctl; its exit code, standard output and standard error.
    std::tuple<int, std::string, std::string> vekctl(const Lines& args) {
        std::string out, err;
        const int code = vekd::test::runProgram(VEKCTL_PATH, args, m_root.path(), &out, &err);
        return {code, out, err};
    }

    vekd::test::TempRoot m_root;
};

TEST_F(VekctlTest, UsageErrorsPropertiesAndAnAbsentServiceGiveTheirExitCodeAndOneLine) {
    const std::string see = " (see vekctl --help)\n";
    const struct {
        Lines args;
        int exit;
        std::string out, err;
    } cases[] = {
        {{}, 2, "", "vekctl: no verb given" + see},
        {{"frobnicate"}, 2, "", "vekctl: unknown verb 'frobnicate'" + see},
        {{"update-uid", "10050"}, 2, "", "vekctl: usage: vekctl update-uid UID MODE" + see},
        {{"update-uid", "10050", "1", "2"}, 2, "", "vekctl: usage: vekctl update-uid UID MODE" + see},
        {{"update-uid", "abc", "1"}, 2, "", "vekctl: update-uid: UID must be a 32-bit integer, got 'abc'" + see},
        {{"remove-uid", "1", "1x"}, 2, "", "vekctl: remove-uid: MODE must be a 32-bit integer, got '1x'" + see},
        {{"wlan-inet", "2147483648"}, 2, "", "vekctl: wlan-inet: FLAG must be a 32-bit integer, got '2147483648'" + see},
        {{"iface", "", "wlan0"}, 2, "", "vekctl: iface: INDEX must be a 32-bit integer, got ''" + see},
        {{"iface-ready", "now"}, 2, "", "vekctl: usage: vekctl iface-ready" + see},
        {{"getprop"}, 2, "", "vekctl: usage: vekctl getprop NAME [DEFAULT]" + see},
        {{"setprop", "vendor.vek.debug", std::string(92, 'x')}, 2, "",
         "vekctl: setprop: the value of vendor.vek.debug is longer than 91 bytes" + see},
        {{"setprop", "bad/name", "1"}, 1, "", "vekctl: setprop: cannot set bad/name\n"},
        {{"ping"}, 1, "", "vekctl: ping: service \"vekd\" is not running on /dev/vndbinder\n"},
        {{"iface-ready"}, 1, "", "vekctl: iface-ready: service \"vekd\" is not running on /dev/vndbinder\n"},
        {{"setprop", "vendor.vek.debug", "1"}, 0, "", ""},
        {{"getprop", "vendor.vek.debug"}, 0, "1\n", ""},
        {{"getprop", "vendor.vek.enabled", "0"}, 0, "0\n", ""},
        {{"getprop", "vendor.vek.enabled"}, 0, "\n", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vekctl(c.args), std::make_tuple(c.exit, c.out, c.err)) << c.err;
    }
    // Each verb's synopsis is the one the usage errors above show.
    const std::string help = std::get<1>(vekctl({"--help"}));
    EXPECT_EQ(help.rfind("usage: vekctl VERB [ARGS]\n\nVerbs:\n  update-uid UID MODE  ", 0), 0u) << help;
}

TEST_F(VekctlTest, VerbsSendTheirTransactionsAndOnlyAZeroAnswerSucceeds) {
    ProcessState::initWithDriver("/dev/vndbinder");
    sp<FakeVekd> service = new FakeVekd();
    ASSERT_EQ(defaultServiceManager()->addService(String16("vekd"), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    for (const Lines& args : {Lines{"ping"}, {"update-uid", "10050", "1"}, {"remove-uid", "10050", "-1"},
                              {"wlan-inet", "7"}, {"iface", "0", "wlan0,100,0,1,1,0,0x10000,8.8.8.8"},
                              {"iface", "1", ""}, {"iface-ready"}}) {
        EXPECT_EQ(vekctl(args), std::make_tuple(0, std::string(), std::string())) << args[0];
    }
    {
        std::lock_guard<std::mutex> lock(service->m_mutex);
        EXPECT_EQ(service->calls, (Lines{"1 10050 1", "2 10050 -1", "3 7", "4 0 [wlan0,100,0,1,1,0,0x10000,8.8.8.8]",
                                         "4 1 []", "5"}));
    }
    const std::pair<FakeVekd::Answer, std::string> answers[] = {
        {FakeVekd::Answer::kSeven, "the service answered 7"},
        {FakeVekd::Answer::kNoResult, "the reply carries no result"},
        {FakeVekd::Answer::kUnknownStatus, "the call failed with status -74 (unknown transaction)"},
    };
    for (const auto& [answer, reason] : answers) {
        std::unique_lock<std::mutex> lock(service->m_mutex);
        service->answer = answer;
        lock.unlock();
        EXPECT_EQ(vekctl({"wlan-inet", "1"}), std::make_tuple(1, std::string(), "vekctl: wlan-inet: " + reason + "\n"));
    }
}

}  // namespace
