// Probes every configured link from one thread and keeps each link's health.
// A change of a link's up/down state is reported to a handler, which runs on
// the monitor's thread after the monitor's own lock is released.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
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
    int32_t periodMs = 0;   // 0: the monitor is off
    int32_t timeoutMs = 0;  // an answer later than this is not matched; 0: kDefaultTimeoutMs
    HealthSettings health;
    std::string server;

    static constexpr int32_t kDefaultTimeoutMs = 3000;
    // The least period: a probe a second on a metered link costs about
    // 260 KB an hour, and faster ones keep a cellular radio awake for nothing.
    static constexpr int32_t kFloorMs = 100;
    static constexpr int32_t kMeteredFloorMs = 1000;

    bool enabled() const { return periodMs > 0; }
};

struct MonitoredLink {
    std::string name;
    uint32_t mark = 0;
    bool metered = false;
};

class LinkMonitor {
  public:
    // How long ago `link` last received traffic, in ms; -1 when unknown.
    using ReceivedAgo = std::function<int64_t(const std::string& link)>;

    // `receivedAgo` is asked from the monitor's thread with no lock of the
    // monitor held; without it, only probes tell.
    explicit LinkMonitor(std::function<void()> onChange, ReceivedAgo receivedAgo = nullptr);
    ~LinkMonitor();
    LinkMonitor(const LinkMonitor&) = delete;
    LinkMonitor& operator=(const LinkMonitor&) = delete;

    // Stops any earlier run, then probes `links` from a thread of its own; a
    // link configured as before keeps its health. Does nothing when the
    // settings switch the monitor off or are refused (see begin()).
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
    // Probes sent since the run began, all links together.
    uint64_t probesSent() const;

    // The thread's work without the thread, for tests: begin() sets up a
    // run (false, with one log line, when there is only one link or the
    // period is below its floor), turn() sends the probes that are due,
    // waits for answers until the next event, and settles what it saw.
    bool begin(const MonitorSettings& settings, const std::vector<MonitoredLink>& links);
    void turn();

  private:
    struct Probe {
        uint16_t sequence = 0;
        int64_t sentMs = 0;
    };

    struct Link {
        MonitoredLink config;
        HealthTracker tracker;
        std::deque<Probe> outstanding;  // sent within the timeout, not answered
        uint16_t sequence = 0;
        int64_t nextSendMs = 0;
        int64_t lastSentMs = INT64_MIN / 2;
        int64_t trafficMs = INT64_MIN / 2;  // when traffic was last received
        bool trafficStopped = false;        // since then, until a sign of life
    };

    // Under m_mutex; true when some link changed state.
    bool noteTraffic(int64_t nowMs, const std::vector<int64_t>& agoMs);
    bool settle(int64_t nowMs, const std::vector<ProbeAnswer>& answers);
    void sendDue(int64_t nowMs);
    // When a link whose traffic may have stopped is looked at again.
    int64_t trafficCheckMs(const Link& link) const;
    int msUntilNextEvent(int64_t nowMs) const;
    bool haveTarget(int64_t nowMs);
    int64_t lateMs(const Link& link) const;
    int64_t periodMs() const;
    bool silent(const Link& link, int64_t nowMs) const;
    bool report(const Link& link, HealthTracker::Change change) const;
    void stopLocked();

    const std::function<void()> m_onChange;
    const ReceivedAgo m_receivedAgo;
    // Guards everything below but the run mutex and the thread; held for a
    // turn's bookkeeping, never while waiting for the network or calling out.
    mutable std::mutex m_mutex;
    MonitorSettings m_settings;
    std::vector<Link> m_links;
    uint32_t m_address = 0;
    bool m_found = false;      // m_address is the target's
    bool m_lookingUp = false;  // a look-up was started and has not answered
    int64_t m_nextLookupMs = 0;
    bool m_idle = false;       // nothing received on any link lately: probing backs off
    uint64_t m_probesSent = 0;
    std::mutex m_runMutex;  // serialises start and stop; taken before m_mutex
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

}  // namespace vekd::linkhealth
