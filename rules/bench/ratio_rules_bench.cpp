// Wall time of one ratio-rule rewrite with the real iptables behind the
// wrappers, for 2 and 4 interfaces, and the part of it during which
// kwop_VEK is incomplete: from the end of the flush to the end of the last
// append, when new connections are not (fully) spread. Runs inside a private
// network namespace; needs root.
//
//   build/bin/rules_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "config/Parameters.h"
#include "platform/CommandPipe.h"
#include "platform/LogSink.h"
#include "rules/IptablesManager.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

namespace {

using Clock = std::chrono::steady_clock;

// Runs the real commands and notes when each one has finished.
class TimingPipe : public vekd::platform::CommandPipe {
  public:
    FILE* open(const char* commandLine) override { return real().open(commandLine); }
    int close(FILE* stream) override {
        int status = real().close(stream);
        finished.push_back(Clock::now());
        return status;
    }
    std::vector<Clock::time_point> finished;
};

class QuietSink : public vekd::platform::LogSink {
  public:
    void write(int, const char*, const char*) override {}
};

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

void BM_RatioRewrite(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Parameters* params = Parameters::instance();
    for (auto& e : params->m_interfaceMap) free(e.second);
    params->m_interfaceMap.clear();

    std::vector<LinkShare> stats;
    for (int i = 0; i < n; ++i) {
        const std::string name = "vek" + std::to_string(i);
        auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(info->name, sizeof(info->name), "%s", name.c_str());
        snprintf(info->routeTable, sizeof(info->routeTable), "%d", 100 + i);
        snprintf(info->fwmark, sizeof(info->fwmark), "0x%x", 0x60 + i);
        info->metered = i % 2 == 1;
        params->m_interfaceMap[name] = info;
        stats.push_back({name, 1.0f / static_cast<float>(n), info->metered, true});
    }
    IptablesManager* manager = IptablesManager::instance();
    manager->setup_NUV_iptables_FWMARK_chains();

    double windowMs = 0, perCommandMs = 0;
    for (auto _ : state) {
        TimingPipe pipe;
        vekd::ScopedSeam<vekd::platform::CommandPipe> timing(pipe);
        auto start = Clock::now();
        int ret = manager->set_VEK_ratio_iptables(stats);
        auto end = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        if (ret != 0 || pipe.finished.size() != static_cast<size_t>(n + 1)) {
            state.SkipWithError("a command could not be started");
            break;
        }
        windowMs += ms(pipe.finished.back() - pipe.finished.front());
        perCommandMs += ms(end - start) / static_cast<double>(n + 1);
    }
    state.counters["interfaces"] = n;
    state.counters["unspread_ms"] = benchmark::Counter(windowMs, benchmark::Counter::kAvgIterations);
    state.counters["per_command_ms"] = benchmark::Counter(perCommandMs, benchmark::Counter::kAvgIterations);

    manager->cleanup_NUV_iptables_FWMARK_chains();
}

BENCHMARK(BM_RatioRewrite)->Arg(2)->Arg(4)->Iterations(30)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    std::string why;
    if (!vekd::test::enterPrivateNetworkNamespace(&why)) {
        fprintf(stderr, "rules_bench needs a private network namespace: %s\n", why.c_str());
        return 1;
    }
    int rc = 0;
    vekd::test::runShell("iptables -V >/dev/null 2>&1", &rc);
    if (rc != 0) {
        fprintf(stderr, "rules_bench needs iptables (scripts/install-deps.sh)\n");
        return 1;
    }
    vekd::test::TempRoot root;
    root.writeFile("/system/bin/iptables-wrapper-1.0", "#!/bin/sh\nexec iptables \"$@\" 2>/dev/null\n", true);
    root.writeFile("/system/bin/ip-wrapper-1.0", "#!/bin/sh\nexec ip \"$@\" 2>/dev/null\n", true);
    vekd::platform::installHostLogger();
    QuietSink quiet;
    vekd::ScopedSeam<vekd::platform::LogSink> quietLog(quiet);

    printf("iptables: %s", vekd::test::runShell("iptables -V").c_str());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    IptablesManager::clean_NUV_iptables();
    return 0;
}
