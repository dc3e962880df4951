// The process-wide store of every tunable: numeric parameters, texts, UID
// lists, the four interface parameter strings, the configured-interface map
// and the run-state word.
//
// Created on first use from the main thread before any other thread runs, and
// never destroyed (tests use resetForTesting). Its one lock, m_interfaceMutex,
// guards the interface slots and the configured-interface map: the slots are
// written from binder threads, the map is rebuilt from them while the main
// loop's turn and the report read it. Nothing else is taken under it (the
// lock order: manager/NuvManager.h).
// Other readers of the map (the rule manager's walks) run on the link
// manager's configuration path, which never overlaps a rebuild.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "config/InterfaceInfo.h"
#include "config/OperId.h"

// The default target of the round-trip probes, and the public resolver that
// replaces it for operators in mainland China.
inline constexpr const char* kDefaultRttServer = "connectivitycheck.android.com";
inline constexpr const char* kChinaRttResolver = "114.114.114.114";

inline constexpr const char* kVekdConfPath = "/data/vendor/vek/vekd.conf";
inline constexpr int kMaxInterfaceSlots = 4;

// Values of the run-state word.
inline constexpr int32_t kRunStateReady = 1;
inline constexpr int32_t kRunStateConfigured = 2;

class Parameters {
  public:
    static Parameters* instance();
    // Destroys the store so that the next instance() starts afresh. Tests only.
    static void resetForTesting();

    void reset();
    int get(OperId id) const;
    int getVEKVendorProp();
    int getVEKDebugLogProp();

    // Configuration file.
    void readVekdConfFile(const char* path);
    std::string& trim(std::string& s);
    void fromVector(std::vector<std::string>& lines);
    bool setValue(const char* key, const char* value);

    // Interface parameters. updateInterfaceParams rebuilds the map from the
    // slots under the lock; interfaces() is a copy of the map taken under it.
    void setInterfaceSlot(int index, std::string text);
    void updateInterfaceParams();
    std::map<std::string, InterfaceInfo_t> interfaces() const;
    InterfaceInfo_t* parseInterfaceParams(std::string params);
    bool validateInterfaceParams(InterfaceInfo_t* info);
    bool addNewInterfacetoMap(InterfaceInfo_t* info);

    // UID lists.
    void populateUIDVec();
    void populateVekUidVec();

    // Parameter dump and the statistics commands ("protocols=...", "ports=...").
    // The getters write at most `size` bytes, NUL included, and return null
    // when the command does not fit.
    void printGamingParams();
    char* getStatsProtocols(char* buf, size_t size);
    char* getStatsPorts(char* buf, size_t size);

    // Every configuration key but "VEKEnabled" (which follows the property)
    // with the text of its value in force, in the file's key order.
    std::vector<std::pair<std::string, std::string>> configValues() const;

    // --- The store's contents, in declaration order. ---
    std::vector<std::string> m_gamingUidVec;
    std::vector<std::string> m_vekUidVec;
    std::map<std::string, InterfaceInfo_t*> m_interfaceMap;  // owns the records
    std::map<std::string, std::string> m_unusedMap;
    bool m_unusedFlag = false;
    int32_t m_operParams[OPER_PARAM_COUNT] = {};

    std::string m_protocols;
    std::string m_ports;
    int32_t m_estimatePackNum = 0;
    int32_t m_minRatioChange = 0;
    int32_t m_bestEstCacheSize = 0;
    int32_t m_initWwanPercentage = 0;
    bool m_unusedFlag2 = false;
    std::string m_unusedText;

    std::string m_gamingWhitelist;
    std::string m_rttServer;
    int32_t m_pingPeriodMs = 0;
    int32_t m_rttNoresponseTimeoutMs = 0;
    int32_t m_rttHist = 0;
    int32_t m_rttW2cThWifiMs = 0;
    int32_t m_rttW2cThCMs = 0;
    int32_t m_rttDeltaMs = 0;
    int32_t m_rttC2wThWifiMs = 0;
    int32_t m_rttC2wThWifiMinMs = 0;
    int32_t m_rttC2wThCMs = 0;
    int32_t m_tHystS = 0;
    int32_t m_minPingTimes = 0;
    int32_t m_pingIntervalMs = 0;
    int32_t m_alphaPercent = 0;
    int32_t m_nHyst = 0;
    int32_t m_rttMinCapMs = 0;
    int32_t m_gamingPollFreqCnt = 0;
    std::string m_gamingUidList;
    std::string m_vekUidList;
    std::string m_ifaceParams[kMaxInterfaceSlots];

    int32_t m_numInterfaces = 0;
    int32_t m_rttEntryThreshold = 0;
    int32_t m_rttExitThreshold = 0;
    int32_t m_vekMaxUsageOnInterface = 0;
    int32_t m_thresholdToStartReset = 0;
    int32_t m_maxSizeToCalculateLre = 0;
    int32_t m_routeDnsQueries = 0;
    int32_t m_useDnsForRttCalc = 0;

    std::atomic<int32_t> m_runState{0};

  private:
    mutable std::mutex m_interfaceMutex;
    Parameters() = default;
    ~Parameters();
    Parameters(const Parameters&) = delete;
    Parameters& operator=(const Parameters&) = delete;
};

// Whether "/system/bin/ip-wrapper-1.0 route show table <name>" succeeds.
bool hasValidRoute(const char* name);
