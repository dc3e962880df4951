#include <gtest/gtest.h>

#include <tuple>

#include "linkhealth/LinkMonitor.h"
#include "linkhealth/tests/FakeProber.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace vekd::linkhealth;
using Change = HealthTracker::Change;

// One event each 100 ms: 'u' a probe sent and 50 ms later late, 't' traffic,
// a digit an answer after that many times 10 ms. Changes: '.', 'D'own, 'U'p.
TEST(HealthTracker, RunsHoldHysteresisAndSmoothing) {
    const std::tuple<HealthSettings, const char*, const char*, int32_t> cases[] = {
        {{3, 1, 60, 0}, "uu5uuuuu", ".....D..", 50},      // an answer ends the run; the fourth changes nothing
        {{3, 1, 60, 0}, "uutuuu", ".....D", -1},          // so does traffic
        {{1, 2, 60, 0}, "u1u12", "D...U", 16},            // two answers in a row, a probe unanswered restarts the count; 60 % of a new time
        {{1, 1, 60, 350}, "u1111", "D...U", 10},          // down for 350 ms at least
        {{0, 0, 60, 0}, "u1", "DU", 10},                  // counts of 0 act as 1
    };
    for (const auto& [settings, events, expected, smoothedRttMs] : cases) {
        HealthTracker health(settings);
        std::string changes;
        int64_t now = 0;
        for (const char* e = events; *e != '\0'; ++e, now += 100) {
            const Change change = *e == 'u' ? (health.sent(now), health.check(now + 50, 10))
                                  : *e == 't' ? health.alive(now, now)
                                              : health.answered(now, (*e - '0') * 10);
            changes += change == Change::WentDown ? 'D' : change == Change::CameUp ? 'U' : '.';
        }
        EXPECT_EQ(changes, expected) << events;
        EXPECT_EQ(health.health().smoothedRttMs, smoothedRttMs) << events;
    }
}

// The monitor at the testbed's settings (a probe a second, "min_ping_times"
// 4) against a simulated WWAN; the WLAN answers in 20 ms and carries traffic
// throughout, unless nothing flows at all.
struct Simulated {
    vekd::test::FakeClock clock;
    vekd::test::FakeProber prober{clock};
    int64_t wwanTrafficUntil = -1;  // the WWAN receives traffic until then; -1 never
    bool anyTraffic = true;
    int changes = 0;
    LinkMonitor monitor{[this] { ++changes; }, [this](const std::string& link) -> int64_t {
                            if (!anyTraffic) return -1;
                            if (link == "wlan0") return clock.monotonicMs() % 20000;  // some every 20 s
                            const int64_t now = clock.monotonicMs();
                            return wwanTrafficUntil < 0 ? -1 : now - std::min(now, wwanTrafficUntil) + 5;
                        }};
    MonitorSettings settings{1000, 0, {9, 1, 60, 2000}, "10.9.0.1"};
    std::vector<MonitoredLink> links{{"rmnet_data0", 0x5B, true}, {"wlan0", 0x5A, false}};

    Simulated() {
        prober.setRtt(0, 20);
        prober.setRtt(1, 20);
        EXPECT_TRUE(monitor.begin(settings, links));
        runFor(10000);
    }
    bool down() { return !monitor.snapshot().at("rmnet_data0").up; }
    // Turns for `ms`; the downs of the WWAN, and when the first came.
    std::pair<int, int64_t> runFor(int64_t ms) {
        const int64_t start = clock.monotonicMs();
        int downs = 0;
        int64_t firstDown = -1;
        for (bool was = down(); clock.monotonicMs() < start + ms; was = down()) {
            monitor.turn();
            if (down() && !was && ++downs == 1) firstDown = clock.monotonicMs() - start;
        }
        return {downs, firstDown};
    }
};

