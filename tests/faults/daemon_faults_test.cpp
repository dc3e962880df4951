// The daemon process against a broken platform: it must stay up, keep
// answering and evaluating, say what is wrong, and give back what it opened.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <thread>

#include "stats/StatsFileBuilder.h"
#include "tests/support/DaemonProcess.h"

namespace {

using vekd::test::eventually;
using vekd::test::Vekd;
using namespace std::chrono_literals;

constexpr const char* kTurn = "CALC2 ++";  // one evaluation turn, in the verbose log

TEST(DaemonFault, BrokenPlatformIsReportedAndSurvived) {
    const std::string refuse = "echo \"wrapper refused: $*\" >&2\nexit 3";
    std::mt19937 rng(7);
    const struct {
        const char* what;
        std::function<void(Vekd&)> before;
        std::function<void(Vekd&)> meanwhile;  // while the daemon evaluates every 20 ms
        // What the daemon must say about it, and how often at least.
        std::vector<std::pair<std::string, size_t>> said;
    } cases[] = {
        {"wrappers missing",
         [](Vekd& d) {
             unlink(d.root.at("/system/bin/iptables-wrapper-1.0").c_str());
             unlink(d.root.at("/system/bin/ip-wrapper-1.0").c_str());
         },
         nullptr,
         {{"iptables-wrapper-1.0: not found", 1},
          {"E VekParameters: execl failed (No such file or directory)", 1},
          {"Interface wlan0 has no route, do not add into map", 1}}},
        {"wrappers failing",
         [&](Vekd& d) {
             d.wrap("iptables-wrapper-1.0", refuse);
             d.wrap("ip-wrapper-1.0", refuse);
         },
         nullptr,
         {{"wrapper refused: -w -t mangle -A OUTPUT -j kwop_NUV", 1},
          {"E VekParameters: Invalid interface, status=768", 1},
          {"Interface rmnet_data0 has no route, do not add into map", 1}}},
        // Each statistics file is tried three times, 500 ms apart.
        {"no kernel module",
         [](Vekd& d) {
             unlink(d.root.at("/proc/vek/config").c_str());
             rmdir(d.root.at("/proc/vek").c_str());
         },
         nullptr,
         {{"E VekStatsImpl: open stats config file failed:No such file or directory", 1},
          {"E VekStatsImpl: open mmap file failed:No such file or directory", 6}}},
        {"statistics without the magic",
         [](Vekd& d) {
             for (const char* name : {"wlan0", "rmnet_data0"}) {
                 vekd::stats::StatsFileBuilder ring;
                 const auto now = std::chrono::system_clock::now().time_since_epoch();
                 ring.appendSeries(std::chrono::duration_cast<std::chrono::milliseconds>(now).count() - 1000, 20, 50, 1500);
                 ring.setMagic(0x12345678);
                 ASSERT_TRUE(ring.saveTo(d.root.at(std::string("/proc/vek/") + name + "_mmap")));
             }
         },
         nullptr,
         {{"E VekStatsData: VEK stat colletct is not ready", 10}}},
        {"properties flipping: debug among 0, 1 and 2, enabled among 0 and 1", nullptr,
         [&](Vekd& d) {
             for (const auto end = std::chrono::steady_clock::now() + 2s; std::chrono::steady_clock::now() < end;) {
                 d.setProperty("vendor.vek.debug", std::to_string(rng() % 3));
                 d.setProperty("vendor.vek.enabled", std::to_string(rng() % 2));
                 std::this_thread::sleep_for(1ms);
             }
             d.setProperty("vendor.vek.debug", "1");
             d.setProperty("vendor.vek.enabled", "1");
         },
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Vekd d("mini_est_interval=20\n");
        if (c.before) c.before(d);
        d.setProperty("vendor.vek.debug", "1");
        ASSERT_TRUE(d.start());
        ASSERT_TRUE(d.configureTwoLinks()) << d.log();
        if (c.meanwhile) c.meanwhile(d);
        for (const auto& [fragment, count] : c.said) EXPECT_TRUE(d.waitForLog(fragment, 10s, count)) << d.log();
        // Evaluation goes on.
        EXPECT_TRUE(d.waitForLog(kTurn, 20s, d.logCount(kTurn) + 3)) << d.log();
        // Failed commands and files give back what they opened.
        const int fds = d.descriptors();
        for (int i = 0; i < 5; ++i) ASSERT_EQ(d.vekctl({"update-uid", std::to_string(10100 + i), "1"}), 0);
        EXPECT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
        EXPECT_TRUE(eventually([&] { return d.descriptors() <= fds; }, 5s)) << "descriptors leaked";
        EXPECT_TRUE(d.alive()) << d.log();
        EXPECT_TRUE(d.answersPing()) << d.log();
    }
}

}  // namespace
