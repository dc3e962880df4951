// Split ratios, and the evaluation turn that installs them as ratio rules.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "rules/IptablesManager.h"
#include "stats/tests/StatsTestBase.h"

namespace vekd::test {
namespace {

constexpr const char* kRule =
    "/system/bin/iptables-wrapper-1.0 -w -t mangle -A kwop_VEK --match multiport -p tcp --dports "
    "80,443 -m state --state NEW -m statistic --mode random --probability ";
constexpr const char* kFlush = "/system/bin/iptables-wrapper-1.0 -w -t mangle -F kwop_VEK";

// Records whether the statistics lock is held while ratio rules are run.
class LockProbePipe : public RecordingCommandPipe {
  public:
    FILE* open(const char* line) override {
        if (strstr(line, "kwop_VEK") != nullptr) {
            int rc = pthread_mutex_trylock(&VekStatsImpl::m_mutex);
            if (rc == 0) pthread_mutex_unlock(&VekStatsImpl::m_mutex);
            lockHeld.push_back(rc == EBUSY);
        }
        return RecordingCommandPipe::open(line);
    }
    std::vector<bool> lockHeld;
};

class RatiosTest : public StatsTest {
  protected:
    void SetUp() override {
        StatsTest::SetUp();
        IptablesManager::resetForTesting();
        IptablesManager::instance();  // its skeleton commands are not of interest
        pipe.clear();
        pipe.lockHeld.clear();
    }
    void TearDown() override {
        IptablesManager::resetForTesting();
        StatsTest::TearDown();
    }

    VekStatsImpl* stats() { return VekStatsImpl::instance(); }
    // A configured link with this turn's estimate (and share, unless negative), no statistics file.
    void link(const std::string& name, bool metered, unsigned lre, float previous = -1) {
        if (params->m_interfaceMap.count(name) == 0) configure(name, metered);
        linkStatsWrapper_t*& record = stats()->m_linkStatsMap[name];
        if (record == nullptr) {
            record = new linkStatsWrapper_t();
            snprintf(record->interfaceName, sizeof(record->interfaceName), "%s", name.c_str());
        }
        record->lre = lre;
        if (previous >= 0) record->interfaceRatio = previous;
    }
    // Every record's share, in name order.
    std::vector<float> ratios() {
        std::vector<float> out;
        for (auto& entry : stats()->m_linkStatsMap) out.push_back(entry.second->interfaceRatio);
        return out;
    }

