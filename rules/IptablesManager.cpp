#include "rules/IptablesManager.h"

#include <android/log.h>

#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "config/Parameters.h"
#include "foundation/CommandRunner.h"
#include "foundation/Counters.h"
#include "foundation/DebugFlag.h"
#include "rules/RuleCommand.h"
#include "sockdiag/SockDiag.h"

namespace {

// The rule lock: serialises the per-UID and DNS operations.
pthread_mutex_t gRuleMutex = PTHREAD_MUTEX_INITIALIZER;

constexpr const char* kTag = "NUVIptables";
constexpr size_t kCommandSize = 512;
constexpr size_t kChainNameSize = 128;

// UDP that must keep its source address: IKE/IPsec NAT traversal, SIP and
// the carrier's media port ranges.
#define UDP_NOT_MASQUERADED \
    "-p udp -m udp -m multiport ! --ports 32000:36999,40100:40150,50010:50060,4500,5060,500"

// No lock: the first call happens on the main thread before the binder
// threads start (the link manager's constructor).
std::atomic<IptablesManager*> gInstance{nullptr};
// Set while resetForTesting() drops the singleton without running commands.
bool gQuietTeardown = false;

RuleCommand filter(std::string args) { return RuleCommand::filter(std::move(args)); }
RuleCommand routing(std::string args) { return RuleCommand::routing(std::move(args)); }

// Runs the IPv4 command of a description. A line longer than the daemon's
// 512-byte command buffer is not run (a cut rule could mean something else)
// and counts as a command that could not be started.
int run(const RuleCommand& rule) {
    const std::string command = rule.text(IpFamily::V4);
    if (command.size() >= kCommandSize) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "command of %d bytes does not fit in %zu, not run: %.100s",
                            static_cast<int>(command.size()), kCommandSize, command.c_str());
        return -1;
    }
    return execnetd(command.c_str());
}

// Fixed-size name fields need not hold a terminator; never read past them.
template <size_t N>
std::string fieldText(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

// "kwop_fw_" + the interface name, cut to 127 characters.
template <size_t N>
void markChainName(char (&chain)[kChainNameSize], const char (&iface)[N]) {
    snprintf(chain, kChainNameSize, "kwop_fw_%s", fieldText(iface).c_str());
}

}  // namespace

IptablesManager* IptablesManager::instance() {
    IptablesManager* existing = gInstance.load(std::memory_order_acquire);
    if (existing != nullptr) return existing;
    auto* manager = new IptablesManager();
    gInstance.store(manager, std::memory_order_release);
    return manager;
}

void IptablesManager::clean_NUV_iptables() { delete gInstance.exchange(nullptr); }

void IptablesManager::resetForTesting() {
    // Unlocked before the destructor destroys it, usable again afterwards.
    const pthread_mutex_t unlocked = PTHREAD_MUTEX_INITIALIZER;
    gRuleMutex = unlocked;
    gQuietTeardown = true;
    delete gInstance.exchange(nullptr);
    gQuietTeardown = false;
    gRuleMutex = unlocked;
}

bool IptablesManager::ruleLockHeldForTesting() {
    if (pthread_mutex_trylock(&gRuleMutex) != 0) return true;
    pthread_mutex_unlock(&gRuleMutex);
    return false;
}

std::map<std::string, float> IptablesManager::installedShares() const {
    std::lock_guard<std::mutex> lock(m_sharesMutex);
    return m_installedShares;
}

