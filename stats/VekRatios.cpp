// The per-turn evaluation: link estimates in, shares of new connections out.
#include <android/log.h>

#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "foundation/Counters.h"
#include "rules/IptablesManager.h"
#include "stats/VekStatsImpl.h"

namespace {

constexpr const char* kTag = "VekStatsImpl";
constexpr const char* kCalc = "calcVekRatios";

// The configured interface of a measured one, or null. Never inserts: a
// measured interface without configuration gets neither a share nor a rule.
const InterfaceInfo_t* configuredInterface(Parameters* params, const std::string& name) {
    auto it = params->m_interfaceMap.find(name);
    return it == params->m_interfaceMap.end() ? nullptr : it->second;
}

}  // namespace

void VekStatsImpl::setDownLinks(std::set<std::string> down) {
    pthread_mutex_lock(&m_mutex);
    m_downLinks = std::move(down);
    pthread_mutex_unlock(&m_mutex);
}

std::set<std::string> VekStatsImpl::downAmongConfigured(Parameters* params) const {
    if (m_downLinks.empty()) return {};
    std::set<std::string> down;
    size_t configured = 0;
    for (const auto& entry : m_linkStatsMap) {
        if (entry.second == nullptr || configuredInterface(params, entry.first) == nullptr) continue;
        ++configured;
        if (m_downLinks.count(entry.first) != 0) down.insert(entry.first);
    }
    // With every link dead there is nothing better to steer to.
    if (down.size() == configured) down.clear();
    return down;
}

int VekStatsImpl::evalAndSetVEKInterfaceRatio() {
    Parameters* params = Parameters::instance();
    IptablesManager* rules = IptablesManager::instance();
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, " CALC2 ++ \n");
    pthread_mutex_lock(&m_mutex);
    vekd::counters::countEvaluationTurn();

    const int64_t wifiThreshold = params->get(OPER_WIFI_THRESHOLD);
    const int64_t minPackets = params->m_estimatePackNum;
    const int64_t wanThreshold = params->get(OPER_WAN_THRESHOLD);
    uint32_t totalMetered = 0;
    uint32_t totalUnmetered = 0;
    uint32_t maxUnmetered = 0;
    const std::set<std::string> down = downAmongConfigured(params);

    for (auto& entry : m_linkStatsMap) {
        linkStatsWrapper_t* record = entry.second;
        const InterfaceInfo_t* info = configuredInterface(params, entry.first);
        if (info == nullptr || record == nullptr || record->statsData == nullptr) continue;
        if (down.count(entry.first) != 0) {
            // A dead link has no estimate, and once back it starts afresh.
            record->lre = 0;
            record->pktCnt = 0;
            record->history = linkHistory_t();
            continue;
        }

        unsigned int estimate =
            record->statsData->linkRateEstimate(&record->pktCnt, record->interfaceName);
        // Too few samples, or a metered link too slow to be worth using, give
        // no estimate this turn.
        record->lre = static_cast<int64_t>(record->pktCnt) < minPackets ? 0 : estimate;
        if (static_cast<int64_t>(record->lre) < wanThreshold && info->metered) record->lre = 0;
        unsigned int best = getMaxLinkRateFromHistory(record->history, record->lre, params);
        // A link without a fresh estimate keeps its best recent one.
        if (record->lre == 0) record->lre = best;

        if (info->metered) {
            totalMetered += record->lre;
        } else {
            totalUnmetered += record->lre;
            if (record->lre > maxUnmetered) maxUnmetered = record->lre;
        }
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                " VEK_RATIO : iface=%s, LRE= %d, PktCnt= %d, Max= %d, metered =%d "
                                "mamaxUnmeteredLRE=%d",
                                entry.first.c_str(), static_cast<int>(record->lre),
                                static_cast<int>(record->pktCnt), static_cast<int>(best),
                                info->metered ? 1 : 0, static_cast<int>(maxUnmetered));
        }
    }

    VEK_ratio_calc_process mode = static_cast<int64_t>(totalUnmetered) <= wifiThreshold
                                      ? RATIO_CALC_WITH_METERED
                                      : RATIO_CALC_UNMETERED_ONLY;
    if (calcVekRatios(mode, static_cast<float>(totalMetered), static_cast<float>(totalUnmetered),
                      static_cast<float>(maxUnmetered), down)) {
        // Still under the lock: the rules are written from the records.
        rules->set_VEK_ratio_iptables(m_linkStatsMap);
    }

    int rc = pthread_mutex_unlock(&m_mutex);
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, " CALC2 -- \n");
    return rc;
}

bool VekStatsImpl::calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE,
                                 float totalUnmeteredLRE, float maxUnmeteredLRE) {
    return calcVekRatios(mode, totalMeteredLRE, totalUnmeteredLRE, maxUnmeteredLRE,
                         downAmongConfigured(Parameters::instance()));
}

