// Probes every configured link from one thread and keeps each link's health.
// A change of a link's up/down state is reported to a handler, which runs on
// the monitor's thread after the monitor's own lock is released.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "linkhealth/HealthTracker.h"
#include "linkhealth/LinkHealth.h"
#include "linkhealth/LinkProber.h"

namespace vekd::linkhealth {

struct MonitorSettings {
    int32_t periodMs = 0;  // 0: the monitor is off
    int32_t timeoutMs = 0;  // 0: the period
    HealthSettings health;
    std::string server;

    bool enabled() const { return periodMs > 0; }
};

struct MonitoredLink {
    std::string name;
    uint32_t mark = 0;
};

class LinkMonitor {
  public:
    explicit LinkMonitor(std::function<void()> onChange);
    ~LinkMonitor();
    LinkMonitor(const LinkMonitor&) = delete;
    LinkMonitor& operator=(const LinkMonitor&) = delete;

    // Stops any earlier run, then probes `links` from a thread of its own; a
    // link configured as before keeps its health. Does nothing when the
    // settings switch the monitor off.
    void start(const MonitorSettings& settings, const std::vector<MonitoredLink>& links);
    // Ends the thread and closes the sockets; every link counts as up again.
    void stop();

    // The links that are down; empty when every monitored link is down,
    // since then there is nothing better to steer to.
    std::set<std::string> downLinks() const;
    // Whether a run is under way (started and not stopped).
    bool running() const;
    // Every monitored link's health by name; empty while the monitor is off.
    std::map<std::string, LinkHealth> snapshot() const;

    // The thread's work without the thread, for tests: begin() sets up a
    // run, turn() sends the probes that are due, waits for answers until
    // the next one is due, and settles what was answered or lost.
    void begin(const MonitorSettings& settings, const std::vector<MonitoredLink>& links);
    void turn();

  private:
    // A probe sent lately: its answer may still come after it was counted
    // as lost, and then shows that the link is alive after all.
    struct Sent {
        uint16_t sequence = 0;
        int64_t sentMs = 0;
        bool open = false;
    };
    static constexpr size_t kRecent = 8;

    struct Link {
        MonitoredLink config;
        HealthTracker tracker;
        bool inFlight = false;  // the last probe, not yet answered nor lost
        uint16_t sequence = 0;
        int64_t sentMs = 0;
        int64_t nextSendMs = 0;
        Sent recent[kRecent];
    };

    // Under m_mutex; true when some link changed state.
    bool settle(int64_t nowMs, const std::vector<ProbeAnswer>& answers);
    bool sendDue(int64_t nowMs);
    int msUntilNextEvent(int64_t nowMs) const;
    bool resolveServer(int64_t nowMs);
    void report(const Link& link, HealthTracker::Change change) const;
    void stopLocked();

    const std::function<void()> m_onChange;
    // Guards the settings, the links and the target; held for a turn's
    // bookkeeping, never while waiting for the network or calling out.
    mutable std::mutex m_mutex;
    MonitorSettings m_settings;
    std::vector<Link> m_links;
    uint32_t m_address = 0;
    bool m_resolved = false;
    int64_t m_nextResolveMs = 0;
    std::mutex m_runMutex;  // serialises start and stop; taken before m_mutex
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

}  // namespace vekd::linkhealth