IptablesManager::IptablesManager() : m_params(Parameters::instance()) {
    pthread_mutex_init(&gRuleMutex, nullptr);

    // Every chain is created and then flushed so that one left by an earlier
    // run starts empty; every hook is deleted before it is appended so that
    // it exists exactly once. Results are ignored: "-N" of an existing chain
    // and "-D" of a missing rule fail harmlessly.
    run(filter("-t mangle -N kwop_NUV"));
    run(filter("-t mangle -F kwop_NUV"));
    run(filter("-t mangle -N kwop_NUV2"));
    run(filter("-t mangle -F kwop_NUV2"));
    run(filter("-t mangle -N kwop_DNS"));
    run(filter("-t mangle -F kwop_DNS"));
    run(filter("-t mangle -N kwop_VEK"));
    run(filter("-t mangle -F kwop_VEK"));
    run(filter("-t mangle -A kwop_NUV2 -j kwop_DNS"));
    run(filter("-t mangle -A kwop_NUV2 -j kwop_VEK"));
    run(filter("-t nat -N kwop_NUV_nat"));
    run(filter("-t nat -F kwop_NUV_nat"));
    run(filter("-t nat -N kwop_DNS_nat"));
    run(filter("-t nat -F kwop_DNS_nat"));
    // Established connections keep the interface they started on.
    run(filter("-t mangle -I kwop_NUV2 1 -m state --state ESTABLISHED,RELATED -j CONNMARK --restore-mark"));
    // Position 2 of an empty chain: usually refused, and the first per-UID
    // setup flushes kwop_NUV anyway.
    run(filter("-t mangle -I kwop_NUV 2 -j kwop_VEK"));
    run(filter("-t mangle -D OUTPUT -j kwop_NUV"));
    run(filter("-t mangle -A OUTPUT -j kwop_NUV"));
    run(filter("-t nat -D OUTPUT -j kwop_NUV_nat"));
    run(filter("-t nat -A OUTPUT -j kwop_NUV_nat"));
    run(filter("-t nat -F kwop_nat_POSTROUTING_NUV"));
    run(filter("-t nat -N kwop_nat_POSTROUTING_NUV"));
    run(filter("-t nat -D POSTROUTING " UDP_NOT_MASQUERADED " -j kwop_nat_POSTROUTING_NUV"));
    run(filter("-t nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"));
    run(filter("-t nat -A POSTROUTING " UDP_NOT_MASQUERADED " -j kwop_nat_POSTROUTING_NUV"));
    run(filter("-t nat -A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"));
}

IptablesManager::~IptablesManager() {
    if (!gQuietTeardown) {
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s IptablesManager Distructor called ",
                                "~IptablesManager");
        }
        // The nat side of the per-UID path (kwop_NUV_nat, kwop_DNS_nat and
        // their OUTPUT hook) stays; the next constructor flushes it.
        run(filter("-t mangle -D OUTPUT -j kwop_NUV"));
        run(filter("-t nat -D POSTROUTING " UDP_NOT_MASQUERADED " -j kwop_nat_POSTROUTING_NUV"));
        run(filter("-t nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"));
        run(filter("-t nat -F kwop_nat_POSTROUTING_NUV"));
        run(filter("-t nat -X kwop_nat_POSTROUTING_NUV"));
        run(filter("-t mangle -F kwop_NUV"));
        run(filter("-t mangle -X kwop_NUV"));
        run(filter("-t mangle -F kwop_NUV2"));
        run(filter("-t mangle -X kwop_NUV2"));
        run(filter("-t mangle -F kwop_DNS"));
        run(filter("-t mangle -X kwop_DNS"));
        run(filter("-t mangle -F kwop_VEK"));
        run(filter("-t mangle -X kwop_VEK"));
        cleanup_NUV_iptables_FWMARK_chains();
    }
    pthread_mutex_destroy(&gRuleMutex);
}

// --- Mark chains ---

namespace {

// The texts of one walk over the interface map.
struct InterfaceWalk {
    const char* operation;
    const char* recordFailed;  // "%s ... %s": operation, interface
    const char* summary;       // "%s ...": operation
};

// Runs `step` for every record in name order, whatever fails on the way;
// one line per failed record, one summary line, -1 if anything failed.
int forEachInterface(IptablesManager* manager, int (IptablesManager::*step)(InterfaceInfo_t*),
                     const InterfaceWalk& texts) {
    std::map<std::string, InterfaceInfo_t*>& interfaces = Parameters::instance()->m_interfaceMap;
    if (interfaces.empty()) return 0;
    int failures = 0;
    for (auto& entry : interfaces) {
        InterfaceInfo_t* info = entry.second;
        if ((manager->*step)(info) != 0) {
            ++failures;
            if (info != nullptr) {
                __android_log_print(ANDROID_LOG_ERROR, kTag, texts.recordFailed, texts.operation,
                                    fieldText(info->name).c_str());
            }
        }
    }
    if (failures != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, texts.summary, texts.operation);
        return -1;
    }
    return 0;
}

}  // namespace

int IptablesManager::setup_NUV_iptables_FWMARK_chains() {
    return forEachInterface(this, &IptablesManager::create_NUV_FWMARK_chain_for_iface,
                            {"setup_NUV_iptables_FWMARK_chains", "%s Creating FWMARK for interface %s failed",
                             "%s Failure when creating FWMARK tables for all interfaces "});
}

int IptablesManager::cleanup_NUV_iptables_FWMARK_chains() {
    return forEachInterface(this, &IptablesManager::remove_NUV_FWMARK_chain_for_iface,
                            {"cleanup_NUV_iptables_FWMARK_chains", "%s Cleanup FWMARK for interface %s failed",
                             "%s Failure when cleaning FWMARK tables for all interfaces "});
}

