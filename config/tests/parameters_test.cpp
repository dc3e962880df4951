// The parameter store: defaults, properties, the file, the dump, UID lists and interface records.
#include <algorithm>
#include <set>

#include "config/tests/ParametersTestBase.h"

namespace {

using Store = ParametersTestBase;

// Every value the store holds, as the operator's dump shows it.
TEST_F(Store, DefaultsWithoutConfigurationFile) {
    Parameters* p = Parameters::instance();
    std::string all;
    for (const auto& [key, value] : p->configValues()) all += key + "=" + value + " ";
    EXPECT_EQ(all,
              "wifi_threshold=1600 wan_threshold=500 mini_est_interval=5000 mini_stale_interval=1500 ideal_est_window=500 "
              "mini_rate_window=50 CellularSockAssignRate=50 SockActiveTime=2000 SockStaleTime=0 update_pm_freq=500 "
              "protocols=http,https ports=80,443 estimate_pack_num=5 min_ratio_change=2 best_est_cache_size=0 "
              "init_wwan_percentage=0 gaming_whitelist= rtt_server=connectivitycheck.android.com ping_period_ms=0 "
              "rtt_noresponse_timeout_ms=0 rtt_hist=0 rtt_w2c_th_wifi_ms=0 rtt_w2c_th_c_ms=0 rtt_delta_ms=0 "
              "rtt_c2w_th_wifi_ms=0 rtt_c2w_th_wifi_min_ms=0 rtt_c2w_th_c_ms=0 t_hyst_s=0 min_ping_times=5 "
              "ping_interval_ms=1000 alpha_percent=60 n_hyst=1 rtt_min_cap_ms=10 gaming_poll_freq_cnt=5 gaming_uid_list= "
              "interface_0= interface_1= interface_2= interface_3= num_interfaces=2 rtt_entry_threshold=30 "
              "rtt_exit_threshold=120 vek_uid_list= vek_max_usage_on_interface=100 threshold_to_start_reset=100 "
              "max_size_to_calculate_lre=102400 route_dns_queries=0 use_dns_for_rtt_calc=0 ");
    EXPECT_EQ(p->m_runState.load(), kRunStateReady);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 0);
    EXPECT_EQ(p->get(static_cast<OperId>(14)), 1);
    EXPECT_EQ(p->get(static_cast<OperId>(22)), 0);
    for (int id : {-1, -1000, 23, 28, 29, 1 << 30}) EXPECT_EQ(p->get(static_cast<OperId>(id)), -1) << id;
    EXPECT_EQ(log.lines(), std::vector<std::string>{"E VekParameters: read vekd conf file failed!"});
}

TEST_F(Store, EnablingPropertyIsReadAtCreationAndOnRequestIntoSlotZero) {
    props.set("vendor.vek.enabled", "1");
    Parameters* p = Parameters::instance();
    props.set("vendor.vek.enabled", "2");
    EXPECT_EQ(Parameters::instance()->get(OPER_VEK_ENABLED), 1);  // not re-read by instance()
    EXPECT_EQ(p->getVEKVendorProp(), 2);
    props.set("vendor.vek.debug", "5");
    EXPECT_EQ(p->getVEKDebugLogProp(), 5);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 2);  // the debug property is not stored
}

TEST_F(Store, CommentTakesTheCharacterBeforeItValueAllAfterTheFirstEqualsLaterLinesWin) {
    gDebugLogEnabled = 1;  // a comment line handed on would show as an unknown key
    Parameters* p = load(" \tmini_est_interval = 2000 \t\nmini_stale_interval=2000#x\nideal_est_window=700 # note\n"
                         "   # only a comment\n# wifi_threshold=1\nno equals sign here\nprotocols=tcp,udp,quic\r\n"
                         "wan_threshold=800\r\ngaming_whitelist=a=b\nports=1\nports=8080\n");
    EXPECT_EQ(p->get(OPER_MINI_EST_INTERVAL), 2000);
    EXPECT_EQ(p->get(OPER_MINI_STALE_INTERVAL), 200);
    EXPECT_EQ(p->get(OPER_IDEAL_EST_WINDOW), 700);
    EXPECT_EQ(p->get(OPER_WIFI_THRESHOLD), 1600);
    EXPECT_EQ(p->m_protocols, "tcp,udp,quic\r");  // the carriage return stays
    EXPECT_EQ(p->get(OPER_WAN_THRESHOLD), 800);
    EXPECT_EQ(p->m_gamingWhitelist, "a=b");
    EXPECT_EQ(p->m_ports, "8080");
    EXPECT_EQ(log.count("setValue:"), 8u);
}

TEST_F(Store, RttServerFollowsTheOperatorCountry) {
    EXPECT_EQ(load("rtt_server=probe.example\n")->m_rttServer, "probe.example");
    Parameters::resetForTesting();
    props.set("vendor.bemo.operator.iso-country", "xCNy");
    EXPECT_EQ(load("rtt_server=probe.example\n")->m_rttServer, kChinaRttResolver);
}

