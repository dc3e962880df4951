#include "config/Parameters.h"

#include <cutils/properties.h>

#include <cstdlib>
#include <cstring>

namespace {

std::atomic<Parameters*> gInstance{nullptr};

int readIntProperty(const char* name) {
    char value[128];
    memset(value, 0, sizeof(value));
    property_get(name, value, "0");
    return atoi(value);
}

}  // namespace

Parameters* Parameters::instance() {
    Parameters* existing = gInstance.load(std::memory_order_acquire);
    if (existing != nullptr) return existing;

    auto* store = new Parameters();
    store->reset();
    gInstance.store(store, std::memory_order_release);
    store->populateUIDVec();
    store->populateVekUidVec();
    store->m_runState.store(kRunStateReady, std::memory_order_release);
    return store;
}

void Parameters::resetForTesting() {
    delete gInstance.exchange(nullptr);
}

Parameters::~Parameters() {
    for (auto& entry : m_interfaceMap) free(entry.second);
}

void Parameters::reset() {
    m_unusedFlag = false;
    m_operParams[OPER_VEK_ENABLED] = readIntProperty("vendor.vek.enabled");
    m_operParams[14] = 1;
    m_operParams[OPER_UPDATE_PM_FREQ] = 500;
    m_operParams[OPER_WIFI_THRESHOLD] = 1600;
    m_operParams[OPER_WAN_THRESHOLD] = 500;
    m_operParams[OPER_MINI_EST_INTERVAL] = 5000;
    m_operParams[OPER_MINI_STALE_INTERVAL] = 1500;
    m_operParams[OPER_IDEAL_EST_WINDOW] = 500;
    m_operParams[OPER_MINI_RATE_WINDOW] = 50;
    m_operParams[OPER_CELLULAR_SOCK_ASSIGN_RATE] = 50;
    m_operParams[OPER_SOCK_ACTIVE_TIME] = 2000;
    m_protocols = "http,https";
    m_ports = "80,443";
    m_estimatePackNum = 5;
    m_minRatioChange = 2;
    m_bestEstCacheSize = 0;
    m_initWwanPercentage = 0;
    m_unusedFlag2 = false;
    m_rttServer = kDefaultRttServer;
    m_minPingTimes = 5;
    m_pingIntervalMs = 1000;
    m_alphaPercent = 60;
    m_nHyst = 1;
    m_rttMinCapMs = 10;
    m_gamingPollFreqCnt = 5;
    m_numInterfaces = 2;
    m_rttEntryThreshold = 30;
    m_rttExitThreshold = 120;
    m_vekMaxUsageOnInterface = 100;
    m_thresholdToStartReset = 100;
    m_maxSizeToCalculateLre = 102400;
    m_routeDnsQueries = 0;
    m_useDnsForRttCalc = 0;
    for (int slot = 15; slot < OPER_PARAM_COUNT; ++slot) m_operParams[slot] = 0;
    readVekdConfFile(kVekdConfPath);
    printGamingParams();
}

int Parameters::get(OperId id) const {
    const int slot = static_cast<int>(id);
    if (slot < 0 || slot >= OPER_PARAM_COUNT) return -1;
    return m_operParams[slot];
}

int Parameters::getVEKVendorProp() {
    m_operParams[OPER_VEK_ENABLED] = readIntProperty("vendor.vek.enabled");
    return m_operParams[OPER_VEK_ENABLED];
}

int Parameters::getVEKDebugLogProp() {
    return readIntProperty("vendor.vek.debug");
}
