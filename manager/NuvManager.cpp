#include "manager/NuvManager.h"

#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <sstream>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "linkhealth/LinkMonitor.h"
#include "platform/ChangeWaiter.h"
#include "platform/Clock.h"
#include "rules/IptablesManager.h"
#include "stats/VekStatsImpl.h"

namespace {

constexpr const char* kTag = "NuvManager";

NuvManager* s_instance = nullptr;
pthread_mutex_t s_instanceMutex;  // zero-filled; re-initialised as recursive by the constructor
pthread_mutex_t s_ruleMutex;

// Serialises the configuration path (parsing, rule setup, monitor start)
// between binder threads.
std::mutex s_configMutex;
// Cleanup takes it exclusively; the run-time operations share it, so that
// none of them can still be using the rule manager or the statistics engine
// while cleanup destroys them.
std::shared_mutex s_lifeMutex;

class RuleLock {
  public:
    RuleLock() { pthread_mutex_lock(&s_ruleMutex); }
    ~RuleLock() { pthread_mutex_unlock(&s_ruleMutex); }
    RuleLock(const RuleLock&) = delete;
    RuleLock& operator=(const RuleLock&) = delete;
};

// The link monitor's settings from "ping_period_ms", "rtt_noresponse_timeout_ms",
// "min_ping_times", "n_hyst", "alpha_percent" and "rtt_server".
vekd::linkhealth::MonitorSettings monitorSettings(const Parameters& params) {
    vekd::linkhealth::MonitorSettings s;
    s.periodMs = params.m_pingPeriodMs;
    s.timeoutMs = params.m_rttNoresponseTimeoutMs;
    // Twice the run the key names, and one more: random loss alone then
    // takes a link down seldom, and a dead link is still found within 2 s.
    const int64_t run = 2 * static_cast<int64_t>(params.m_minPingTimes) + 1;
    s.health.unansweredToDown = static_cast<int32_t>(std::clamp<int64_t>(run, 1, 1000));
    s.health.answeredToUp = params.m_nHyst;
    s.health.alphaPercent = params.m_alphaPercent;
    // Down for at least two periods, and two seconds.
    s.health.holdMs = static_cast<int32_t>(std::clamp<int64_t>(2 * static_cast<int64_t>(s.periodMs), 2000, 600000));
    s.server = params.m_rttServer;
    return s;
}

std::string uidKey(int uid) {
    std::ostringstream out;
    out << uid;
    return out.str();
}

}  // namespace

NuvManager* NuvManager::instance() {
    pthread_mutex_lock(&s_instanceMutex);
    if (s_instance == nullptr) s_instance = new NuvManager();
    pthread_mutex_unlock(&s_instanceMutex);
    return s_instance;
}

// Its thread calls back into the manager: it ends before anything else goes.
NuvManager::~NuvManager() { m_linkMonitor->stop(); }

void NuvManager::resetForTesting() {
    delete s_instance;
    s_instance = nullptr;
}

NuvManager::NuvManager()
    : m_linkMonitor(std::make_unique<vekd::linkhealth::LinkMonitor>(
          [this] { onLinkHealthChange(); }, [this](const std::string& link) { return receivedAgoMs(link); })) {
    m_iptables = IptablesManager::instance();
    if (m_params == nullptr) m_params = Parameters::instance();
    __android_log_print(ANDROID_LOG_INFO, kTag,
                        "Enter NuvManagerInit -> this function needs to be called only once");
    // Re-initialised in place while instance() holds it; the unlock that
    // follows acts on the recursive mutex.
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&s_instanceMutex, &attr);
    pthread_mutex_init(&s_ruleMutex, nullptr);
}

void NuvManager::setInterfaceParamsNuv(int index, std::string params) {
    if (m_params == nullptr) return;
    m_params->setInterfaceSlot(index, std::move(params));
}

void NuvManager::configInterfaceRelatedParams() {
    configureLocked();
    // Outside the manager's locks: stopping the monitor waits for its thread.
    applyLinkMonitor();
}

