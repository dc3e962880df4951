// Shell syntax in every text that reaches the daemon, through vekctl and
// through the configuration file. Each payload would create a marker file if
// any shell ever ran it; the marker must never appear.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/DaemonUnderTest.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::DaemonUnderTest;
using vekd::test::runShell;
using namespace std::chrono_literals;

// Texts that would add iptables arguments if any whitespace split them: the
// word VEKINJECT would then arrive as an argument of its own.
constexpr const char* kSentinel = "VEKINJECT";

// Every way a shell command line can be made to run a second command, write a
// file or take more arguments. `M` stands for the marker's path. Each form
// comes in four spellings: its blanks as they are, and as tabs, vertical tabs
// and carriage returns.
std::vector<std::vector<std::string>> payloads(const std::string& marker) {
    // Each ends the rest of the line where it needs to, since the daemon's
    // command lines go on after the text.
    const std::vector<std::string> forms = {
        ";touch M #",      "|touch M #", "&touch M #", "&&touch M #",   "$(touch M)",
        "`touch M`",       "\ntouch M\n", "\"$(touch M)\"", ">M", ">>M", "$(touch${IFS}M)",
        std::string(" -m comment --comment ") + kSentinel,
    };
    std::vector<std::vector<std::string>> out;
    for (const std::string& form : forms) {
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

// No command line with a payload was run, and no text became arguments of
// its own. The route check is the exception that proves the rule: it runs
// the ip wrapper without a shell, the name as one argument, so a payload
// there is only an odd table name.
void expectNoPayloadInCommands(DaemonUnderTest& d) {
    for (const std::string& call : d.root().argumentCalls()) {
        if (call.rfind("<route><show><table><", 0) == 0) continue;
        EXPECT_EQ(call.find("marker"), std::string::npos) << call;
        EXPECT_EQ(call.find(std::string("<") + kSentinel + ">"), std::string::npos) << call;
    }
}

class Injection : public testing::Test {
  protected:
    // Enrolling a UID destroys its sockets: only inside a namespace of our own.
    void SetUp() override { VEKD_REQUIRE_PRIVATE_NETNS(); }
};

// The payloads are live: handed to a shell, each one creates the marker.
TEST_F(Injection, PayloadsWorkInAShell) {
    char dir[] = "/tmp/vekd-inject-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string marker = std::string(dir) + "/marker";
    for (const auto& spellings : payloads(marker)) {
        const std::string& p = spellings[0];
        if (p.find(kSentinel) != std::string::npos) continue;  // adds arguments, writes nothing
        // As the daemon would have written it: the text inside a command line.
        std::string quoted;
        for (char c : "true " + p + " -j ACCEPT") quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        runShell("cd " + std::string(dir) + " && sh -c '" + quoted + "' >/dev/null 2>&1");
        EXPECT_TRUE(exists(marker)) << "payload does nothing in a shell: " << p;
        unlink(marker.c_str());
    }
    rmdir(dir);
}

TEST_F(Injection, ThroughVekctl) {
    DaemonUnderTest d("mini_est_interval=100\n");
    const std::string marker = d.path() + "/marker";
    std::string why;
    ASSERT_TRUE(d.start(&why)) << why;

    // Every field of both links' strings, four strings per configuration.
    std::string err;
    const std::vector<std::string> base = {vekd::test::kWlanParams, vekd::test::kWwanParams};
    int slot = 0;
    std::vector<std::string> all;
    for (const auto& spellings : payloads(marker)) all.insert(all.end(), spellings.begin(), spellings.end());
    for (const std::string& payload : all) {
        for (int index = 0; index < 8; ++index) {
            for (const std::string& params : base) {
                ASSERT_EQ(d.vekctl({"iface", std::to_string(slot), withPayload(params, index, payload)}, &err), 0)
                    << err;
                if (++slot == 4) {
                    ASSERT_EQ(d.vekctl({"iface-ready"}, &err), 0) << err << d.log();
                    slot = 0;
                }
            }
        }
        // UIDs and flags are 32-bit integers: vekctl refuses such text.
        EXPECT_EQ(d.vekctl({"update-uid", "10123" + payload, "1"}, &err), 2) << err;
        EXPECT_EQ(d.vekctl({"remove-uid", "10123", "1" + payload}, &err), 2) << err;
        EXPECT_EQ(d.vekctl({"wlan-inet", "1" + payload}, &err), 2) << err;
    }
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}, &err), 0) << err << d.log();
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}, &err), 0) << err << d.log();
    ASSERT_EQ(d.vekctl({"wlan-inet", "0"}, &err), 0) << err << d.log();

    EXPECT_TRUE(d.waitForLog("rejected: only letters, digits, blank and ._-:/@+ are allowed", 5s));
    EXPECT_TRUE(d.waitForLog("rejected: a field holds more than one word", 5s));
    std::this_thread::sleep_for(300ms);
    EXPECT_FALSE(exists(marker)) << "a payload ran:\n" << d.log();
    EXPECT_TRUE(d.alive());
    EXPECT_TRUE(d.answersPing());
    expectNoPayloadInCommands(d);
}

TEST_F(Injection, ThroughTheConfigurationFile) {
    char dir[] = "/tmp/vekd-inject-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string marker = std::string(dir) + "/marker";
    // One daemon per form, its four spellings spread over the texts of the
    // file; newlines end a configuration line, so those payloads lose their
    // second line here, which is as it should be.
    int form = 0;
    for (const auto& v : payloads(marker)) {
        const std::string wwan = vekd::test::kWwanParams, wlan = vekd::test::kWlanParams;
        std::string conf = "mini_est_interval=100\nnum_interfaces=4\n";
        conf += "vek_uid_list=10123" + v[0] + ",10124,10125" + v[1] + ",10126" + v[2] + ",10127" + v[3] + "\n";
        conf += "gaming_uid_list=" + v[0] + "," + v[3] + ",10128\n";
        conf += "interface_0=" + withPayload(wlan, form % 8, v[0]) + "\n";
        conf += "interface_1=" + wwan + "\n";
        conf += "interface_2=" + withPayload(wwan, 0, "x" + v[1]) + "\n";
        conf += "interface_3=" + withPayload(wlan, (form + 4) % 8, v[2]) + "\n";
        conf += "protocols=http" + v[3] + "\nports=80" + v[2] + "\nrtt_server=a" + v[1] + "\n";
        ++form;
        DaemonUnderTest d(conf);
        std::string why, err;
        ASSERT_TRUE(d.start(&why)) << why;
        ASSERT_EQ(d.vekctl({"iface-ready"}, &err), 0) << err << d.log();
        ASSERT_EQ(d.vekctl({"update-uid", "10124", "2"}, &err), 0) << err << d.log();
        ASSERT_EQ(d.vekctl({"remove-uid", "10123", "0"}, &err), 0) << err << d.log();
        ASSERT_EQ(d.vekctl({"wlan-inet", "1"}, &err), 0) << err << d.log();
        EXPECT_FALSE(exists(marker)) << "payload ran: " << v[0] << "\n" << d.log();
        EXPECT_TRUE(d.answersPing());
        expectNoPayloadInCommands(d);
        unlink(marker.c_str());
    }
    rmdir(dir);
}

}  // namespace
