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

TEST_F(InterfaceParams, EightFieldsMakeARecordAndATrailingCommaAddsNoField) {
    InterfaceInfo_t* info = p->parseInterfaceParams("wlan0,0,wlan0,0x5A,1,10,-3,192.168.1.1,");
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, "wlan0");
    EXPECT_FALSE(info->metered);
    EXPECT_STREQ(info->routeTable, "wlan0");
    EXPECT_STREQ(info->fwmark, "0x5A");
    EXPECT_TRUE(info->isDefault);
    EXPECT_EQ(info->cost, 10);
    EXPECT_EQ(info->bias, -3);
    EXPECT_STREQ(info->dnsServer, "192.168.1.1");
    free(info);
}

TEST_F(InterfaceParams, WrongFieldCountsAreRejected) {
    for (const char* text : {"", "wlan0", "wlan0,0,wlan0,0x5A,1,10,0", "a,0,a,1,1,1,1,1,extra",
                             "a,0,a,1,1,1,1,1,,"}) {
        EXPECT_EQ(p->parseInterfaceParams(text), nullptr) << text;
    }
    EXPECT_EQ(log.count("parseInterfaceParams Check vekd.conf for interface errors"), 5u);
    EXPECT_EQ(launcher.forks(), 0);
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

TEST_F(InterfaceParams, BlanksAreKeptAndLongFieldsCut) {
    const std::string longName(200, 'n');
    InterfaceInfo_t* info =
        p->parseInterfaceParams(longName + ", 1, wlan0,0x5A, 0,1,1,123.123.123.123.123.123");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::string(info->name), std::string(127, 'n'));
    EXPECT_TRUE(info->metered);
    EXPECT_STREQ(info->routeTable, " wlan0");
    EXPECT_FALSE(info->isDefault);
    EXPECT_STREQ(info->dnsServer, "123.123.123.123");
    free(info);
}

TEST_F(InterfaceParams, RouteCheckExitStatusDecidesAndItWaitsForItsOwnChild) {
    launcher.setStatus(1 << 8);  // exited with 1
    EXPECT_EQ(p->parseInterfaceParams("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1"), nullptr);
    EXPECT_TRUE(log.contains("Invalid interface, status=256\n"));
    EXPECT_TRUE(log.contains("validateInterfaceParams Interface wlan0 has no route, do not add into map"));
    launcher.setStatus(0x80);  // only the core-dump bit: accepted
    InterfaceInfo_t* info = p->parseInterfaceParams("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1");
    EXPECT_NE(info, nullptr);
    free(info);
    EXPECT_EQ(launcher.waitedPids(), (std::vector<pid_t>{40001, 40002}));
    launcher.failFork();
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("fork failed ("));
}

TEST_F(InterfaceParams, ShellSyntaxInAnyFieldIsRejected) {
    for (const char* text : {"wlan0;reboot,0,wlan0,0x5A,1,1,1,1.1.1.1", "wlan0,0,t$(x),0x5A,1,1,1,1.1.1.1",
                             "wlan0,0,wlan0,0x5A|x,1,1,1,1.1.1.1", "wlan0,0,wlan0,0x5A,1,1,1,`id`"}) {
        EXPECT_EQ(p->parseInterfaceParams(text), nullptr) << text;
    }
    EXPECT_EQ(log.count("rejected: only letters, digits, blank and ._-:/@+ are allowed"), 4u);
    // No shell, but a second word would still become an argument of its own.
    // A shell splits at tabs and the other whitespace as it does at blanks.
    for (const char* text : {"wlan0,0,wlan0,0x5A -j ACCEPT,1,1,1,1.1.1.1", "wlan0,0,wlan0 -t nat,0x5A,1,1,1,1.1.1.1",
                             "wlan0,0,wlan0,0x5A,1,1,1,1.1.1.1 -j X", "wlan0,0,wlan0,0x5A\t-j\tACCEPT,1,1,1,1.1.1.1",
                             "wlan0\v-t,0,wlan0,0x5A,1,1,1,1.1.1.1", "wlan0,0,wlan0\r,0x5A,1,1,1,1.1.1.1",
                             "wlan0,0,wlan0,0x5A,1,1,1,\f1.1.1.1"}) {
        EXPECT_EQ(p->parseInterfaceParams(text), nullptr) << text;
    }
    EXPECT_EQ(log.count("rejected: a field holds more than one word"), 7u);
}

