// One evaluation turn over four links with full statistics rings: estimates,
// history, shares, and (when the split moved) the ratio rules, whose command
// lines are recorded instead of run so that the figure is the statistics work.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/Parameters.h"
#include "platform/Clock.h"
#include "platform/CommandPipe.h"
#include "platform/LogSink.h"
#include "platform/Root.h"
#include "rules/IptablesManager.h"
#include "stats/StatsFileBuilder.h"
#include "stats/VekStatsImpl.h"

namespace {

constexpr uint64_t kNowMs = 1700000000000ULL;

class FixedClock : public vekd::platform::Clock {
  public:
    int getTimeOfDay(struct timeval* tv) override {
        tv->tv_sec = static_cast<time_t>(nowMs / 1000);
        tv->tv_usec = static_cast<suseconds_t>(nowMs % 1000 * 1000);
        return 0;
    }
    void sleepMicros(useconds_t) override {}
    void sleepSeconds(unsigned) override {}
    uint64_t nowMs = kNowMs;
};

// Keeps the command lines; every command "prints" one empty line.
class RecordingPipe : public vekd::platform::CommandPipe {
  public:
    FILE* open(const char* line) override {
        commands.emplace_back(line);
        return fmemopen(m_output, 1, "r");
    }
    int close(FILE* stream) override { return fclose(stream); }
    std::vector<std::string> commands;

  private:
    char m_output[2] = "\n";
};

class NullLog : public vekd::platform::LogSink {
  public:
    void write(int, const char*, const char*) override {}
};

struct Setup {
    FixedClock clock;
    RecordingPipe pipe;
    NullLog log;
    vekd::ScopedSeam<vekd::platform::Clock> clockSeam{clock};
    vekd::ScopedSeam<vekd::platform::CommandPipe> pipeSeam{pipe};
    vekd::ScopedSeam<vekd::platform::LogSink> logSeam{log};
    std::string root;

    // Four links, every ring full: one sample per millisecond. "wlan1" lags
    // by a second, so that moving the clock 600 ms makes it stale and the
    // split change every turn.
    explicit Setup(bool wholeRing) {
        char tmpl[] = "/tmp/vekd-bench-XXXXXX";
        root = mkdtemp(tmpl);
        setenv("VEKD_ROOT", root.c_str(), 1);
        vekd::platform::reloadRootDir();
        mkdir((root + "/proc").c_str(), 0755);
        mkdir((root + "/proc/vek").c_str(), 0755);

        Parameters* params = Parameters::instance();
        if (wholeRing) {
            params->m_operParams[OPER_IDEAL_EST_WINDOW] = 1 << 30;
            params->m_maxSizeToCalculateLre = 1 << 30;
        }
        const struct {
            const char* name;
            bool metered;
            uint32_t bytes;
            uint64_t lagMs;
        } links[] = {{"rmnet0", true, 300, 0}, {"rmnet1", true, 200, 0},
                     {"wlan0", false, 600, 0}, {"wlan1", false, 400, 1000}};
        for (const auto& l : links) {
            auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
            snprintf(info->name, sizeof(info->name), "%s", l.name);
            info->metered = l.metered;
            params->m_interfaceMap[l.name] = info;
            vekd::stats::StatsFileBuilder ring;
            ring.setMagic();
            ring.setWriteIndex(400);  // so that every walk wraps
            ring.appendSeries(kNowMs - l.lagMs - (kVekStatsRingSlots - 1), 1, kVekStatsRingSlots,
                              l.bytes);
            ring.saveTo(root + "/proc/vek/" + l.name + "_mmap");
        }
        IptablesManager::instance();
        VekStatsImpl::instance()->initMmap();
    }
    ~Setup() {
        VekStatsImpl::resetForTesting();
        IptablesManager::resetForTesting();
        Parameters::resetForTesting();
        std::string cmd = "rm -rf " + root;
        if (system(cmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", root.c_str());
    }
};

void runTurns(benchmark::State& state, bool wholeRing, bool moveSplit) {
    Setup setup(wholeRing);
    VekStatsImpl* stats = VekStatsImpl::instance();
    size_t rewrites = 0;
    bool late = false;
    for (auto _ : state) {
        if (moveSplit) {
            late = !late;
            setup.clock.nowMs = late ? kNowMs + 600 : kNowMs;
        }
        setup.pipe.commands.clear();
        stats->evalAndSetVEKInterfaceRatio();
        rewrites += setup.pipe.commands.empty() ? 0 : 1;
    }
    state.counters["rewrites"] =
        benchmark::Counter(static_cast<double>(rewrites), benchmark::Counter::kAvgIterations);
    unsigned samples = 0;
    for (const vekd::report::LinkRow& link : stats->snapshot(nullptr)) samples = link.name == "wlan0" ? link.samples : samples;
    state.counters["samples_per_link"] = samples;
}

// Default bounds (500 ms / 100 KiB window): about 170 samples per link.
void BM_EvalTurn_Stable(benchmark::State& state) { runTurns(state, false, false); }
void BM_EvalTurn_RulesRewritten(benchmark::State& state) { runTurns(state, false, true); }
// Bounds raised: every walk goes once round the ring (1278 samples).
void BM_EvalTurn_WholeRing(benchmark::State& state) { runTurns(state, true, false); }

BENCHMARK(BM_EvalTurn_Stable);
BENCHMARK(BM_EvalTurn_RulesRewritten);
BENCHMARK(BM_EvalTurn_WholeRing);

}  // namespace

BENCHMARK_MAIN();
