// Keeps one link's health from its probes: lost probes in a row take it down,
// answered probes in a row bring it back, and the answered ones feed a
// smoothed round-trip time. Pure: no clock, no I/O.
#pragma once

#include <cstdint>

#include "linkhealth/LinkHealth.h"

namespace vekd::linkhealth {

struct HealthSettings {
    int32_t lostToDown = 5;     // "min_ping_times"
    int32_t answeredToUp = 1;   // "n_hyst"
    int32_t alphaPercent = 60;  // weight of a new round-trip time

    bool operator==(const HealthSettings& o) const {
        return lostToDown == o.lostToDown && answeredToUp == o.answeredToUp && alphaPercent == o.alphaPercent;
    }
};

class HealthTracker {
  public:
    enum class Change { None, WentDown, CameUp };

    explicit HealthTracker(const HealthSettings& settings);

    Change answered(int32_t rttMs);
    Change lost();

    const LinkHealth& health() const { return m_health; }
    int32_t lastRttMs() const { return m_lastRttMs; }

  private:
    HealthSettings m_settings;
    LinkHealth m_health;
    int32_t m_answeredInRow = 0;
    int32_t m_lastRttMs = -1;
};

}  // namespace vekd::linkhealth
