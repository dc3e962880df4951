#include <gtest/gtest.h>

#include "report/LinkHealth.h"
#include "report/Report.h"

namespace vekd::report {
namespace {

Snapshot twoLinks() {
    Snapshot s;
    s.runState = 2;
    s.interfaces = {{"wlan0", "wlan0", "0x5A", false, true, 10, 0, "192.168.1.1"},
                    {"rmnet_data0", "rmnet", "0x5B", true, false, 20, 0, ""}};
    LinkRow wlan;
    wlan.name = "wlan0";
    wlan.measured = true;
    wlan.estimate = 963;
    wlan.historyMax = 1000;
    wlan.historyLength = 5;
    wlan.samples = 120;
    wlan.computedShare = 0.6f;
    wlan.installedShare = 0.5f;
    LinkRow cell;
    cell.name = "rmnet_data0";
    s.links = {wlan, cell};
    s.uids = {{"10123", 1}};
    s.dnsInterface = "wlan0";
    s.dnsServer = "192.168.1.1";
    s.config = {{"wifi_threshold", "1600"}, {"interface_0", "a\nb"}};
    return s;
}

TEST(ReportTest, ShowsEverySectionAndTheHealthColumnOnlyWithAMonitor) {
    CounterValues counters;
    counters.evaluationTurns = 7;
    counters.transactions = {{1, 3}, {0x5f444d50, 1}};
    const std::string off = formatReport(twoLinks(), counters, "");
    for (const char* expected :
         {"run_state 2 (interfaces configured, evaluating)\n",
          "  wlan0        wlan0  0x5A  no       yes      10    0     192.168.1.1\n",
          "links: 2 (link monitor off)\n",
          "  wlan0        yes       963            1000              5        120      0.600           0.500\n",
          "  rmnet_data0  no        0              0                 0        0        0.000           -\n",
          "  10123  1\n", "dns: wlan0 server 192.168.1.1\n", "  evaluation_turns 7\n",
          " updateUidNuv=3 dump=1 other=0\n", "  interface_0=a?b\n"}) {
        EXPECT_NE(off.find(expected), std::string::npos) << expected << "\nin\n" << off;
    }
    EXPECT_EQ(off.find("health"), std::string::npos);

    setLinkHealthSource([] { return std::map<std::string, LinkHealth>{{"wlan0", {true, 12, 0}}}; });
    Snapshot on = twoLinks();
    addLinkHealth(&on);
    setLinkHealthSource(nullptr);
    const std::string shown = formatReport(on, counters, "note: x");
    EXPECT_EQ(shown.rfind("note: x\nvekd report\n", 0), 0u);
    EXPECT_NE(shown.find("installed_share  health\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("0.500            up rtt=12ms lost=0\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("-                -\n"), std::string::npos) << shown;
}

TEST(ReportTest, ArgumentsGiveHelpOrOneBoundedPrintableNote) {
    const std::string longArg(5000, 'x');
    const std::vector<std::string> many(10000, "y");
    struct Case {
        std::vector<std::string> args;
        bool help;
        std::string noteStart;
    } cases[] = {
        {{}, false, ""},
        {{"--help"}, true, ""},
        {{"-h", "zz"}, true, "note: 1 unknown argument ignored: 'zz'"},
        {{std::string("a\x01\xff'\n", 5)}, false, "note: 1 unknown argument ignored: 'a\\x01\\xff\\x27\\x0a'"},
        {{longArg}, false, "note: 1 unknown argument ignored: '" + std::string(32, 'x') + "...'"},
        {many, false, "note: 10000 unknown arguments ignored: 'y' 'y'"},
    };
    for (const Case& c : cases) {
        const DumpRequest request = parseDumpArgs(c.args);
        EXPECT_EQ(request.help, c.help);
        EXPECT_EQ(request.note.rfind(c.noteStart, 0), 0u) << request.note;
        EXPECT_EQ(request.note.find('\n'), std::string::npos);
        EXPECT_LT(request.note.size(), 240u);
        EXPECT_EQ(request.note.empty(), c.noteStart.empty());
    }
}

}  // namespace
}  // namespace vekd::report
