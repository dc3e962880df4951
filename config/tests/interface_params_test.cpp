#include <algorithm>

#include "config/tests/ParametersTestBase.h"

namespace {

class InterfaceParams : public ParametersTestBase {
  protected:
    void SetUp() override {
        ParametersTestBase::SetUp();
        p = load("");
        log.clear();
    }
    Parameters* p = nullptr;
};

// A record is eight fields; what it parses to ("|"-separated), or the reason
// it is refused. Records refused for their field count are not route-checked.
TEST_F(InterfaceParams, RecordsAreParsedOrRefusedWithTheirReason) {
    const std::string counts = "parseInterfaceParams Check vekd.conf for interface errors";
    const std::string shell = "rejected: only letters, digits, blank and ._-:/@+ are allowed";
    // No shell runs, but a second word would still become an argument of its
    // own; a shell splits at tabs and other whitespace as it does at blanks.
    const std::string words = "rejected: a field holds more than one word";
    const std::string wlan = "wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1";
    const struct {
        std::string text;
        int routeStatus;
        std::string expected;
        int forks;
    } cases[] = {
        {"wlan0,0,wlan0,0x5A,1,10,-3,192.168.1.1,", 0, "wlan0|0|wlan0|0x5A|1|10|-3|192.168.1.1", 1},
        {std::string(200, 'n') + ", 1, wlan0,0x5A, 0,1,1,123.123.123.123.123.123", 0, std::string(127, 'n') + "|1| wlan0|0x5A|0|1|1|123.123.123.123", 1},
        {wlan, 1 << 8, "validateInterfaceParams Interface wlan0 has no route, do not add into map", 1},
        {wlan, 0x80, "wlan0|0|wlan0|0x5A|1|10|0|1.1.1.1", 1},  // only the core-dump bit
        {"", 0, counts, 0}, {"wlan0", 0, counts, 0}, {"wlan0,0,wlan0,0x5A,1,10,0", 0, counts, 0},
        {"a,0,a,1,1,1,1,1,extra", 0, counts, 0}, {"a,0,a,1,1,1,1,1,,", 0, counts, 0}, {std::string(10000, ','), 0, counts, 0},
        {"wlan0;reboot,0,wlan0,0x5A,1,1,1,1.1.1.1", 0, shell, 1}, {"wlan0,0,t$(x),0x5A,1,1,1,1.1.1.1", 0, shell, 1},
        {"wlan0,0,wlan0,0x5A|x,1,1,1,1.1.1.1", 0, shell, 1}, {"wlan0,0,wlan0,0x5A,1,1,1,`id`", 0, shell, 1},
        {"wlan0,0,wlan0,0x5A -j ACCEPT,1,1,1,1.1.1.1", 0, words, 1}, {"wlan0,0,wlan0 -t nat,0x5A,1,1,1,1.1.1.1", 0, words, 1},
        {"wlan0,0,wlan0,0x5A,1,1,1,1.1.1.1 -j X", 0, words, 1}, {"wlan0,0,wlan0,0x5A\t-j\tACCEPT,1,1,1,1.1.1.1", 0, words, 1},
        {"wlan0\v-t,0,wlan0,0x5A,1,1,1,1.1.1.1", 0, words, 1}, {"wlan0,0,wlan0\r,0x5A,1,1,1,1.1.1.1", 0, words, 1},
        {"wlan0,0,wlan0,0x5A,1,1,1,\f1.1.1.1", 0, words, 1},
    };
    for (const auto& c : cases) {
        log.clear();
        launcher.setStatus(c.routeStatus);
        const int forks = launcher.forks();
        InterfaceInfo_t* i = p->parseInterfaceParams(c.text);
        EXPECT_EQ(launcher.forks() - forks, c.forks) << c.text;
        if (i == nullptr) {
            EXPECT_TRUE(log.contains(c.expected)) << c.text;
            continue;
        }
        EXPECT_EQ(std::string(i->name) + "|" + std::to_string(i->metered) + "|" + i->routeTable + "|" + i->fwmark + "|" +
                      std::to_string(i->isDefault) + "|" + std::to_string(i->cost) + "|" + std::to_string(i->bias) + "|" +
                      i->dnsServer,
                  c.expected);
        free(i);
    }
}

TEST_F(InterfaceParams, EmptyFieldsAreReportedOneLineEachAndStillRouteChecked) {
    EXPECT_EQ(p->parseInterfaceParams(",0,,,0,0,0,1.1.1.1"), nullptr);
    EXPECT_EQ(log.linesOf("VekParameters"),
              (std::vector<std::string>{"E validateInterfaceParams Interface name is NULL",
                                        "E validateInterfaceParams Interface routeTable is NULL",
                                        "E validateInterfaceParams Interface fwmark is NULL",
                                        "E parseInterfaceParams Check vekd.conf for interface errors"}));
    EXPECT_EQ(launcher.forks(), 1);
    EXPECT_FALSE(p->validateInterfaceParams(nullptr));
    EXPECT_TRUE(log.contains("validateInterfaceParams Interface Obj is NULL"));
}

TEST_F(InterfaceParams, UpdateHonoursTheInterfaceCountAndKeepsOneEntryPerName) {
    gDebugLogEnabled = 1;
    p->m_ifaceParams[0] = "wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1";
    p->m_ifaceParams[1] = "rmnet_data0,1,rmnet_data0,0x5B,0,5,0,2.2.2.2";
    p->m_ifaceParams[3] = "wlan1,0,wlan1,0x5C,0,5,0,3.3.3.3";

    // Slot 2 is empty; any count outside 0..4 means all of them. Updating
    // twice keeps one entry per name.
    for (auto [count, size] : {std::pair<int, size_t>{0, 0}, {1, 1}, {7, 3}, {-1, 3}}) {
        p->m_numInterfaces = count;
        p->updateInterfaceParams();
        p->updateInterfaceParams();
        EXPECT_EQ(p->m_interfaceMap.size(), size) << count;
    }
    EXPECT_TRUE(p->m_interfaceMap.at("rmnet_data0")->metered);
    EXPECT_STREQ(p->m_interfaceMap.at("wlan1")->fwmark, "0x5C");
    // Each accepted interface is route-checked twice: when parsed and when added.
    EXPECT_EQ(launcher.forks(), 2 * 2 * (1 + 3 + 3));
    // Verbose: per update a summary; per record its slot, its 8 fields, 7 lines each time it is checked, its entry.
    const auto lines = log.linesOf("VekParameters");
    EXPECT_EQ(lines.size(), 2 * (1 + (24 + 1) + (3 * 24 + 1) + (3 * 24 + 1)));
    for (const char* line : {"D  VekParameters added ifaces = 0 getNumInterfaces =0", "D  VekParameters added ifaces = 3 getNumInterfaces =-1",
                             "D  VEK processing iface 3, m_ifaceParams[3]=wlan1,0,wlan1,0x5C,0,5,0,3.3.3.3", "D parseInterfaceParams 0x5C 4 8 ",
                             "E validateInterfaceParams Interface bias is       0", "D addNewInterfacetoMap Added wlan1 to list of interfaces "}) {
        EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end()) << line;
    }
    // Refused by the second check: discarded (the leak check sees it freed), the old entry stays.
    launcher.queueStatuses({0, 1 << 8});
    p->m_numInterfaces = 1;
    p->updateInterfaceParams();
    EXPECT_TRUE(log.contains("addNewInterfacetoMap Add interface failed "));
    EXPECT_EQ(p->m_interfaceMap.size(), 3u);
}

TEST_F(InterfaceParams, RouteCheckWaitsForItsOwnChildAndRunsTheWrapperWithoutAShell) {
    launcher.setStatus(1 << 8);  // exited with 1
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("Invalid interface, status=256\n"));
    EXPECT_EQ(launcher.waitedPids(), std::vector<pid_t>{40001});
    launcher.failFork();
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("fork failed ("));
    vekd::ScopedSeam<vekd::platform::ProcessLauncher> realLauncher(vekd::platform::ProcessLauncher::real());
    EXPECT_FALSE(hasValidRoute("wlan0"));  // no wrapper
    EXPECT_TRUE(log.contains("Invalid interface, status=1280\n"));
    root.writeFile("/system/bin/ip-wrapper-1.0",
                   "#!/bin/sh\n[ \"$1 $2 $3 $4\" = \"route show table wlan0\" ] || exit 1\n"
                   "[ \"$(basename \"$0\")\" = ip-wrapper-1.0 ] || exit 2\n",
                   true);
    EXPECT_TRUE(hasValidRoute("wlan0"));
    EXPECT_FALSE(hasValidRoute("eth9"));
}

}  // namespace
