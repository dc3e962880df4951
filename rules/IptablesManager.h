// Owns every packet-filter chain and policy-routing rule the daemon installs.
// Every change is one command line run through execnetd.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "config/InterfaceInfo.h"
#include "config/NuvMode.h"
#include "rules/LinkShare.h"

class Parameters;

// Locks, both owned here and taken by nothing else (their place in the lock
// order: manager/NuvManager.h):
// - the rule lock (in IptablesManager.cpp) serialises the per-UID and DNS
//   operations;
// - m_sharesMutex guards the shares the last ratio rewrite installed; held
//   for a copy or an update only.
class IptablesManager {
  public:
    static IptablesManager* instance();
    // Destroys the singleton (tearing the skeleton down) if it exists; the
    // next instance() builds a new one.
    static void clean_NUV_iptables();
    // Tests only: forgets the singleton without running any command and
    // leaves the rule lock unlocked, even after a DNS update that kept it.
    static void resetForTesting();
    // Tests only: whether some thread holds the rule lock.
    static bool ruleLockHeldForTesting();

    // Mark chains, policy-routing and masquerade rules per interface.
    int setup_NUV_iptables_FWMARK_chains();
    int cleanup_NUV_iptables_FWMARK_chains();
    int create_NUV_FWMARK_chain_for_iface(InterfaceInfo_t* info);
    int remove_NUV_FWMARK_chain_for_iface(InterfaceInfo_t* info);

    // The probability cascade in "kwop_VEK", one rule per configured link
    // in the given (name) order, unmetered links first.
    int set_VEK_ratio_iptables(const std::vector<LinkShare>& shares);
    // The share of each interface as the last rewrite wrote it.
    std::map<std::string, float> installedShares() const;

    // Per-UID and DNS rules.
    void setup_NUV_UID_iptables_chains(std::map<std::string, NuvMode> uidModes);
    void update_NUV_iptables_for_UID(std::string uid, NuvMode oldMode, NuvMode newMode);
    void remove_NUV_iptables_for_UID(std::string uid, NuvMode oldMode);
    int update_NUV_iptables_for_DNS(char* iface, char* oldDns, char* newDns);

  private:
    IptablesManager();
    ~IptablesManager();
    IptablesManager(const IptablesManager&) = delete;
    IptablesManager& operator=(const IptablesManager&) = delete;

    Parameters* m_params;
    mutable std::mutex m_sharesMutex;
    std::map<std::string, float> m_installedShares;  // guarded by m_sharesMutex
};
