// The statistics engine: rate estimates, split ratios and their rules, and the
// channel to the kernel module (a control FIFO, statistics files mapped from disk).
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "config/tests/ParametersTestBase.h"
#include "rules/IptablesManager.h"
#include "stats/StatsFileBuilder.h"
#include "stats/VekStatsImpl.h"

namespace vekd::test {
namespace {

// The fake clock's "now"; the estimator's own "now" is one millisecond later.
constexpr uint64_t kNowMs = 1700000000000ULL;

// `count` counted samples of `bytes`, `stepMs` apart, the newest at `newestMs`.
void fillSteady(stats::StatsRingWriter& ring, uint32_t count, uint64_t stepMs, uint32_t bytes, uint64_t newestMs = kNowMs) {
    ring.setMagic();
    ring.appendSeries(newestMs - (count - 1) * stepMs, stepMs, count, bytes);
}

// Records, for each ratio rule, whether the statistics lock is held.
class LockProbePipe : public RecordingCommandPipe {
  public:
    FILE* open(const char* line) override {
        const int rc = pthread_mutex_trylock(&VekStatsImpl::m_mutex);
        if (rc == 0) pthread_mutex_unlock(&VekStatsImpl::m_mutex);
        if (strstr(line, "kwop_VEK") != nullptr) lockHeld.push_back(rc == EBUSY);
        return RecordingCommandPipe::open(line);
    }
    std::vector<bool> lockHeld;
};

// Rate and number of samples counted.
using Estimate = std::pair<unsigned, unsigned>;
using Rules = std::vector<std::string>;

class StatsTest : public ParametersTestBase {
  protected:
    void SetUp() override {
        ParametersTestBase::SetUp();
        VekStatsImpl::resetForTesting();
        IptablesManager::resetForTesting();
        IptablesManager::instance();  // its skeleton commands are not of interest
        pipe.clear();
        pipe.lockHeld.clear();
        params = Parameters::instance();
        makeDirs(root.at("/proc/vek"));
    }
    void TearDown() override {
        VekStatsImpl::resetForTesting();
        IptablesManager::resetForTesting();
        ParametersTestBase::TearDown();
    }
    std::string statsPath(const std::string& name) const { return root.at("/proc/vek/" + name + "_mmap"); }
    VekStatsImpl* stats() { return VekStatsImpl::instance(); }
    void set(OperId id, int value) { params->m_operParams[id] = value; }
    // The estimate over `ring`.
    Estimate estimate() {
        VekStatsData data(ring.data(), false);
        unsigned count = 12345;
        unsigned rate = data.linkRateEstimate(&count, "wlan0");
        return {rate, count};
    }
    // A link with this turn's estimate (and share, unless negative), no statistics file.
    void link(const std::string& name, bool metered, unsigned lre, float previous = -1, bool configured = true) {
        if (configured && params->m_interfaceMap.count(name) == 0) addInterface(name, metered);
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
    // Configures `name` and publishes `count` samples of `bytes` every 8 ms in its file.
    void publish(const std::string& name, bool metered, uint32_t bytes, uint32_t count = 20) {
        if (params->m_interfaceMap.count(name) == 0) addInterface(name, metered);
        std::string error;
        auto& file = files[name];
        if (!file) file = stats::StatsFile::open(statsPath(name), &error);
        ASSERT_TRUE(file) << error;
        file->clear();
        fillSteady(*file, count, 8, bytes);
    }
    // The ratio rules run since the last call, as "probability -j chain" each
    // (their full text is the rule tests' business), and the flush.
    Rules ratioRules() {
        Rules out;
        for (const std::string& c : pipe.commands()) {
            if (c.find("-F kwop_VEK") != std::string::npos) out.push_back("flush");
            if (c.find("--probability ") != std::string::npos) out.push_back(c.substr(c.find("--probability ") + 14));
        }
        pipe.clear();
        return out;
    }

    FakeClock clock{kNowMs};
    Parameters* params = nullptr;
    stats::StatsFileBuilder ring;
    std::map<std::string, std::unique_ptr<stats::StatsFile>> files;
    LockProbePipe pipe;
};

using stats::makeSample;
using stats::StatsFileBuilder;

// Rings are built from a blank file, even where an earlier builder wrote.
TEST(StatsFileBuilderTest, EveryRingStartsBlankAndAnUnwritablePathIsRefused) {
    {
        StatsFileBuilder dirty;
        dirty.setMagic();
        dirty.appendSeries(1, 1, kVekStatsRingSlots, 1500);
    }
    StatsFileBuilder fresh;
    const auto* bytes = static_cast<const unsigned char*>(fresh.data());
    EXPECT_EQ(std::count(bytes, bytes + kVekStatsFileSize, 0), static_cast<long>(kVekStatsFileSize));
    EXPECT_FALSE(fresh.saveTo("/nonexistent-dir/wlan0_mmap"));
}

// Steady series of 1024 bytes: the write index before, the samples, their
// spacing and the newest stamp; the bounds; the estimate (1024-bit kilobits).
TEST_F(StatsTest, SteadySeriesAgainstEachBound) {
    const uint64_t kOld = kNowMs + 1 - 1500;
    const struct {
        const char* what;
        uint32_t start, count;
        uint64_t stepMs, newestMs;
        int staleMs, windowMs, maxBytes;
        Estimate expected;
    } cases[] = {
        {"1000 kbit/s; the oldest sample only bounds the newest span", 0, 20, 8, kNowMs, 1500, 500, 102400, {1000, 19}},
        {"the walk wraps from slot 1 to slot 1279", 1270, 12, 8, kNowMs, 1500, 500, 102400, {1000, 11}},
        {"the size bound stops at the limit; 20 ms are below mini_rate_window", 0, 10, 5, kNowMs, 1500, 500, 4096, {0, 4}},
        {"once the size bound is passed a short window counts", 0, 10, 5, kNowMs, 1500, 500, 4095, {1600, 4}},
        {"a tenth span would reach the window", 0, 20, 10, kNowMs, 1500, 100, 102400, {800, 9}},
        {"stale bound inclusive, now one millisecond ahead", 0, 2, 10, kOld, 1500, 500, 102400, {0, 1}},
        {"one millisecond older is stale", 0, 2, 10, kOld - 1, 1500, 500, 102400, {0, 0}},
        {"a sum past 64 bits is not stale", 0, 2, 10, UINT64_MAX - 5, INT_MAX, 500, 102400, {0, 1}},
        {"a negative bound reaches over a future stamp", 0, 2, 10, kNowMs + 10, -5, 500, 102400, {0, 1}},
        {"but not beyond it", 0, 2, 10, kNowMs + 10, -10, 500, 102400, {0, 0}},
        {"the lowest bound", 0, 2, 10, kNowMs + 10, INT_MIN, 500, 102400, {0, 0}},
        {"a full ring is walked once round", 700, kVekStatsRingSlots, 8, kNowMs, 1 << 30, 1 << 30, 1 << 30,
         {1000, kVekStatsRingSlots - 1}},
    };
    for (const auto& c : cases) {
        set(OPER_MINI_STALE_INTERVAL, c.staleMs);
        set(OPER_IDEAL_EST_WINDOW, c.windowMs);
        params->m_maxSizeToCalculateLre = c.maxBytes;
        ring.clear();
        ring.setWriteIndex(c.start);
        fillSteady(ring, c.count, c.stepMs, 1024, c.newestMs);
        EXPECT_EQ(estimate(), c.expected) << c.what;
    }
    // Write index 0 stands for 1279.
    ring.clear();
    ring.setWriteIndex(1266);
    fillSteady(ring, 13, 8, 1024);
    ring.setWriteIndex(0);
    EXPECT_EQ(estimate(), Estimate(1000, 12));
}

// Hand-made rings, oldest sample first: {ms before now, bytes, kind, flag}.
TEST_F(StatsTest, SpacersAreJumpedAndOtherKindsServeOnlyAsReferences) {
    struct Sample {
        int64_t agoMs;
        uint32_t bytes;
        uint8_t kind = kVekSampleCounted;
        uint8_t flag = 0;
    };
    const uint8_t kSpacer = kVekSampleSpacer;
    const struct {
        const char* what;
        std::vector<Sample> samples;
        Estimate expected;
    } cases[] = {
        {"spacers passed over; spans reach back past them: 2 x 1024 B in 40 ms", {{60, 1024}, {40, 1024}, {30, 9999, kSpacer}, {20, 1024}, {10, 9999, kSpacer}}, {400, 2}},
        {"a flagged sample and another kind only serve as references", {{40, 1024}, {30, 5000, 0}, {20, 1024, kVekSampleCounted, 1}, {10, 1024}}, {800, 1}},
        {"a zero span ends the walk", {{20, 1024}, {0, 1024}, {0, 1024}}, {0, 0}},
        {"a backward span ends the walk", {{20, 1024}, {-5, 1024}, {0, 1024}}, {0, 0}},
    };
    set(OPER_MINI_RATE_WINDOW, 10);
    for (const auto& c : cases) {
        ring.clear();
        ring.setMagic();
        for (const Sample& x : c.samples) ring.append(makeSample(kNowMs - x.agoMs, x.bytes, x.kind, x.flag));
        EXPECT_EQ(estimate(), c.expected) << c.what;
    }
}

TEST_F(StatsTest, NotReadyClockFailureAndCorruptRingsGiveZero) {
    fillSteady(ring, 20, 8, 1024);
    ring.setMagic(0);
    EXPECT_EQ(estimate(), Estimate(0, 12345));  // untouched
    ring.setMagic();
    clock.failNextTimeOfDay();
    EXPECT_EQ(estimate(), Estimate(0, 0));
    EXPECT_EQ(log.linesOf("VekStatsData"), (std::vector<std::string>{"E VEK stat colletct is not ready",
                                                                     "E linkRateEstimate, gettimeofday failed"}));
    // The builder's buffer is exactly one file long, so a read past it is an
    // error under the address sanitizer.
    ring.setWriteIndex(1280);
    EXPECT_EQ(estimate().first, 0u);
    EXPECT_TRUE(log.contains("WWAN:Index(1279) out of bound!"));
    // Fresh rings of spacers or of uncounted samples all round.
    for (uint8_t kind : {kVekSampleSpacer, uint8_t{0}}) {
        ring.clear();
        ring.setMagic();
        for (uint32_t i = 0; i < kVekStatsRingSlots; ++i) ring.append(makeSample(kNowMs - i, 100, kind));
        EXPECT_EQ(estimate().first, 0u);
    }
}

TEST_F(StatsTest, VerboseLogShowsNewestEntryAndResult) {
    gDebugLogEnabled = 1;
    ring.setMagic();
    ring.append(makeSample(kNowMs - 8, 1024, kVekSampleCounted, 0, 7));
    ring.append(makeSample(kNowMs, 1024, kVekSampleCounted, 0, 9));
    VekStatsData data(ring.data(), true);
    data.linkRateEstimate(nullptr, "wlan0");
    EXPECT_EQ(log.linesOf("VekStatsData"), (std::vector<std::string>{"D WLAN:linkRateEstimate",
                                                                     "D WLAN:Entry(1):1700000000000,1024,9,2,0",
                                                                     "D WLAN:linkRateEstimate:0, size:1024, timeLen:8 interface:wlan0  -\n"}));
}

TEST_F(StatsTest, HistoryKeepsTheMaximumOfTheLastEstimatesAndRescansWhenItLeaves) {
    linkHistory_t history;
    auto feed = [&](std::initializer_list<unsigned> values) {
        std::vector<unsigned> out;
        for (unsigned v : values) out.push_back(stats()->getMaxLinkRateFromHistory(history, v, params));
        return out;
    };
    EXPECT_EQ(feed({7, 0}), (std::vector<unsigned>{7, 0}));  // size 0: off
    EXPECT_TRUE(history.rates.empty());

    params->m_bestEstCacheSize = 3;
    EXPECT_EQ(feed({5, 9, 3, 4, 2, 0, 0, 0}), (std::vector<unsigned>{5, 9, 9, 9, 4, 4, 2, 0}));
    // Shrinking the size drops one value per turn only.
    params->m_bestEstCacheSize = 2;
    EXPECT_EQ(feed({6}), std::vector<unsigned>{6});
    EXPECT_EQ(history.rates.size(), 3u);
}

struct Link {
    const char* name;
    bool metered;
    unsigned lre;
    float previous = 0;       // the share from the turn before
    bool configured = true;   // false: measured but not in the configuration
};

// One turn each, from a fresh store: the links, the turn's figures and the
// shares (in name order) it hands out. `reported`: -1 when not of interest.
TEST_F(StatsTest, SharesOfOneTurn) {
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
        for (const Link& l : c.links) link(l.name, l.metered, l.lre, l.previous, l.configured);
        stats()->setDownLinks(c.down);
        const bool reported = stats()->calcVekRatios(c.mode, c.minRate, c.totalRate, c.maxRate);
        if (c.reported >= 0) {
            EXPECT_EQ(reported, c.reported == 1);
        }
        EXPECT_THAT(ratios(), testing::Pointwise(testing::FloatEq(), c.shares));
    }
    EXPECT_EQ(log.count("calcVekRatios unexpected behavior in calc ratio"), 3u);
}

TEST_F(StatsTest, SplitIsReportedOnlyWhenHalfTheChangeExceedsTheMinimum) {
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

TEST_F(StatsTest, RulesAreRewrittenUnderTheLockOnlyWhenTheSplitMoved) {
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

TEST_F(StatsTest, EstimatesAreGatedAndQuietLinksKeepTheirRecentBest) {
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

bool mapped(const std::string& path) {
    std::stringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    return maps.str().find(path) != std::string::npos;
}

// Commands go only to a reader (a missing FIFO is the fault tests' business),
// whole up to 511 bytes, not at all beyond.
TEST_F(StatsTest, EnableSendsTheCommandsAndMapsEveryLinkDisableAndFinalizeUnmap) {
    const std::string fifo = root.at("/proc/vek/config");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));

    EXPECT_TRUE(stats()->initMmap());  // nothing configured, nothing mapped
    addInterface("wlan0", false);
    addInterface("rmnet0", true);
    close(open(statsPath("wlan0").c_str(), O_CREAT | O_WRONLY, 0644));  // left empty by the publisher
    struct stat before {};
    ASSERT_EQ(stat(statsPath("wlan0").c_str(), &before), 0);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    params->m_protocols = std::string(501, 'p');  // "protocols=" + 501 = 511 bytes
    params->m_ports = std::string(506, '8');      // "ports=" + 506 = 512 bytes: one too many
    ASSERT_TRUE(stats()->enableVEK(true));
    char buf[2048];
    const ssize_t n = read(reader, buf, sizeof(buf));
    EXPECT_EQ(std::string(buf, n > 0 ? size_t(n) : 0),
              "protocols=" + params->m_protocols + std::string("\0iface=rmnet0\0iface=wlan0\0enable=1\0", 35));
    EXPECT_TRUE(log.contains("ports command does not fit in 512 bytes, not written"));
    for (auto& [name, record] : stats()->m_linkStatsMap) {
        EXPECT_STREQ(record->interfaceName, name.c_str());
        EXPECT_TRUE(mapped(statsPath(name)));
        // Created empty by the daemon's own open, extended for the mapping.
        struct stat st {};
        EXPECT_EQ(stat(statsPath(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 20480);
    }
    // Not ready until the publisher fills the very file the daemon mapped.
    VekStatsData* data = stats()->m_linkStatsMap.at("wlan0")->statsData;
    EXPECT_EQ(data->linkRateEstimate(nullptr, "wlan0"), 0u);
    publish("wlan0", false, 1024);
    EXPECT_EQ(data->linkRateEstimate(nullptr, "wlan0"), 1000u);
    struct stat after {};
    ASSERT_EQ(stat(statsPath("wlan0").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    files.clear();  // the publisher's own mapping

    gDebugLogEnabled = 1;
    ASSERT_TRUE(stats()->enableVEK(false));
    EXPECT_TRUE(log.contains("writeStatsConfFile:enable=0"));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
    EXPECT_FALSE(mapped(statsPath("wlan0")));
    ASSERT_TRUE(stats()->initMmap());
    VekStatsImpl::finalize();
    EXPECT_FALSE(mapped(statsPath("wlan0")));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
    close(reader);
}

// Three tries half a second apart; a file that cannot be opened or extended
// leaves its link without statistics, the other links are usable.
TEST_F(StatsTest, UnmappableStatsFileIsTriedThreeTimes) {
    addInterface("wlan0", false);
    addInterface("rmnet0", true);
    mkdir(statsPath("wlan0").c_str(), 0755);
    EXPECT_FALSE(stats()->initMmap());
    EXPECT_EQ(clock.sleeps(), (std::vector<uint64_t>{500000, 500000, 500000}));
    EXPECT_EQ(log.count("open mmap file failed:Is a directory"), 3u);
    EXPECT_EQ(stats()->m_linkStatsMap.at("wlan0")->statsData, nullptr);
    EXPECT_NE(stats()->m_linkStatsMap.at("rmnet0")->statsData, nullptr);

    // A short file and a file-size limit below the mapping's size.
    VekStatsImpl::finalize();
    rmdir(statsPath("wlan0").c_str());
    close(open(statsPath("wlan0").c_str(), O_CREAT | O_WRONLY, 0644));
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const struct rlimit small = {4096, old.rlim_max};
    auto previous = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool mappedAll = stats()->initMmap();
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, previous);
    EXPECT_FALSE(mappedAll);
    EXPECT_EQ(log.count("mmap stats file failed:File too large"), 3u);
    EXPECT_EQ(stats()->m_linkStatsMap.at("wlan0")->statsData, nullptr);

    for (auto& entry : params->m_interfaceMap) free(entry.second);
    params->m_interfaceMap.clear();
    EXPECT_FALSE(stats()->initMmap());  // nothing configured, but records remain
}

}  // namespace
}  // namespace vekd::test