TEST_F(Store, SetValueReportsUnknownKeysAndLogsOnlyWhenVerbose) {
    Parameters* p = load("");
    EXPECT_FALSE(p->setValue("N_HYST", "5"));  // names are case-sensitive
    EXPECT_FALSE(log.contains("setValue"));
    gDebugLogEnabled = 1;
    EXPECT_FALSE(p->setValue("bogus", "1"));
    EXPECT_TRUE(p->setValue("SockStaleTime", "9"));
    EXPECT_EQ(log.linesOf("VekParameters"), (std::vector<std::string>{"D setValue:bogus,1,0", "D setValue:SockStaleTime,9,1"}));
}

// Key i set to i reaches its own value, and the verbose dump shows the values under their own names.
TEST_F(Store, EveryKeySetsItsOwnValueAndTheVerboseDumpShowsIt) {
    Parameters* p = load("");
    const auto keys = p->configValues();
    for (size_t i = 0; i < keys.size(); ++i) EXPECT_TRUE(p->setValue(keys[i].first.c_str(), std::to_string(i).c_str()));
    std::set<std::string> expected;
    const auto values = p->configValues();
    for (size_t i = 0; i < values.size(); ++i) {
        EXPECT_EQ(values[i].second, std::to_string(i)) << values[i].first;
        expected.insert("D " + values[i].first + "=" + values[i].second);
    }
    EXPECT_TRUE(p->setValue("VEKEnabled", "7"));
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 7);
    p->printGamingParams();
    EXPECT_TRUE(log.linesOf("VekParameters").empty());
    gDebugLogEnabled = 1;
    p->printGamingParams();
    const auto lines = log.linesOf("VekParameters");
    EXPECT_EQ(lines.size(), 27u);
    for (const std::string& line : lines) EXPECT_EQ(expected.count(line), 1u) << line;
}

// Split as getline splits, keeping blanks and inner empty fields; rebuilt, not appended to.
TEST_F(Store, UidListsAreSplitLikeGetlineAndRebuiltWithAVerboseLineEach) {
    Parameters* p = load("gaming_uid_list=10001,10002\nvek_uid_list=10003, 10004,,10005,\n");
    EXPECT_EQ(p->m_gamingUidVec, (std::vector<std::string>{"10001", "10002"}));
    EXPECT_EQ(p->m_vekUidVec, (std::vector<std::string>{"10003", " 10004", "", "10005"}));
    gDebugLogEnabled = 1;
    p->m_gamingUidList = "7";
    p->m_vekUidList = "8,9";
    p->populateUIDVec();
    p->populateVekUidVec();
    p->populateVekUidVec();
    EXPECT_EQ(p->m_vekUidVec, (std::vector<std::string>{"8", "9"}));
    EXPECT_EQ(log.linesOf("VekParameters"), (std::vector<std::string>{"I VEK GAMING Demo UID = 7", "I VEK UID = 8",
                                                                      "I VEK UID = 9", "I VEK UID = 8", "I VEK UID = 9"}));
}

// A record is eight fields; what it parses to ("|"-separated), or the reason
// it is refused. Records refused for their field count are not route-checked.
TEST_F(Store, InterfaceRecordsAreParsedOrRefusedWithTheirReason) {
    Parameters* p = load("");
    const std::string counts = "parseInterfaceParams Check vekd.conf for interface errors";
    const std::string shell = "rejected: only letters, digits, blank and ._-:/@+ are allowed";
    // Without a shell a second word still becomes an argument; any whitespace splits words.
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
        {"w,0,7,5,1,10,0,1", 0, "w|0|7|5|1|10|0|1", 1},  // one-character fields are not empty
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

TEST_F(Store, InterfaceEmptyFieldsAreReportedOneLineEachAndStillRouteChecked) {
    Parameters* p = load("");
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

TEST_F(Store, InterfaceUpdateHonoursTheInterfaceCountAndKeepsOneEntryPerName) {
    Parameters* p = load("");
    gDebugLogEnabled = 1;
    p->m_ifaceParams[0] = "wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1";
    p->m_ifaceParams[1] = "rmnet_data0,1,rmnet_data0,0x5B,0,5,0,2.2.2.2";
    p->m_ifaceParams[3] = "wlan1,0,wlan1,0x5C,0,5,0,3.3.3.3";

    // Slot 2 is empty; any count outside 0..4 means all of them. Updating twice keeps one entry per name.
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

TEST_F(Store, InterfaceRouteCheckWaitsForItsOwnChildAndRunsTheWrapperWithoutAShell) {
    launcher.setStatus(1 << 8);  // exited with 1
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("Invalid interface, status=256\n"));
    EXPECT_EQ(launcher.waitedPids(), std::vector<pid_t>{40001});
    launcher.failFork();
    EXPECT_FALSE(hasValidRoute("wlan0"));
    EXPECT_TRUE(log.contains("fork failed ("));
    vekd::ScopedSeam<vekd::platform::ProcessLauncher> real(vekd::platform::ProcessLauncher::real());
    root.writeFile("/system/bin/ip-wrapper-1.0", "#!/bin/sh\n[ \"$*\" = \"route show table wlan0\" ]\n", true);
    EXPECT_TRUE(hasValidRoute("wlan0"));
    EXPECT_FALSE(hasValidRoute("eth9"));
}

}  // namespace
