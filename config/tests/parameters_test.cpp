#include "config/tests/ParametersTestBase.h"

namespace {

using Store = ParametersTestBase;

TEST_F(Store, DefaultsWithoutConfigurationFile) {
    Parameters* p = Parameters::instance();
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 0);
    const int expected[] = {1600, 500, 5000, 1500, 500, 50, 50, 2000, 0, 500};
    for (int id = 1; id <= 10; ++id) EXPECT_EQ(p->get(static_cast<OperId>(id)), expected[id - 1]) << id;
    EXPECT_EQ(p->get(static_cast<OperId>(14)), 1);
    EXPECT_EQ(p->get(static_cast<OperId>(22)), 0);
    EXPECT_EQ(p->m_protocols, "http,https");
    EXPECT_EQ(p->m_ports, "80,443");
    EXPECT_EQ(p->m_estimatePackNum, 5);
    EXPECT_EQ(p->m_minRatioChange, 2);
    EXPECT_EQ(p->m_numInterfaces, 2);
    EXPECT_EQ(p->m_vekMaxUsageOnInterface, 100);
    EXPECT_EQ(p->m_thresholdToStartReset, 100);
    EXPECT_EQ(p->m_maxSizeToCalculateLre, 102400);
    EXPECT_EQ(p->m_rttServer, kDefaultRttServer);
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
    EXPECT_EQ(Parameters::instance(), p);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 1);  // not re-read by instance()
    EXPECT_EQ(p->getVEKVendorProp(), 2);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 2);
    props.unset("vendor.vek.enabled");
    EXPECT_EQ(p->getVEKVendorProp(), 0);
    // The debug property is read as atoi reads it and not stored.
    props.set("vendor.vek.debug", "abc");
    EXPECT_EQ(p->getVEKDebugLogProp(), 0);
    props.set("vendor.vek.debug", " 5x");
    EXPECT_EQ(p->getVEKDebugLogProp(), 5);
    EXPECT_EQ(p->get(OPER_VEK_ENABLED), 0);
}

}  // namespace
