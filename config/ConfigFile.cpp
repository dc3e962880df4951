// The configuration file "/data/vendor/vek/vekd.conf": key=value lines,
// read once at start.
#include <android/log.h>
#include <cutils/properties.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "platform/Root.h"

namespace {

constexpr const char* kTag = "VekParameters";

enum class KeyType { Integer, Text, RttServer };

struct KeyEntry {
    const char* key;
    KeyType type;
    int32_t Parameters::*integer;  // KeyType::Integer with a named member
    int operSlot;                  // KeyType::Integer into the numeric block, else -1
    std::string Parameters::*text;
    int ifaceSlot;  // an m_ifaceParams slot, else -1
};

constexpr KeyEntry slotKey(const char* key, int slot) {
    return {key, KeyType::Integer, nullptr, slot, nullptr, -1};
}
constexpr KeyEntry intKey(const char* key, int32_t Parameters::*member) {
    return {key, KeyType::Integer, member, -1, nullptr, -1};
}
constexpr KeyEntry textKey(const char* key, std::string Parameters::*member) {
    return {key, KeyType::Text, nullptr, -1, member, -1};
}
constexpr KeyEntry ifaceKey(const char* key, int slot) {
    return {key, KeyType::Text, nullptr, -1, nullptr, slot};
}

// The order is the order of comparison.
constexpr KeyEntry kKeys[] = {
    slotKey("VEKEnabled", OPER_VEK_ENABLED),
    slotKey("wifi_threshold", OPER_WIFI_THRESHOLD),
    slotKey("wan_threshold", OPER_WAN_THRESHOLD),
    slotKey("mini_est_interval", OPER_MINI_EST_INTERVAL),
    slotKey("mini_stale_interval", OPER_MINI_STALE_INTERVAL),
    slotKey("ideal_est_window", OPER_IDEAL_EST_WINDOW),
    slotKey("mini_rate_window", OPER_MINI_RATE_WINDOW),
    slotKey("CellularSockAssignRate", OPER_CELLULAR_SOCK_ASSIGN_RATE),
    slotKey("SockActiveTime", OPER_SOCK_ACTIVE_TIME),
    slotKey("SockStaleTime", OPER_SOCK_STALE_TIME),
    slotKey("update_pm_freq", OPER_UPDATE_PM_FREQ),
    textKey("protocols", &Parameters::m_protocols),
    textKey("ports", &Parameters::m_ports),
    intKey("estimate_pack_num", &Parameters::m_estimatePackNum),
    intKey("min_ratio_change", &Parameters::m_minRatioChange),
    intKey("best_est_cache_size", &Parameters::m_bestEstCacheSize),
    intKey("init_wwan_percentage", &Parameters::m_initWwanPercentage),
    textKey("gaming_whitelist", &Parameters::m_gamingWhitelist),
    {"rtt_server", KeyType::RttServer, nullptr, -1, &Parameters::m_rttServer, -1},
    intKey("ping_period_ms", &Parameters::m_pingPeriodMs),
    intKey("rtt_noresponse_timeout_ms", &Parameters::m_rttNoresponseTimeoutMs),
    intKey("rtt_hist", &Parameters::m_rttHist),
    intKey("rtt_w2c_th_wifi_ms", &Parameters::m_rttW2cThWifiMs),
    intKey("rtt_w2c_th_c_ms", &Parameters::m_rttW2cThCMs),
    intKey("rtt_delta_ms", &Parameters::m_rttDeltaMs),
    intKey("rtt_c2w_th_wifi_ms", &Parameters::m_rttC2wThWifiMs),
    intKey("rtt_c2w_th_wifi_min_ms", &Parameters::m_rttC2wThWifiMinMs),
    intKey("rtt_c2w_th_c_ms", &Parameters::m_rttC2wThCMs),
    intKey("t_hyst_s", &Parameters::m_tHystS),
    intKey("min_ping_times", &Parameters::m_minPingTimes),
    intKey("ping_interval_ms", &Parameters::m_pingIntervalMs),
    intKey("alpha_percent", &Parameters::m_alphaPercent),
    intKey("n_hyst", &Parameters::m_nHyst),
    intKey("rtt_min_cap_ms", &Parameters::m_rttMinCapMs),
    intKey("gaming_poll_freq_cnt", &Parameters::m_gamingPollFreqCnt),
    textKey("gaming_uid_list", &Parameters::m_gamingUidList),
    ifaceKey("interface_0", 0),
    ifaceKey("interface_1", 1),
    ifaceKey("interface_2", 2),
    ifaceKey("interface_3", 3),
    intKey("num_interfaces", &Parameters::m_numInterfaces),
    intKey("rtt_entry_threshold", &Parameters::m_rttEntryThreshold),
    intKey("rtt_exit_threshold", &Parameters::m_rttExitThreshold),
    textKey("vek_uid_list", &Parameters::m_vekUidList),
    intKey("vek_max_usage_on_interface", &Parameters::m_vekMaxUsageOnInterface),
    intKey("threshold_to_start_reset", &Parameters::m_thresholdToStartReset),
    intKey("max_size_to_calculate_lre", &Parameters::m_maxSizeToCalculateLre),
    intKey("route_dns_queries", &Parameters::m_routeDnsQueries),
    intKey("use_dns_for_rtt_calc", &Parameters::m_useDnsForRttCalc),
};

// Operators in mainland China cannot reach the default probe target.
std::string rttServerForCountry(const char* given) {
    char country[128];
    memset(country, 0, sizeof(country));
    property_get("vendor.bemo.operator.iso-country", country, "TW");
    return strstr(country, "CN") != nullptr ? kChinaRttResolver : given;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> Parameters::configValues() const {
    std::lock_guard<std::mutex> slots(m_interfaceMutex);
    std::vector<std::pair<std::string, std::string>> values;
    for (const KeyEntry& entry : kKeys) {
        // The main loop rewrites it from the property every turn.
        if (entry.operSlot == OPER_VEK_ENABLED) continue;
        std::string text;
        if (entry.operSlot >= 0) {
            text = std::to_string(m_operParams[entry.operSlot]);
        } else if (entry.integer != nullptr) {
            text = std::to_string(this->*entry.integer);
        } else if (entry.ifaceSlot >= 0) {
            text = m_ifaceParams[entry.ifaceSlot];
        } else {
            text = this->*entry.text;
        }
        values.emplace_back(entry.key, std::move(text));
    }
    return values;
}

void Parameters::readVekdConfFile(const char* path) {
    std::ifstream in(vekd::platform::rootedPath(path));
    if (!in.is_open()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "read vekd conf file failed!");
        return;
    }
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) {
        trim(line);
        if (line.empty() || line[0] == '#') continue;
        lines.push_back(line);
    }
    in.close();
    fromVector(lines);
}

