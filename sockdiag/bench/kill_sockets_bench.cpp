// Time to destroy N established TCP connections of one UID, against `ss -K`
// destroying the same sockets (selected by port: this iproute2 has no UID
// filter). Runs inside a private network namespace; needs root.
//
//   build/bin/sockdiag_bench --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "platform/LogSink.h"
#include "sockdiag/SockDiag.h"
#include "sockdiag/tests/LoopbackSockets.h"
#include "tests/support/NetNamespace.h"

extern char** environ;

namespace {

constexpr uid_t kApp = 10123;

// The daemon writes one line per destroyed socket; count them instead of
// printing ten thousand lines into the figures.
class CountingSink : public vekd::platform::LogSink {
  public:
    void write(int, const char*, const char* message) override {
        if (std::string(message).find("SOCK DESTROY [0]") != std::string::npos) ++destroyed;
    }
    std::atomic<long> destroyed{0};
};

CountingSink gSink;

// N established connections to one listener, clients owned by kApp. The
// server ends stay in the listener's queue (owned by root, dumped like any
// other socket) so that 10,000 connections fit in the descriptor limit.
struct Connections {
    vekd::test::Fds fds;
    std::vector<int> clients;
    uint16_t port = 0;

    bool build(int n) {
        int listener = fds.add(vekd::test::tcpListener(AF_INET, n + 16));
        if (listener < 0) return false;
        port = vekd::test::localPort(listener);
        clients.reserve(n);
        for (int i = 0; i < n; ++i) {
            int c = fds.add(vekd::test::tcpConnect(AF_INET, port, kApp));
            if (c < 0) return false;
            clients.push_back(c);
        }
        return stillOpen() == n;
    }
    int stillOpen() const {
        int open = 0;
        for (int c : clients) open += vekd::test::tcpState(c) != TCP_CLOSE;
        return open;
    }
};

using Clock = std::chrono::steady_clock;

// Times `destroy` over fresh connections in every iteration; false (and the
// benchmark marked failed) when a socket survived.
template <class Destroy>
void run(benchmark::State& state, Destroy destroy) {
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Connections conns;
        if (!conns.build(n)) {
            state.SkipWithError("cannot build the connections");
            return;
        }
        gSink.destroyed = 0;
        auto start = Clock::now();
        const bool ok = destroy(conns);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (!ok || conns.stillOpen() != 0) {
            state.SkipWithError("not every socket was destroyed");
            return;
        }
    }
    state.counters["sockets"] = n;
}

void BM_KillSocketsForUID(benchmark::State& state) {
    run(state, [&](const Connections& conns) {
        return killSocketsForUID("10123") == 0 && gSink.destroyed == static_cast<long>(conns.clients.size());
    });
}

void BM_SsKillSamePorts(benchmark::State& state) {
    run(state, [](const Connections& conns) {
        const std::string filter = "dport = :" + std::to_string(conns.port);
        const char* argv[] = {"ss", "-K", "-tn", filter.c_str(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        pid_t pid = -1;
        int status = -1;
        int rc = posix_spawnp(&pid, "ss", &actions, nullptr, const_cast<char**>(argv), environ);
        if (rc == 0) waitpid(pid, &status, 0);
        posix_spawn_file_actions_destroy(&actions);
        return rc == 0 && status == 0;
    });
}

BENCHMARK(BM_KillSocketsForUID)->Arg(100)->Arg(1000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KillSocketsForUID)->Arg(10000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SsKillSamePorts)->Arg(100)->Arg(1000)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SsKillSamePorts)->Arg(10000)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    std::string why;
    if (!vekd::test::enterPrivateNetworkNamespace(&why)) {
        fprintf(stderr, "sockdiag_bench needs a private network namespace: %s\n", why.c_str());
        return 1;
    }
    if (!vekd::test::raiseOpenFileLimit(10100)) {
        fprintf(stderr, "cannot raise RLIMIT_NOFILE to 10100\n");
        return 1;
    }
    // The namespace's own accept-queue limit, so one listener holds them all.
    int rc = 0;
    vekd::test::runShell("echo 20000 > /proc/sys/net/core/somaxconn", &rc);
    if (rc != 0) {
        fprintf(stderr, "cannot raise net.core.somaxconn in the namespace\n");
        return 1;
    }
    vekd::platform::installHostLogger();
    vekd::ScopedSeam<vekd::platform::LogSink> quiet(gSink);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