    LockProbePipe pipe;
};

struct Link {
    const char* name;
    bool metered;
    unsigned lre;
    float previous = 0;       // the share from the turn before
    bool configured = true;   // false: measured but not in the configuration
};

// One turn each, from a fresh store: the links, the turn's figures and the
// shares (in name order) it hands out. `reported`: -1 when not of interest.
TEST_F(RatiosTest, SharesOfOneTurn) {
    const auto kMetered = RATIO_CALC_WITH_METERED, kUnmetered = RATIO_CALC_UNMETERED_ONLY;
    const std::vector<Link> two = {{"wlan0", false, 3000}, {"rmnet0", true, 1000}};
    const std::vector<Link> three = {{"wlan0", false, 500}, {"wlan1", false, 0}, {"wlan2", true, 300}};
    const std::vector<Link> dominant = {{"wlan0", false, 900}, {"wlan1", false, 100}, {"ghost", false, 0, 0.42f, false}};
    const struct {
        const char* what;
        int wifiThreshold, maxUsage, resetThreshold;
        std::vector<Link> links;
        VEK_ratio_calc_process mode;
        float minRate, totalRate, maxRate;
        std::vector<float> shares;
        int reported;
        std::set<std::string> down = {};
    } cases[] = {
        {"no link", 1600, 100, 100, {}, kMetered, 0, 0, 0, {}, 0},
        {"below the threshold metered links fill up", 4000, 100, 100, two, kMetered, 1000, 3000, 3000, {0.25f, 0.75f}, 1},
        {"above it only unmetered links carry; one alone is never reset", 2000, 0, 0, two, kUnmetered, 1000, 3000, 3000, {0.0f, 1.0f}, 1},
        {"a dominant link gets the fixed share above the reset threshold", 1600, 70, 80, dominant, kUnmetered, 0, 1000, 900, {0.42f, 0.7f, 0.3f}, -1},
        {"dominance 0.9 is not above 90 %: shares follow the rates", 1600, 70, 90, dominant, kUnmetered, 0, 1000, 900, {0.42f, 0.9f, 0.1f}, -1},
        {"the remainder goes to the link without estimate", 1000, 100, 100, {{"wlan0", false, 0}, {"wlan1", false, 500}}, kMetered, 0, 500, 500, {0.5f, 0.5f}, -1},
        {"the remainder in equal parts", 1000, 100, 100, {{"wlan0", false, 0}, {"wlan1", false, 400}, {"rmnet0", true, 0}}, kMetered, 0, 400, 400, {0.3f, 0.3f, 0.4f}, -1},
        // Every r is 0: the remainder goes to the link without an estimate,
        // not to one whose share merely is 0; the other shares stay.
        {"unknown mode", 1600, 100, 100, {{"wlan0", false, 700, 0.6f}, {"wlan1", false, 0}, {"wlan2", false, 300}},
         static_cast<VEK_ratio_calc_process>(7), 0, 1000, 700, {0.6f, 1.0f / 3, 0.0f}, 1},
        // Down links get nothing; the metered share is (1 - 500/1000) x 300/600.
        {"nothing down: the rest goes to wlan1", 1000, 100, 100, three, kMetered, 600, 500, 500, {0.5f, 0.25f, 0.25f}, -1},
        {"wlan0 down: its share goes to wlan1 alone", 1000, 100, 100, three, kMetered, 600, 500, 500, {0, 0.75f, 0.25f}, -1, {"wlan0"}},
        {"wlan1 down: no hand-out, the rest scaled up", 1000, 100, 100, three, kMetered, 600, 500, 500, {2.0f / 3, 0, 1.0f / 3}, -1, {"wlan1"}},
        {"every link down changes nothing", 1000, 100, 100, three, kMetered, 600, 500, 500, {0.5f, 0.25f, 0.25f}, -1, {"wlan0", "wlan1", "wlan2"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        params->m_operParams[OPER_WIFI_THRESHOLD] = c.wifiThreshold;
        params->m_vekMaxUsageOnInterface = c.maxUsage;
        params->m_thresholdToStartReset = c.resetThreshold;
        for (const Link& l : c.links) {
            link(l.name, l.metered, l.lre, l.previous);
            if (!l.configured) {
                free(params->m_interfaceMap[l.name]);
                params->m_interfaceMap.erase(l.name);
            }
        }
        stats()->setDownLinks(c.down);
        const bool reported = stats()->calcVekRatios(c.mode, c.minRate, c.totalRate, c.maxRate);
        if (c.reported >= 0) {
            EXPECT_EQ(reported, c.reported == 1);
        }
        EXPECT_THAT(ratios(), testing::Pointwise(testing::FloatEq(), c.shares));
    }
    EXPECT_EQ(log.count("calcVekRatios unexpected behavior in calc ratio"), 3u);
}

TEST_F(RatiosTest, SplitIsReportedOnlyWhenHalfTheChangeExceedsTheMinimum) {
    params->m_minRatioChange = 25;  // 0.25 and every share below are exact in binary
    auto turn = [&](unsigned a, unsigned b) {
        link("a", false, a);
        link("b", false, b);
        return stats()->calcVekRatios(RATIO_CALC_UNMETERED_ONLY, 0, float(a + b), float(a > b ? a : b));
    };
    EXPECT_TRUE(turn(1, 3));   // 0.25 / 0.75 from 0 / 0: half of 1.0
    EXPECT_FALSE(turn(1, 1));  // 0.5 / 0.5: half of 0.5 is exactly the minimum
    EXPECT_FALSE(turn(5, 3));  // 0.625 / 0.375: measured against 0.5 / 0.5, not installed
    EXPECT_TRUE(turn(1, 3));   // back to 0.25 / 0.75: half of 0.75
    EXPECT_TRUE(log.contains("VEK_RATIO a, 1, 0.250000"));
}

// Evaluation turns over statistics files mapped from disk.
class EvalTurnTest : public RatiosTest {
  protected:
    // Configures `name` and publishes `count` samples of `bytes` every 8 ms.
    void publish(const std::string& name, bool metered, uint32_t bytes, uint32_t count = 20) {
        if (params->m_interfaceMap.count(name) == 0) configure(name, metered);
        std::string error;
        auto& file = files[name];
        if (!file) file = stats::StatsFile::open(statsPath(name), &error);
        ASSERT_TRUE(file) << error;
        file->clear();
        fillSteady(*file, count, 8, bytes);
    }
    // The ratio rules run, as "probability -j chain" each (their full text is
    // the rule tests' business), after the flush; then forgotten.
    std::vector<std::string> ratioRules() {
        std::vector<std::string> out;
        for (const std::string& c : pipe.commands()) {
            if (c == kFlush) out.push_back("flush");
            if (c.rfind(kRule, 0) == 0) out.push_back(c.substr(strlen(kRule)));
        }
        pipe.clear();
        return out;
    }
    using Rules = std::vector<std::string>;
    std::map<std::string, std::unique_ptr<stats::StatsFile>> files;
};

TEST_F(EvalTurnTest, RulesAreRewrittenUnderTheLockOnlyWhenTheSplitMoved) {
    params->m_bestEstCacheSize = 3;
    publish("wlan0", false, 1024);   // 1000 kbit/s, below wifi_threshold 1600
    publish("rmnet0", true, 2048);   // 2000 kbit/s
    ASSERT_TRUE(stats()->initMmap());

    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(pipe.lockHeld, std::vector<bool>(3, true));
    EXPECT_EQ(ratioRules(), (Rules{"flush", "0.625000 -j kwop_fw_wlan0", "1.000000 -j kwop_fw_rmnet0"}));
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_TRUE(ratioRules().empty());

    // Wi-Fi now above the threshold: it alone carries new connections.
    publish("wlan0", false, 2048);
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(ratioRules(), (Rules{"flush", "1.000000 -j kwop_fw_wlan0", "0.000000 -j kwop_fw_rmnet0"}));

    // A down link loses its estimate and history; the other takes all.
    stats()->setDownLinks({"wlan0"});
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(ratioRules(), (Rules{"flush", "0.000000 -j kwop_fw_wlan0", "1.000000 -j kwop_fw_rmnet0"}));
    const linkStatsWrapper_t* wlan = stats()->m_linkStatsMap["wlan0"];
    EXPECT_EQ(wlan->lre, 0u);
    EXPECT_TRUE(wlan->history.rates.empty());

    // The link manager maps and unmaps from binder threads while the main
    // loop runs turns; the lock keeps them apart (run under the thread sanitizer).
    std::atomic<bool> done{false};
    std::thread remapper([&] {
        for (int i = 0; i < 50; ++i) stats()->freeMmap(), stats()->initMmap();
        done = true;
    });
    while (!done) stats()->evalAndSetVEKInterfaceRatio();
    remapper.join();
    EXPECT_EQ(stats()->m_linkStatsMap.size(), 2u);
    EXPECT_EQ(std::count(pipe.lockHeld.begin(), pipe.lockHeld.end(), false), 0);
}

TEST_F(EvalTurnTest, EstimatesAreGatedAndQuietLinksKeepTheirRecentBest) {
    params->m_bestEstCacheSize = 3;
    publish("wlan0", false, 1024);
    publish("wlan1", false, 1024, 4);   // 3 samples counted, fewer than estimate_pack_num 5
    publish("rmnet0", true, 400);       // about 390 kbit/s, below wan_threshold 500
    ASSERT_TRUE(stats()->initMmap());
    auto& records = stats()->m_linkStatsMap;

    gDebugLogEnabled = 1;
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_TRUE(log.contains(" VEK_RATIO : iface=wlan0, LRE= 1000, PktCnt= 19, Max= 1000, metered =0 "));
    auto lreAndCount = [&](const char* name) { return std::make_pair(records[name]->lre, records[name]->pktCnt); };
    EXPECT_EQ(lreAndCount("wlan0"), std::make_pair(1000u, 19u));
    EXPECT_EQ(lreAndCount("wlan1"), std::make_pair(0u, 3u));
    EXPECT_EQ(records["rmnet0"]->lre, 0u);

    // Past mini_stale_interval nothing is fresh: the history stands in.
    clock.setNowMs(kNowMs + 2000);
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(lreAndCount("wlan0"), std::make_pair(1000u, 0u));
}

}  // namespace
}  // namespace vekd::test
