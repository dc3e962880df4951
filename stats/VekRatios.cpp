// The per-turn evaluation: link estimates in, shares of new connections out.
#include <android/log.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "config/Parameters.h"
#include "foundation/Counters.h"
#include "foundation/DebugFlag.h"
#include "platform/Clock.h"
#include "rules/IptablesManager.h"
#include "stats/ShareCalculation.h"
#include "stats/VekStatsImpl.h"

namespace {

constexpr const char* kTag = "VekStatsImpl";
constexpr const char* kCalc = "calcVekRatios";
// A link down for less than this keeps its rate history: a short outage
// says nothing about what the link carries once back.
constexpr int64_t kHistoryKeptMs = 30000;

}  // namespace

void VekStatsImpl::setDownLinks(std::set<std::string> down) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_downLinks = std::move(down);
}

std::set<std::string> VekStatsImpl::downAmongConfigured(const Interfaces& configured) const {
    if (m_downLinks.empty()) return {};
    std::set<std::string> down;
    size_t count = 0;
    for (const auto& entry : m_linkStatsMap) {
        if (entry.second == nullptr || configured.count(entry.first) == 0) continue;
        ++count;
        if (m_downLinks.count(entry.first) != 0) down.insert(entry.first);
    }
    // With every link dead there is nothing better to steer to.
    if (down.size() == count) down.clear();
    return down;
}

int VekStatsImpl::evalAndSetVEKInterfaceRatio() {
    Parameters* params = Parameters::instance();
    IptablesManager* rules = IptablesManager::instance();
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, " CALC2 ++ \n");
    // A measured interface without configuration gets neither a share nor a rule.
    const Interfaces configured = params->interfaces();
    std::unique_lock<std::mutex> lock(m_mutex);
    vekd::counters::countEvaluationTurn();

    const int64_t wifiThreshold = params->get(OPER_WIFI_THRESHOLD);
    const int64_t minPackets = params->m_estimatePackNum;
    const int64_t wanThreshold = params->get(OPER_WAN_THRESHOLD);
    uint32_t totalMetered = 0;
    uint32_t totalUnmetered = 0;
    uint32_t maxUnmetered = 0;
    const std::set<std::string> down = downAmongConfigured(configured);
    const int64_t nowMs = vekd::Seam<vekd::platform::Clock>::get().monotonicMs();

    for (auto& entry : m_linkStatsMap) {
        linkStatsWrapper_t* record = entry.second;
        auto info = configured.find(entry.first);
        if (info == configured.end() || record == nullptr || record->statsData == nullptr) continue;
        const bool metered = info->second.metered;
        if (down.count(entry.first) != 0) {
            // A dead link has no estimate this turn.
            record->lre = 0;
            record->pktCnt = 0;
            m_downSinceMs.emplace(entry.first, nowMs);
            continue;
        }
        if (auto was = m_downSinceMs.find(entry.first); was != m_downSinceMs.end()) {
            // Back after a long outage: measured afresh.
            if (nowMs - was->second >= kHistoryKeptMs) record->history = linkHistory_t();
            m_downSinceMs.erase(was);
        }

        unsigned int estimate =
            record->statsData->linkRateEstimate(&record->pktCnt, record->interfaceName);
        // Too few samples, or a metered link too slow to be worth using, give
        // no estimate this turn.
        record->lre = static_cast<int64_t>(record->pktCnt) < minPackets ? 0 : estimate;
        if (static_cast<int64_t>(record->lre) < wanThreshold && metered) record->lre = 0;
        unsigned int best = getMaxLinkRateFromHistory(record->history, record->lre, params);
        // A link without a fresh estimate keeps its best recent one.
        if (record->lre == 0) record->lre = best;

        if (metered) {
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
                                metered ? 1 : 0, static_cast<int>(maxUnmetered));
        }
    }

    VEK_ratio_calc_process mode = static_cast<int64_t>(totalUnmetered) <= wifiThreshold
                                      ? RATIO_CALC_WITH_METERED
                                      : RATIO_CALC_UNMETERED_ONLY;
    // A link going down or coming back always reaches the rules, however
    // small the shares it moves (only the link monitor marks links down).
    const bool healthChanged = down != m_downInLastTurn;
    m_downInLastTurn = down;
    if (calcVekRatios(mode, static_cast<float>(totalMetered), static_cast<float>(totalUnmetered),
                      static_cast<float>(maxUnmetered), configured, down) ||
        healthChanged) {
        // Still under the lock: the rules follow the records' shares.
        std::vector<LinkShare> shares;
        for (const auto& [name, record] : m_linkStatsMap) {
            if (record == nullptr) continue;
            auto info = configured.find(name);
            const bool known = info != configured.end();
            shares.push_back({name, record->interfaceRatio, known && info->second.metered, known});
        }
        rules->set_VEK_ratio_iptables(shares);
    }

    lock.unlock();
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, " CALC2 -- \n");
    return 0;
}

