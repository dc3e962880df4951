#include "config/tests/ParametersTestBase.h"

namespace {

class InterfaceParams : public ParametersTestBase {
  protected:
    void SetUp() override {
        ParametersTestBase::SetUp();
        p = load("");
        log.clear();
    }
    // The parsed record's fields, "|"-separated, and the record freed; "null" if refused.
    std::string parsed(const std::string& text) {
        InterfaceInfo_t* i = p->parseInterfaceParams(text);
        if (i == nullptr) return "null";
        std::string out = std::string(i->name) + "|" + std::to_string(i->metered) + "|" + i->routeTable + "|" +
                          i->fwmark + "|" + std::to_string(i->isDefault) + "|" + std::to_string(i->cost) + "|" +
                          std::to_string(i->bias) + "|" + i->dnsServer;
        free(i);
        return out;
    }
    Parameters* p = nullptr;
};

TEST_F(InterfaceParams, EightFieldsMakeARecordBlanksAreKeptAndLongFieldsCut) {
    // A trailing comma adds no field.
    EXPECT_EQ(parsed("wlan0,0,wlan0,0x5A,1,10,-3,192.168.1.1,"), "wlan0|0|wlan0|0x5A|1|10|-3|192.168.1.1");
    EXPECT_EQ(parsed(std::string(200, 'n') + ", 1, wlan0,0x5A, 0,1,1,123.123.123.123.123.123"),
              std::string(127, 'n') + "|1| wlan0|0x5A|0|1|1|123.123.123.123");
}

TEST_F(InterfaceParams, MalformedRecordsAreRejectedWithTheirReason) {
    const std::string counts = "parseInterfaceParams Check vekd.conf for interface errors";
    const std::string shell = "rejected: only letters, digits, blank and ._-:/@+ are allowed";
    // No shell runs, but a second word would still become an argument of its
    // own; a shell splits at tabs and other whitespace as it does at blanks.
    const std::string words = "rejected: a field holds more than one word";
    const struct {
        std::string text;
        const std::string& reason;
    } cases[] = {
        {"", counts}, {"wlan0", counts}, {"wlan0,0,wlan0,0x5A,1,10,0", counts},
        {"a,0,a,1,1,1,1,1,extra", counts}, {"a,0,a,1,1,1,1,1,,", counts}, {std::string(10000, ','), counts},
        {"wlan0;reboot,0,wlan0,0x5A,1,1,1,1.1.1.1", shell}, {"wlan0,0,t$(x),0x5A,1,1,1,1.1.1.1", shell},
        {"wlan0,0,wlan0,0x5A|x,1,1,1,1.1.1.1", shell}, {"wlan0,0,wlan0,0x5A,1,1,1,`id`", shell},
        {"wlan0,0,wlan0,0x5A -j ACCEPT,1,1,1,1.1.1.1", words}, {"wlan0,0,wlan0 -t nat,0x5A,1,1,1,1.1.1.1", words},
        {"wlan0,0,wlan0,0x5A,1,1,1,1.1.1.1 -j X", words}, {"wlan0,0,wlan0,0x5A\t-j\tACCEPT,1,1,1,1.1.1.1", words},
        {"wlan0\v-t,0,wlan0,0x5A,1,1,1,1.1.1.1", words}, {"wlan0,0,wlan0\r,0x5A,1,1,1,1.1.1.1", words},
        {"wlan0,0,wlan0,0x5A,1,1,1,\f1.1.1.1", words},
    };
    for (const auto& c : cases) {
        log.clear();
        const int forks = launcher.forks();
        EXPECT_EQ(p->parseInterfaceParams(c.text), nullptr) << c.text;
        EXPECT_TRUE(log.contains(c.reason)) << c.text;
        EXPECT_EQ(launcher.forks() - forks, &c.reason == &counts ? 0 : 1) << c.text;  // route-checked or not
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
}

TEST_F(InterfaceParams, RouteCheckExitStatusDecidesAndItWaitsForItsOwnChild) {
    launcher.setStatus(1 << 8);  // exited with 1
    EXPECT_EQ(p->parseInterfaceParams("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1"), nullptr);
    EXPECT_TRUE(log.contains("Invalid interface, status=256\n"));
    EXPECT_TRUE(log.contains("validateInterfaceParams Interface wlan0 has no route, do not add into map"));
    launcher.setStatus(0x80);  // only the core-dump bit: accepted
    EXPECT_NE(parsed("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1"), "null");
    EXPECT_EQ(launcher.waitedPids(), (std::vector<pid_t>{40001, 40002}));
    launcher.failFork();
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("fork failed ("));
}

TEST_F(InterfaceParams, UpdateHonoursTheInterfaceCountAndKeepsOneEntryPerName) {
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
}

// Freed, not leaked (the sanitizer build's leak check sees the difference).
TEST_F(InterfaceParams, RecordRejectedByTheSecondRouteCheckIsDiscarded) {
    p->m_ifaceParams[0] = "wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1";
    p->m_numInterfaces = 1;
    launcher.queueStatuses({0, 1 << 8});
    p->updateInterfaceParams();
    EXPECT_TRUE(p->m_interfaceMap.empty());
    EXPECT_TRUE(log.contains("addNewInterfacetoMap Add interface failed "));
}

TEST_F(InterfaceParams, VerboseValidationPrintsTheRecord) {
    gDebugLogEnabled = 1;
    InterfaceInfo_t* info = p->parseInterfaceParams("wlan0,1,tbl,0x5A,1,10,2,1.1.1.1");
    ASSERT_NE(info, nullptr);
    ASSERT_TRUE(p->addNewInterfacetoMap(info));
    auto lines = log.linesOf("VekParameters");
    ASSERT_EQ(lines.size(), 8 + 2 * 7 + 1u);  // the fields, the record when parsed and when added
    EXPECT_EQ(lines[0], "D parseInterfaceParams wlan0 1 8 ");
    EXPECT_EQ(lines[8], "E validateInterfaceParams Interface name is       wlan0");
    EXPECT_EQ(lines[14], "E validateInterfaceParams Interface bias is       2");
    EXPECT_EQ(lines.back(), "D addNewInterfacetoMap Added wlan0 to list of interfaces ");
}

TEST_F(InterfaceParams, RealRouteCheckRunsTheWrapperWithoutAShell) {
    vekd::ScopedSeam<vekd::platform::ProcessLauncher> realLauncher(vekd::platform::ProcessLauncher::real());
    EXPECT_FALSE(hasValidRoute("wlan0"));  // no wrapper
    EXPECT_TRUE(log.contains("Invalid interface, status=1280\n"));
    root.writeFile("/system/bin/ip-wrapper-1.0",
                   "#!/bin/sh\n[ \"$1 $2 $3 $4\" = \"route show table wlan0\" ] || exit 1\n"
                   "[ \"$(basename \"$0\")\" = ip-wrapper-1.0 ] || exit 2\n",
                   true);
    EXPECT_TRUE(hasValidRoute("wlan0"));
    EXPECT_FALSE(hasValidRoute("eth9"));
    EXPECT_TRUE(log.contains("Invalid interface, status=256\n"));
}

}  // namespace
