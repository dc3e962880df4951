// Common ground of the statistics tests: a fresh parameter store and engine,
// a fixed clock, captured log, a temporary root.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/Parameters.h"
#include "daemon/DebugFlag.h"
#include "stats/StatsFileBuilder.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {

// The fake clock's "now"; the estimator's own "now" is one millisecond later.
inline constexpr uint64_t kNowMs = 1700000000000ULL;

class StatsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Parameters::resetForTesting();
        VekStatsImpl::resetForTesting();
        gDebugLogEnabled = 0;
        params = Parameters::instance();
        makeDirs(root.at("/proc/vek"));
    }
    void TearDown() override {
        VekStatsImpl::resetForTesting();
        Parameters::resetForTesting();
        gDebugLogEnabled = 0;
    }

    // Enters `name` into the configured-interface map.
    void configure(const std::string& name, bool metered) {
        auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(info->name, sizeof(info->name), "%s", name.c_str());
        info->metered = metered;
        params->m_interfaceMap[name] = info;
    }
    std::string statsPath(const std::string& name) const {
        return root.at("/proc/vek/" + name + "_mmap");
    }

    TempRoot root;
    FakeProperties props;
    LogCapture log;
    FakeClock clock{kNowMs};
    Parameters* params = nullptr;
};

// `count` counted samples of `bytes`, `stepMs` apart, the newest at `newestMs`.
inline void fillSteady(stats::StatsRingWriter& ring, uint32_t count, uint64_t stepMs,
                       uint32_t bytes, uint64_t newestMs = kNowMs) {
    ring.setMagic();
    ring.appendSeries(newestMs - (count - 1) * stepMs, stepMs, count, bytes);
}

}  // namespace vekd::test
