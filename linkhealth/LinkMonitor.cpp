#include "linkhealth/LinkMonitor.h"

#include <android/log.h>

#include <algorithm>
#include <climits>

#include "platform/Clock.h"

namespace vekd::linkhealth {
namespace {

constexpr const char* kTag = "LinkMonitor";
// A target that cannot be resolved is tried again this often at most.
constexpr int64_t kLookupRetryMs = 5000;
// A probe is late after two smoothed round-trip times, but not before this
// (nor after the timeout); a run whose first probe is late is silence.
constexpr int64_t kMinLateMs = 100;
// While a link is silent (a probe late, or its traffic stopped) it is probed
// this often, so that a dead link is found in well under two seconds.
constexpr int64_t kBurstMs = 50;
// With nothing received on any link for this long, probes go out only
// once a minute: a dead link matters when there is traffic to steer.
constexpr int64_t kIdleAfterMs = 30000;
constexpr int64_t kIdlePeriodMs = 60000;

LinkProber& prober() { return Seam<LinkProber>::get(); }
int64_t nowMs() { return Seam<platform::Clock>::get().monotonicMs(); }

}  // namespace

LinkMonitor::LinkMonitor(std::function<void()> onChange, ReceivedAgo receivedAgo)
    : m_onChange(std::move(onChange)), m_receivedAgo(std::move(receivedAgo)) {}

LinkMonitor::~LinkMonitor() { stop(); }

void LinkMonitor::start(const MonitorSettings& settings, const std::vector<MonitoredLink>& links) {
    std::lock_guard<std::mutex> run(m_runMutex);
    std::vector<Link> previous;
    MonitorSettings was;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        previous = m_links;
        was = m_settings;
    }
    stopLocked();
    if (!settings.enabled()) return;
    {
        // begin() keeps the health of every link that did not change.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_links = std::move(previous);
        m_settings = was;
    }
    if (!begin(settings, links)) return;
    m_stopping = false;
    m_thread = std::thread([this] {
        while (!m_stopping.load()) turn();
    });
}

void LinkMonitor::stop() {
    std::lock_guard<std::mutex> run(m_runMutex);
    stopLocked();
}

void LinkMonitor::stopLocked() {
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool begun = m_settings.enabled();
    lock.unlock();
    if (begun) {
        // Never touch the network when the monitor is off.
        m_stopping = true;
        prober().interrupt();
        if (m_thread.joinable()) m_thread.join();
        prober().closeAll();
    }
    lock.lock();
    m_links.clear();
    m_settings = MonitorSettings();
}

bool LinkMonitor::begin(const MonitorSettings& settings, const std::vector<MonitoredLink>& links) {
    // Refused: with one link there is nothing to steer to, and a short
    // period on a metered link costs data and battery for little.
    const bool metered = std::any_of(links.begin(), links.end(), [](const MonitoredLink& l) { return l.metered; });
    const int32_t floor = metered ? MonitorSettings::kMeteredFloorMs : MonitorSettings::kFloorMs;
    if (links.size() < 2 || settings.periodMs < floor) {
        if (links.size() < 2) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "link monitor off: %zu link(s), nothing to steer to",
                                links.size());
        } else {
            __android_log_print(ANDROID_LOG_WARN, kTag, "link monitor off: ping_period_ms %d is below %d ms%s",
                                static_cast<int>(settings.periodMs), static_cast<int>(floor),
                                metered ? " with a metered link" : "");
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_links.clear();
        m_settings = MonitorSettings();
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    // A link configured again as it was keeps its health; a new or changed
    // one, or any link under changed health rules, starts fresh.
    const bool sameRules = m_settings.enabled() && m_settings.health == settings.health;
    const std::vector<Link> previous = std::move(m_links);
    m_settings = settings;
    if (m_settings.timeoutMs <= 0) m_settings.timeoutMs = MonitorSettings::kDefaultTimeoutMs;
    m_links.clear();
    for (size_t i = 0; i < links.size(); ++i) {
        m_links.push_back(Link{links[i], HealthTracker(m_settings.health), {}, 0, 0, INT64_MIN / 2, INT64_MIN / 2, false});
        for (const Link& was : previous) {
            if (sameRules && was.config.name == links[i].name && was.config.mark == links[i].mark) {
                m_links.back().tracker = was.tracker;
            }
        }
        prober().open(i, links[i].name, links[i].mark);
    }
    m_found = false;
    m_lookingUp = false;
    m_nextLookupMs = 0;
    m_idle = false;
    m_probesSent = 0;
    return true;
}

