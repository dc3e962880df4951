// Shell syntax in every text that reaches the daemon over the wire: each
// payload would create a marker file if any shell ran it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"

namespace {

using namespace std::chrono_literals;

// Arrives as an argument of its own if any whitespace split a text.
constexpr const char* kSentinel = "VEKINJECT";

// `params` with field `index` followed by `payload`.
std::string withPayload(const std::string& params, size_t index, const std::string& payload) {
    size_t start = 0;
    for (size_t i = 0; i < index; ++i) start = params.find(',', start) + 1;
    const size_t end = std::min(params.find(',', start), params.size());
    return params.substr(0, end) + payload + params.substr(end);
}

// Whether `payload` does harm on a shell command line: creates the marker,
// or adds an argument of its own. The marker is removed again.
bool harmsThroughAShell(const std::string& payload, const std::string& marker) {
    const std::string out = vekd::test::runShell("{ printf '<%s>' x" + payload + "\n} 2>/dev/null");
    const bool harm = access(marker.c_str(), F_OK) == 0 || out.find(std::string("<") + kSentinel + ">") != out.npos;
    unlink(marker.c_str());
    return harm;
}

TEST(Injection, ThroughVekctl) {
    VEKD_REQUIRE_PRIVATE_NETNS();  // enrolling a UID destroys its sockets: only our own
    vekd::test::Vekd d("mini_est_interval=100\n");
    ASSERT_TRUE(d.start());
    const std::string marker = d.root.at("/marker");
    std::string err;
    int slot = 0;
    // Every way a shell command line can be made to run a second command, write a file or take
    // more arguments (`M`: the marker), blanks also as tabs; other whitespace is the parser's tests'.
    for (char blank : {' ', '\t'}) {
        for (const std::string form : {";touch M #", "|touch M #", "&touch M #", "&&touch M #", "$(touch M)",
                                       "`touch M`", "\ntouch M\n", "\"$(touch M)\"", ">M", ">>M", "$(touch${IFS}M)",
                                       " -m comment --comment VEKINJECT"}) {
            std::string payload;
            for (char c : form) payload += c == ' ' ? std::string(1, blank) : c == 'M' ? marker : std::string(1, c);
            ASSERT_TRUE(harmsThroughAShell(payload, marker)) << "harmless payload: " << payload;
            for (size_t index = 0; index < 8; ++index) {  // every field, four strings per iface-ready
                for (const std::string params : {vekd::test::kWlanParams, vekd::test::kWwanParams}) {
                    const std::string text = withPayload(params, index, payload);
                    ASSERT_EQ(d.vekctl({"iface", std::to_string(slot), text}, &err), 0) << err;
                    slot = (slot + 1) % 4;
                    if (slot == 0) {
                        ASSERT_EQ(d.vekctl({"iface-ready"}, &err), 0) << err << d.log();
                    }
                }
            }
            // UIDs are 32-bit integers: vekctl refuses such text.
            EXPECT_EQ(d.vekctl({"update-uid", "10123" + payload, "1"}, &err), 2) << err;
        }
    }
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}, &err), 0) << err << d.log();
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}, &err), 0) << err << d.log();
    EXPECT_TRUE(d.process->waitForLog("rejected: only letters, digits, blank and ._-:/@+ are allowed", 5s));
    EXPECT_TRUE(d.process->waitForLog("rejected: a field holds more than one word", 5s));
    std::this_thread::sleep_for(300ms);
    EXPECT_NE(access(marker.c_str(), F_OK), 0) << "a payload ran:\n" << d.log();
    // No text became arguments of its own (the route check runs no shell).
    for (const std::string& call : d.calls()) {
        if (call.rfind("<ip-wrapper-1.0><route><show><table><", 0) == 0) continue;
        EXPECT_EQ(call.find("marker"), std::string::npos) << call;
        EXPECT_EQ(call.find(std::string("<") + kSentinel + ">"), std::string::npos) << call;
    }
    EXPECT_TRUE(d.answersPing());
}

}  // namespace
