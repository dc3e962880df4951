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

TEST_F(MainLoopTurn, ManagerIsFetchedInStatesOneAndTwoOnly) {
    struct Case {
        int32_t state;
        bool fetched;
    };
    for (const Case& c : {Case{0, false}, Case{3, false}, Case{-1, false}, Case{1, true}, Case{2, true}}) {
        MainLoop fresh(params);
        params->m_runState.store(c.state);
        EXPECT_TRUE(fresh.turn());
        EXPECT_EQ(fresh.manager(), c.fetched ? NuvManager::instance() : nullptr) << "state " << c.state;
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

TEST_F(MainLoopTurn, DebugPropertyOneSetsZeroClearsAnythingElseKeepsTheFlag) {
    const struct {
        const char* value;
        int flag;
    } steps[] = {{"1", 1}, {"5", 1}, {"0", 0}, {"5", 0}, {"1", 1}};
    for (const auto& step : steps) {
        d.props.set("vendor.vek.debug", step.value);
        EXPECT_TRUE(loop.turn());
        EXPECT_EQ(gDebugLogEnabled, step.flag) << step.value;
    }
}

TEST_F(MainLoopTurn, EnabledTwoEndsTheLoopAndShutdownCleansUpOnlyWithAHandle) {
    d.props.set("vendor.vek.enabled", "2");
    params->m_runState.store(0);
    EXPECT_FALSE(loop.turn());
    loop.shutdown();
    EXPECT_TRUE(d.pipe.commands().empty());  // never saw state 1: nothing to clean
    EXPECT_EQ(d.log.linesOf("Vekd-v2"),
              (std::vector<std::string>{"E Nuv disabled, starting cleanup...\n", "I Vekd exiting"}));

    params->m_runState.store(kRunStateReady);
    EXPECT_FALSE(loop.turn());
    d.pipe.clear();
    loop.shutdown();
    // The rule manager's teardown ran.
    EXPECT_FALSE(d.pipe.commands().empty());
}

}  // namespace
}  // namespace vekd::test
