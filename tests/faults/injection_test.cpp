// Shell syntax in every text that reaches the daemon, through vekctl and
// through the configuration file. Each payload would create a marker file if
// any shell ever ran it; the marker must never appear.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::kWlanParams;
using vekd::test::kWwanParams;
using vekd::test::Vekd;
using namespace std::chrono_literals;

// Arrives as an argument of its own if any whitespace split a text.
constexpr const char* kSentinel = "VEKINJECT";

// Every way a shell command line can be made to run a second command, write
// a file or take more arguments (`M`: the marker's path), each with its blanks
// as they are, as tabs, vertical tabs and carriage returns.
std::vector<std::vector<std::string>> payloads(const std::string& marker) {
    std::vector<std::vector<std::string>> out;
    for (const std::string form : {";touch M #", "|touch M #", "&touch M #", "&&touch M #", "$(touch M)", "`touch M`",
                                   "\ntouch M\n", "\"$(touch M)\"", ">M", ">>M", "$(touch${IFS}M)",
                                   " -m comment --comment VEKINJECT"}) {
        out.emplace_back();
        for (char sep : {' ', '\t', '\v', '\r'}) {
            std::string f;
            for (char c : form) f += c == ' ' ? std::string(1, sep) : c == 'M' ? marker : std::string(1, c);
            out.back().push_back(f);
        }
    }
    return out;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// `params` with field `index` followed by `payload`.
std::string withPayload(const std::string& params, int index, const std::string& payload) {
    size_t start = 0;
    for (int i = 0; i < index; ++i) start = params.find(',', start) + 1;
    const size_t end = std::min(params.find(',', start), params.size());
    return params.substr(0, end) + payload + params.substr(end);
}

// No payload ran or became arguments of its own. The route check runs the ip
// wrapper without a shell: a payload there is only an odd table name.
void expectNoPayloadRan(Vekd& d, const std::string& marker) {
    EXPECT_FALSE(exists(marker)) << "a payload ran:\n" << d.log();
    for (const std::string& call : d.argumentCalls()) {
        if (call.rfind("<ip-wrapper-1.0><route><show><table><", 0) == 0) continue;
        EXPECT_EQ(call.find("marker"), std::string::npos) << call;
        EXPECT_EQ(call.find(std::string("<") + kSentinel + ">"), std::string::npos) << call;
    }
    EXPECT_TRUE(d.answersPing());
}

// Enrolling a UID destroys its sockets: only inside a namespace of our own.
class Injection : public testing::Test {
    void SetUp() override { VEKD_REQUIRE_PRIVATE_NETNS(); }
};

TEST_F(Injection, ThroughVekctl) {
    Vekd d("mini_est_interval=100\n");
    ASSERT_TRUE(d.start());
    // Every field of both links' strings, four strings per iface-ready.
    std::string err;
    int slot = 0;
    for (const auto& spellings : payloads(d.root.at("/marker"))) {
        for (const std::string& payload : spellings) {
            for (int index = 0; index < 8; ++index) {
                for (const std::string params : {kWlanParams, kWwanParams}) {
                    const std::string text = withPayload(params, index, payload);
                    ASSERT_EQ(d.vekctl({"iface", std::to_string(slot), text}, &err), 0) << err;
                    slot = (slot + 1) % 4;
                    if (slot == 0) {
                        ASSERT_EQ(d.vekctl({"iface-ready"}, &err), 0) << err << d.log();
                    }
                }
            }
            // UIDs and flags are 32-bit integers: vekctl refuses such text.
            EXPECT_EQ(d.vekctl({"update-uid", "10123" + payload, "1"}, &err), 2) << err;
            EXPECT_EQ(d.vekctl({"remove-uid", "10123", "1" + payload}, &err), 2) << err;
            EXPECT_EQ(d.vekctl({"wlan-inet", "1" + payload}, &err), 2) << err;
        }
    }
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}, &err), 0) << err << d.log();
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}, &err), 0) << err << d.log();
    ASSERT_EQ(d.vekctl({"wlan-inet", "0"}, &err), 0) << err << d.log();
    EXPECT_TRUE(d.waitForLog("rejected: only letters, digits, blank and ._-:/@+ are allowed", 5s));
    EXPECT_TRUE(d.waitForLog("rejected: a field holds more than one word", 5s));
    std::this_thread::sleep_for(300ms);
    expectNoPayloadRan(d, d.root.at("/marker"));
}

// One daemon per form, its spellings spread over the texts of the file.
TEST_F(Injection, ThroughTheConfigurationFile) {
    vekd::test::TempRoot dir;
    const std::string marker = dir.at("/marker");
    int form = 0;
    for (const auto& v : payloads(marker)) {
        std::string conf = "mini_est_interval=100\nnum_interfaces=4\n";
        conf += "vek_uid_list=10123" + v[0] + ",10124,10125" + v[1] + ",10126" + v[2] + ",10127" + v[3] + "\n";
        conf += "gaming_uid_list=" + v[0] + "," + v[3] + ",10128\n";
        conf += "interface_0=" + withPayload(kWlanParams, form % 8, v[0]) + "\n";
        conf += "interface_1=" + std::string(kWwanParams) + "\n";
        conf += "interface_2=" + withPayload(kWwanParams, 0, "x" + v[1]) + "\n";
        conf += "interface_3=" + withPayload(kWlanParams, (form + 4) % 8, v[2]) + "\n";
        conf += "protocols=http" + v[3] + "\nports=80" + v[2] + "\nrtt_server=a" + v[1] + "\n";
        Vekd d(conf);
        ++form;
        std::string err;
        ASSERT_TRUE(d.start());
        ASSERT_EQ(d.vekctl({"iface-ready"}, &err), 0) << err << d.log();
        ASSERT_EQ(d.vekctl({"update-uid", "10124", "2"}, &err), 0) << err << d.log();
        ASSERT_EQ(d.vekctl({"remove-uid", "10123", "0"}, &err), 0) << err << d.log();
        ASSERT_EQ(d.vekctl({"wlan-inet", "1"}, &err), 0) << err << d.log();
        expectNoPayloadRan(d, marker);
        unlink(marker.c_str());
    }
}

}  // namespace
