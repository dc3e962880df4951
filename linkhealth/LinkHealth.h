// The health of one link as its probes tell it: lost probes in a row take it
// down, answered probes in a row bring it back, and the answered ones feed a
// smoothed round-trip time. Pure: no clock, no I/O.
#pragma once

#include <cstdint>

namespace vekd::linkhealth {

struct HealthSettings {
    int32_t lostToDown = 5;     // "min_ping_times"
    int32_t answeredToUp = 1;   // "n_hyst"
    int32_t alphaPercent = 60;  // weight of a new round-trip time
};

class LinkHealth {
  public:
    enum class Change { None, WentDown, CameUp };

    explicit LinkHealth(const HealthSettings& settings);

    Change answered(int32_t rttMs);
    Change lost();
    // Back to a fresh link: up, no counts, no round-trip time.
    void restart();

    bool up() const { return m_up; }
    int32_t lostInRow() const { return m_lostInRow; }
    // -1 until the first answer.
    int32_t smoothedRttMs() const { return m_smoothedRttMs; }
    int32_t lastRttMs() const { return m_lastRttMs; }

  private:
    HealthSettings m_settings;
    bool m_up = true;
    int32_t m_lostInRow = 0;
    int32_t m_answeredInRow = 0;
    int32_t m_smoothedRttMs = -1;
    int32_t m_lastRttMs = -1;
};

}  // namespace vekd::linkhealth
