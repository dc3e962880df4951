#include <gtest/gtest.h>

#include "foundation/Counters.h"
#include "report/Report.h"

namespace vekd::report {
namespace {

TEST(ReportTest, ShowsEverySectionAndTheHealthColumnOnlyWithAMonitor) {
    Snapshot s;
    s.runState = 2;
    s.interfaces = {{"wlan0", "wlan0", "0x5A", false, true, 10, 0, "192.168.1.1"},
                    {"rmnet_data0", "rmnet", "0x5B", true, false, 20, 0, ""}};
    s.links = {{"wlan0", true, 963, 1000, 5, 120, 0.6f, 0.5f, std::nullopt},
               {"rmnet_data0", false, 0, 0, 0, 0, 0.0f, std::nullopt, std::nullopt}};
    s.uids = {{"10123", 1}};
    s.dnsInterface = "wlan0";
    s.dnsServer = "192.168.1.1";
    s.config = {{"wifi_threshold", "1600"}, {"interface_0", "a\nb"}, {"interface_1", std::string(20000, 'x')}};
    counters::countSocketsDestroyed(3);  // the first count of this process: counters start at zero
    for (uint32_t code : {1u, 1u, 0x5f444d50u, 0x1000u}) counters::countTransaction(code);
    const vekd::counters::CounterValues counters = vekd::counters::readCounters();
    const std::string off = formatReport(s, counters, "");
    for (const std::string& expected :
         std::vector<std::string>{"run_state 2 (interfaces configured, evaluating)\n",
          "  wlan0        wlan0  0x5A  no       yes      10    0     192.168.1.1\n",
          "links: 2 (link monitor off)\n",
          "  wlan0        yes       963            1000              5        120      0.600           0.500\n",
          "  rmnet_data0  no        0              0                 0        0        0.000           -\n",
          "  10123  1\n", "dns: wlan0 server 192.168.1.1\n", "  sockets_destroyed 3\n", "  interface_0=a?b\n", "  interface_1=" + std::string(256, 'x') + "... (20000 bytes)\n",
          "  transactions updateUidNuv=2 removeUidNuv=0 notifyWlanInetNuv=0 updateIfaceParamNuv=0 notifyIfaceParamReadyNuv=0 ping=0 interface=0 dump=1 other=1\n"}) {
        EXPECT_NE(off.find(expected), std::string::npos) << expected << "\nin\n" << off;
    }
    EXPECT_EQ(off.find("health"), std::string::npos);

    s.monitorOn = true;
    s.links[0].health = linkhealth::LinkHealth{true, 12, 0};
    const std::string shown = formatReport(s, counters, "note: x");
    EXPECT_EQ(shown.rfind("note: x\nvekd report\n", 0), 0u);
    for (const char* expected : {"installed_share  health\n", "0.500            up rtt=12ms unanswered=0\n", "-                -\n"}) {
        EXPECT_NE(shown.find(expected), std::string::npos) << expected << "\nin\n" << shown;
    }
}

TEST(ReportTest, ArgumentsGiveHelpOrOneBoundedPrintableNote) {
    const struct {
        std::vector<std::string> args;
        bool help;
        std::string noteStart;
    } cases[] = {
        {{}, false, ""},
        {{"--help"}, true, ""},
        {{"-h", "zz"}, true, "note: 1 unknown argument ignored: 'zz'"},
        {{std::string("a\x01\xff'\n", 5)}, false, "note: 1 unknown argument ignored: 'a\\x01\\xff\\x27\\x0a'"},
        {{std::string(5000, 'x')}, false, "note: 1 unknown argument ignored: '" + std::string(32, 'x') + "...'"},
        {std::vector<std::string>(10000, "y"), false, "note: 10000 unknown arguments ignored: 'y' 'y'"},
    };
    for (const auto& c : cases) {
        const DumpRequest request = parseDumpArgs(c.args);
        EXPECT_EQ(request.help, c.help);
        EXPECT_EQ(request.note.rfind(c.noteStart, 0), 0u) << request.note;
        EXPECT_EQ(request.note.find('\n'), std::string::npos);
        EXPECT_LT(request.note.size(), 240u);
        EXPECT_EQ(request.note.empty(), c.noteStart.empty());  // no note but for unknown arguments
    }
}

}  // namespace
}  // namespace vekd::report
