#include "linkhealth/HealthTracker.h"

#include <algorithm>

namespace vekd::linkhealth {

HealthTracker::HealthTracker(const HealthSettings& settings) : m_settings(settings) {
    // A count of 0 or less would flap on every probe; one is the least.
    m_settings.lostToDown = std::max<int32_t>(1, m_settings.lostToDown);
    m_settings.answeredToUp = std::max<int32_t>(1, m_settings.answeredToUp);
    m_settings.alphaPercent = std::clamp<int32_t>(m_settings.alphaPercent, 0, 100);
}

HealthTracker::Change HealthTracker::answered(int32_t rttMs) {
    rttMs = std::max<int32_t>(0, rttMs);
    m_health.lostInRow = 0;
    m_lastRttMs = rttMs;
    if (m_answeredInRow < m_settings.answeredToUp) ++m_answeredInRow;
    if (m_health.smoothedRttMs < 0) {
        m_health.smoothedRttMs = rttMs;
    } else {
        const int64_t a = m_settings.alphaPercent;
        m_health.smoothedRttMs = static_cast<int32_t>((a * rttMs + (100 - a) * m_health.smoothedRttMs + 50) / 100);
    }
    if (!m_health.up && m_answeredInRow >= m_settings.answeredToUp) {
        m_health.up = true;
        return Change::CameUp;
    }
    return Change::None;
}

HealthTracker::Change HealthTracker::lost() {
    m_answeredInRow = 0;
    if (m_health.lostInRow < INT32_MAX) ++m_health.lostInRow;
    if (m_health.up && m_health.lostInRow >= m_settings.lostToDown) {
        m_health.up = false;
        return Change::WentDown;
    }
    return Change::None;
}

}  // namespace vekd::linkhealth