void NuvManager::configureLocked() {
    std::shared_lock<std::shared_mutex> life(s_lifeMutex);
    if (m_cleanedUp) return;
    std::lock_guard<std::mutex> config(s_configMutex);

    if (m_params != nullptr) {
        m_params->updateInterfaceParams();
        RuleLock rules;
        for (int i = 0; i < static_cast<int32_t>(m_params->m_gamingUidVec.size()); ++i) {
            m_uidModes[m_params->m_gamingUidVec[i]] = NUV_MODE_GAMING;
        }
        for (int i = 0; i < static_cast<int32_t>(m_params->m_vekUidVec.size()); ++i) {
            m_uidModes[m_params->m_vekUidVec[i]] = NUV_MODE_VEK;
        }
        for (const auto& entry : m_uidModes) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, " The UID Vec entry for UID %s has mode %d",
                                entry.first.c_str(), static_cast<int>(entry.second));
        }
        m_iptables->setup_NUV_UID_iptables_chains(m_uidModes);
    }

    m_iptables->setup_NUV_iptables_FWMARK_chains();

    if (m_stats == nullptr) {
        VekStatsImpl* stats = VekStatsImpl::instance();
        stats->enableVEK(true);
        // The WLAN notification reads m_stats under the rule lock.
        RuleLock rules;
        m_stats = stats;
    }

    if (m_params != nullptr) {
        m_params->m_runState.store(kRunStateConfigured);
        // The main loop sleeps until something changes: this is a change.
        vekd::Seam<vekd::platform::ChangeWaiter>::get().wake();
        wantLinkMonitor();
    }
}

int NuvManager::adjustParameters() {
    // A change of link health, handed over by the monitor's thread: the
    // down links are taken in this turn, and the DNS moves off a dead link.
    const bool healthChanged = m_healthChanged.exchange(false);
    const int hasInternet = m_wlanHasInternet.load();
    bool dnsMoves = false;
    int result;
    {
        std::shared_lock<std::shared_mutex> life(s_lifeMutex);
        if (m_stats == nullptr || m_cleanedUp) return 0;
        if (healthChanged) m_stats->setDownLinks(m_linkMonitor->downLinks());
        result = m_stats->evalAndSetVEKInterfaceRatio();
        if (healthChanged && hasInternet >= 0 && m_params != nullptr) {
            RuleLock rules;
            const std::optional<InterfaceInfo_t> choice = chooseDnsInterface(hasInternet != 0);
            dnsMoves = choice && (m_dnsIface == nullptr || strcmp(choice->name, m_dnsIface->name) != 0);
        }
    }
    if (dnsMoves) notifyWlanHasInternet(hasInternet != 0);
    return result;
}

void NuvManager::waitForNextTurn(uint32_t micros) {
    if (!m_linkMonitor->running()) {
        vekd::Seam<vekd::platform::Clock>::get().sleepMicros(static_cast<useconds_t>(micros));
        return;
    }
    std::unique_lock<std::mutex> lock(m_turnMutex);
    m_turnWake.wait_for(lock, std::chrono::microseconds(micros), [this] { return m_healthChanged.load(); });
}

void NuvManager::cleanup() {
    {
        std::unique_lock<std::shared_mutex> life(s_lifeMutex);
        if (!m_cleanedUp) {
            if (m_stats != nullptr) m_stats->enableVEK(false);
            IptablesManager::clean_NUV_iptables();
            VekStatsImpl::finalize();
            m_stats = nullptr;
            m_iptables = nullptr;
            m_cleanedUp = true;
        }
        // After this no configuration wants the monitor again.
        std::lock_guard<std::mutex> lock(m_monitorMutex);
        m_monitorWanted = MonitorWanted();
    }
    applyLinkMonitor();
}

void NuvManager::changeUid(int uid, int mode,
                           const std::function<void(const std::string&, const NuvMode*)>& change) {
    const std::string key = uidKey(uid);
    std::shared_lock<std::shared_mutex> life(s_lifeMutex);
    if (m_cleanedUp) return;
    RuleLock rules;
    if (m_iptables == nullptr) m_iptables = IptablesManager::instance();
    auto it = m_uidModes.find(key);
    change(key, it == m_uidModes.end() ? nullptr : &it->second);
    m_uidModes[key] = static_cast<NuvMode>(mode);
}