TEST(Monitor, SlowIsNotDeadLossyIsNotDeadDeadIsFoundInTwoSeconds) {
    vekd::test::LogCapture log;
    enum Kind { Answers, BlackHole, CannotSend, Restarted, OneLink };
    struct Case {
        const char* what;
        Kind kind;
        int rttMs, lossPercent, rampToMs;  // how the WWAN answers from now on; rtt -1: never
        bool traffic;                      // the WWAN receives traffic meanwhile (until a black hole)
        int64_t forMs;                     // an hour: 3600000
        int maxDowns;                      // dead links: one, within 2 s whatever the phase of the probes
    };
    const Case cases[] = {
        {"answers 2 s late", Answers, 20, 0, 1980, false, 120000, 0},  // queueing delay growing 0.5 s a second
        {"answers 3 s late", Answers, 20, 0, 2980, false, 120000, 0},
        {"20 % lost", Answers, 20, 20, 0, false, 3600000, 0},
        {"30 % lost", Answers, 20, 30, 0, false, 36000000, 10},  // at most once an hour
        {"40 % lost", Answers, 20, 40, 0, false, 3600000, 2},
        {"20 % lost, traffic flows", Answers, 20, 20, 0, true, 600000, 0},
        {"30 % lost, traffic flows", Answers, 20, 30, 0, true, 600000, 0},
        {"40 % lost, traffic flows", Answers, 20, 40, 0, true, 600000, 0},
        {"ICMP filtered, traffic flows", Answers, -1, 0, 0, true, 600000, 0},
        {"black hole", BlackHole, 20, 0, 0, false, 4000, 1},
        {"black hole, traffic flowed", BlackHole, 20, 0, 0, true, 4000, 1},
        {"nothing can be sent", CannotSend, 20, 0, 0, false, 4000, 1},
        {"black hole, then configured again as it was", Restarted, 20, 0, 0, false, 4000, 1},
        {"one link", OneLink, 20, 0, 0, false, 0, 0},
    };
    for (const Case& c : cases) {
        for (int64_t phase = 0; phase < (c.kind == Answers || c.kind == OneLink ? 1 : 1000); phase += 125) {
            Simulated sim;
            if (c.kind == OneLink) {
                EXPECT_FALSE(sim.monitor.begin(sim.settings, {sim.links[0]}) || sim.monitor.running()) << c.what;
                EXPECT_EQ(log.count("link monitor off: 1 link(s), nothing to steer to"), 1u);
                continue;
            }
            const int64_t from = sim.clock.monotonicMs() + phase;
            sim.wwanTrafficUntil = c.traffic ? (c.kind == Answers ? INT64_MAX : from) : -1;
            sim.prober.setRtt(0, c.rttMs, c.lossPercent, c.rampToMs > 0 ? 500 : 0, c.rampToMs);
            if (c.kind != Answers) sim.prober.blackHole(0, from);
            sim.prober.sendFails = c.kind == CannotSend;
            const auto [downs, at] = sim.runFor(phase + c.forMs);
            EXPECT_LE(downs, c.maxDowns) << c.what;
            EXPECT_TRUE(c.kind == Answers || (downs == 1 && at - phase < 2000)) << c.what << ", phase " << phase << ": " << at - phase;
            EXPECT_TRUE(c.kind != Restarted || (sim.monitor.begin(sim.settings, sim.links) && sim.down())) << c.what;
        }
    }
}

TEST(Monitor, RecoveryRestartsRefusalsIdleAndLookups) {
    vekd::test::LogCapture log;
    Simulated sim;
    sim.prober.setRtt(0, -1);
    const int64_t start = sim.clock.monotonicMs(), downAt = start + sim.runFor(2000).second;
    EXPECT_EQ(log.count("link rmnet_data0 down: 9 probes unanswered in a row, nothing received"), 1u);
    EXPECT_EQ(sim.monitor.downLinks(), std::set<std::string>{"rmnet_data0"});
    sim.prober.setRtt(0, 30);
    while (sim.down()) sim.monitor.turn();
    const int64_t downFor = sim.clock.monotonicMs() - downAt;
    EXPECT_TRUE(downFor >= 2000 && downFor <= 3100) << "two seconds at least, then back at the next answer: " << downFor;
    EXPECT_EQ(log.count("link rmnet_data0 up: round-trip time 30 ms"), 1u);
    EXPECT_EQ(sim.changes, 2);

    sim.prober.setRtt(0, -1);
    sim.prober.setRtt(1, -1);
    sim.anyTraffic = false;
    sim.runFor(10000);
    EXPECT_TRUE(sim.monitor.downLinks().empty()) << "every link down: nothing better to steer to";
    sim.links[0].mark = 0x5C;  // a changed link starts fresh, the other keeps its health
    EXPECT_TRUE(sim.monitor.begin(sim.settings, sim.links));
    EXPECT_EQ(sim.monitor.downLinks(), std::set<std::string>{"wlan0"});
    EXPECT_EQ(sim.prober.lookups, 2) << "each run begun looks it up, and so does every link down";

    // Nothing received anywhere: a probe a minute per link.
    sim.prober.setRtt(0, 20);
    sim.prober.setRtt(1, 20);
    EXPECT_TRUE(sim.monitor.begin(sim.settings, sim.links));
    sim.runFor(3600 * 1000);
    EXPECT_LE(sim.monitor.probesSent(), 2u * 62);

    // Refused with one line each: a period below its floor.
    EXPECT_FALSE(sim.monitor.begin({999, 0, {}, "x"}, sim.links) || sim.monitor.begin({99, 0, {}, "x"}, {{"a", 1}, {"b", 2}}));
    for (const char* line : {"off: ping_period_ms 999 is below 1000 ms with a metered link", "off: ping_period_ms 99 is below 100 ms"})
        EXPECT_EQ(log.count(std::string("link monitor ") + line), 1u) << line;
    EXPECT_FALSE(sim.monitor.running());

    // A look-up that never answers: nothing probed, nothing blocked.
    sim.prober.lookupHangs = true;
    EXPECT_TRUE(sim.monitor.begin(sim.settings, sim.links));
    const uint64_t before = sim.monitor.probesSent();
    sim.runFor(60000);
    EXPECT_EQ(sim.monitor.probesSent(), before);
    EXPECT_EQ(sim.prober.lookups, 4) << "one look-up at a time";
    sim.monitor.stop();
    EXPECT_FALSE(sim.monitor.running());
}

}  // namespace
