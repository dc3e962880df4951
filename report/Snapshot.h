// A copy of the daemon's state taken for the operator's report: filled under
// the locks of the components it comes from, formatted after they are let go.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linkhealth/LinkHealth.h"

namespace vekd::report {

// One configured interface.
struct InterfaceRow {
    std::string name;
    std::string routeTable;
    std::string fwmark;
    bool metered = false;
    bool isDefault = false;
    int32_t cost = 0;
    int32_t bias = 0;
    std::string dnsServer;
};

// One link of the statistics engine.
struct LinkRow {
    std::string name;
    bool measured = false;        // its statistics file is mapped
    uint32_t estimate = 0;        // kbit/s, this turn's after gating
    uint32_t historyMax = 0;      // kbit/s
    uint32_t historyLength = 0;   // estimates kept
    uint32_t samples = 0;         // counted by this turn's estimate
    float computedShare = 0.0f;
    std::optional<float> installedShare;  // none: no rule written for it yet
    std::optional<linkhealth::LinkHealth> health;  // none: no link monitor, or not watched
};

struct UidRow {
    std::string uid;
    int32_t mode = 0;
};

struct Snapshot {
    int32_t runState = 0;
    bool cleanedUp = false;  // switched off: rules and statistics are gone
    std::vector<InterfaceRow> interfaces;
    std::vector<LinkRow> links;
    bool monitorOn = false;  // a link monitor runs: the links have a health column
    std::vector<UidRow> uids;
    std::string dnsInterface;  // empty: none chosen yet
    std::string dnsServer;
    std::vector<std::pair<std::string, std::string>> config;  // key, value in force
};

}  // namespace vekd::report
