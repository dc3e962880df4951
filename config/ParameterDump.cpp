// The parameter dump and the two statistics command texts.
#include <android/log.h>

#include <cstdio>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"

namespace {
constexpr const char* kTag = "VekParameters";

// Null when the command does not fit: a list cut short would have the module
// measure something else than configured.
char* formatCommand(char* buf, size_t size, const char* key, const std::string& value) {
    if (buf == nullptr || size == 0) return nullptr;
    const int length = snprintf(buf, size, "%s=%s", key, value.c_str());
    return length >= 0 && static_cast<size_t>(length) < size ? buf : nullptr;
}
}  // namespace

void Parameters::printGamingParams() {
    struct Line {
        const char* name;
        const std::string* text;
        const int32_t* number;
    };
    const Line lines[] = {
        {"gaming_whitelist", &m_gamingWhitelist, nullptr},
        {"rtt_server", &m_rttServer, nullptr},
        {"ping_period_ms", nullptr, &m_pingPeriodMs},
        {"rtt_noresponse_timeout_ms", nullptr, &m_rttNoresponseTimeoutMs},
        {"rtt_hist", nullptr, &m_rttHist},
        {"rtt_w2c_th_wifi_ms", nullptr, &m_rttW2cThWifiMs},
        {"rtt_w2c_th_c_ms", nullptr, &m_rttW2cThCMs},
        {"rtt_delta_ms", nullptr, &m_rttDeltaMs},
        {"rtt_c2w_th_wifi_ms", nullptr, &m_rttC2wThWifiMs},
        {"rtt_c2w_th_wifi_min_ms", nullptr, &m_rttC2wThWifiMinMs},
        {"rtt_c2w_th_c_ms", nullptr, &m_rttC2wThCMs},
        {"t_hyst_s", nullptr, &m_tHystS},
        {"min_ping_times", nullptr, &m_minPingTimes},
        {"ping_interval_ms", nullptr, &m_pingIntervalMs},
        {"alpha_percent", nullptr, &m_alphaPercent},
        {"n_hyst", nullptr, &m_nHyst},
        {"rtt_min_cap_ms", nullptr, &m_rttMinCapMs},
        {"gaming_poll_freq_cnt", nullptr, &m_gamingPollFreqCnt},
        {"gaming_uid_list", &m_gamingUidList, nullptr},
        {"interface_0", &m_ifaceParams[0], nullptr},
        {"interface_1", &m_ifaceParams[1], nullptr},
        {"interface_2", &m_ifaceParams[2], nullptr},
        {"interface_3", &m_ifaceParams[3], nullptr},
        {"num_interfaces", nullptr, &m_numInterfaces},
        {"rtt_entry_threshold", nullptr, &m_rttEntryThreshold},
        {"rtt_exit_threshold", nullptr, &m_rttExitThreshold},
        {"vek_uid_list", &m_vekUidList, nullptr},
    };
    for (const Line& line : lines) {
        if (!gDebugLogEnabled) return;
        if (line.text != nullptr) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s=%s", line.name, line.text->c_str());
        } else {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s=%d", line.name, *line.number);
        }
    }
}

char* Parameters::getStatsProtocols(char* buf, size_t size) {
    return formatCommand(buf, size, "protocols", m_protocols);
}

char* Parameters::getStatsPorts(char* buf, size_t size) {
    return formatCommand(buf, size, "ports", m_ports);
}
