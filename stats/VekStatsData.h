// The rate estimator over one interface's mapped statistics file.
#pragma once

#include "stats/StatsFileLayout.h"

class VekStatsData {
  public:
    // `map` is the start of the 20480-byte read-only mapping; `isWlan` only
    // chooses the label ("WLAN" / "WWAN") of the log lines.
    VekStatsData(void* map, bool isWlan);

    // The link rate (kilobits per second, 1 kilobit = 1024 bits) of the
    // newest samples, 0 when there is no valid estimate. `sampleCount`, when
    // given, receives the number of samples counted (it is left untouched
    // when the module is not ready). `iface` is used in the debug log only.
    unsigned int linkRateEstimate(unsigned int* sampleCount, const char* iface);

    // Wall-clock ms of the newest counted sample that closes `windowMs` of
    // samples carrying `minBytes` or more, and at least half as much as the
    // best of the four windows before: when the link last received a flow,
    // not a trickle such as a dead uplink's retransmissions. 0 when there is
    // none or the module is not ready.
    uint64_t lastFlowMs(uint64_t minBytes, uint64_t windowMs) const;

    void* map;
    bool isWlan;
    const VekStatsSample* cursor;  // slot being examined

  private:
    const char* label() const { return isWlan ? "WLAN" : "WWAN"; }
    const VekStatsHeader* header() const { return static_cast<const VekStatsHeader*>(map); }
    const VekStatsSample* slot(uint32_t n) const {
        return reinterpret_cast<const VekStatsSample*>(static_cast<const char*>(map) +
                                                       n * kVekStatsSlotSize);
    }
};
