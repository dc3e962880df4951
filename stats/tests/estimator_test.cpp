// Link rate estimation over rings built in memory, and the rate history.
#include <algorithm>
#include <climits>
#include <vector>

#include "stats/tests/StatsTestBase.h"

namespace vekd::test {
namespace {

using stats::makeSample;
using stats::StatsFileBuilder;

// Rate and number of samples counted.
using Estimate = std::pair<unsigned, unsigned>;

class EstimatorTest : public StatsTest {
  protected:
    Estimate estimate() {
        VekStatsData data(ring.data(), false);
        unsigned count = 12345;
        unsigned rate = data.linkRateEstimate(&count, "wlan0");
        return {rate, count};
    }
    void set(OperId id, int value) { params->m_operParams[id] = value; }

    StatsFileBuilder ring;
};

// Rings are built from a blank file, even where an earlier builder wrote.
TEST(StatsFileBuilderTest, EveryRingStartsBlankAndAnUnwritablePathIsRefused) {
    {
        StatsFileBuilder dirty;
        dirty.setMagic();
        dirty.appendSeries(1, 1, kVekStatsRingSlots, 1500);
    }
    StatsFileBuilder fresh;
    const auto* bytes = static_cast<const unsigned char*>(fresh.data());
    EXPECT_EQ(std::count(bytes, bytes + kVekStatsFileSize, 0), static_cast<long>(kVekStatsFileSize));
    EXPECT_FALSE(fresh.saveTo("/nonexistent-dir/wlan0_mmap"));
}

// Steady series of 1024 bytes: the write index before, the samples, their
// spacing and the newest stamp; the bounds; the estimate (1024-bit kilobits).
TEST_F(EstimatorTest, SteadySeriesAgainstEachBound) {
    const uint64_t kOld = kNowMs + 1 - 1500;
    const struct {
        const char* what;
        uint32_t start, count;
        uint64_t stepMs, newestMs;
        int staleMs, windowMs, maxBytes;
        Estimate expected;
    } cases[] = {
        {"1000 kbit/s; the oldest sample only bounds the newest span", 0, 20, 8, kNowMs, 1500, 500, 102400, {1000, 19}},
        {"the walk wraps from slot 1 to slot 1279", 1270, 12, 8, kNowMs, 1500, 500, 102400, {1000, 11}},
        {"the size bound stops at the limit; 20 ms are below mini_rate_window", 0, 10, 5, kNowMs, 1500, 500, 4096, {0, 4}},
        {"once the size bound is passed a short window counts", 0, 10, 5, kNowMs, 1500, 500, 4095, {1600, 4}},
        {"a tenth span would reach the window", 0, 20, 10, kNowMs, 1500, 100, 102400, {800, 9}},
        {"stale bound inclusive, now one millisecond ahead", 0, 2, 10, kOld, 1500, 500, 102400, {0, 1}},
        {"one millisecond older is stale", 0, 2, 10, kOld - 1, 1500, 500, 102400, {0, 0}},
        {"a sum past 64 bits is not stale", 0, 2, 10, UINT64_MAX - 5, INT_MAX, 500, 102400, {0, 1}},
        {"a negative bound reaches over a future stamp", 0, 2, 10, kNowMs + 10, -5, 500, 102400, {0, 1}},
        {"but not beyond it", 0, 2, 10, kNowMs + 10, -10, 500, 102400, {0, 0}},
        {"the lowest bound", 0, 2, 10, kNowMs + 10, INT_MIN, 500, 102400, {0, 0}},
        {"a full ring is walked once round", 700, kVekStatsRingSlots, 8, kNowMs, 1 << 30, 1 << 30, 1 << 30,
         {1000, kVekStatsRingSlots - 1}},
    };
    for (const auto& c : cases) {
        set(OPER_MINI_STALE_INTERVAL, c.staleMs);
        set(OPER_IDEAL_EST_WINDOW, c.windowMs);
        params->m_maxSizeToCalculateLre = c.maxBytes;
        ring.clear();
        ring.setWriteIndex(c.start);
        fillSteady(ring, c.count, c.stepMs, 1024, c.newestMs);
        EXPECT_EQ(estimate(), c.expected) << c.what;
    }
    // Write index 0 stands for 1279.
    ring.clear();
    ring.setWriteIndex(1266);
    fillSteady(ring, 13, 8, 1024);
    ring.setWriteIndex(0);
    EXPECT_EQ(estimate(), Estimate(1000, 12));
}

// Hand-made rings, oldest sample first: {ms before now, bytes, kind, flag}.
TEST_F(EstimatorTest, SpacersAreJumpedAndOtherKindsServeOnlyAsReferences) {
    struct Sample {
        int64_t agoMs;
        uint32_t bytes;
        uint8_t kind = kVekSampleCounted;
        uint8_t flag = 0;
    };
    const uint8_t kSpacer = kVekSampleSpacer;
    const struct {
        const char* what;
        std::vector<Sample> samples;
        Estimate expected;
    } cases[] = {
        {"spacers passed over; spans reach back past them: 2 x 1024 B in 40 ms", {{60, 1024}, {40, 1024}, {30, 9999, kSpacer}, {20, 1024}, {10, 9999, kSpacer}}, {400, 2}},
        {"a flagged sample and another kind only serve as references", {{40, 1024}, {30, 5000, 0}, {20, 1024, kVekSampleCounted, 1}, {10, 1024}}, {800, 1}},
        {"a zero span ends the walk", {{20, 1024}, {0, 1024}, {0, 1024}}, {0, 0}},
        {"a backward span ends the walk", {{20, 1024}, {-5, 1024}, {0, 1024}}, {0, 0}},
    };
    set(OPER_MINI_RATE_WINDOW, 10);
    for (const auto& c : cases) {
        ring.clear();
        ring.setMagic();
        for (const Sample& x : c.samples) ring.append(makeSample(kNowMs - x.agoMs, x.bytes, x.kind, x.flag));
        EXPECT_EQ(estimate(), c.expected) << c.what;
    }
}

TEST_F(EstimatorTest, NotReadyClockFailureAndCorruptRingsGiveZero) {
    fillSteady(ring, 20, 8, 1024);
    ring.setMagic(0);
    EXPECT_EQ(estimate(), Estimate(0, 12345));  // untouched
    ring.setMagic();
    clock.failNextTimeOfDay();
    EXPECT_EQ(estimate(), Estimate(0, 0));
    EXPECT_EQ(log.linesOf("VekStatsData"), (std::vector<std::string>{"E VEK stat colletct is not ready",
                                                                     "E linkRateEstimate, gettimeofday failed"}));
    // The builder's buffer is exactly one file long, so a read past it is an
    // error under the address sanitizer.
    ring.setWriteIndex(1280);
    EXPECT_EQ(estimate().first, 0u);
    EXPECT_TRUE(log.contains("WWAN:Index(1279) out of bound!"));
    // Fresh rings of spacers or of uncounted samples all round.
    for (uint8_t kind : {kVekSampleSpacer, uint8_t{0}}) {
        ring.clear();
        ring.setMagic();
        for (uint32_t i = 0; i < kVekStatsRingSlots; ++i) ring.append(makeSample(kNowMs - i, 100, kind));
        EXPECT_EQ(estimate().first, 0u);
    }
}

TEST_F(EstimatorTest, VerboseLogShowsNewestEntryAndResult) {
    gDebugLogEnabled = 1;
    ring.setMagic();
    ring.append(makeSample(kNowMs - 8, 1024, kVekSampleCounted, 0, 7));
    ring.append(makeSample(kNowMs, 1024, kVekSampleCounted, 0, 9));
    VekStatsData data(ring.data(), true);
    data.linkRateEstimate(nullptr, "wlan0");
    EXPECT_EQ(log.linesOf("VekStatsData"), (std::vector<std::string>{"D WLAN:linkRateEstimate",
                                                                     "D WLAN:Entry(1):1700000000000,1024,9,2,0",
                                                                     "D WLAN:linkRateEstimate:0, size:1024, timeLen:8 interface:wlan0  -\n"}));
}

TEST_F(StatsTest, HistoryKeepsTheMaximumOfTheLastEstimatesAndRescansWhenItLeaves) {
    linkHistory_t history;
    auto feed = [&](std::initializer_list<unsigned> values) {
        std::vector<unsigned> out;
        for (unsigned v : values) {
            out.push_back(VekStatsImpl::instance()->getMaxLinkRateFromHistory(history, v, params));
        }
        return out;
    };
    EXPECT_EQ(feed({7, 0}), (std::vector<unsigned>{7, 0}));  // size 0: off
    EXPECT_TRUE(history.rates.empty());

    params->m_bestEstCacheSize = 3;
    EXPECT_EQ(feed({5, 9, 3, 4, 2, 0, 0, 0}), (std::vector<unsigned>{5, 9, 9, 9, 4, 4, 2, 0}));
    // Shrinking the size drops one value per turn only.
    params->m_bestEstCacheSize = 2;
    EXPECT_EQ(feed({6}), std::vector<unsigned>{6});
    EXPECT_EQ(history.rates.size(), 3u);
}

}  // namespace
}  // namespace vekd::test
