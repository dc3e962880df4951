#include <gtest/gtest.h>

#include "linkhealth/LinkHealth.h"
#include "linkhealth/LinkMonitor.h"
#include "linkhealth/tests/FakeProber.h"
#include "tests/support/LogCapture.h"

namespace {

using vekd::linkhealth::HealthSettings;
using vekd::linkhealth::LinkHealth;
using vekd::linkhealth::LinkMonitor;
using vekd::linkhealth::MonitorSettings;
using Change = LinkHealth::Change;

// Events: 'L' a lost probe, a digit an answer with that many times 10 ms.
struct HealthCase {
    const char* name;
    HealthSettings settings;
    const char* events;
    const char* changes;  // per event: '.' none, 'D' went down, 'U' came up
    int32_t smoothedRttMs;
};

TEST(LinkHealth, LossesInARowHysteresisAndSmoothing) {
    const HealthCase cases[] = {
        {"four losses make a link down, the fifth changes nothing", {4, 1, 60}, "LLLLL", "...D.", -1},
        {"an answer breaks the row", {3, 1, 60}, "LL1LLL", ".....D", 10},
        {"one answer brings it back", {2, 1, 60}, "LL5", ".DU", 50},
        {"hysteresis: two answers in a row, a loss restarts the count", {1, 2, 60}, "L1L12", "D...U", 16},
        {"smoothing: 60 % of the new time", {5, 1, 60}, "15", "..", 34},
        {"alpha 100 takes the new time only", {5, 1, 100}, "19", "..", 90},
        {"counts of 0 act as 1", {0, 0, 60}, "L1", "DU", 10},
    };
    for (const HealthCase& c : cases) {
        LinkHealth health(c.settings);
        std::string changes;
        for (const char* e = c.events; *e != '\0'; ++e) {
            const Change change = *e == 'L' ? health.lost() : health.answered((*e - '0') * 10);
            changes += change == Change::WentDown ? 'D' : change == Change::CameUp ? 'U' : '.';
        }
        EXPECT_EQ(changes, c.changes) << c.name;
        EXPECT_EQ(health.smoothedRttMs(), c.smoothedRttMs) << c.name;
    }
}

class Monitor : public testing::Test {
  protected:
    Monitor() : prober(clock), monitor([this] { ++changes; }) {
        settings.periodMs = 250;
        settings.health = {4, 2, 60};
        settings.server = "10.9.0.1";
    }
    void begin() { monitor.begin(settings, {{"wlan0", 0x5A}, {"rmnet_data0", 0x5B}}); }
    // Turns until the fake clock has moved `ms` on.
    void runFor(int64_t ms) {
        const int64_t end = clock.monotonicMs() + ms;
        while (clock.monotonicMs() < end) monitor.turn();
    }
    int64_t downAfter(const std::string& name) {
        const int64_t start = clock.monotonicMs();
        while (monitor.downLinks().count(name) == 0) {
            monitor.turn();
            if (clock.monotonicMs() - start > 60000) return -1;
        }
        return clock.monotonicMs() - start;
    }

    vekd::test::FakeClock clock;
    vekd::test::FakeProber prober;
    vekd::test::LogCapture log;
    int changes = 0;
    MonitorSettings settings;
    LinkMonitor monitor;
};

TEST_F(Monitor, ADeadLinkIsDownAfterItsLostProbesAndBackAfterTheHysteresis) {
    prober.setRtt(0, 20);
    prober.setRtt(1, 40);
    begin();
    runFor(2000);
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(monitor.snapshot()[1].smoothedRttMs, 40);
    // One probe in flight per link, one per period.
    EXPECT_EQ(prober.sent[1], 8);

    prober.setRtt(1, -1);
    const int64_t detection = downAfter("rmnet_data0");
    // The probe in flight plus four periods, at most.
    EXPECT_GE(detection, 3 * 250);
    EXPECT_LE(detection, 5 * 250);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(log.count("link rmnet_data0 down: 4 probes lost in a row"), 1u);
    const auto report = monitor.snapshot();
    EXPECT_FALSE(report[1].up);
    EXPECT_EQ(report[1].lostInRow, 4);
    EXPECT_TRUE(report[0].up);

    prober.setRtt(1, 30);
    runFor(2 * 250 + 100);
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(log.count("link rmnet_data0 up: round-trip time 30 ms"), 1u);
}

TEST_F(Monitor, LateAnswersKeepALinkAliveAndEveryLinkDownChangesNothing) {
    settings.timeoutMs = 100;
    prober.setRtt(0, 150);  // every probe lost, and then answered
    prober.setRtt(1, -1);
    begin();
    runFor(2000);
    EXPECT_EQ(monitor.snapshot()[0].smoothedRttMs, 150);
    EXPECT_EQ(monitor.downLinks(), std::set<std::string>{"rmnet_data0"});
    EXPECT_EQ(prober.resolves, 1);

    prober.setRtt(0, -1);
    runFor(2000);
    EXPECT_FALSE(monitor.snapshot()[0].up);
    EXPECT_TRUE(monitor.downLinks().empty());
    // With every link down the target is looked up again.
    EXPECT_EQ(prober.resolves, 2);
}

TEST_F(Monitor, NothingIsProbedUntilTheTargetResolvesAndARestartStartsAfresh) {
    prober.resolvable = false;
    prober.setRtt(0, -1);
    prober.setRtt(1, 10);
    begin();
    runFor(4000);
    EXPECT_EQ(prober.sent[0], 0);
    EXPECT_EQ(prober.resolves, 1);
    prober.resolvable = true;
    runFor(2500);  // retried 5 s after the failure
    EXPECT_EQ(prober.resolves, 2);
    EXPECT_EQ(monitor.downLinks(), std::set<std::string>{"wlan0"});

    begin();
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(monitor.snapshot()[0].lostInRow, 0);

    settings.periodMs = 0;  // off: the run ends and nothing starts
    monitor.start(settings, {{"wlan0", 0x5A}});
    EXPECT_TRUE(monitor.snapshot().empty());
}

}  // namespace
