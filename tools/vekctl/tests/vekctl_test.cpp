// vekctl as a subprocess under a temporary VEKD_ROOT, with no service and then with a stand-in one.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>

#include <atomic>

#include "platform/binder/HostBinder.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/TempRoot.h"

using namespace android;
using Lines = std::vector<std::string>;

namespace {

// Answers as told; what vekctl's calls carry is checked against the real daemon elsewhere.
class FakeVekd : public BBinder {
  public:
    static constexpr int kNoResult = -1, kUnknown = -2;
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code < 1 || code > 5) return BBinder::onTransact(code, data, reply, flags);
        if (answer == kUnknown) return UNKNOWN_TRANSACTION;
        if (answer != kNoResult) reply->writeInt32(answer);
        return NO_ERROR;
    }
    std::atomic<int> answer{0};
};

TEST(VekctlTest, UsageErrorsPropertiesAndServiceAnswersGiveTheirExitCodeAndOneLine) {
    vekd::test::TempRoot root;
    auto vekctl = [&](const Lines& args) {
        std::tuple<int, std::string, std::string> r;
        std::get<0>(r) = vekd::test::runProgram(VEKCTL_PATH, args, root.path(), &std::get<1>(r), &std::get<2>(r));
        return r;
    };
    const std::string see = " (see vekctl --help)\n";
    const struct { Lines args; int exit; std::string out, err; } cases[] = {
        {{}, 2, "", "vekctl: no verb given" + see},
        {{"frobnicate"}, 2, "", "vekctl: unknown verb 'frobnicate'" + see},
        {{"update-uid", "10050"}, 2, "", "vekctl: usage: vekctl update-uid UID MODE" + see},
        {{"update-uid", "10050", "1", "2"}, 2, "", "vekctl: usage: vekctl update-uid UID MODE" + see},
        {{"iface", "", "wlan0"}, 2, "", "vekctl: iface: INDEX must be a 32-bit integer, got ''" + see},
        {{"remove-uid", "1", "1x"}, 2, "", "vekctl: remove-uid: MODE must be a 32-bit integer, got '1x'" + see},
        {{"wlan-inet", "2147483648"}, 2, "", "vekctl: wlan-inet: FLAG must be a 32-bit integer, got '2147483648'" + see},
        {{"getprop"}, 2, "", "vekctl: usage: vekctl getprop NAME [DEFAULT]" + see},
        {{"setprop", "vendor.vek.debug", std::string(92, 'x')}, 2, "",
         "vekctl: setprop: the value of vendor.vek.debug is longer than 91 bytes" + see},
        {{"setprop", "bad/name", "1"}, 1, "", "vekctl: setprop: cannot set bad/name\n"},
        {{"iface-ready"}, 1, "", "vekctl: iface-ready: service \"vekd\" is not running on /dev/vndbinder\n"},
        {{"wlan-inet", "2147483647"}, 1, "", "vekctl: wlan-inet: service \"vekd\" is not running on /dev/vndbinder\n"},
        {{"wlan-inet", "-2147483648"}, 1, "", "vekctl: wlan-inet: service \"vekd\" is not running on /dev/vndbinder\n"},
        {{"setprop", "vendor.vek.debug", "1"}, 0, "", ""},
        {{"getprop", "vendor.vek.debug"}, 0, "1\n", ""},
        {{"getprop", "vendor.vek.enabled", "0"}, 0, "0\n", ""},
        {{"getprop", "vendor.vek.enabled"}, 0, "\n", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(vekctl(c.args), std::make_tuple(c.exit, c.out, c.err)) << c.err;
    EXPECT_EQ(std::get<1>(vekctl({"--help"})).rfind("usage: vekctl VERB [ARGS]\n\nVerbs:\n  update-uid UID MODE  ", 0), 0u);

    ProcessState::initWithDriver("/dev/vndbinder");
    sp<FakeVekd> service = new FakeVekd();
    ASSERT_EQ(defaultServiceManager()->addService(String16("vekd"), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    const struct { Lines args; int answer; std::string err; } calls[] = {  // only a zero answer succeeds
        {{"ping"}, FakeVekd::kUnknown, ""},  // answered by the binder itself
        {{"remove-uid", "10050", "-1"}, 0, ""},
        {{"wlan-inet", "1"}, 7, "vekctl: wlan-inet: the service answered 7\n"},
        {{"remove-uid", "1", "2"}, FakeVekd::kNoResult, "vekctl: remove-uid: the reply carries no result\n"},
        {{"iface-ready"}, FakeVekd::kUnknown, "vekctl: iface-ready: the call failed with status -74 (unknown transaction)\n"},
    };
    for (const auto& c : calls) {
        service->answer = c.answer;
        EXPECT_EQ(vekctl(c.args), std::make_tuple(c.err.empty() ? 0 : 1, std::string(), c.err)) << c.args[0];
    }
    vekd::binder::resetForTesting();
}

}  // namespace
