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

// 1024 bytes every 8 ms is 1000 kbit/s of 1024 bits; the oldest sample has
// no reference and only bounds the newest span.
TEST_F(EstimatorTest, SteadyTrafficInKilobitsOf1024Bits) {
    fillSteady(ring, 20, 8, 1024);
    EXPECT_EQ(estimate(), Estimate(1000, 19));
}

TEST_F(EstimatorTest, WalkWrapsFromSlotOneToSlot1279AndIndexZeroMeans1279) {
    ring.setWriteIndex(1270);
    fillSteady(ring, 12, 8, 1024);  // slots 1271..1279, 1, 2, 3
    ASSERT_EQ(ring.writeIndex(), 3u);
    EXPECT_EQ(estimate(), Estimate(1000, 11));

    ring.clear();
    ring.setWriteIndex(1266);
    fillSteady(ring, 13, 8, 1024);
    ASSERT_EQ(ring.writeIndex(), 1279u);
    ring.setWriteIndex(0);
    EXPECT_EQ(estimate(), Estimate(1000, 12));
}

TEST_F(EstimatorTest, SpacersAreJumpedAndOtherKindsServeOnlyAsReferences) {
    set(OPER_MINI_RATE_WINDOW, 10);
    ring.setMagic();
    ring.append(makeSample(kNowMs - 60, 1024));
    ring.append(makeSample(kNowMs - 40, 1024));
    ring.append(makeSample(kNowMs - 30, 9999, kVekSampleSpacer));
    ring.append(makeSample(kNowMs - 20, 1024));
    ring.append(makeSample(kNowMs - 10, 9999, kVekSampleSpacer));
    // The newest spacer is passed over; each counted sample spans back to
    // the sample before the spacer: 2 x 1024 bytes in 40 ms.
    EXPECT_EQ(estimate(), Estimate(400, 2));

    ring.clear();
    ring.setMagic();
    ring.append(makeSample(kNowMs - 40, 1024));
    ring.append(makeSample(kNowMs - 30, 5000, 0));              // other kind
    ring.append(makeSample(kNowMs - 20, 1024, kVekSampleCounted, 1));  // flagged
    ring.append(makeSample(kNowMs - 10, 1024));
    // Only the newest counts; the flagged sample is its reference, and the
    // walk passes the uncounted ones down to the oldest, which has none.
    EXPECT_EQ(estimate(), Estimate(800, 1));
}

TEST_F(EstimatorTest, StaleBoundIsInclusiveAndNowIsOneMillisecondAhead) {
    // mini_stale_interval 1500: a sample at (now + 1) - 1500 is still used.
    for (auto [newest, expected] : {std::pair<uint64_t, unsigned>{kNowMs + 1 - 1500, 1},
                                    {kNowMs - 1500, 0}}) {
        ring.clear();
        fillSteady(ring, 2, 10, 1024, newest);
        EXPECT_EQ(estimate().second, expected) << "newest sample at now - " << kNowMs - newest;
    }
    // Bounds and stamps at the ends of their ranges compare exactly: a sum
    // that overflows 64 bits is not stale, and a negative bound reaches back
    // over a sample stamped in the future.
    struct Case {
        uint64_t newest;
        int staleMs;
        unsigned expected;
    };
    for (const Case& c : {Case{UINT64_MAX - 5, INT_MAX, 1}, Case{kNowMs + 10, -5, 1},
                          Case{kNowMs + 10, -10, 0}, Case{kNowMs + 10, INT_MIN, 0}}) {
        set(OPER_MINI_STALE_INTERVAL, c.staleMs);
        ring.clear();
        fillSteady(ring, 2, 10, 1024, c.newest);
        EXPECT_EQ(estimate().second, c.expected) << c.newest << " " << c.staleMs;
    }
}

TEST_F(EstimatorTest, SizeBoundStopsAtTheLimitAndValidatesShortWindowsOnlyWhenPassed) {
    fillSteady(ring, 10, 5, 1024);  // 20 ms of data are below mini_rate_window 50
    params->m_maxSizeToCalculateLre = 4096;
    EXPECT_EQ(estimate(), Estimate(0, 4));

    params->m_maxSizeToCalculateLre = 4095;
    EXPECT_EQ(estimate(), Estimate(1600, 4));  // 4096 bytes in 20 ms
}

TEST_F(EstimatorTest, WindowBoundAndZeroOrBackwardSpansEndTheWalk) {
    set(OPER_IDEAL_EST_WINDOW, 100);
    fillSteady(ring, 20, 10, 1024);
    EXPECT_EQ(estimate(), Estimate(800, 9));  // a tenth span would reach the window

    for (uint64_t olderTs : {kNowMs, kNowMs + 5}) {
        ring.clear();
        ring.setMagic();
        ring.append(makeSample(kNowMs - 20, 1024));
        ring.append(makeSample(olderTs, 1024));
        ring.append(makeSample(kNowMs, 1024));
        EXPECT_EQ(estimate(), Estimate(0, 0));
    }
}

TEST_F(EstimatorTest, NotReadyAndClockFailureGiveZero) {
    fillSteady(ring, 20, 8, 1024);
    ring.setMagic(0);
    EXPECT_EQ(estimate(), Estimate(0, 12345));  // untouched
    EXPECT_EQ(log.linesOf("VekStatsData"), std::vector<std::string>{"E VEK stat colletct is not ready"});

    ring.setMagic();
    log.clear();
    clock.failNextTimeOfDay();
    EXPECT_EQ(estimate(), Estimate(0, 0));
    EXPECT_EQ(log.linesOf("VekStatsData"), std::vector<std::string>{"E linkRateEstimate, gettimeofday failed"});
}

TEST_F(EstimatorTest, CorruptRingsEndWithinTheMapping) {
    // The builder's buffer is exactly one file long, so a read past it is an
    // error under the address sanitizer.
    fillSteady(ring, 20, 8, 1024);
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

    // A full ring with every bound out of the way is walked once round.
    set(OPER_IDEAL_EST_WINDOW, 1 << 30);
    set(OPER_MINI_STALE_INTERVAL, 1 << 30);
    params->m_maxSizeToCalculateLre = 1 << 30;
    ring.clear();
    ring.setWriteIndex(700);
    fillSteady(ring, kVekStatsRingSlots, 8, 1024);
    EXPECT_EQ(estimate(), Estimate(1000, kVekStatsRingSlots - 1));
}

TEST_F(EstimatorTest, VerboseLogShowsNewestEntryAndResult) {
    gDebugLogEnabled = 1;
    ring.setWriteIndex(0);
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
