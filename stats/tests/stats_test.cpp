// The statistics engine: rate estimates, split ratios and their rules, the module's channel.
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
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "config/tests/ParametersTestBase.h"
#include "rules/IptablesManager.h"
#include "stats/ShareCalculation.h"
#include "stats/StatsFileBuilder.h"
#include "stats/VekStatsImpl.h"

namespace vekd::test {
namespace {

// The fake clock's "now"; the estimator's own "now" is one millisecond later.
constexpr uint64_t kNowMs = 1700000000000ULL;

// Records, for each command, whether the statistics lock is held.
class LockProbePipe : public RecordingCommandPipe {
  public:
    FILE* open(const char* line) override {
        lockHeld.push_back(VekStatsImpl::instance()->lockHeldForTesting());
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
    std::map<std::string, vekd::report::LinkRow> links() {
        std::map<std::string, vekd::report::LinkRow> out;
        for (vekd::report::LinkRow& link : stats()->snapshot(nullptr)) out[link.name] = link;
        return out;
    }
    void set(OperId id, int value) { params->m_operParams[id] = value; }
    Estimate estimate() {
        unsigned count = 12345;
        return {VekStatsData(ring.data(), false).linkRateEstimate(&count, "wlan0"), count};
    }
    // Configures `name` and publishes `count` samples of `bytes` every 8 ms in its file.
    void publish(const std::string& name, bool metered, uint32_t bytes, uint32_t count = 20) {
        if (params->m_interfaceMap.count(name) == 0) addInterface(name, metered);
        std::string error;
        auto& file = files[name];
        if (!file) file = stats::StatsFile::open(statsPath(name), &error);
        ASSERT_TRUE(file) << error;
        file->setMagic();
        file->appendSeries(kNowMs - (count - 1) * 8, 8, count, bytes);
    }
    // The ratio rules run since the last call, as "probability link" each
    // (their full text is the rule tests' business).
    Rules ratioRules() {
        Rules out;
        for (const std::string& c : pipe.commands()) {
            const size_t at = c.find("--probability ");
            if (at != std::string::npos) out.push_back(c.substr(at + 14, 9) + c.substr(c.find("kwop_fw_") + 8));
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

TEST(StatsFileBuilderTest, EveryRingStartsBlankAndAnUnwritablePathIsRefused) {
    {
        stats::StatsFileBuilder dirty;  // its memory is the next builder's
        dirty.appendSeries(1, 1, kVekStatsRingSlots, 1500);
    }
    stats::StatsFileBuilder fresh;
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
        {"a full ring, walked once round", 0, kVekStatsRingSlots, 8, kNowMs, 1 << 30, 1 << 30, 1 << 30, {1000, kVekStatsRingSlots - 1}},
    };
    for (const auto& c : cases) {
        set(OPER_MINI_STALE_INTERVAL, c.staleMs);
        set(OPER_IDEAL_EST_WINDOW, c.windowMs);
        params->m_maxSizeToCalculateLre = c.maxBytes;
        ring.clear();
        ring.setWriteIndex(c.start);
        ring.setMagic();
        ring.appendSeries(c.newestMs - (c.count - 1) * c.stepMs, c.stepMs, c.count, 1024);
        EXPECT_EQ(estimate(), c.expected) << c.what;
    }
    ring.setWriteIndex(0);  // the last ring, which ends in slot 1279: 0 stands for it
    EXPECT_EQ(estimate(), Estimate(1000, kVekStatsRingSlots - 1));
}

// Hand-made rings, oldest sample first: {ms before now, bytes, kind, flag}.
TEST_F(StatsTest, SpacersAreJumpedAndOtherKindsServeOnlyAsReferences) {
    struct Sample {
        int64_t agoMs;
        uint32_t bytes;
        uint8_t kind = kVekSampleCounted;
        uint8_t flag = 0;
    };
    const struct {
        const char* what;
        std::vector<Sample> samples;
        Estimate expected;
    } cases[] = {
        {"spacers passed over; spans reach back past them: 2 x 1024 B in 40 ms", {{60, 1024}, {40, 1024}, {30, 9999, kVekSampleSpacer}, {20, 1024}, {10, 9999, kVekSampleSpacer}}, {400, 2}},
        {"a flagged sample and another kind only serve as references", {{40, 1024}, {30, 5000, 0}, {20, 1024, kVekSampleCounted, 1}, {10, 1024}}, {800, 1}},
        {"a zero span ends the walk", {{20, 1024}, {0, 1024}, {0, 1024}}, {0, 0}},
        {"a one-byte sample counts; a zero-byte one ends the walk", {{60, 1024}, {50, 0}, {40, 1024}, {30, 1}, {20, 1024}, {10, 1024}}, {533, 3}},
        {"a backward span ends the walk", {{20, 1024}, {-5, 1024}, {0, 1024}}, {0, 0}},
    };
    set(OPER_MINI_RATE_WINDOW, 10);
    for (const auto& c : cases) {
        ring.clear();
        ring.setMagic();
        for (const Sample& x : c.samples) ring.append(stats::makeSample(kNowMs - x.agoMs, x.bytes, x.kind, x.flag));
        EXPECT_EQ(estimate(), c.expected) << c.what;
    }
}

// The link monitor's traffic: a flow, not what a server retransmits down a dead uplink.
TEST_F(StatsTest, TheLastFlowIsNotATrickleAfterIt) {
    const auto lastFlow = [&] { return VekStatsData(ring.data(), false).lastFlowMs(8192, 500); };
    ring.setMagic();
    EXPECT_EQ(lastFlow(), 0u) << "nothing received yet";
    ring.appendSeries(kNowMs - 2000, 10, 100, 1448);  // a second of flow, the last 1010 ms ago
    ring.appendSeries(kNowMs - 500, 1, 10, 1448);     // 14 KB at once, and samples that never count
    ring.appendSeries(kNowMs - 490, 0, 2, 60000, kVekSampleSpacer), ring.appendSeries(kNowMs - 490, 0, 1, 60000, kVekSampleCounted, 1);
    EXPECT_EQ(lastFlow(), kNowMs - 1010);
    ring.appendSeries(kNowMs - 490, 10, 49, 1448);  // a flow again: no less than half the best window before
    EXPECT_EQ(lastFlow(), kNowMs - 10);
}

TEST_F(StatsTest, NotReadyClockFailureAndCorruptRingsGiveZero) {
    ring.appendSeries(kNowMs - 152, 8, 20, 1024);  // no magic yet
    EXPECT_EQ(estimate(), Estimate(0, 12345));  // untouched
    ring.setMagic();
    clock.failNextTimeOfDay();
    EXPECT_EQ(estimate(), Estimate(0, 0));
    // The builder's buffer ends with the ring: a read beyond shows under the address sanitizer.
    ring.setWriteIndex(1280);
    EXPECT_EQ(estimate().first, 0u);
    // Fresh rings of spacers or of uncounted samples all round.
    for (uint8_t kind : {kVekSampleSpacer, uint8_t{0}}) {
        ring.clear();
        ring.setMagic();
        ring.appendSeries(kNowMs - kVekStatsRingSlots, 1, kVekStatsRingSlots, 100, kind);
        EXPECT_EQ(estimate().first, 0u);
    }
    // Not verbose: the errors alone.
    EXPECT_EQ(log.linesOf("VekStatsData"), (std::vector<std::string>{"E VEK stat colletct is not ready",
                                                                     "E linkRateEstimate, gettimeofday failed",
                                                                     "E WWAN:Index(1279) out of bound!"}));
}

TEST_F(StatsTest, HistoryKeepsTheMaximumOfTheLastEstimatesAndRescansWhenItLeaves) {
    linkHistory_t history;
    auto feed = [&](std::initializer_list<unsigned> values) {
        std::vector<unsigned> out;
        for (unsigned v : values) out.push_back(stats()->getMaxLinkRateFromHistory(history, v, params));
        return out;
    };
    EXPECT_EQ(feed({7, 0}), (std::vector<unsigned>{7, 0}));  // size 0: off, nothing kept

    params->m_bestEstCacheSize = 3;
    EXPECT_EQ(feed({5, 9, 3, 4, 2, 0, 0, 0}), (std::vector<unsigned>{5, 9, 9, 9, 4, 4, 2, 0}));
    params->m_bestEstCacheSize = 2;  // shrinking it drops one value per turn only
    EXPECT_EQ(feed({6}), std::vector<unsigned>{6});
    EXPECT_EQ(history.rates.size(), 3u);
}

struct Link {
    const char* name;
    bool metered;
    unsigned lre;
    float previous = 0;  // the share from the turn before
};

// One turn each: the links, the turn's figures, the shares (in name order) it hands out,
// and whether half the summed change is above min_ratio_change (-1: not of interest).
TEST(ShareCalculationTest, SharesOfOneTurn) {
    const auto kMetered = RATIO_CALC_WITH_METERED, kUnmetered = RATIO_CALC_UNMETERED_ONLY, kUnknown = VEK_ratio_calc_process(7);
    const std::vector<Link> two = {{"wlan0", false, 3000}, {"rmnet0", true, 1000}};
    const std::vector<Link> three = {{"wlan0", false, 500}, {"wlan1", false, 0}, {"wlan2", true, 300}};
    const std::vector<Link> dominant = {{"wlan0", false, 900}, {"wlan1", false, 100}};
    const struct {
        const char* what;
        int wifiThreshold, maxUsage, resetThreshold;
        std::vector<Link> links;
        VEK_ratio_calc_process mode;
        float minRate, totalRate, maxRate;
        std::vector<float> shares;
        int reported;
        std::set<std::string> down = {};
        int minRatioChange = 2;
    } cases[] = {
        {"no link", 1600, 100, 100, {}, kMetered, 0, 0, 0, {}, 0},
        {"below the threshold metered links fill up", 4000, 100, 100, two, kMetered, 1000, 3000, 3000, {0.25f, 0.75f}, 1},
        {"above it only unmetered links carry; one alone is never reset", 2000, 0, 0, two, kUnmetered, 1000, 3000, 3000, {0.0f, 1.0f}, 1},
        {"a dominant link gets the fixed share above the reset threshold", 1600, 70, 80, dominant, kUnmetered, 0, 1000, 900, {0.7f, 0.3f}, -1},
        {"dominance 0.9 is not above 90 %: shares follow the rates", 1600, 70, 90, dominant, kUnmetered, 0, 1000, 900, {0.9f, 0.1f}, -1},
        {"the remainder goes to the link without estimate", 1000, 100, 100, {{"wlan0", false, 0}, {"wlan1", false, 500}}, kMetered, 0, 500, 500, {0.5f, 0.5f}, -1},
        {"the remainder in equal parts", 1000, 100, 100, {{"wlan0", false, 0}, {"wlan1", false, 400}, {"rmnet0", true, 0}}, kMetered, 0, 400, 400, {0.3f, 0.3f, 0.4f}, -1},
        // Every r is 0: the rest goes to the link without an estimate, not to one whose share merely is 0.
        {"unknown mode", 1600, 100, 100, {{"wlan0", false, 700, 0.6f}, {"wlan1", false, 0}, {"wlan2", false, 300}}, kUnknown, 0, 1000, 700, {0.6f, 1.0f / 3, 0.0f}, 1},
        // Down links get nothing; the metered share is (1 - 500/1000) x 300/600.
        {"nothing down: the rest goes to wlan1", 1000, 100, 100, three, kMetered, 600, 500, 500, {0.5f, 0.25f, 0.25f}, -1},
        {"wlan0 down: its share goes to wlan1 alone", 1000, 100, 100, three, kMetered, 600, 500, 500, {0, 0.75f, 0.25f}, -1, {"wlan0"}},
        {"wlan1 down: no hand-out, the rest scaled up", 1000, 100, 100, three, kMetered, 600, 500, 500, {2.0f / 3, 0, 1.0f / 3}, -1, {"wlan1"}},
        {"a threshold of 1 kbit/s, reached, leaves the metered link nothing", 1, 100, 100, {{"wlan0", false, 1}, {"rmnet0", true, 100}}, kMetered, 100, 1, 1, {0.0f, 1.0f}, -1},
        {"half the change exactly the minimum", 1600, 100, 100, {{"a", false, 1, 0.25f}, {"b", false, 1, 0.75f}}, kUnmetered, 0, 2, 1, {0.5f, 0.5f}, 0, {}, 25},
        {"half of both changes above it", 1600, 100, 100, {{"a", false, 1, 0.625f}, {"b", false, 3, 0.375f}}, kUnmetered, 0, 4, 3, {0.25f, 0.75f}, 1, {}, 25},
    };
    for (const auto& c : cases) {
        std::map<std::string, ShareInput> byName;
        for (const Link& l : c.links) byName[l.name] = {static_cast<float>(l.lre), l.metered, c.down.count(l.name) != 0, l.previous};
        std::vector<ShareInput> inputs;
        for (const auto& entry : byName) inputs.push_back(entry.second);
        const ShareResult result = computeShares(c.mode, c.minRate, c.totalRate, c.maxRate, inputs,
                                                 {c.wifiThreshold, c.minRatioChange, c.resetThreshold, c.maxUsage});
        EXPECT_TRUE(c.reported < 0 || result.install == (c.reported == 1)) << c.what;
        std::vector<float> shares;
        for (const ShareStep& step : result.links) shares.push_back(step.share);
        EXPECT_THAT(shares, testing::Pointwise(testing::FloatEq(), c.shares)) << c.what;
    }
}

// The estimates of a turn, gated and backed by each link's recent best, decide the split.
TEST_F(StatsTest, RulesAreRewrittenUnderTheLockOnlyWhenTheSplitMoved) {
    params->m_bestEstCacheSize = 3;
    set(OPER_MINI_RATE_WINDOW, 20);    // short enough for wlan1's 24 ms to give an estimate
    publish("wlan0", false, 1024);     // 1000 kbit/s, below wifi_threshold 1600
    publish("wlan1", false, 1024, 4);  // 3 samples counted, fewer than estimate_pack_num 5
    publish("rmnet0", true, 2048);     // 2000 kbit/s
    publish("rmnet1", true, 400);      // about 390 kbit/s, below wan_threshold 500
    ASSERT_TRUE(stats()->initMmap());

    gDebugLogEnabled = 1;
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(ratioRules(), (Rules{"0.625000 wlan0", "0.000000 wlan1", "1.000000 rmnet0", "0.000000 rmnet1"}));
    EXPECT_TRUE(log.contains(" VEK_RATIO : iface=wlan0, LRE= 1000, PktCnt= 19, Max= 1000, metered =0 "));
    EXPECT_TRUE(log.contains("calcVekRatios VEK_RATIO (1) iface= rmnet0 metered =1, LRE = 2000 , calcRatio =") && log.contains(" CALC2 -- "));
    EXPECT_TRUE(log.contains(" VEK_RATIO : iface=rmnet0, LRE= 2000, PktCnt= 19, Max= 2000, metered =1 "));
    // 64-bit stamps and sizes printed whole, also where long has 32 bits (armhf).
    EXPECT_TRUE(log.contains(":Entry(19):" + std::to_string(kNowMs) + ",1024,"));
    EXPECT_TRUE(log.contains(":1000, size:19456, timeLen:152 interface:wlan0"));
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_TRUE(ratioRules().empty());
    // Past mini_stale_interval nothing is fresh: the recent best stands in.
    clock.setNowMs(kNowMs + 2000);
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_TRUE(ratioRules().empty());
    clock.setNowMs(kNowMs);

    // Wi-Fi now above the threshold: it alone carries new connections.
    publish("wlan0", false, 2048);
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(ratioRules(), (Rules{"1.000000 wlan0", "0.000000 wlan1", "0.000000 rmnet0", "0.000000 rmnet1"}));

    // A down link loses its estimate, not its history; rmnet0 takes all,
    // even though min_ratio_change would let no move of the shares through.
    params->m_minRatioChange = 100;
    stats()->setDownLinks({"wlan0"});
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(ratioRules(), (Rules{"0.000000 wlan0", "0.000000 wlan1", "1.000000 rmnet0", "0.000000 rmnet1"}));
    const vekd::report::LinkRow wlan = links().at("wlan0");
    EXPECT_EQ(std::make_pair(wlan.estimate, wlan.historyLength), std::make_pair(0u, 3u));
    // Every link down is as good as none: wlan0 is back, its history kept.
    stats()->setDownLinks({"wlan0", "wlan1", "rmnet0", "rmnet1"});
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(ratioRules(), (Rules{"1.000000 wlan0", "0.000000 wlan1", "0.000000 rmnet0", "0.000000 rmnet1"}));
    EXPECT_EQ(links().at("wlan0").historyMax, 2000u);
    // Back after 30 s down, it is measured afresh.
    stats()->setDownLinks({"wlan0"}), stats()->evalAndSetVEKInterfaceRatio();
    clock.setNowMs(kNowMs + 30000);
    stats()->setDownLinks({}), stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(links().at("wlan0").historyMax, 0u);
    clock.setNowMs(kNowMs);

    // The link manager maps and unmaps from binder threads while the main
    // loop runs turns; the lock keeps them apart (run under the thread sanitizer).
    std::atomic<bool> done{false};
    std::thread remapper([&] {
        for (int i = 0; i < 50; ++i) stats()->freeMmap(), stats()->initMmap();
        done = true;
    });
    while (!done) stats()->evalAndSetVEKInterfaceRatio();
    remapper.join();
    EXPECT_EQ(links().size(), 4u);
    EXPECT_EQ(std::count(pipe.lockHeld.begin(), pipe.lockHeld.end(), false), 0);
    stats()->calcVekRatios(VEK_ratio_calc_process(7), 0, 0, 0);  // no such mode: one error line per live link
    EXPECT_EQ(log.count("calcVekRatios unexpected behavior in calc ratio"), 4u);
}

bool mapped(const std::string& path) {
    std::stringstream maps;
    maps << std::ifstream("/proc/self/maps").rdbuf();
    return maps.str().find(path) != std::string::npos;
}

// Commands go only to a reader (a missing FIFO is the fault tests' business), whole up to 511 bytes, else not at all.
TEST_F(StatsTest, EnableSendsTheCommandsAndMapsEveryLinkDisableAndFinalizeUnmap) {
    const std::string fifo = root.at("/proc/vek/config");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));

    addInterface("wlan0", false);
    addInterface("rmnet0", true);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    params->m_protocols = std::string(501, 'p');  // "protocols=" + 501 = 511 bytes
    params->m_ports = std::string(506, '8');      // "ports=" + 506 = 512 bytes: one too many
    ASSERT_TRUE(stats()->enableVEK(true));
    char buf[2048];
    const ssize_t n = read(reader, buf, sizeof(buf));
    EXPECT_EQ(std::string(buf, n > 0 ? size_t(n) : 0),
              "protocols=" + params->m_protocols + std::string("\0iface=rmnet0\0iface=wlan0\0enable=1\0", 35));
    EXPECT_TRUE(log.contains("ports command does not fit in 512 bytes, not written"));
    // Each file created empty by the daemon's own open, extended for the mapping.
    for (const char* name : {"wlan0", "rmnet0"}) {
        EXPECT_TRUE(mapped(statsPath(name)));
        struct stat st {};
        EXPECT_EQ(stat(statsPath(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 20480);
    }
    // Not ready until the publisher fills the very file the daemon mapped.
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(links().at("wlan0").estimate, 0u);
    publish("wlan0", false, 1024);
    stats()->evalAndSetVEKInterfaceRatio();
    EXPECT_EQ(links().at("wlan0").estimate, 1000u);
    files.clear();  // the publisher's own mapping

    gDebugLogEnabled = 1;
    ASSERT_TRUE(stats()->enableVEK(false));
    EXPECT_TRUE(log.contains("writeStatsConfFile:enable=0"));
    EXPECT_TRUE(links().empty());
    EXPECT_FALSE(mapped(statsPath("wlan0")));
    stats()->initMmap();
    VekStatsImpl::finalize();
    EXPECT_FALSE(mapped(statsPath("wlan0")));
    close(reader);
}

// Three tries half a second apart; a file that cannot be opened (a directory) or extended (the
// file-size limit) leaves its link without statistics, the other links are usable.
TEST_F(StatsTest, UnmappableStatsFileIsTriedThreeTimes) {
    publish("rmnet0", true, 1024);  // full size already
    addInterface("wlan0", false);
    addInterface("wlan1", false);
    mkdir(statsPath("wlan0").c_str(), 0755);
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const struct rlimit small = {4096, old.rlim_max};
    signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    stats()->initMmap();
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(clock.sleeps(), std::vector<uint64_t>(6, 500000));
    EXPECT_EQ(log.count("open mmap file failed:Is a directory"), 3u);
    EXPECT_EQ(log.count("mmap stats file failed:File too large"), 3u);
    EXPECT_FALSE(log.contains("getStatsMmap")) << "a verbose line while the verbose flag is off";
    struct stat made {};  // readable by the daemon, written only by the publisher
    EXPECT_EQ(stat(statsPath("rmnet0").c_str(), &made) == 0 ? made.st_mode & 07777 : 0, 0644u & ~umask(022));
    EXPECT_FALSE(links().at("wlan0").measured);
    EXPECT_FALSE(links().at("wlan1").measured);
    EXPECT_TRUE(links().at("rmnet0").measured);
}

}  // namespace
}  // namespace vekd::test