std::string& Parameters::trim(std::string& s) {
    // The character just before a comment goes with it: "a=5 #c" gives "a=5"
    // and "a=5#c" gives "a=".
    const size_t hash = s.find('#');
    if (hash != std::string::npos && hash >= 1) s.resize(hash - 1);
    const size_t first = s.find_first_not_of(" \t");
    s.erase(0, first == std::string::npos ? s.size() : first);
    const size_t last = s.find_last_not_of(" \t");
    s.resize(last == std::string::npos ? 0 : last + 1);
    return s;
}

void Parameters::fromVector(std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        if (line.empty()) continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        trim(key);
        trim(value);
        setValue(key.c_str(), value.c_str());
    }
}

bool Parameters::setValue(const char* key, const char* value) {
    bool known = false;
    if (key != nullptr && value != nullptr) {
        for (const KeyEntry& entry : kKeys) {
            if (strcmp(key, entry.key) != 0) continue;
            known = true;
            if (entry.operSlot >= 0) {
                m_operParams[entry.operSlot] = atoi(value);
            } else if (entry.integer != nullptr) {
                this->*entry.integer = atoi(value);
            } else if (entry.ifaceSlot >= 0) {
                m_ifaceParams[entry.ifaceSlot] = value;
            } else if (entry.type == KeyType::RttServer) {
                this->*entry.text = rttServerForCountry(value);
            } else {
                this->*entry.text = value;
            }
            break;
        }
    }
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:%s,%s,%d", "setValue", key ? key : "",
                            value ? value : "", known ? 1 : 0);
    }
    return known;
}