void NuvManager::setRuleForUid(int uid, int mode) {
    changeUid(uid, mode, [&](const std::string& key, const NuvMode* recorded) {
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                recorded ? "found the element for %s " : "did not find the element for %s ",
                                key.c_str());
        }
        // An unknown UID is taken to have been in mode 1.
        m_iptables->update_NUV_iptables_for_UID(key, recorded ? *recorded : NUV_MODE_VEK,
                                                static_cast<NuvMode>(mode));
    });
}

void NuvManager::removeRuleForUid(int uid, int mode) {
    // The entry is kept, not erased: a later update finds the UID with this
    // mode as its old one.
    changeUid(uid, mode, [&](const std::string& key, const NuvMode* recorded) {
        if (recorded == nullptr) return;
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "found the element for %s ", key.c_str());
        }
        m_iptables->remove_NUV_iptables_for_UID(key, *recorded);
    });
}

void NuvManager::notifyWlanHasInternet(bool hasInternet) {
    m_wlanHasInternet.store(hasInternet ? 1 : 0);
    std::shared_lock<std::shared_mutex> life(s_lifeMutex);
    if (m_cleanedUp) return;

    char oldServer[sizeof(InterfaceInfo_t::dnsServer)];
    oldServer[0] = '\0';
    // Copies of the choice, for the rule update after the lock is released.
    char chosenName[sizeof(InterfaceInfo_t::name)];
    char newServer[sizeof(InterfaceInfo_t::dnsServer)];
    bool chosen = false;
    {
        RuleLock rules;
        if (m_dnsServer != nullptr) {
            strncpy(oldServer, m_dnsServer, sizeof(oldServer) - 1);
            oldServer[sizeof(oldServer) - 1] = '\0';
        }
        if (m_params != nullptr && m_stats != nullptr) {
            // A copy: the store may replace or free the record later.
            if (std::optional<InterfaceInfo_t> info = chooseDnsInterface(hasInternet)) {
                m_dnsChoice = *info;
                m_dnsIface = &m_dnsChoice;
                m_dnsServer = m_dnsChoice.dnsServer;
            }
        }
        if (m_dnsIface != nullptr) {
            chosen = true;
            memcpy(chosenName, m_dnsIface->name, sizeof(chosenName));
            memcpy(newServer, m_dnsServer, sizeof(newServer));
        }
    }

    // Until an interface has been chosen there is nothing to point DNS at.
    if (!chosen) return;
    m_iptables->update_NUV_iptables_for_DNS(chosenName, oldServer, newServer);
}

std::optional<InterfaceInfo_t> NuvManager::chooseDnsInterface(bool hasInternet) const {
    const std::set<std::string> down = m_linkMonitor->downLinks();
    const std::map<std::string, InterfaceInfo_t> configured = m_params->interfaces();
    const std::vector<vekd::report::LinkRow> measured = m_stats->snapshot(nullptr);
    // The walk for one preference; `skippedDown` tells that a link it would
    // have taken is down.
    auto walk = [&](bool wlan, bool* skippedDown) -> const InterfaceInfo_t* {
        const InterfaceInfo_t* choice = nullptr;
        for (const vekd::report::LinkRow& link : measured) {
            auto found = configured.find(link.name);
            if (found == configured.end()) continue;
            const InterfaceInfo_t* info = &found->second;
            // 0x5A marks the WLAN; of the other links 0x5B is preferred,
            // and the last 0x5C wins when there is no 0x5B.
            const bool isWlan = strcmp(info->fwmark, "0x5A") == 0;
            const bool isPreferredOther = strcmp(info->fwmark, "0x5B") == 0;
            const bool isOther = strcmp(info->fwmark, "0x5C") == 0;
            if (!(wlan ? isWlan : (isPreferredOther || isOther))) continue;
            if (down.count(info->name) != 0) {
                *skippedDown = true;
                continue;
            }
            choice = info;
            if (wlan || isPreferredOther) break;
        }
        return choice;
    };
    bool skippedDown = false;
    const InterfaceInfo_t* choice = walk(hasInternet, &skippedDown);
    // The preferred kind of link is down: a live link of the other kind.
    if (choice == nullptr && skippedDown) choice = walk(!hasInternet, &skippedDown);
    if (choice == nullptr) return std::nullopt;
    return *choice;
}

