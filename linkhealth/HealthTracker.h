// Keeps one link's health from its signs of life: a link goes down when a
// run of probes went out with nothing heard from the link since, each long
// enough ago to have been answered, and comes back, after a least time down,
// on answers in a row. Answered probes feed a smoothed
// round-trip time. Pure: times are given, no I/O.
#pragma once

#include <cstdint>
#include <vector>

#include "linkhealth/LinkHealth.h"

namespace vekd::linkhealth {

struct HealthSettings {
    int32_t unansweredToDown = 11;  // probes in a row with no sign of life since
    int32_t answeredToUp = 1;       // "n_hyst"
    int32_t alphaPercent = 60;      // weight of a new round-trip time
    int32_t holdMs = 2000;          // least time down

    bool operator==(const HealthSettings& o) const {
        return unansweredToDown == o.unansweredToDown && answeredToUp == o.answeredToUp &&
               alphaPercent == o.alphaPercent && holdMs == o.holdMs;
    }
};

class HealthTracker {
  public:
    enum class Change { None, WentDown, CameUp };

    explicit HealthTracker(const HealthSettings& settings);

    // A probe answered at `nowMs` after `rttMs`: a sign of life.
    Change answered(int64_t nowMs, int32_t rttMs);
    // A sign of life at `atMs` (at or before `nowMs`): probes sent before it
    // no longer count as unanswered. Traffic keeps a link up but does not
    // bring it back (`revives` false): a dead uplink still lets a server's
    // retransmissions through.
    Change alive(int64_t atMs, int64_t nowMs, bool revives = false);
    // A probe went out (or could not be sent) at `sentMs`.
    void sent(int64_t sentMs);
    // Down when the run is long enough and even its newest probe went out
    // more than `lateMs` before `nowMs`.
    Change check(int64_t nowMs, int64_t lateMs);
    // When the probes of the run went out, oldest first (the newest ones
    // that can take the link down).
    const std::vector<int64_t>& unansweredSentMs() const { return m_unansweredSentMs; }

    const LinkHealth& health() const { return m_health; }
    int32_t lastRttMs() const { return m_lastRttMs; }

  private:
    HealthSettings m_settings;
    LinkHealth m_health;
    std::vector<int64_t> m_unansweredSentMs;  // the run since the last sign of life
    int64_t m_lifeMs = INT64_MIN;
    int64_t m_downSinceMs = 0;
    int32_t m_aliveInRow = 0;
    int32_t m_lastRttMs = -1;
};

}  // namespace vekd::linkhealth
