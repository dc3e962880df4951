// The parameter store: defaults, the numeric block, properties, the verbose
// dump and the UID lists.
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
              "wifi_threshold=1600 wan_threshold=500 mini_est_interval=5000 mini_stale_interval=1500 "
              "ideal_est_window=500 mini_rate_window=50 CellularSockAssignRate=50 SockActiveTime=2000 "
              "SockStaleTime=0 update_pm_freq=500 protocols=http,https ports=80,443 estimate_pack_num=5 "
              "min_ratio_change=2 best_est_cache_size=0 init_wwan_percentage=0 gaming_whitelist= "
              "rtt_server=connectivitycheck.android.com ping_period_ms=0 rtt_noresponse_timeout_ms=0 rtt_hist=0 "
              "rtt_w2c_th_wifi_ms=0 rtt_w2c_th_c_ms=0 rtt_delta_ms=0 rtt_c2w_th_wifi_ms=0 rtt_c2w_th_wifi_min_ms=0 "
              "rtt_c2w_th_c_ms=0 t_hyst_s=0 min_ping_times=5 ping_interval_ms=1000 alpha_percent=60 n_hyst=1 "
              "rtt_min_cap_ms=10 gaming_poll_freq_cnt=5 gaming_uid_list= interface_0= interface_1= interface_2= "
              "interface_3= num_interfaces=2 rtt_entry_threshold=30 rtt_exit_threshold=120 vek_uid_list= "
              "vek_max_usage_on_interface=100 threshold_to_start_reset=100 max_size_to_calculate_lre=102400 "
              "route_dns_queries=0 use_dns_for_rtt_calc=0 ");
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 0);
    EXPECT_EQ(p->get(static_cast<OperId>(14)), 1);
    EXPECT_EQ(p->get(static_cast<OperId>(22)), 0);
    EXPECT_TRUE(p->m_gamingUidVec.empty());
    EXPECT_TRUE(p->m_vekUidVec.empty());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"E VekParameters: read vekd conf file failed!"});
}

TEST_F(Store, GetOutsideTheBlockAnswersMinusOne) {
    Parameters* p = Parameters::instance();
    for (int id : {-1, -1000, 23, 28, 29, 1 << 30}) EXPECT_EQ(p->get(static_cast<OperId>(id)), -1) << id;
}

TEST_F(Store, EnablingPropertyIsReadOnceAtCreationAndOnRequestIntoSlotZero) {
    props.set("vendor.vek.enabled", "1");
    Parameters* p = Parameters::instance();
    EXPECT_EQ(p->m_runState.load(), kRunStateReady);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 1);
    props.set("vendor.vek.enabled", "2");
    EXPECT_EQ(Parameters::instance()->get(OPER_VEK_ENABLED), 1);  // not re-read by instance()
    EXPECT_EQ(p->getVEKVendorProp(), 2);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 2);
    props.unset("vendor.vek.enabled");
    EXPECT_EQ(p->getVEKVendorProp(), 0);
    // The debug property is read, not stored.
    props.set("vendor.vek.debug", "5");
    EXPECT_EQ(p->getVEKDebugLogProp(), 5);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 0);
}

// Key i set to i reaches its own value, and the verbose dump shows the values
// under their own names.
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

// Split as getline splits, keeping blanks and inner empty fields; rebuilt,
// not appended to.
TEST_F(Store, UidListsAreSplitLikeGetlineAndRebuiltWithAVerboseLineEach) {
    Parameters* p = load("gaming_uid_list=10001,10002\nvek_uid_list=10003, 10004,,10005,\n");
    EXPECT_EQ(p->m_gamingUidVec, (std::vector<std::string>{"10001", "10002"}));
    EXPECT_EQ(p->m_vekUidVec, (std::vector<std::string>{"10003", " 10004", "", "10005"}));
    gDebugLogEnabled = 1;
    log.clear();
    p->m_gamingUidList = "7";
    p->m_vekUidList = "8,9";
    p->populateUIDVec();
    p->populateVekUidVec();
    p->populateVekUidVec();
    EXPECT_EQ(p->m_vekUidVec, (std::vector<std::string>{"8", "9"}));
    EXPECT_EQ(log.linesOf("VekParameters"), (std::vector<std::string>{"I VEK GAMING Demo UID = 7", "I VEK UID = 8",
                                                                      "I VEK UID = 9", "I VEK UID = 8", "I VEK UID = 9"}));
}

}  // namespace
