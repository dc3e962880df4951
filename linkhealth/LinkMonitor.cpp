#include "linkhealth/LinkMonitor.h"

#include <android/log.h>

#include <algorithm>
#include <climits>

#include "platform/Clock.h"

namespace vekd::linkhealth {
namespace {

constexpr const char* kTag = "LinkMonitor";
// A target that cannot be resolved is tried again this often at most.
constexpr int64_t kResolveRetryMs = 5000;

LinkProber& prober() { return Seam<LinkProber>::get(); }
int64_t nowMs() { return Seam<platform::Clock>::get().monotonicMs(); }

}  // namespace

LinkMonitor::LinkMonitor(std::function<void()> onChange) : m_onChange(std::move(onChange)) {}

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
    begin(settings, links);
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
    if (!begun) return;  // never touch the network when the monitor is off
    m_stopping = true;
    prober().interrupt();
    if (m_thread.joinable()) m_thread.join();
    prober().closeAll();
    lock.lock();
    m_links.clear();
    m_settings = MonitorSettings();
}

void LinkMonitor::begin(const MonitorSettings& settings, const std::vector<MonitoredLink>& links) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // A link configured again as it was keeps its health; a new or changed
    // one, or any link under changed health rules, starts fresh.
    const bool sameRules = m_settings.enabled() && m_settings.health == settings.health;
    const std::vector<Link> previous = std::move(m_links);
    m_settings = settings;
    if (m_settings.timeoutMs <= 0) m_settings.timeoutMs = m_settings.periodMs;
    m_links.clear();
    for (size_t i = 0; i < links.size(); ++i) {
        m_links.push_back(Link{links[i], HealthTracker(m_settings.health), false, 0, 0, 0, {}});
        for (const Link& was : previous) {
            if (sameRules && was.config.name == links[i].name && was.config.mark == links[i].mark) {
                m_links.back().tracker = was.tracker;
            }
        }
        prober().open(i, links[i].name, links[i].mark);
    }
    m_resolved = false;
    m_nextResolveMs = 0;
}

void LinkMonitor::turn() {
    int64_t now = nowMs();
    bool changed = false;
    if (!resolveServer(now)) {
        // Nothing to probe yet: sleep until the next attempt.
        int64_t next;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            next = m_nextResolveMs;
        }
        std::vector<ProbeAnswer> none;
        prober().wait(static_cast<int>(std::clamp<int64_t>(next - now, 0, INT32_MAX)), &none);
        return;
    }
    int waitMs;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        changed |= settle(now, {});
        changed |= sendDue(now);
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
            m_resolved = false;
            m_nextResolveMs = now;
        }
    }
    if (changed && m_onChange) m_onChange();
}

bool LinkMonitor::resolveServer(int64_t now) {
    std::string server;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_resolved) return true;
        if (now < m_nextResolveMs) return false;
        server = m_settings.server;
    }
    uint32_t address = 0;
    const bool ok = prober().resolve(server, &address);  // may block: outside the lock
    std::lock_guard<std::mutex> lock(m_mutex);
    m_resolved = ok;
    m_nextResolveMs = now + std::max<int64_t>(m_settings.periodMs, kResolveRetryMs);
    if (ok) {
        m_address = address;
        for (Link& link : m_links) {
            link.inFlight = false;
            link.nextSendMs = now;
        }
    }
    return ok;
}

bool LinkMonitor::settle(int64_t now, const std::vector<ProbeAnswer>& answers) {
    bool changed = false;
    for (const ProbeAnswer& answer : answers) {
        if (answer.link >= m_links.size()) continue;
        Link& link = m_links[answer.link];
        // A late answer does not undo the loss already counted, but a link
        // that answers is alive: a loaded link's queue delays answers
        // beyond the timeout without the link being dead.
        Sent& sent = link.recent[answer.sequence % kRecent];
        if (!sent.open || sent.sequence != answer.sequence) continue;
        sent.open = false;
        if (link.inFlight && answer.sequence == link.sequence) link.inFlight = false;
        const auto rtt = static_cast<int32_t>(std::min<int64_t>(now - sent.sentMs, INT32_MAX));
        const HealthTracker::Change change = link.tracker.answered(rtt);
        report(link, change);
        changed |= change != HealthTracker::Change::None;
    }
    for (Link& link : m_links) {
        if (!link.inFlight || now - link.sentMs < m_settings.timeoutMs) continue;
        link.inFlight = false;
        const HealthTracker::Change change = link.tracker.lost();
        report(link, change);
        changed |= change != HealthTracker::Change::None;
    }
    return changed;
}

bool LinkMonitor::sendDue(int64_t now) {
    bool changed = false;
    for (size_t i = 0; i < m_links.size(); ++i) {
        Link& link = m_links[i];
        if (link.inFlight || now < link.nextSendMs) continue;
        link.sequence = static_cast<uint16_t>(link.sequence + 1);
        link.sentMs = now;
        link.nextSendMs += m_settings.periodMs;
        if (link.nextSendMs <= now) link.nextSendMs = now + m_settings.periodMs;
        if (prober().send(i, m_address, link.sequence)) {
            link.inFlight = true;
            link.recent[link.sequence % kRecent] = Sent{link.sequence, now, true};
        } else {
            // Not even sent (no route, no socket): as good as lost.
            const HealthTracker::Change change = link.tracker.lost();
            report(link, change);
            changed |= change != HealthTracker::Change::None;
        }
    }
    return changed;
}

int LinkMonitor::msUntilNextEvent(int64_t now) const {
    int64_t next = now + m_settings.periodMs;
    for (const Link& link : m_links) {
        next = std::min(next, link.inFlight ? link.sentMs + m_settings.timeoutMs : link.nextSendMs);
    }
    return static_cast<int>(std::clamp<int64_t>(next - now, 0, INT32_MAX));
}

void LinkMonitor::report(const Link& link, HealthTracker::Change change) const {
    if (change == HealthTracker::Change::WentDown) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "link %s down: %d probes lost in a row",
                            link.config.name.c_str(), static_cast<int>(link.tracker.health().lostInRow));
    } else if (change == HealthTracker::Change::CameUp) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "link %s up: round-trip time %d ms",
                            link.config.name.c_str(), static_cast<int>(link.tracker.lastRttMs()));
    }
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

}  // namespace vekd::linkhealth