void LinkMonitor::turn() {
    int64_t now = nowMs();
    if (!haveTarget(now)) {
        // Nothing to probe yet: sleep until the look-up answers or the next
        // attempt is due.
        std::vector<ProbeAnswer> none;
        prober().wait(static_cast<int>(kLookupRetryMs), &none);
        return;
    }
    // The traffic each link received, asked with no lock held.
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Link& link : m_links) names.push_back(link.config.name);
    }
    std::vector<int64_t> agoMs(names.size(), -1);
    for (size_t i = 0; m_receivedAgo && i < names.size(); ++i) agoMs[i] = m_receivedAgo(names[i]);

    bool changed = false;
    int waitMs;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        changed |= noteTraffic(now, agoMs);
        changed |= settle(now, {});
        sendDue(now);
        waitMs = msUntilNextEvent(now);
    }
    std::vector<ProbeAnswer> answers;
    prober().wait(waitMs, &answers);
    now = nowMs();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        changed |= settle(now, answers);
        // With every link down the target itself may have moved.
        if (changed && std::none_of(m_links.begin(), m_links.end(),
                                    [](const Link& l) { return l.tracker.health().up; })) {
            m_found = false;
            m_nextLookupMs = now;
        }
    }
    if (changed && m_onChange) m_onChange();
}

bool LinkMonitor::haveTarget(int64_t now) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_found) return true;
    if (!m_lookingUp) {
        if (now < m_nextLookupMs) return false;
        // Returns at once: a look-up that hangs holds no lock and no caller.
        prober().lookup(m_settings.server);
        m_lookingUp = true;
    }
    uint32_t address = 0;
    const LinkProber::Lookup result = prober().lookupResult(&address);
    if (result == LinkProber::Lookup::Pending) return false;
    m_lookingUp = false;
    if (result == LinkProber::Lookup::Failed) {
        m_nextLookupMs = now + std::max<int64_t>(m_settings.periodMs, kLookupRetryMs);
        return false;
    }
    m_found = true;
    m_address = address;
    for (Link& link : m_links) {
        link.outstanding.clear();
        link.nextSendMs = now;
    }
    return true;
}

int64_t LinkMonitor::lateMs(const Link& link) const {
    const int64_t srtt = link.tracker.health().smoothedRttMs;
    // Until a first answer, only the timeout tells: a link may be slow.
    if (srtt < 0) return m_settings.timeoutMs;
    return std::clamp<int64_t>(2 * srtt, kMinLateMs, m_settings.timeoutMs);
}

int64_t LinkMonitor::periodMs() const {
    return m_idle ? std::max<int64_t>(m_settings.periodMs, kIdlePeriodMs) : m_settings.periodMs;
}

bool LinkMonitor::silent(const Link& link, int64_t now) const {
    const HealthTracker& t = link.tracker;
    // Up, and a probe is late with nothing heard since, or the link's
    // traffic stopped; a run long enough to take the link down only waits
    // to be late.
    const std::vector<int64_t>& run = t.unansweredSentMs();
    if (!t.health().up || run.size() >= static_cast<size_t>(std::max(1, m_settings.health.unansweredToDown))) return false;
    return (!run.empty() && now - run.front() > lateMs(link)) || link.trafficStopped;
}

bool LinkMonitor::noteTraffic(int64_t now, const std::vector<int64_t>& agoMs) {
    if (!m_receivedAgo || agoMs.size() != m_links.size()) return false;
    bool changed = false;
    bool anyTraffic = false;
    for (size_t i = 0; i < m_links.size(); ++i) {
        if (agoMs[i] < 0) continue;
        anyTraffic |= agoMs[i] < kIdleAfterMs;
        if (now - agoMs[i] > m_links[i].trafficMs) m_links[i].trafficStopped = false;
        m_links[i].trafficMs = now - agoMs[i];
        changed |= report(m_links[i], m_links[i].tracker.alive(now - agoMs[i], now));
    }
    if (m_idle && anyTraffic) {
        // Traffic again: back to the configured period at once.
        for (Link& link : m_links) link.nextSendMs = std::min(link.nextSendMs, now);
    }
    m_idle = !anyTraffic;
    return changed;
}

