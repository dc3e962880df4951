// One turn's split of new connections over the links, from values alone:
// no lock, no log, no configuration lookup. The statistics engine feeds it
// and writes the log lines from what it returns.
#pragma once

#include <cstdint>
#include <vector>

#include "stats/VekRatioCalc.h"

struct ShareInput {
    float estimate = 0.0f;  // this turn's estimate after gating, kbit/s
    bool metered = false;
    bool down = false;      // dead by link health: no share, not counted
    float previousShare = 0.0f;
};

struct ShareSettings {
    int32_t wifiThreshold = 0;                 // "wifi_threshold", kbit/s
    int32_t minRatioChangePercent = 0;         // "min_ratio_change"
    int32_t thresholdToStartResetPercent = 0;  // "threshold_to_start_reset"
    int32_t maxUsageOnInterfacePercent = 0;    // "vek_max_usage_on_interface"
};

// Per link, in input order: the share, and the intermediate values the log shows.
struct ShareStep {
    float share = 0.0f;
    float firstRatio = 0.0f;    // before the rest was handed out and scaled
    int zeroRatioCount = 0;     // links without a first ratio so far, this one included
    bool handedOut = false;     // got an equal part of what was left
    float changeBefore = 0.0f;  // summed change of the links before this one
};

struct ShareResult {
    std::vector<ShareStep> links;
    int unmeteredCount = 0;  // live unmetered links
    float dominance = 0.0f;  // the fastest unmetered link's part of the unmetered total
    bool reset = false;      // one unmetered link dominates: it gets the fixed share
    float handOut = 0.0f;    // each link without an estimate got this part of the rest
    float totalChange = 0.0f;
    bool install = false;    // half the summed change exceeds the minimum
};

ShareResult computeShares(VEK_ratio_calc_process mode, float totalMetered, float totalUnmetered,
                          float maxUnmetered, const std::vector<ShareInput>& links,
                          const ShareSettings& settings);
