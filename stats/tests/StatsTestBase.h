// Common ground of the statistics tests: a fresh parameter store and engine,
// a fixed clock, captured log, a temporary root.
#pragma once

#include <string>

#include "config/tests/ParametersTestBase.h"
#include "stats/StatsFileBuilder.h"
#include "stats/VekStatsImpl.h"

namespace vekd::test {

// The fake clock's "now"; the estimator's own "now" is one millisecond later.
inline constexpr uint64_t kNowMs = 1700000000000ULL;

class StatsTest : public ParametersTestBase {
  protected:
    void SetUp() override {
        ParametersTestBase::SetUp();
        VekStatsImpl::resetForTesting();
        params = Parameters::instance();
        makeDirs(root.at("/proc/vek"));
    }
    void TearDown() override {
        VekStatsImpl::resetForTesting();
        ParametersTestBase::TearDown();
    }
    void configure(const std::string& name, bool metered) { addInterface(name, metered); }
    std::string statsPath(const std::string& name) const { return root.at("/proc/vek/" + name + "_mmap"); }

    FakeClock clock{kNowMs};
    Parameters* params = nullptr;
};

// `count` counted samples of `bytes`, `stepMs` apart, the newest at `newestMs`.
inline void fillSteady(stats::StatsRingWriter& ring, uint32_t count, uint64_t stepMs, uint32_t bytes,
                       uint64_t newestMs = kNowMs) {
    ring.setMagic();
    ring.appendSeries(newestMs - (count - 1) * stepMs, stepMs, count, bytes);
}

}  // namespace vekd::test
