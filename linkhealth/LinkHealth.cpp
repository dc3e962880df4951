#include "linkhealth/LinkHealth.h"

#include <algorithm>

namespace vekd::linkhealth {

LinkHealth::LinkHealth(const HealthSettings& settings) : m_settings(settings) {
    // A count of 0 or less would flap on every probe; one is the least.
    m_settings.lostToDown = std::max<int32_t>(1, m_settings.lostToDown);
    m_settings.answeredToUp = std::max<int32_t>(1, m_settings.answeredToUp);
    m_settings.alphaPercent = std::clamp<int32_t>(m_settings.alphaPercent, 0, 100);
}

LinkHealth::Change LinkHealth::answered(int32_t rttMs) {
    rttMs = std::max<int32_t>(0, rttMs);
    m_lostInRow = 0;
    m_lastRttMs = rttMs;
    if (m_answeredInRow < m_settings.answeredToUp) ++m_answeredInRow;
    if (m_smoothedRttMs < 0) {
        m_smoothedRttMs = rttMs;
    } else {
        const int64_t a = m_settings.alphaPercent;
        m_smoothedRttMs = static_cast<int32_t>((a * rttMs + (100 - a) * m_smoothedRttMs + 50) / 100);
    }
    if (!m_up && m_answeredInRow >= m_settings.answeredToUp) {
        m_up = true;
        return Change::CameUp;
    }
    return Change::None;
}

LinkHealth::Change LinkHealth::lost() {
    m_answeredInRow = 0;
    if (m_lostInRow < INT32_MAX) ++m_lostInRow;
    if (m_up && m_lostInRow >= m_settings.lostToDown) {
        m_up = false;
        return Change::WentDown;
    }
    return Change::None;
}

void LinkHealth::restart() {
    m_up = true;
    m_lostInRow = 0;
    m_answeredInRow = 0;
    m_smoothedRttMs = -1;
    m_lastRttMs = -1;
}

}  // namespace vekd::linkhealth
