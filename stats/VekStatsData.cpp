#include "stats/VekStatsData.h"

#include <android/log.h>
#include <sys/time.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <vector>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "platform/Clock.h"

namespace {

constexpr const char* kTag = "VekStatsData";
constexpr const char* kFn = "linkRateEstimate";

// The bounds of one walk, read afresh for every estimate so that a changed
// parameter applies at once. Signed 64-bit so that odd configured values
// (atoi of anything) compare sanely against the unsigned sums.
struct WalkBounds {
    int64_t staleMs;
    int64_t idealWindowMs;
    int64_t minWindowMs;
    int64_t maxBytes;
};

// Whether `now` lies more than `staleMs` after `timestampMs`, exactly for
// every pair of values (no type here is wide enough for timestampMs +
// staleMs, and 32-bit targets have no 128-bit integer).
bool olderThan(uint64_t now, uint64_t timestampMs, int64_t staleMs) {
    if (now >= timestampMs) return staleMs < 0 || now - timestampMs > static_cast<uint64_t>(staleMs);
    // A sample from the future: stale only when the bound itself is negative
    // and reaches further back than the sample is ahead.
    return staleMs < 0 && static_cast<uint64_t>(-(staleMs + 1)) + 1 > timestampMs - now;
}

}  // namespace

VekStatsData::VekStatsData(void* mapping, bool wlan) : map(mapping), isWlan(wlan), cursor(nullptr) {}

uint64_t VekStatsData::lastFlowMs(uint64_t minBytes, uint64_t windowMs) const {
    if (map == nullptr || header()->magic != kVekStatsMagic || header()->writeIndex >= kVekStatsSlotCount) return 0;
    // Newest first, as far back as the ring holds written samples in order.
    std::vector<uint64_t> times;
    std::vector<uint64_t> before{0};  // before[k]: the bytes of the k newest samples
    uint32_t at = header()->writeIndex == 0 ? kVekStatsRingSlots : header()->writeIndex;
    for (uint32_t n = 0; n < kVekStatsRingSlots; ++n, at = vekPrevSlot(at)) {
        const VekStatsSample* s = slot(at);
        if (s->timestampMs == 0 || s->bytes == 0 || (!times.empty() && s->timestampMs > times.back())) break;
        if (s->kind != kVekSampleCounted || s->flag != 0) continue;
        times.push_back(s->timestampMs);
        before.push_back(before.back() + s->bytes);
    }
    const auto minus = [](uint64_t t, uint64_t d) { return t > d ? t - d : 0; };
    // The bytes of the samples stamped after `from`, up to `to`.
    const auto bytesIn = [&](uint64_t from, uint64_t to) {
        const auto index = [&](uint64_t t) {
            return std::partition_point(times.begin(), times.end(), [t](uint64_t x) { return x > t; }) - times.begin();
        };
        return before[static_cast<size_t>(index(from))] - before[static_cast<size_t>(index(to))];
    };
    for (const uint64_t t : times) {
        const uint64_t recent = bytesIn(minus(t, windowMs), t);
        // A flow keeps at least half of its best window of the four before;
        // retransmissions to a dead uplink fall far below that.
        uint64_t best = 0;
        for (uint64_t k = 1; k <= 4; ++k) best = std::max(best, bytesIn(minus(t, (k + 1) * windowMs), minus(t, k * windowMs)));
        if (recent >= minBytes && 2 * recent >= best) return t;
    }
    return 0;
}

unsigned int VekStatsData::linkRateEstimate(unsigned int* sampleCount, const char* iface) {
    if (gDebugLogEnabled) __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:%s", label(), kFn);

    if (map == nullptr || header()->magic != kVekStatsMagic) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK stat colletct is not ready");
        return 0;
    }
    if (sampleCount) *sampleCount = 0;

    struct timeval tv {};
    if (vekd::Seam<vekd::platform::Clock>::get().getTimeOfDay(&tv) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s, gettimeofday failed", kFn);
        return 0;
    }
    // One millisecond ahead, so that a sample stamped in this very
    // millisecond is never newer than "now".
    const uint64_t now = vekd::platform::msOf(tv) + 1;

    Parameters* params = Parameters::instance();
    const WalkBounds bounds{params->get(OPER_MINI_STALE_INTERVAL), params->get(OPER_IDEAL_EST_WINDOW),
                            params->get(OPER_MINI_RATE_WINDOW), params->m_maxSizeToCalculateLre};

    uint64_t totalBytes = 0;
    uint32_t totalMs = 0;
    unsigned int result = 0;

    const uint32_t writeIndex = header()->writeIndex;
    if (writeIndex >= kVekStatsSlotCount) {
        // Reported and not used: such a slot lies beyond the mapping.
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s:Index(%u) out of bound!", label(),
                            writeIndex - 1);
        cursor = nullptr;
    } else {
        uint32_t current = writeIndex == 0 ? kVekStatsRingSlots : writeIndex;
        cursor = slot(current);
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:Entry(%u):%" PRIu64 ",%u,%u,%u,%u", label(),
                                current - 1, cursor->timestampMs,
                                cursor->bytes, cursor->aux, cursor->kind, cursor->flag);
        }

        // Each step moves to an older slot; a well-formed ring is never walked
        // further than once round, and a corrupt one (all spacers) must not
        // hold the walk for ever.
        uint32_t steps = 0;
        auto stepBack = [&](uint32_t from, uint32_t* to) {
            if (++steps > kVekStatsRingSlots) return false;
            *to = vekPrevSlot(from);
            return true;
        };

        if (cursor->timestampMs != 0) {
            for (;;) {
                const VekStatsSample* cur = slot(current);
                cursor = cur;
                const uint64_t curTs = cur->timestampMs;
                const uint32_t curBytes = cur->bytes;
                if (curBytes == 0) break;
                if (olderThan(now, curTs, bounds.staleMs)) break;
                if (static_cast<int64_t>(totalBytes) >= bounds.maxBytes) break;

                if (cur->kind != kVekSampleCounted || cur->flag != 0) {
                    uint32_t prev;
                    if (!stepBack(current, &prev) || slot(prev)->timestampMs == 0) break;
                    current = prev;
                    continue;
                }

                // The reference: the nearest older sample that is not a spacer.
                uint32_t ref = current;
                bool found = false;
                while (stepBack(ref, &ref)) {
                    const VekStatsSample* r = slot(ref);
                    if (r->timestampMs == 0 || r->bytes == 0) break;
                    if (r->kind == kVekSampleSpacer) continue;
                    found = true;
                    break;
                }
                if (!found) break;

                const uint64_t refTs = slot(ref)->timestampMs;
                const uint32_t span = curTs < refTs ? 0 : static_cast<uint32_t>(curTs - refTs);
                if (static_cast<int64_t>(span) + totalMs >= bounds.idealWindowMs) break;
                if (curTs < refTs || span == 0) break;

                totalMs += span;
                totalBytes += curBytes;
                if (sampleCount) ++*sampleCount;
                current = ref;
            }
        }

        if (totalMs != 0 && (static_cast<int64_t>(totalMs) >= bounds.minWindowMs ||
                             static_cast<int64_t>(totalBytes) > bounds.maxBytes)) {
            // Bytes to kilobits of 1024 bits, per millisecond of the window.
            result = static_cast<unsigned int>(((totalBytes * 8000) >> 10) / totalMs);
        }
    }

    if (gDebugLogEnabled) {
        __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s:%s:%u, size:%" PRIu64 ", timeLen:%u interface:%s  -\n",
                            label(), kFn, result, totalBytes, totalMs,
                            iface ? iface : "");
    }
    return result;
}