int IptablesManager::create_NUV_FWMARK_chain_for_iface(InterfaceInfo_t* info) {
    if (info == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s, Creating FWMARK Chain for a NULL iface",
                            "create_NUV_FWMARK_chain_for_iface");
        return -1;
    }
    char chain[kChainNameSize];
    markChainName(chain, info->name);
    const std::string name = fieldText(info->name);
    const std::string fwmark = fieldText(info->fwmark);
    const std::string table = fieldText(info->routeTable);

    // Creation fails harmlessly when the chain is left from an earlier run.
    run(filter(formatArgs("-t mangle -N %s", chain)));
    int sum = run(filter(formatArgs("-t mangle -F %s", chain)));
    sum += run(filter(formatArgs("-t mangle -A %s -j MARK --set-mark %s", chain, fwmark.c_str())));
    sum += run(filter(formatArgs("-t mangle -A %s -j CONNMARK --save-mark", chain)));
    sum += run(filter(formatArgs("-t mangle -A %s -j ACCEPT", chain)));
    sum += run(routing(formatArgs("rule add fwmark %s table %s prio 25000", fwmark.c_str(), table.c_str())));
    sum += run(filter(formatArgs("-t nat -I kwop_nat_POSTROUTING_NUV -o %s -j MASQUERADE", name.c_str())));
    if (sum != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Failue when creating FWMARK tables for interface %s ",
                            "create_NUV_FWMARK_chain_for_iface", name.c_str());
        return -1;
    }
    return 0;
}

int IptablesManager::remove_NUV_FWMARK_chain_for_iface(InterfaceInfo_t* info) {
    if (info == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s, Remove FWMARK Chain for a NULL iface",
                            "remove_NUV_FWMARK_chain_for_iface");
        return -1;
    }
    char chain[kChainNameSize];
    markChainName(chain, info->name);
    const std::string fwmark = fieldText(info->fwmark);

    int sum = run(filter(formatArgs("-t mangle -F %s", chain)));
    sum += run(filter(formatArgs("-t mangle -X %s", chain)));
    sum += run(routing(formatArgs("rule del fwmark %s prio 25000", fwmark.c_str())));
    // The postrouting chain is shared: removal always covers every interface.
    sum += run(filter("-t nat -F kwop_nat_POSTROUTING_NUV"));
    sum += run(filter("-t nat -X kwop_nat_POSTROUTING_NUV"));
    if (sum != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Failure when creating FWMARK tables for interface %s ",
                            "remove_NUV_FWMARK_chain_for_iface", fieldText(info->name).c_str());
        return -1;
    }
    return 0;
}

// --- Ratio rules ---

int IptablesManager::set_VEK_ratio_iptables(const std::vector<LinkShare>& shares) {
    vekd::counters::countRuleRewrite();
    std::map<std::string, float> installed;
    int result = run(filter("-t mangle -F kwop_VEK"));

    // Each rule takes its share of what the rules before it left over, so the
    // cascade splits new connections by the ratios. Unmetered links first.
    float ratioSum = 0.0f;
    for (const bool meteredPass : {false, true}) {
        for (const LinkShare& link : shares) {
            if (!link.configured) {
                if (!meteredPass) {
                    __android_log_print(ANDROID_LOG_ERROR, kTag,
                                        "%s interface %s is not configured, no rule for it",
                                        "set_VEK_ratio_iptables", link.name.c_str());
                }
                continue;
            }
            if (link.metered != meteredPass) continue;
            char chain[kChainNameSize];
            snprintf(chain, sizeof(chain), "kwop_fw_%s", link.name.c_str());

            if (gDebugLogEnabled) {
                __android_log_print(ANDROID_LOG_ERROR, kTag,
                                    "handle->interfaceRatio: %f handle->interfaceName: %s",
                                    static_cast<double>(link.share), link.name.c_str());
            }
            const double remaining = 1.0 - static_cast<double>(ratioSum);
            float probability = 0.0f;
            if (remaining > 0) {
                probability = static_cast<float>(static_cast<double>(link.share) / remaining);
            }
            if (gDebugLogEnabled) {
                __android_log_print(ANDROID_LOG_ERROR, kTag, "Updated Ratio: %f",
                                    static_cast<double>(probability));
            }
            ratioSum += link.share;
            installed[link.name] = link.share;
            result += run(filter(formatArgs("-t mangle -A kwop_VEK --match multiport -p tcp --dports 80,443 "
                                            "-m state --state NEW -m statistic --mode random --probability %f -j %s",
                                            static_cast<double>(probability), chain)));
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_sharesMutex);
        m_installedShares = std::move(installed);
    }

    if (result != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s Failure when setting VEK Ratios ",
                            "set_VEK_ratio_iptables");
        return -1;
    }
    return 0;
}