bool LinkMonitor::settle(int64_t now, const std::vector<ProbeAnswer>& answers) {
    bool changed = false;
    for (const ProbeAnswer& answer : answers) {
        if (answer.link >= m_links.size()) continue;
        Link& link = m_links[answer.link];
        // An answer counts however many probes went out since, as long as
        // it comes within the timeout: a loaded link is slow, not dead.
        auto it = std::find_if(link.outstanding.begin(), link.outstanding.end(),
                               [&](const Probe& p) { return p.sequence == answer.sequence; });
        if (it == link.outstanding.end() || now - it->sentMs > m_settings.timeoutMs) continue;
        const auto rtt = static_cast<int32_t>(std::min<int64_t>(now - it->sentMs, INT32_MAX));
        link.outstanding.erase(it);
        link.trafficStopped = false;
        changed |= report(link, link.tracker.answered(now, rtt));
    }
    for (Link& link : m_links) {
        changed |= report(link, link.tracker.check(now, lateMs(link)));
        while (!link.outstanding.empty() && now - link.outstanding.front().sentMs > m_settings.timeoutMs) {
            link.outstanding.pop_front();  // lost
        }
    }
    return changed;
}

void LinkMonitor::sendDue(int64_t now) {
    for (size_t i = 0; i < m_links.size(); ++i) {
        Link& link = m_links[i];
        // Traffic that stopped after the last probe: find out why, at once
        // but for traffic in bursts not more than twice a period.
        if (link.trafficMs > link.lastSentMs && now >= trafficCheckMs(link)) link.trafficStopped = true;
        const bool burst = silent(link, now) && now - link.lastSentMs >= kBurstMs;
        if (!burst && now < link.nextSendMs) continue;
        link.sequence = static_cast<uint16_t>(link.sequence + 1);
        link.lastSentMs = now;
        link.nextSendMs = now + periodMs();
        ++m_probesSent;
        // One that cannot be sent (no route, device down, no socket) is
        // never answered either.
        link.tracker.sent(now);
        if (prober().send(i, m_address, link.sequence)) link.outstanding.push_back(Probe{link.sequence, now});
    }
}

int64_t LinkMonitor::trafficCheckMs(const Link& link) const {
    return std::max(link.trafficMs + kMinLateMs + 1, link.lastSentMs + m_settings.periodMs / 2);
}

int LinkMonitor::msUntilNextEvent(int64_t now) const {
    // Idle or not, the traffic is looked at every configured period.
    int64_t next = now + m_settings.periodMs;
    for (const Link& link : m_links) {
        next = std::min(next, link.nextSendMs);
        const HealthTracker& t = link.tracker;
        if (!t.health().up) continue;
        if (silent(link, now)) next = std::min(next, link.lastSentMs + kBurstMs);
        // Traffic flowing: look again when it would have stopped.
        if (link.trafficMs > link.lastSentMs) next = std::min(next, trafficCheckMs(link));
        // When the run's first probe becomes late (silence) and when its
        // newest does (down); the probes in between decide nothing. Probes
        // past the timeout need no wake-up: every turn drops them.
        const std::vector<int64_t>& run = t.unansweredSentMs();
        if (run.empty()) continue;
        const int64_t late = lateMs(link);
        for (const int64_t sent : {run.front(), run.back()}) {
            if (sent + late >= now) next = std::min(next, sent + late + 1);
        }
    }
    return static_cast<int>(std::clamp<int64_t>(next - now, 0, INT32_MAX));
}

bool LinkMonitor::report(const Link& link, HealthTracker::Change change) const {
    const LinkHealth& health = link.tracker.health();
    if (change == HealthTracker::Change::WentDown) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "link %s down: %d probes unanswered in a row, nothing received",
                            link.config.name.c_str(), static_cast<int>(health.unansweredInRow));
    } else if (change == HealthTracker::Change::CameUp) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "link %s up: round-trip time %d ms",
                            link.config.name.c_str(), static_cast<int>(link.tracker.lastRttMs()));
    }
    return change != HealthTracker::Change::None;
}

std::set<std::string> LinkMonitor::downLinks() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::set<std::string> down;
    for (const Link& link : m_links) {
        if (!link.tracker.health().up) down.insert(link.config.name);
    }
    if (down.size() == m_links.size()) down.clear();
    return down;
}

bool LinkMonitor::running() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_settings.enabled();
}

std::map<std::string, LinkHealth> LinkMonitor::snapshot() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::map<std::string, LinkHealth> out;
    for (const Link& link : m_links) out[link.config.name] = link.tracker.health();
    return out;
}

uint64_t LinkMonitor::probesSent() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_probesSent;
}

}  // namespace vekd::linkhealth