TEST_F(InterfaceParams, TenThousandCommasAreJustTooManyFields) {
    EXPECT_EQ(p->parseInterfaceParams(std::string(10000, ',')), nullptr);
}

TEST_F(InterfaceParams, UpdateHonoursTheInterfaceCountAndKeepsOneEntryPerName) {
    p->m_ifaceParams[0] = "wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1";
    p->m_ifaceParams[1] = "rmnet_data0,1,rmnet_data0,0x5B,0,5,0,2.2.2.2";
    p->m_ifaceParams[3] = "wlan1,0,wlan1,0x5C,0,5,0,3.3.3.3";

    p->m_numInterfaces = 0;
    p->updateInterfaceParams();
    EXPECT_TRUE(p->m_interfaceMap.empty());

    p->m_numInterfaces = 1;
    p->updateInterfaceParams();
    EXPECT_EQ(p->m_interfaceMap.size(), 1u);

    for (int count : {7, -1}) {
        p->m_numInterfaces = count;
        p->updateInterfaceParams();
        p->updateInterfaceParams();
        ASSERT_EQ(p->m_interfaceMap.size(), 3u) << count;
    }
    EXPECT_TRUE(p->m_interfaceMap.at("rmnet_data0")->metered);
    EXPECT_STREQ(p->m_interfaceMap.at("wlan1")->fwmark, "0x5C");
    // Each accepted interface is route-checked twice: when parsed and when added.
    EXPECT_EQ(launcher.forks(), 2 * (1 + 4 * 3));
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
    const std::vector<std::string> record = {
        "E validateInterfaceParams Interface name is       wlan0",
        "E validateInterfaceParams Interface routeTable is tbl",
        "E validateInterfaceParams Interface fwmark is     0x5A",
        "E validateInterfaceParams Interface default is    1",
        "E validateInterfaceParams Interface metered is    1",
        "E validateInterfaceParams Interface cost is       10",
        "E validateInterfaceParams Interface bias is       2"};
    ASSERT_EQ(lines.size(), 8 + 2 * record.size() + 1);
    EXPECT_EQ(lines[0], "D parseInterfaceParams wlan0 1 8 ");
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 8, lines.begin() + 15), record);
    EXPECT_EQ(lines.back(), "D addNewInterfacetoMap Added wlan0 to list of interfaces ");
}

TEST_F(InterfaceParams, RealRouteCheckRunsTheWrapperWithoutAShell) {
    vekd::ScopedSeam<vekd::platform::ProcessLauncher> realLauncher(
        vekd::platform::ProcessLauncher::real());
    root.writeFile("/system/bin/ip-wrapper-1.0",
                   "#!/bin/sh\n[ \"$1 $2 $3 $4\" = \"route show table wlan0\" ] || exit 1\n"
                   "[ \"$(basename \"$0\")\" = ip-wrapper-1.0 ] || exit 2\n",
                   true);
    EXPECT_TRUE(hasValidRoute("wlan0"));
    EXPECT_FALSE(hasValidRoute("eth9"));
    EXPECT_TRUE(log.contains("Invalid interface, status=256\n"));
}

TEST_F(InterfaceParams, MissingWrapperFailsTheRouteCheck) {
    vekd::ScopedSeam<vekd::platform::ProcessLauncher> realLauncher(
        vekd::platform::ProcessLauncher::real());
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("Invalid interface, status=1280\n"));
}

}  // namespace
