#include <fstream>
#include <random>

#include "config/tests/ParametersTestBase.h"

namespace {

using ConfigFile = ParametersTestBase;

TEST_F(ConfigFile, CommentTakesTheCharacterBeforeItAndOnlyBlankAndTabAreTrimmed) {
    Parameters* p = load(" \tmini_est_interval = 2000 \t\nmini_stale_interval=2000#x\nideal_est_window=700 # note\n"
                         "   # only a comment\n# wifi_threshold=1\nno equals sign here\nprotocols=tcp,udp,quic\r\n"
                         "wan_threshold=800\r\n");
    EXPECT_EQ(p->get(OPER_MINI_EST_INTERVAL), 2000);
    EXPECT_EQ(p->get(OPER_MINI_STALE_INTERVAL), 200);
    EXPECT_EQ(p->get(OPER_IDEAL_EST_WINDOW), 700);
    EXPECT_EQ(p->get(OPER_WIFI_THRESHOLD), 1600);
    EXPECT_EQ(p->m_protocols, "tcp,udp,quic\r");  // the carriage return stays
    EXPECT_EQ(p->get(OPER_WAN_THRESHOLD), 800);
}

TEST_F(ConfigFile, ValueIsEverythingAfterTheFirstEqualsAndLaterLinesWin) {
    Parameters* p = load("gaming_whitelist=a=b\nports=1\nports=8080\nmin_ratio_change=abc\n"
                         "vek_max_usage_on_interface=99999999999\ninterface_2=rmnet_data0,1,rmnet_data0,0x5B,0,5,0,10.0.0.1\n");
    EXPECT_EQ(p->m_gamingWhitelist, "a=b");
    EXPECT_EQ(p->m_ports, "8080");
    EXPECT_EQ(p->m_minRatioChange, 0);
    EXPECT_EQ(p->m_vekMaxUsageOnInterface, atoi("99999999999"));
    EXPECT_EQ(p->m_ifaceParams[2], "rmnet_data0,1,rmnet_data0,0x5B,0,5,0,10.0.0.1");
}

TEST_F(ConfigFile, RttServerFollowsTheOperatorCountry) {
    EXPECT_EQ(load("rtt_server=probe.example\n")->m_rttServer, "probe.example");
    Parameters::resetForTesting();
    props.set("vendor.bemo.operator.iso-country", "xCNy");
    EXPECT_EQ(load("rtt_server=probe.example\n")->m_rttServer, kChinaRttResolver);
}

TEST_F(ConfigFile, SetValueReportsUnknownKeysAndLogsOnlyWhenVerbose) {
    Parameters* p = load("");
    EXPECT_TRUE(p->setValue("n_hyst", "4"));
    EXPECT_FALSE(p->setValue("N_HYST", "5"));
    EXPECT_EQ(p->m_nHyst, 4);
    EXPECT_FALSE(log.contains("setValue"));
    gDebugLogEnabled = 1;
    EXPECT_FALSE(p->setValue("bogus", "1"));
    EXPECT_TRUE(p->setValue("SockStaleTime", "9"));
    EXPECT_EQ(p->get(OPER_SOCK_STALE_TIME), 9);
    EXPECT_EQ(log.linesOf("VekParameters"),
              (std::vector<std::string>{"D setValue:bogus,1,0", "D setValue:SockStaleTime,9,1"}));
}

TEST_F(ConfigFile, EveryKeyOfTheVocabularyIsKnown) {
    Parameters* p = load("");
    const char* keys[] = {"VEKEnabled", "wifi_threshold", "wan_threshold", "mini_est_interval", "mini_stale_interval",
        "ideal_est_window", "mini_rate_window", "CellularSockAssignRate", "SockActiveTime", "SockStaleTime",
        "update_pm_freq", "protocols", "ports", "estimate_pack_num", "min_ratio_change", "best_est_cache_size",
        "init_wwan_percentage", "gaming_whitelist", "rtt_server", "ping_period_ms", "rtt_noresponse_timeout_ms",
        "rtt_hist", "rtt_w2c_th_wifi_ms", "rtt_w2c_th_c_ms", "rtt_delta_ms", "rtt_c2w_th_wifi_ms",
        "rtt_c2w_th_wifi_min_ms", "rtt_c2w_th_c_ms", "t_hyst_s", "min_ping_times", "ping_interval_ms",
        "alpha_percent", "n_hyst", "rtt_min_cap_ms", "gaming_poll_freq_cnt", "gaming_uid_list", "interface_0",
        "interface_1", "interface_2", "interface_3", "num_interfaces", "rtt_entry_threshold", "rtt_exit_threshold",
        "vek_uid_list", "vek_max_usage_on_interface", "threshold_to_start_reset", "max_size_to_calculate_lre",
        "route_dns_queries", "use_dns_for_rtt_calc"};
    for (const char* key : keys) EXPECT_TRUE(p->setValue(key, "7")) << key;
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 7);
    EXPECT_EQ(p->m_useDnsForRttCalc, 7);
    EXPECT_EQ(p->m_ifaceParams[3], "7");
}

TEST_F(ConfigFile, HugeAndBinaryFilesDoNotHurt) {
    std::string junk;
    std::mt19937 rng(7);
    for (int i = 0; i < 2'000'000; ++i) junk += static_cast<char>(rng() & 0xff);
    junk += "\nmini_est_interval=1234\n";
    junk += std::string(3'000'000, 'k') + "=" + std::string(1000, '#') + "\n";
    Parameters* p = load(junk);
    EXPECT_EQ(p->get(OPER_MINI_EST_INTERVAL), 1234);
    EXPECT_EQ(p->m_runState.load(), kRunStateReady);
}

}  // namespace
