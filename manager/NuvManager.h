// Ties the parameter store, the statistics engine and the rule manager
// together; driven by the binder service and the main loop.
//
// Locks, outermost first; a lock is only taken while holding locks above it:
// 1. lifetime (shared mutex, here): cleanup holds it exclusively, every other
//    operation of the manager shared, so that nothing still uses the rule
//    manager or the statistics engine while cleanup destroys them;
// 2. configuration (here): one configuration path at a time (parsing, rule
//    setup, statistics start, link monitor start);
// 3. rule lock (here): the UID map and the DNS choice;
// 4. the statistics engine's lock (VekStatsImpl): its interface map, taken
//    by its own operations only;
// 5. the rule manager's rule lock (IptablesManager): the per-UID and DNS rule
//    operations;
// leaves, taken for a copy or an update and never around another lock: the
// rule manager's installed shares (under 4 by the rewrite and the engine's
// snapshot), the parameter store's interface lock, the link monitor's own,
// and here the wanted monitor settings and the main loop's wake-up.
// The monitor is started and stopped under none of 1-5 but its own apply
// lock (stopping waits for its thread). To read the traffic its thread
// tries the lifetime lock, shared and without waiting, then takes the
// statistics engine's lock (4); it takes none of the others.
// The instance lock only guards the singleton's creation.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "config/InterfaceInfo.h"
#include "config/NuvMode.h"
#include "linkhealth/LinkMonitor.h"
#include "report/Snapshot.h"

class IptablesManager;
class Parameters;
class VekStatsImpl;

class NuvManager {
  public:
    static NuvManager* instance();
    // Forgets the singleton so the next instance() builds a fresh one. Tests only.
    static void resetForTesting();

    // Interface configuration and the periodic evaluation.
    void setInterfaceParamsNuv(int index, std::string params);
    void configInterfaceRelatedParams();
    int adjustParameters();
    // The main loop's sleep between turns: `micros`, cut short when the link
    // monitor reports a change of health.
    void waitForNextTurn(uint32_t micros);
    void cleanup();

    // Per-UID rules and the WLAN's internet state.
    void setRuleForUid(int uid, int mode);
    void removeRuleForUid(int uid, int mode);
    void notifyWlanHasInternet(bool hasInternet);

    // The operator's report: copies of what it shows, each taken by its
    // owner under its own lock.
    void snapshot(vekd::report::Snapshot* out);

    // For tests: the recorded mode of every UID, and the DNS selection.
    std::map<std::string, NuvMode> uidModes();
    const InterfaceInfo_t* dnsInterface() const { return m_dnsIface; }
    // The link monitor (off unless "ping_period_ms" is above 0); its
    // accessors are thread-safe.
    const vekd::linkhealth::LinkMonitor& linkMonitor() const { return *m_linkMonitor; }
    ~NuvManager();

  private:
    NuvManager();
    NuvManager(const NuvManager&) = delete;
    // The common frame of the UID operations: under the rule lock, `change`
    // gets the UID's key and its recorded mode (null when unknown); `mode`
    // is recorded afterwards. Nothing happens after cleanup.
    void changeUid(int uid, int mode,
                   const std::function<void(const std::string&, const NuvMode*)>& change);
    NuvManager& operator=(const NuvManager&) = delete;
    // The interface whose DNS server the choice names (none: keep the
    // current one); under the rule lock.
    std::optional<InterfaceInfo_t> chooseDnsInterface(bool hasInternet) const;
    // The configuration path under the manager's locks.
    void configureLocked();
    // Link health: the monitor wanted (under the configuration lock), then
    // started or stopped as wanted last (under none of the manager's locks).
    // A change of health wakes the main loop, whose next turn takes the
    // down links and moves the DNS off a dead one.
    void wantLinkMonitor();
    void applyLinkMonitor();
    void onLinkHealthChange();
    int64_t receivedAgoMs(const std::string& link);
    // The DNS selection's interface name and server, empty when none; the
    // caller holds the rule lock.
    void copyDnsSelection(std::string* iface, std::string* server) const;

    IptablesManager* m_iptables = nullptr;
    VekStatsImpl* m_stats = nullptr;
    Parameters* m_params = nullptr;
    std::map<std::string, NuvMode> m_uidModes;
    // The DNS choice points at the manager's own copy of the chosen record,
    // so that it survives the store replacing or freeing that record.
    InterfaceInfo_t* m_dnsIface = nullptr;
    const char* m_dnsServer = nullptr;
    InterfaceInfo_t m_dnsChoice{};
    bool m_cleanedUp = false;
    struct MonitorWanted {
        vekd::linkhealth::MonitorSettings settings;
        std::vector<vekd::linkhealth::MonitoredLink> links;
    };
    std::mutex m_monitorMutex;
    MonitorWanted m_monitorWanted;  // guarded by m_monitorMutex
    std::mutex m_monitorApplyMutex;
    std::mutex m_turnMutex;
    std::condition_variable m_turnWake;
    std::atomic<bool> m_healthChanged{false};
    std::unique_ptr<vekd::linkhealth::LinkMonitor> m_linkMonitor;
    std::atomic<int> m_wlanHasInternet{-1};  // the last notification; -1: none yet
};
