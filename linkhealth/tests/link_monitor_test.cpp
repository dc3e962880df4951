#include <gtest/gtest.h>

#include "linkhealth/LinkHealth.h"
#include "linkhealth/LinkMonitor.h"
#include "linkhealth/tests/FakeProber.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace vekd::linkhealth;
using Change = LinkHealth::Change;

// Events: 'L' a lost probe, a digit an answer with that many times 10 ms;
// changes per event: '.' none, 'D' went down, 'U' came up.
TEST(LinkHealth, LossesInARowHysteresisAndSmoothing) {
    const struct {
        HealthSettings settings;
        const char* events;
        const char* changes;
        int32_t smoothedRttMs;
    } cases[] = {
        {{4, 1, 60}, "LLLLL", "...D.", -1},    // four losses make a link down, the fifth changes nothing
        {{3, 1, 60}, "LL1LLL", ".....D", 10},  // an answer breaks the row
        {{2, 1, 60}, "LL5", ".DU", 50},        // one answer brings it back
        {{1, 2, 60}, "L1L12", "D...U", 16},    // two answers in a row; a loss restarts the count
        {{5, 1, 60}, "15", "..", 34},          // smoothing: 60 % of the new time
        {{5, 1, 100}, "19", "..", 90},         // alpha 100 takes the new time only
        {{0, 0, 60}, "L1", "DU", 10},          // counts of 0 act as 1
    };
    for (const auto& c : cases) {
        LinkHealth health(c.settings);
        std::string changes;
        for (const char* e = c.events; *e != '\0'; ++e) {
            const Change change = *e == 'L' ? health.lost() : health.answered((*e - '0') * 10);
            changes += change == Change::WentDown ? 'D' : change == Change::CameUp ? 'U' : '.';
        }
        EXPECT_EQ(changes, c.changes) << c.events;
        EXPECT_EQ(health.smoothedRttMs(), c.smoothedRttMs) << c.events;
    }
}

// One run: nothing is probed until the target resolves; a dead link is down
// after its lost probes and back after the hysteresis; late answers keep a
// link alive; every link down changes nothing; a restart starts afresh.
TEST(Monitor, ProbingFromResolvingToDownUpAndRestart) {
    vekd::test::FakeClock clock;
    vekd::test::FakeProber prober(clock);
    vekd::test::LogCapture log;
    int changes = 0;
    LinkMonitor monitor([&] { ++changes; });
    MonitorSettings settings;
    settings.periodMs = 250;  // two links probed every 250 ms
    settings.timeoutMs = 100;
    settings.health = {4, 2, 60};
    settings.server = "10.9.0.1";
    const auto begin = [&] { monitor.begin(settings, {{"wlan0", 0x5A}, {"rmnet_data0", 0x5B}}); };
    // Turns until the fake clock has moved `ms` on, or until `stop` holds.
    const auto runFor = [&](int64_t ms, const std::function<bool()>& stop) {
        const int64_t start = clock.monotonicMs();
        while (clock.monotonicMs() < start + ms && !stop()) monitor.turn();
        return clock.monotonicMs() - start;
    };
    const auto never = [] { return false; };
    prober.resolvable = false;
    prober.setRtt(0, 150);  // every probe lost, and then answered
    prober.setRtt(1, 40);
    begin();
    runFor(4000, never);
    EXPECT_EQ(prober.sent[1], 0);
    prober.resolvable = true;
    runFor(2500, never);  // retried 5 s after the failure
    EXPECT_EQ(prober.resolves, 2);
    const int sent = prober.sent[1];
    runFor(2000, never);
    EXPECT_EQ(prober.sent[1] - sent, 8) << "one probe in flight per link, one per period";
    EXPECT_EQ(monitor.snapshot()[0].smoothedRttMs, 150);
    EXPECT_EQ(monitor.snapshot()[1].smoothedRttMs, 40);
    EXPECT_EQ(changes, 0);

    prober.setRtt(1, -1);
    const int64_t detection = runFor(60000, [&] { return !monitor.downLinks().empty(); });
    EXPECT_GE(detection, 3 * 250) << "the probe in flight plus four periods, at most";
    EXPECT_LE(detection, 5 * 250);
    EXPECT_EQ(monitor.downLinks(), std::set<std::string>{"rmnet_data0"});
    EXPECT_EQ(log.count("link rmnet_data0 down: 4 probes lost in a row"), 1u);
    EXPECT_EQ(monitor.snapshot()[1].lostInRow, 4);
    prober.setRtt(1, 30);
    runFor(2 * 250 + 100, never);
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(log.count("link rmnet_data0 up: round-trip time 30 ms"), 1u);

    prober.setRtt(0, -1);
    prober.setRtt(1, -1);
    runFor(3000, never);
    EXPECT_FALSE(monitor.snapshot()[0].up);
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(prober.resolves, 3) << "with every link down the target is looked up again";
    begin();
    EXPECT_EQ(monitor.snapshot()[1].lostInRow, 0);
    settings.periodMs = 0;  // off: the run ends and nothing starts
    monitor.start(settings, {{"wlan0", 0x5A}});
    EXPECT_TRUE(monitor.snapshot().empty());
}

}  // namespace
