// Owns every packet-filter chain and policy-routing rule the daemon installs.
// Every change is one command line run through execnetd.
#pragma once

#include <pthread.h>

#include <map>
#include <string>

#include "config/InterfaceInfo.h"
#include "config/NuvMode.h"
#include "stats/LinkStatsWrapper.h"

class Parameters;

// Serialises the per-UID and DNS rule operations.
extern pthread_mutex_t gIptablesMutex;

class IptablesManager {
  public:
    static IptablesManager* instance();
    // Destroys the singleton (tearing the skeleton down) if it exists; the
    // next instance() builds a new one.
    static void clean_NUV_iptables();
    // Tests only: forgets the singleton without running any command and
    // leaves the rule lock unlocked, even after a DNS update that kept it.
    static void resetForTesting();

    // Mark chains, policy-routing and masquerade rules per interface.
    int setup_NUV_iptables_FWMARK_chains();
    int cleanup_NUV_iptables_FWMARK_chains();
    int create_NUV_FWMARK_chain_for_iface(InterfaceInfo_t* info);
    int remove_NUV_FWMARK_chain_for_iface(InterfaceInfo_t* info);

    // The probability cascade in "kwop_VEK".
    int set_VEK_ratio_iptables(std::map<std::string, linkStatsWrapper_t*>& stats);
    // The share of each interface as the last rewrite wrote it. Read and
    // written under the statistics engine's lock, which every rewrite's
    // caller holds.
    const std::map<std::string, float>& installedShares() const { return m_installedShares; }

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
    std::map<std::string, float> m_installedShares;
};