void NuvManager::wantLinkMonitor() {
    MonitorWanted wanted;
    wanted.settings = monitorSettings(*m_params);
    for (const auto& [name, info] : m_params->interfaces()) {
        wanted.links.push_back({name, static_cast<uint32_t>(strtoul(info.fwmark, nullptr, 0)), info.metered});
    }
    std::lock_guard<std::mutex> lock(m_monitorMutex);
    m_monitorWanted = std::move(wanted);
}

void NuvManager::applyLinkMonitor() {
    // Whoever applies last applies what was wanted last.
    std::lock_guard<std::mutex> apply(m_monitorApplyMutex);
    MonitorWanted wanted;
    {
        std::lock_guard<std::mutex> lock(m_monitorMutex);
        wanted = m_monitorWanted;
    }
    const bool was = m_linkMonitor->running();
    m_linkMonitor->start(wanted.settings, wanted.links);
    // Links configured as before keep their health; the next turn takes it.
    if (was || m_linkMonitor->running()) onLinkHealthChange();
}

void NuvManager::onLinkHealthChange() {
    {
        std::lock_guard<std::mutex> lock(m_turnMutex);
        m_healthChanged = true;
    }
    m_turnWake.notify_all();
}

int64_t NuvManager::receivedAgoMs(const std::string& link) {
    // Never waits: while cleanup holds the lifetime lock there is no answer.
    std::shared_lock<std::shared_mutex> life(s_lifeMutex, std::try_to_lock);
    if (!life.owns_lock() || m_cleanedUp || m_stats == nullptr) return -1;
    return m_stats->receivedAgoMs(link);
}

void NuvManager::copyDnsSelection(std::string* iface, std::string* server) const {
    iface->assign(m_dnsIface != nullptr ? m_dnsIface->name : "");
    server->assign(m_dnsServer != nullptr ? m_dnsServer : "");
}

void NuvManager::snapshot(vekd::report::Snapshot* out) {
    std::shared_lock<std::shared_mutex> life(s_lifeMutex);
    if (m_params != nullptr) out->runState = m_params->m_runState.load();
    out->cleanedUp = m_cleanedUp;
    if (m_params != nullptr) out->config = m_params->configValues();
    // Switched off: no rules, no statistics, nothing steered.
    if (m_cleanedUp) return;
    if (m_params != nullptr) {
        for (const auto& [name, info] : m_params->interfaces()) {
            out->interfaces.push_back({name, info.routeTable, info.fwmark, info.metered,
                                       info.isDefault, info.cost, info.bias, info.dnsServer});
        }
    }
    VekStatsImpl* stats;
    IptablesManager* rules;
    {
        // The engine and rule manager pointers are set under the rule lock too.
        RuleLock lock;
        stats = m_stats;
        rules = m_iptables;
        for (const auto& [uid, mode] : m_uidModes) out->uids.push_back({uid, static_cast<int32_t>(mode)});
        copyDnsSelection(&out->dnsInterface, &out->dnsServer);
    }
    if (stats != nullptr) out->links = stats->snapshot(rules);
    // The monitor's lock is a leaf: taken last, with nothing of its own held.
    out->monitorOn = m_linkMonitor->running();
    if (!out->monitorOn) return;
    const std::map<std::string, vekd::linkhealth::LinkHealth> health = m_linkMonitor->snapshot();
    for (vekd::report::LinkRow& link : out->links) {
        auto it = health.find(link.name);
        // A link the monitor does not watch shows as unknown, not as down.
        if (it != health.end()) link.health = it->second;
    }
}

std::map<std::string, NuvMode> NuvManager::uidModes() {
    RuleLock rules;
    return m_uidModes;
}