bool VekStatsImpl::calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE,
                                 float totalUnmeteredLRE, float maxUnmeteredLRE) {
    const Interfaces configured = Parameters::instance()->interfaces();
    return calcVekRatios(mode, totalMeteredLRE, totalUnmeteredLRE, maxUnmeteredLRE, configured,
                         downAmongConfigured(configured));
}

bool VekStatsImpl::calcVekRatios(VEK_ratio_calc_process mode, float totalMeteredLRE,
                                 float totalUnmeteredLRE, float maxUnmeteredLRE,
                                 const Interfaces& configured, const std::set<std::string>& down) {
    Parameters* params = Parameters::instance();
    ShareSettings settings;
    settings.wifiThreshold = params->get(OPER_WIFI_THRESHOLD);
    settings.minRatioChangePercent = params->m_minRatioChange;
    settings.thresholdToStartResetPercent = params->m_thresholdToStartReset;
    settings.maxUsageOnInterfacePercent = params->m_vekMaxUsageOnInterface;

    // Records that take part: non-null and configured.
    std::vector<linkStatsWrapper_t*> records;
    std::vector<ShareInput> inputs;
    for (auto& [name, record] : m_linkStatsMap) {
        auto info = configured.find(name);
        if (info == configured.end() || record == nullptr) continue;
        records.push_back(record);
        inputs.push_back({static_cast<float>(record->lre), info->second.metered,
                          down.count(name) != 0, record->interfaceRatio});
    }
    const ShareResult result = computeShares(mode, totalMeteredLRE, totalUnmeteredLRE,
                                             maxUnmeteredLRE, inputs, settings);

    // The log tells the turn as it was worked out: first ratios, then the
    // hand-out and every change.
    const bool verbose = gDebugLogEnabled != 0;
    if (verbose) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s noOfUnMetredInterfaces: %d ", kCalc,
                            result.unmeteredCount);
        if (result.reset) __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s: Set reset flag", kCalc);
    }
    for (size_t i = 0; i < records.size(); ++i) {
        const ShareStep& step = result.links[i];
        if (inputs[i].down) continue;
        if (mode != RATIO_CALC_WITH_METERED && mode != RATIO_CALC_UNMETERED_ONLY) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s unexpected behavior in calc ratio", kCalc);
        }
        if (!verbose) continue;
        if (mode == RATIO_CALC_UNMETERED_ONLY) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s maxUnmteredLRE / totalUnmeteredLRE : %f",
                                kCalc, static_cast<double>(result.dominance));
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s maxSingleInterface = %f", kCalc,
                                settings.maxUsageOnInterfacePercent / 100.0);
        }
        __android_log_print(ANDROID_LOG_DEBUG, kTag,
                            "%s VEK_RATIO (%d) iface= %s metered =%d, LRE = %d , calcRatio =%f ",
                            kCalc, static_cast<int>(mode), records[i]->interfaceName,
                            inputs[i].metered ? 1 : 0, static_cast<int>(records[i]->lre),
                            static_cast<double>(step.firstRatio));
        if (step.firstRatio == 0.0f) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s VEK_RATIO zeroRatioCnt = %d ", kCalc,
                                step.zeroRatioCount);
        }
    }
    for (size_t i = 0; i < records.size(); ++i) {
        linkStatsWrapper_t* record = records[i];
        const ShareStep& step = result.links[i];
        if (step.handedOut && verbose) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag,
                                "%s VEK_RATIO totalRatioChange = %f  iface= %s ratio =%f", kCalc,
                                static_cast<double>(step.changeBefore), record->interfaceName,
                                static_cast<double>(result.handOut));
        }
        record->interfaceRatio = step.share;
        if (inputs[i].previousShare != step.share) {
            // Every change reaches the log, verbose or not.
            __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK_RATIO %s, %u, %f",
                                record->interfaceName, record->lre,
                                static_cast<double>(record->interfaceRatio));
        }
    }

    if (result.install && verbose) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag,
                            "%s VEK_RATIO total ratio can ges enough = %f , threshold= %f", kCalc,
                            static_cast<double>(result.totalChange) * 0.5,
                            static_cast<double>(static_cast<float>(settings.minRatioChangePercent) / 100.0f));
    }
    return result.install;
}
