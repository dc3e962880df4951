// The main loop's turn against the fakes: which run states fetch the link
// manager, the sleep of an evaluation period, the verbose flag, shutdown.
#include <gtest/gtest.h>

#include "daemon/MainLoop.h"
#include "tests/support/InProcessDaemon.h"

namespace vekd::test {
namespace {

class MainLoopTurn : public testing::Test {
  protected:
    InProcessDaemon d;
    Parameters* params = Parameters::instance();
    MainLoop loop{params};
};

// The debug property: 1 sets the verbose flag, 0 clears it, anything else keeps it.
TEST_F(MainLoopTurn, ManagerIsFetchedInStatesOneAndTwoOnlyAndTheDebugPropertySetsTheFlag) {
    for (const auto& [state, fetched, debug, flag] : std::vector<std::tuple<int32_t, bool, const char*, int>>{
             {0, false, "1", 1}, {3, false, "5", 1}, {-1, false, "0", 0}, {1, true, "5", 0}, {2, true, "1", 1}}) {
        MainLoop fresh(params);
        params->m_runState.store(state);
        d.props.set("vendor.vek.debug", debug);
        EXPECT_TRUE(fresh.turn());
        EXPECT_EQ(fresh.manager(), fetched ? NuvManager::instance() : nullptr) << "state " << state;
        EXPECT_EQ(gDebugLogEnabled, flag) << debug;
    }
}

TEST_F(MainLoopTurn, OnlyStateTwoSleepsThePeriodFormedIn32Bits) {
    params->m_runState.store(kRunStateReady);
    EXPECT_TRUE(loop.turn());
    EXPECT_TRUE(d.clock.sleeps().empty());
    EXPECT_EQ(d.waiter.waits(), 1);

    params->m_runState.store(kRunStateConfigured);
    for (int32_t period : {0, 5000, 5000000}) {
        params->m_operParams[OPER_MINI_EST_INTERVAL] = period;
        EXPECT_TRUE(loop.turn());
    }
    // 5,000,000 ms x 1000 wraps at 2^32: 5,000,000,000 - 4,294,967,296.
    EXPECT_EQ(d.clock.sleeps(), (std::vector<uint64_t>{0, 5000000, 705032704}));
    EXPECT_EQ(d.waiter.waits(), 1);
}

TEST_F(MainLoopTurn, OnlyEnabledTwoEndsTheLoopAndShutdownCleansUpOnlyWithAHandle) {
    params->m_runState.store(0);
    for (const char* enabled : {"0", "1", "0", "3", "2"}) {
        d.props.set("vendor.vek.enabled", enabled);
        EXPECT_EQ(loop.turn(), enabled != std::string("2")) << enabled;
        EXPECT_EQ(params->get(OPER_VEK_ENABLED), atoi(enabled));
    }
    loop.shutdown();
    EXPECT_TRUE(d.pipe.commands().empty());  // never saw state 1: nothing to clean
    EXPECT_EQ(d.log.linesOf("Vekd-v2"),
              (std::vector<std::string>{"E Nuv disabled, starting cleanup...\n", "I Vekd exiting"}));

    params->m_runState.store(kRunStateReady);
    EXPECT_FALSE(loop.turn());
    d.pipe.clear();
    loop.shutdown();
    EXPECT_FALSE(d.pipe.commands().empty()) << "the rule manager's teardown ran";
}

}  // namespace
}  // namespace vekd::test
