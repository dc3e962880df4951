#include "config/tests/ParametersTestBase.h"

namespace {

using ConfigFile = ParametersTestBase;

TEST_F(ConfigFile, CommentTakesTheCharacterBeforeItAndOnlyBlankAndTabAreTrimmed) {
    gDebugLogEnabled = 1;  // a comment line handed on would show as an unknown key
    Parameters* p = load(" \tmini_est_interval = 2000 \t\nmini_stale_interval=2000#x\nideal_est_window=700 # note\n"
                         "   # only a comment\n# wifi_threshold=1\nno equals sign here\nprotocols=tcp,udp,quic\r\n"
                         "wan_threshold=800\r\n");
    EXPECT_EQ(p->get(OPER_MINI_EST_INTERVAL), 2000);
    EXPECT_EQ(p->get(OPER_MINI_STALE_INTERVAL), 200);
    EXPECT_EQ(p->get(OPER_IDEAL_EST_WINDOW), 700);
    EXPECT_EQ(p->get(OPER_WIFI_THRESHOLD), 1600);
    EXPECT_EQ(p->m_protocols, "tcp,udp,quic\r");  // the carriage return stays
    EXPECT_EQ(p->get(OPER_WAN_THRESHOLD), 800);
    EXPECT_EQ(log.count("setValue:"), 5u);
}

TEST_F(ConfigFile, ValueIsEverythingAfterTheFirstEqualsAndLaterLinesWin) {
    Parameters* p = load("gaming_whitelist=a=b\nports=1\nports=8080\n");
    EXPECT_EQ(p->m_gamingWhitelist, "a=b");
    EXPECT_EQ(p->m_ports, "8080");
}

TEST_F(ConfigFile, RttServerFollowsTheOperatorCountry) {
    EXPECT_EQ(load("rtt_server=probe.example\n")->m_rttServer, "probe.example");
    Parameters::resetForTesting();
    props.set("vendor.bemo.operator.iso-country", "xCNy");
    EXPECT_EQ(load("rtt_server=probe.example\n")->m_rttServer, kChinaRttResolver);
}

TEST_F(ConfigFile, SetValueReportsUnknownKeysAndLogsOnlyWhenVerbose) {
    Parameters* p = load("");
    EXPECT_FALSE(p->setValue("N_HYST", "5"));  // names are case-sensitive
    EXPECT_FALSE(log.contains("setValue"));
    gDebugLogEnabled = 1;
    EXPECT_FALSE(p->setValue("bogus", "1"));
    EXPECT_TRUE(p->setValue("SockStaleTime", "9"));
    EXPECT_EQ(log.linesOf("VekParameters"), (std::vector<std::string>{"D setValue:bogus,1,0", "D setValue:SockStaleTime,9,1"}));
}

}  // namespace
