#include <gtest/gtest.h>

#include <tuple>

#include "linkhealth/LinkMonitor.h"
#include "linkhealth/tests/FakeProber.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace vekd::linkhealth;
using Change = HealthTracker::Change;

// Events: 'L' lost, a digit an answer in that many times 10 ms; changes: '.', 'D'own, 'U'p.
TEST(HealthTracker, LossesInARowHysteresisAndSmoothing) {
    const std::tuple<HealthSettings, const char*, const char*, int32_t> cases[] = {
        {{4, 1, 60}, "LLL5LLLLL", ".......D.", 50},  // an answer breaks the row; the fifth loss changes nothing
        {{1, 2, 60}, "L1L12", "D...U", 16},    // two answers in a row; a loss restarts the count
        {{5, 1, 60}, "15", "..", 34},          // smoothing: 60 % of the new time
        {{0, 0, 60}, "L1", "DU", 10},          // counts of 0 act as 1
    };
    for (const auto& [settings, events, expected, smoothedRttMs] : cases) {
        HealthTracker health(settings);
        std::string changes;
        for (const char* e = events; *e != '\0'; ++e) {
            const Change change = *e == 'L' ? health.lost() : health.answered((*e - '0') * 10);
            changes += change == Change::WentDown ? 'D' : change == Change::CameUp ? 'U' : '.';
        }
        EXPECT_EQ(changes, expected) << events;
        EXPECT_EQ(health.health().smoothedRttMs, smoothedRttMs) << events;
    }
}

TEST(Monitor, ProbingFromResolvingToDownUpAndAllDown) {
    vekd::test::FakeClock clock;
    vekd::test::FakeProber prober(clock);
    vekd::test::LogCapture log;
    int changes = 0;
    LinkMonitor monitor([&] { ++changes; });
    MonitorSettings settings{250, 100, {4, 2, 60}, "10.9.0.1"};  // two links probed every 250 ms
    const auto runFor = [&](int64_t ms, bool untilDown = false) {
        const int64_t start = clock.monotonicMs();
        while (clock.monotonicMs() < start + ms && !(untilDown && !monitor.downLinks().empty())) monitor.turn();
        return clock.monotonicMs() - start;
    };
    prober.resolvable = false;
    prober.setRtt(0, 150);  // every probe lost, and then answered
    prober.setRtt(1, 40);
    monitor.begin(settings, {{"wlan0", 0x5A}, {"rmnet_data0", 0x5B}});
    runFor(4000);
    EXPECT_EQ(prober.sent[1], 0);
    prober.resolvable = true;
    runFor(2500);  // retried 5 s after the failure
    const int sent = prober.sent[1];
    runFor(2000);
    EXPECT_EQ(prober.sent[1] - sent, 8) << "one probe in flight per link, one per period";
    EXPECT_EQ(monitor.snapshot().at("wlan0").smoothedRttMs, 150) << "late answers keep a link alive";

    prober.setRtt(1, -1);
    EXPECT_LE(runFor(60000, true), 5 * 250) << "the probe in flight plus four periods, at most";
    EXPECT_EQ(monitor.downLinks(), std::set<std::string>{"rmnet_data0"});
    EXPECT_EQ(log.count("link rmnet_data0 down: 4 probes lost in a row"), 1u);
    monitor.begin(settings, {{"wlan0", 0x5A}, {"rmnet_data0", 0x5B}});  // configured again as it was
    EXPECT_EQ(monitor.downLinks(), std::set<std::string>{"rmnet_data0"});
    prober.setRtt(1, 30);
    runFor(2 * 250 + 100);
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(log.count("link rmnet_data0 up: round-trip time 30 ms"), 1u);

    prober.setRtt(0, -1);
    prober.setRtt(1, -1);
    runFor(3000);
    EXPECT_TRUE(monitor.downLinks().empty());
    EXPECT_EQ(prober.resolves, 4) << "each run begun looks it up, and so does every link down";
    monitor.begin(settings, {{"wlan0", 0x5A}, {"rmnet_data0", 0x5C}});  // a changed link starts fresh
    EXPECT_EQ(std::make_pair(monitor.snapshot().at("wlan0").lostInRow > 0, monitor.snapshot().at("rmnet_data0").lostInRow), std::make_pair(true, 0));
    settings.periodMs = 0;  // off: the run ends and nothing starts
    monitor.start(settings, {{"wlan0", 0x5A}});
    EXPECT_TRUE(monitor.snapshot().empty());
}

}  // namespace
