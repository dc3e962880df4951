// The statistics ring walk and the split ratio calculation over arbitrary
// statistics file bytes. Input: a 26-byte block of parameters, then the
// bytes of up to three statistics files (shared out equally, each padded
// with zeros to the 20480 bytes the daemon maps). Several evaluation turns
// run over the same files, so the rate history takes part too, and so does
// the walk that finds each link's last flow.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "fuzz/FuzzSupport.h"
#include "rules/IptablesManager.h"
#include "stats/StatsFileLayout.h"
#include "stats/VekStatsImpl.h"

namespace {

constexpr uint64_t kNowMs = 1700000000000ULL;
constexpr size_t kParamBytes = 26;
constexpr int kLinks = 3;

struct Link {
    const char* name;
    bool metered;
};
constexpr Link kLinkTable[kLinks] = {{"wlan0", false}, {"wlan1", false}, {"rmnet_data0", true}};

struct World : vekd::fuzz::HostStandIns {
    vekd::fuzz::NullCommandPipe commands;
    vekd::fuzz::AbsentStatsFiles files;
    vekd::test::FakeClock clock{kNowMs};
};

World* world;
// Page-aligned like a real mapping.
alignas(4096) unsigned char gFiles[kLinks][kVekStatsFileSize];

int32_t param(const uint8_t* block, int index) {
    int16_t v;
    memcpy(&v, block + 2 + 2 * index, sizeof(v));
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    world = new World();
    Parameters* params = Parameters::instance();
    for (const Link& link : kLinkTable) {
        auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(info->name, sizeof(info->name), "%s", link.name);
        snprintf(info->fwmark, sizeof(info->fwmark), "0x5A");
        info->metered = link.metered;
        params->m_interfaceMap[link.name] = info;
    }
    IptablesManager::instance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t block[kParamBytes] = {};
    const size_t blockSize = size < kParamBytes ? size : kParamBytes;
    memcpy(block, data, blockSize);
    data += blockSize;
    size -= blockSize;

    // Small values keep the walk inside plausible windows; zero means the default.
    Parameters* params = Parameters::instance();
    params->reset();
    auto setIf = [&](int32_t& slot, int index) {
        const int32_t v = param(block, index);
        if (v != 0) slot = v;
    };
    setIf(params->m_operParams[OPER_MINI_STALE_INTERVAL], 0);
    setIf(params->m_operParams[OPER_IDEAL_EST_WINDOW], 1);
    setIf(params->m_operParams[OPER_MINI_RATE_WINDOW], 2);
    setIf(params->m_operParams[OPER_WIFI_THRESHOLD], 3);
    setIf(params->m_operParams[OPER_WAN_THRESHOLD], 4);
    setIf(params->m_estimatePackNum, 5);
    setIf(params->m_minRatioChange, 6);
    setIf(params->m_bestEstCacheSize, 7);
    setIf(params->m_thresholdToStartReset, 8);
    setIf(params->m_vekMaxUsageOnInterface, 9);
    setIf(params->m_maxSizeToCalculateLre, 10);
    const int turns = 1 + (block[1] & 3);
    gDebugLogEnabled = (block[1] & 0x80) ? 1 : 0;

    int active[kLinks];
    int count = 0;
    for (int i = 0; i < kLinks; ++i) {
        if ((block[0] & 7) == 0 || (block[0] & (1 << i))) active[count++] = i;
    }
    const size_t share = size / static_cast<size_t>(count);
    VekStatsImpl* stats = VekStatsImpl::instance();
    for (int k = 0; k < count; ++k) {
        const int i = active[k];
        const size_t n = share < kVekStatsFileSize ? share : kVekStatsFileSize;
        memset(gFiles[i], 0, kVekStatsFileSize);
        memcpy(gFiles[i], data + k * share, n);
        stats->addLinkForTesting(kLinkTable[i].name, gFiles[i]);
    }

    uint64_t now = kNowMs;
    for (int t = 0; t < turns; ++t) {
        world->clock.setNowMs(now);
        stats->evalAndSetVEKInterfaceRatio();
        for (const vekd::report::LinkRow& link : stats->snapshot(nullptr)) {
            FUZZ_CHECK(std::isfinite(link.computedShare));
            FUZZ_CHECK(stats->receivedAgoMs(link.name) >= -1);  // the link monitor's walk of the same ring
        }
        now += block[1] >> 2;
    }
    VekStatsImpl::resetForTesting();
    gDebugLogEnabled = 0;
    return 0;
}