// --- Per-UID and DNS rules ---

void IptablesManager::setup_NUV_UID_iptables_chains(std::map<std::string, NuvMode> uidModes) {
    // Only the mangle side is emptied: calling this again appends a second
    // copy of every nat rule, which the per-UID updates then shrink.
    run(filter("-t mangle -F kwop_NUV "));
    for (const auto& entry : uidModes) {
        const char* uid = entry.first.c_str();
        // UID texts from the configuration file reach the command line as
        // they are; a second word would become an iptables argument.
        if (!isOneWord(uid)) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s UID \"%s\" is not one word, no rule for it",
                                "setup_NUV_UID_iptables_chains", uid);
            continue;
        }
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "The UID Vec entry for UID %s has mode %d", uid,
                                static_cast<int>(entry.second));
        }
        run(filter(formatArgs("-t mangle -A kwop_NUV -m owner --uid-owner %s -j kwop_NUV2", uid)));
        run(filter(formatArgs("-t nat -A kwop_NUV_nat -m owner --uid-owner %s -j kwop_DNS_nat", uid)));
    }
}

void IptablesManager::update_NUV_iptables_for_UID(std::string uid, NuvMode oldMode, NuvMode newMode) {
    pthread_mutex_lock(&gRuleMutex);
    // Delete then append: exactly one copy, whether or not one existed.
    run(filter(formatArgs("-t mangle -D kwop_NUV -m owner --uid-owner %s -j kwop_NUV2", uid.c_str())));
    run(filter(formatArgs("-t mangle -A kwop_NUV -m owner --uid-owner %s -j kwop_NUV2", uid.c_str())));
    run(filter(formatArgs("-t nat -D kwop_NUV_nat -m owner --uid-owner %s -j kwop_DNS_nat", uid.c_str())));
    run(filter(formatArgs("-t nat -A kwop_NUV_nat -m owner --uid-owner %s -j kwop_DNS_nat", uid.c_str())));
    __android_log_print(ANDROID_LOG_INFO, kTag, "old_mode=%d, new_mode=%d", static_cast<int>(oldMode),
                        static_cast<int>(newMode));
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "NUV destroying sockets = %s", uid.c_str());
    }
    // Open connections would keep their old path; the app reconnects under
    // the new rules.
    killSocketsForUID(uid.c_str());
    pthread_mutex_unlock(&gRuleMutex);
}

void IptablesManager::remove_NUV_iptables_for_UID(std::string uid, NuvMode oldMode) {
    pthread_mutex_lock(&gRuleMutex);
    run(filter(formatArgs("-t mangle -D kwop_NUV -m owner --uid-owner %s -j kwop_NUV2", uid.c_str())));
    run(filter(formatArgs("-t nat -D kwop_NUV_nat -m owner --uid-owner %s -j kwop_DNS_nat", uid.c_str())));
    __android_log_print(ANDROID_LOG_INFO, kTag, "old_mode=%d", static_cast<int>(oldMode));
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "NUV destroying sockets = %s", uid.c_str());
    }
    killSocketsForUID(uid.c_str());
    pthread_mutex_unlock(&gRuleMutex);
}

int IptablesManager::update_NUV_iptables_for_DNS(char* iface, char* oldDns, char* newDns) {
    pthread_mutex_lock(&gRuleMutex);
    // Kept as the daemon has always behaved: the lock stays held. The link
    // manager never passes a null interface.
    if (iface == nullptr) return -1;
    const char* oldServer = oldDns != nullptr ? oldDns : "";
    const char* newServer = newDns != nullptr ? newDns : "";

    run(filter("-t mangle -F kwop_DNS"));
    run(filter(formatArgs("-t mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_%s", iface)));
    if (strcmp(oldServer, newServer) != 0) {
        run(filter("-t nat -F kwop_DNS_nat"));
        run(filter(formatArgs("-t nat -A kwop_DNS_nat -p udp --dport 53 -d %s -j DNAT --to-destination %s",
                   oldServer, newServer)));
    }
    pthread_mutex_unlock(&gRuleMutex);
    __android_log_print(ANDROID_LOG_DEBUG, kTag, "Update DNS route to %s (%s)", iface, newServer);
    return 0;
}
