#include "config/tests/ParametersTestBase.h"

namespace {

using UidLists = ParametersTestBase;

TEST_F(UidLists, SplitLikeGetlineKeepingBlanksAndEmptyFields) {
    Parameters* p = load(
        "gaming_uid_list=10001,10002\n"
        "vek_uid_list=10003, 10004,,10005,\n");
    EXPECT_EQ(p->m_gamingUidVec, (std::vector<std::string>{"10001", "10002"}));
    EXPECT_EQ(p->m_vekUidVec, (std::vector<std::string>{"10003", " 10004", "", "10005"}));
}

TEST_F(UidLists, RebuildingReplacesAndVerboseLogsEachEntry) {
    Parameters* p = load("");
    gDebugLogEnabled = 1;
    p->m_gamingUidList = "7";
    p->m_vekUidList = "8,9";
    p->populateUIDVec();
    p->populateVekUidVec();
    p->populateVekUidVec();
    EXPECT_EQ(p->m_vekUidVec, (std::vector<std::string>{"8", "9"}));
    EXPECT_EQ(log.linesOf("VekParameters"),
              (std::vector<std::string>{"I VEK GAMING Demo UID = 7", "I VEK UID = 8", "I VEK UID = 9",
                                        "I VEK UID = 8", "I VEK UID = 9"}));
}

}  // namespace
