#include "config/tests/ParametersTestBase.h"

namespace {

using ParameterDump = ParametersTestBase;

TEST_F(ParameterDump, WritesNothingWhileQuietAndEveryLineWhenVerbose) {
    Parameters* p = load("rtt_hist=4\ninterface_1=x\nvek_uid_list=1,2\n");
    p->printGamingParams();
    EXPECT_FALSE(log.contains("gaming_whitelist"));

    gDebugLogEnabled = 1;
    log.clear();
    p->printGamingParams();
    auto lines = log.linesOf("VekParameters");
    ASSERT_EQ(lines.size(), 27u);
    EXPECT_EQ(lines[0], "D gaming_whitelist=");
    EXPECT_EQ(lines[1], std::string("D rtt_server=") + kDefaultRttServer);
    EXPECT_EQ(lines[4], "D rtt_hist=4");
    EXPECT_EQ(lines[20], "D interface_1=x");
    EXPECT_EQ(lines[23], "D num_interfaces=2");
    EXPECT_EQ(lines[26], "D vek_uid_list=1,2");
}

TEST_F(ParameterDump, StatisticsCommandsAreBoundedByTheBuffer) {
    Parameters* p = load("ports=8080\n");
    char buf[256];
    EXPECT_STREQ(p->getStatsPorts(buf, sizeof(buf)), "ports=8080");
    EXPECT_STREQ(p->getStatsProtocols(buf, sizeof(buf)), "protocols=http,https");
    // A command that does not fit is refused, never written past the buffer.
    char small[12];
    memset(small, 'z', sizeof(small));
    EXPECT_EQ(p->getStatsPorts(small, 10), nullptr);
    EXPECT_EQ(small[10], 'z');
    EXPECT_STREQ(p->getStatsPorts(small, 11), "ports=8080");
}

}  // namespace
