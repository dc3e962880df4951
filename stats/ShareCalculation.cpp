#include "stats/ShareCalculation.h"

#include <cmath>

ShareResult computeShares(VEK_ratio_calc_process mode, float totalMetered, float totalUnmetered,
                          float maxUnmetered, const std::vector<ShareInput>& links,
                          const ShareSettings& settings) {
    ShareResult result;
    result.links.resize(links.size());
    for (const ShareInput& link : links) {
        if (!link.metered && !link.down) ++result.unmeteredCount;
    }
    result.dominance = totalUnmetered != 0 ? maxUnmetered / totalUnmetered : 0.0f;
    if (totalUnmetered != 0 && result.unmeteredCount >= 2) {
        result.reset = settings.thresholdToStartResetPercent / 100.0 < static_cast<double>(result.dominance);
    }
    if (links.empty()) return result;

    const int wifiThreshold = settings.wifiThreshold;
    // With no unmetered capacity configured (threshold 0) the mode is only
    // reached with no unmetered traffic, so the metered links get it all.
    const float meteredScale =
        wifiThreshold != 0 ? 1.0f - totalUnmetered / static_cast<float>(wifiThreshold) : 1.0f;
    float remaining = 1.0f;
    int zeroRatioCount = 0;
    bool anyDown = false;

    for (size_t i = 0; i < links.size(); ++i) {
        const ShareInput& in = links[i];
        ShareStep& out = result.links[i];
        out.share = in.previousShare;
        if (in.down) {
            // Neither a share nor a part of the hand-out below.
            out.share = 0.0f;
            anyDown = true;
            continue;
        }
        float r = 0.0f;
        switch (mode) {
            case RATIO_CALC_WITH_METERED:
                if (!in.metered) {
                    r = wifiThreshold != 0 ? in.estimate / static_cast<float>(wifiThreshold) : 0.0f;
                } else {
                    r = totalMetered != 0 ? meteredScale * (in.estimate / totalMetered) : 0.0f;
                }
                out.share = r;
                break;
            case RATIO_CALC_UNMETERED_ONLY:
                if (result.reset) {
                    // The dominant link gets the fixed share, every other link
                    // an equal part of the rest (links tied at the maximum all
                    // get the fixed share).
                    const double share = settings.maxUsageOnInterfacePercent / 100.0;
                    r = in.estimate == maxUnmetered
                            ? static_cast<float>(share)
                            : static_cast<float>((1 - share) / (result.unmeteredCount - 1));
                } else {
                    r = totalUnmetered != 0 ? in.estimate / totalUnmetered : 0.0f;
                }
                // A metered link carries nothing here, but its unreduced share
                // still counts below, which holds back the hand-out.
                out.share = in.metered ? 0.0f : r;
                break;
            default:
                break;
        }
        out.firstRatio = r;
        if (r == 0.0f) ++zeroRatioCount;
        out.zeroRatioCount = zeroRatioCount;
        remaining -= r;
    }

    // What is left goes in equal parts to the links without an estimate.
    const bool handOut = remaining > 0.0f && zeroRatioCount != 0;
    const float part = handOut ? remaining / static_cast<float>(zeroRatioCount) : 0.0f;
    result.handOut = part;
    // With a link down, what the live links get is scaled to add up to 1:
    // an unassigned rest would go unmarked, along the main table's default
    // route, which may well be the dead link.
    float liveSum = 0.0f;
    int liveCount = 0;
    for (size_t i = 0; i < links.size(); ++i) {
        if (!anyDown || links[i].down) continue;
        liveSum += handOut && links[i].estimate == 0 ? part : result.links[i].share;
        ++liveCount;
    }
    for (size_t i = 0; i < links.size(); ++i) {
        const ShareInput& in = links[i];
        ShareStep& out = result.links[i];
        out.changeBefore = result.totalChange;
        if (handOut && in.estimate == 0 && !in.down) {
            out.share = part;
            out.handedOut = true;
        }
        if (liveCount != 0 && !in.down) {
            out.share = liveSum > 0.0f ? out.share / liveSum : 1.0f / static_cast<float>(liveCount);
        }
        if (in.previousShare != out.share) result.totalChange += std::fabs(in.previousShare - out.share);
    }

    // Half the summed change is the share of traffic that actually moves.
    const float minChange = static_cast<float>(settings.minRatioChangePercent) / 100.0f;
    result.install = static_cast<double>(result.totalChange) * 0.5 > static_cast<double>(minChange);
    return result;
}
