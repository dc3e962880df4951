// The daemon process against a broken platform: it must stay up, keep
// answering and evaluating, say what is wrong, and give back what it opened.
#include <gtest/gtest.h>

#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kTurn = "CALC2 ++";  // one evaluation turn, in the verbose log

TEST(DaemonFault, BrokenPlatformIsReportedAndSurvived) {
    const struct {
        const char* what;
        const char* breakIt;  // shell commands in the root, before the start
        // What the daemon must say about it, and how often at least.
        std::vector<std::pair<std::string, size_t>> said;
    } cases[] = {
        {"wrappers missing", "rm system/bin/*-wrapper-1.0",
         {{"iptables-wrapper-1.0: not found", 1},
          {"E VekParameters: execl failed (No such file or directory)", 1},
          {"Interface wlan0 has no route, do not add into map", 1}}},
        {"wrappers failing", "for w in system/bin/*; do printf '#!/bin/sh\\necho \"refused: $*\">&2\\nexit 3' >$w;done",
         {{"refused: -w -t mangle -A OUTPUT -j kwop_NUV", 1},
          {"E VekParameters: Invalid interface, status=768", 1},
          {"Interface rmnet_data0 has no route, do not add into map", 1}}},
        // Each statistics file is tried three times, 500 ms apart.
        {"no kernel module", "rm -r proc/vek",
         {{"E VekStatsImpl: open stats config file failed:No such file or directory", 1},
          {"E VekStatsImpl: open mmap file failed:No such file or directory", 6}}},
        {"stats with a wrong magic", "printf 'xV4\\022' | tee proc/vek/wlan0_mmap >proc/vek/rmnet_data0_mmap",
         {{"E VekStatsData: VEK stat colletct is not ready", 10}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        vekd::test::Vekd d("mini_est_interval=20\n");
        vekd::test::runShell("cd " + d.root.path() + " && " + c.breakIt);
        d.setProperty("vendor.vek.debug", "1");
        ASSERT_TRUE(d.start());
        ASSERT_TRUE(d.configureTwoLinks()) << d.log();
        for (const auto& [fragment, count] : c.said) {
            EXPECT_TRUE(d.process->waitForLog(fragment, 10s, count)) << d.log();
        }
        EXPECT_TRUE(d.process->waitForLog(kTurn, 20s, d.process->logCount(kTurn) + 3)) << "evaluation stopped";
        // Failed commands and files give back what they opened.
        const int fds = d.count("fd");
        for (int i = 0; i < 5; ++i) ASSERT_EQ(d.vekctl({"update-uid", std::to_string(10100 + i), "1"}), 0);
        EXPECT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
        EXPECT_TRUE(vekd::test::eventually([&] { return d.count("fd") <= fds; }, 5s)) << "descriptors leaked";
        EXPECT_TRUE(d.process->running()) << d.log();
        EXPECT_TRUE(d.answersPing()) << d.log();
    }
}

}  // namespace