bool VekStatsImpl::calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE,
                                 float totalUnmeteredLRE, float maxUnmeteredLRE,
                                 const std::set<std::string>& down) {
    Parameters* params = Parameters::instance();
    const int wifiThreshold = params->get(OPER_WIFI_THRESHOLD);
    const float minChange = static_cast<float>(params->m_minRatioChange) / 100.0f;

    // Records that take part: non-null and configured.
    struct Entry {
        linkStatsWrapper_t* record;
        bool metered;
        float oldRatio;
        bool down;
    };
    std::vector<Entry> entries;
    entries.reserve(m_linkStatsMap.size());
    int unmeteredCount = 0;
    for (auto& item : m_linkStatsMap) {
        const InterfaceInfo_t* info = configuredInterface(params, item.first);
        if (info == nullptr || item.second == nullptr) continue;
        const bool isDown = down.count(item.first) != 0;
        entries.push_back({item.second, info->metered, item.second->interfaceRatio, isDown});
        if (!info->metered && !isDown) ++unmeteredCount;
    }
    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s noOfUnMetredInterfaces: %d ", kCalc,
                            unmeteredCount);
    }

    const float dominance = totalUnmeteredLRE != 0 ? maxUnmeteredLRE / totalUnmeteredLRE : 0.0f;
    bool reset = false;
    if (totalUnmeteredLRE != 0 && unmeteredCount >= 2) {
        reset = params->m_thresholdToStartReset / 100.0 < static_cast<double>(dominance);
        if (reset && gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s: Set reset flag", kCalc);
        }
    }

    if (m_linkStatsMap.empty()) return false;

    // With no unmetered capacity configured (threshold 0) the mode is only
    // reached with no unmetered traffic, so the metered links get it all.
    const float meteredScale =
        wifiThreshold != 0 ? 1.0f - totalUnmeteredLRE / static_cast<float>(wifiThreshold) : 1.0f;
    float remaining = 1.0f;
    int zeroRatioCnt = 0;

    for (Entry& e : entries) {
        linkStatsWrapper_t* record = e.record;
        const float lre = static_cast<float>(record->lre);
        float r = 0.0f;
        if (e.down) {
            // Neither a share nor a part of the hand-out below.
            record->interfaceRatio = 0.0f;
            continue;
        }
        switch (mode) {
            case RATIO_CALC_WITH_METERED:
                if (!e.metered) {
                    r = wifiThreshold != 0 ? lre / static_cast<float>(wifiThreshold) : 0.0f;
                } else {
                    r = totalMeteredLRE != 0 ? meteredScale * (lre / totalMeteredLRE) : 0.0f;
                }
                record->interfaceRatio = r;
                break;
            case RATIO_CALC_UNMETERED_ONLY:
                if (gDebugLogEnabled) {
                    __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                        "%s maxUnmteredLRE / totalUnmeteredLRE : %f", kCalc,
                                        static_cast<double>(dominance));
                    __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s maxSingleInterface = %f", kCalc,
                                        params->m_vekMaxUsageOnInterface / 100.0);
                }
                if (reset) {
                    // The dominant link gets the fixed share, every other link
                    // an equal part of the rest (links tied at the maximum all
                    // get the fixed share).
                    const double share = params->m_vekMaxUsageOnInterface / 100.0;
                    r = lre == maxUnmeteredLRE
                            ? static_cast<float>(share)
                            : static_cast<float>((1 - share) / (unmeteredCount - 1));
                } else {
                    r = totalUnmeteredLRE != 0 ? lre / totalUnmeteredLRE : 0.0f;
                }
                // A metered link carries nothing here, but its unreduced share
                // still counts below, which holds back the hand-out.
                record->interfaceRatio = e.metered ? 0.0f : r;
                break;
            default:
                __android_log_print(ANDROID_LOG_ERROR, kTag, "%s unexpected behavior in calc ratio",
                                    kCalc);
                break;
        }
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                "%s VEK_RATIO (%d) iface= %s metered =%d, LRE = %d , calcRatio =%f ",
                                kCalc, static_cast<int>(mode), record->interfaceName,
                                e.metered ? 1 : 0, static_cast<int>(record->lre),
                                static_cast<double>(r));
        }
        if (r == 0.0f) {
            ++zeroRatioCnt;
            if (gDebugLogEnabled) {
                __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s VEK_RATIO zeroRatioCnt = %d ",
                                    kCalc, zeroRatioCnt);
            }
        }
        remaining -= r;
    }

    // What is left goes in equal parts to the links without an estimate.
    const bool handOut = remaining > 0.0f && zeroRatioCnt != 0;
    const float share = handOut ? remaining / static_cast<float>(zeroRatioCnt) : 0.0f;
    // With a link down, what the live links get is scaled to add up to 1:
    // an unassigned rest would go unmarked, along the main table's default
    // route, which may well be the dead link.
    float liveSum = 0.0f;
    int liveCount = 0;
    for (const Entry& e : entries) {
        if (down.empty() || e.down) continue;
        liveSum += handOut && e.record->lre == 0 ? share : e.record->interfaceRatio;
        ++liveCount;
    }
    float totalRatioChange = 0.0f;
    for (Entry& e : entries) {
        linkStatsWrapper_t* record = e.record;
        if (handOut && record->lre == 0 && !e.down) {
            record->interfaceRatio = share;
            if (gDebugLogEnabled) {
                __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                    "%s VEK_RATIO totalRatioChange = %f  iface= %s ratio =%f", kCalc,
                                    static_cast<double>(totalRatioChange), record->interfaceName,
                                    static_cast<double>(share));
            }
        }
        if (liveCount != 0 && !e.down) {
            record->interfaceRatio = liveSum > 0.0f ? record->interfaceRatio / liveSum
                                                    : 1.0f / static_cast<float>(liveCount);
        }
        if (e.oldRatio != record->interfaceRatio) {
            // Every change reaches the log, verbose or not.
            __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK_RATIO %s, %u, %f",
                                record->interfaceName, record->lre,
                                static_cast<double>(record->interfaceRatio));
            totalRatioChange += std::fabs(e.oldRatio - record->interfaceRatio);
        }
    }

    // Half the summed change is the share of traffic that actually moves.
    if (static_cast<double>(totalRatioChange) * 0.5 > static_cast<double>(minChange)) {
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                "%s VEK_RATIO total ratio can ges enough = %f , threshold= %f", kCalc,
                                static_cast<double>(totalRatioChange) * 0.5,
                                static_cast<double>(minChange));
        }
        return true;
    }
    return false;
}
