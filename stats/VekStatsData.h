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
