#include "linkhealth/HealthTracker.h"

#include <algorithm>

namespace vekd::linkhealth {

HealthTracker::HealthTracker(const HealthSettings& settings) : m_settings(settings) {
    // A count of 0 or less would flap on every probe; one is the least.
    m_settings.unansweredToDown = std::max<int32_t>(1, m_settings.unansweredToDown);
    m_settings.answeredToUp = std::max<int32_t>(1, m_settings.answeredToUp);
    m_settings.alphaPercent = std::clamp<int32_t>(m_settings.alphaPercent, 0, 100);
}

HealthTracker::Change HealthTracker::answered(int64_t nowMs, int32_t rttMs) {
    rttMs = std::max<int32_t>(0, rttMs);
    m_lastRttMs = rttMs;
    if (m_health.smoothedRttMs < 0) {
        m_health.smoothedRttMs = rttMs;
    } else {
        const int64_t a = m_settings.alphaPercent;
        m_health.smoothedRttMs = static_cast<int32_t>((a * rttMs + (100 - a) * m_health.smoothedRttMs + 50) / 100);
    }
    return alive(nowMs, nowMs, true);
}

HealthTracker::Change HealthTracker::alive(int64_t atMs, int64_t nowMs, bool revives) {
    auto& run = m_unansweredSentMs;
    run.erase(std::remove_if(run.begin(), run.end(), [&](int64_t sent) { return sent <= atMs; }), run.end());
    m_health.unansweredInRow = static_cast<int32_t>(run.size());
    if (atMs <= m_lifeMs || (!revives && !m_health.up)) return Change::None;
    m_lifeMs = atMs;
    if (m_aliveInRow < m_settings.answeredToUp) ++m_aliveInRow;
    if (!m_health.up && m_aliveInRow >= m_settings.answeredToUp && nowMs - m_downSinceMs >= m_settings.holdMs) {
        m_health.up = true;
        return Change::CameUp;
    }
    return Change::None;
}

void HealthTracker::sent(int64_t sentMs) {
    if (sentMs <= m_lifeMs) return;  // life came after it
    m_aliveInRow = 0;
    // Only the newest run matters: it is kept to what takes a link down.
    if (m_unansweredSentMs.size() >= static_cast<size_t>(m_settings.unansweredToDown)) {
        m_unansweredSentMs.erase(m_unansweredSentMs.begin());
    }
    m_unansweredSentMs.push_back(sentMs);
    m_health.unansweredInRow = static_cast<int32_t>(m_unansweredSentMs.size());
}

HealthTracker::Change HealthTracker::check(int64_t nowMs, int64_t lateMs) {
    if (!m_health.up || m_health.unansweredInRow < m_settings.unansweredToDown ||
        nowMs - m_unansweredSentMs.back() <= lateMs) {
        return Change::None;
    }
    m_health.up = false;
    m_downSinceMs = nowMs;
    return Change::WentDown;
}

}  // namespace vekd::linkhealth
