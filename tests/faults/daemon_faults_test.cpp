// The daemon process against a broken platform: wrappers missing or failing,
// no kernel module, unmarked statistics files or rings rewritten under the
// reader, properties that never stand still, a client that repeats its
// configuration. The daemon must stay up (or end its loop as designed), keep
// answering, say what is wrong, and hold no more descriptors or memory.
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <random>
#include <thread>

#include "platform/binder/Client.h"
#include "stats/StatsFileBuilder.h"
#include "tests/support/DaemonProcess.h"

namespace {

using vekd::test::eventually;
using vekd::test::Vekd;
using namespace std::chrono_literals;

constexpr const char* kTurn = "CALC2 ++";  // one evaluation turn, in the verbose log

uint64_t wallMs() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count());
}

// Starts `d` with the verbose log on and both links configured.
testing::AssertionResult startConfigured(Vekd& d) {
    d.setProperty("vendor.vek.debug", "1");
    const testing::AssertionResult started = d.start();
    if (!started || d.configureTwoLinks()) return started;
    return testing::AssertionFailure() << "configuring the links failed:\n" << d.log();
}

void expectServing(Vekd& d) {
    EXPECT_TRUE(d.alive()) << d.log();
    EXPECT_TRUE(d.answersPing()) << d.log();
}

TEST(DaemonFault, BrokenPlatformIsReportedAndSurvived) {
    const std::string refuse = "echo \"wrapper refused: $*\" >&2\nexit 3";
    const struct {
        const char* what;
        std::function<void(Vekd&)> breakIt;
        // What the daemon must say about it, and how often at least.
        std::vector<std::pair<std::string, size_t>> said;
    } cases[] = {
        {"wrappers missing",
         [](Vekd& d) {
             unlink(d.root.at("/system/bin/iptables-wrapper-1.0").c_str());
             unlink(d.root.at("/system/bin/ip-wrapper-1.0").c_str());
         },
         {{"iptables-wrapper-1.0: not found", 1},
          {"E VekParameters: execl failed (No such file or directory)", 1},
          {"Interface wlan0 has no route, do not add into map", 1}}},
        {"wrappers failing",
         [&](Vekd& d) {
             d.wrap("iptables-wrapper-1.0", refuse);
             d.wrap("ip-wrapper-1.0", refuse);
         },
         {{"wrapper refused: -w -t mangle -A OUTPUT -j kwop_NUV", 1},
          {"E VekParameters: Invalid interface, status=768", 1},
          {"Interface rmnet_data0 has no route, do not add into map", 1}}},
        // Each statistics file is tried three times, 500 ms apart.
        {"no kernel module",
         [](Vekd& d) {
             unlink(d.root.at("/proc/vek/config").c_str());
             rmdir(d.root.at("/proc/vek").c_str());
         },
         {{"E VekStatsImpl: open stats config file failed:No such file or directory", 1},
          {"E VekStatsImpl: open mmap file failed:No such file or directory", 6}}},
        {"statistics without the magic",
         [](Vekd& d) {
             for (const char* name : {"wlan0", "rmnet_data0"}) {
                 vekd::stats::StatsFileBuilder ring;
                 ring.appendSeries(wallMs() - 1000, 20, 50, 1500);
                 ring.setMagic(0x12345678);
                 ASSERT_TRUE(ring.saveTo(d.root.at(std::string("/proc/vek/") + name + "_mmap")));
             }
         },
         {{"E VekStatsData: VEK stat colletct is not ready", 10}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Vekd d("mini_est_interval=50\n");
        c.breakIt(d);
        ASSERT_TRUE(startConfigured(d));
        for (const auto& [fragment, count] : c.said) EXPECT_TRUE(d.waitForLog(fragment, 10s, count)) << d.log();
        // Evaluation goes on.
        EXPECT_TRUE(d.waitForLog(kTurn, 20s, d.logCount(kTurn) + 3)) << d.log();
        // Failed commands and files give back what they opened.
        const int fds = d.descriptors();
        for (int i = 0; i < 5; ++i) ASSERT_EQ(d.vekctl({"update-uid", std::to_string(10100 + i), "1"}), 0);
        EXPECT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
        EXPECT_TRUE(eventually([&] { return d.descriptors() <= fds; }, 5s)) << "descriptors leaked";
        expectServing(d);
    }
}

TEST(DaemonFault, RingRewrittenWhileRead) {
    Vekd d("mini_est_interval=20\n");
    std::unique_ptr<vekd::stats::StatsFile> files[2];
    const char* names[2] = {"wlan0", "rmnet_data0"};
    for (int i = 0; i < 2; ++i) {
        std::string error;
        files[i] = vekd::stats::StatsFile::open(d.root.at(std::string("/proc/vek/") + names[i] + "_mmap"), &error);
        ASSERT_NE(files[i], nullptr) << error;
        files[i]->setMagic();
        files[i]->appendSeries(wallMs() - 2000, 20, 100, 1500);
    }
    ASSERT_TRUE(startConfigured(d));
    const size_t turnsBefore = d.logCount(kTurn);

    // For two seconds, with the daemon reading every 20 ms: good samples,
    // garbage slots, wild write indexes and a flickering magic.
    std::mt19937 rng(20240611);
    for (const auto end = std::chrono::steady_clock::now() + 2s; std::chrono::steady_clock::now() < end;) {
        vekd::stats::StatsFile& f = *files[rng() % 2];
        const uint32_t words[4] = {static_cast<uint32_t>(rng()), static_cast<uint32_t>(rng()),
                                   static_cast<uint32_t>(rng()), static_cast<uint32_t>(rng())};
        VekStatsSample garbage;
        memcpy(&garbage, words, sizeof(garbage));
        switch (rng() % 5) {
            case 0:
                f.append(vekd::stats::makeSample(wallMs(), 1 + rng() % 60000));
                break;
            case 1:
                f.setSlot(1 + rng() % kVekStatsRingSlots, garbage);
                break;
            case 2:
                f.setWriteIndex(static_cast<uint32_t>(rng()) % 4096);
                break;
            case 3:
                f.setMagic(rng() % 4 == 0 ? 0 : kVekStatsMagic);
                break;
            default:
                std::this_thread::sleep_for(200us);
        }
    }
    EXPECT_GE(d.logCount(kTurn), turnsBefore + 20) << "the daemon stopped evaluating while the rings changed";
    expectServing(d);
}

TEST(DaemonFault, PropertiesFlipping) {
    Vekd d("mini_est_interval=20\n");
    ASSERT_TRUE(startConfigured(d));
    const int fds = d.descriptors();

    // Debug among 0, 1 and 2 and enabled among 0 and 1 (later 2 too).
    std::mt19937 rng(7);
    auto flip = [&](std::chrono::milliseconds length, int enabledValues) {
        for (const auto end = std::chrono::steady_clock::now() + length; std::chrono::steady_clock::now() < end;) {
            d.setProperty("vendor.vek.debug", std::to_string(rng() % 3));
            d.setProperty("vendor.vek.enabled", std::to_string(rng() % enabledValues));
            std::this_thread::sleep_for(1ms);
        }
    };
    const size_t turnsBefore = d.logCount(kTurn);
    flip(2s, 2);
    EXPECT_GT(d.logCount(kTurn), turnsBefore) << d.log();
    EXPECT_EQ(d.logCount("Vekd exiting"), 0u);

    // 2 ends the loop once; later values, 2 among them, change nothing.
    d.setProperty("vendor.vek.enabled", "2");
    ASSERT_TRUE(d.waitForLog("I Vekd-v2: Vekd exiting")) << d.log();
    EXPECT_TRUE(eventually([&] { return d.controlCommands().back() == "enable=0"; }, 5s));
    flip(1s, 3);
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(d.logCount("E Vekd-v2: Nuv disabled, starting cleanup..."), 1u);
    EXPECT_EQ(d.logCount("I Vekd-v2: Vekd exiting"), 1u);
    EXPECT_EQ(d.vekctl({"update-uid", "10123", "1"}), 0);
    EXPECT_TRUE(eventually([&] { return d.descriptors() <= fds; }, 5s)) << "descriptors leaked";
    expectServing(d);
}

// Every iface-ready replaces the interface records: a client that repeats it
// must not make the daemon grow. Wrappers that exit at once keep a thousand
// rounds short.
TEST(DaemonFault, RepeatedInterfaceConfigurationDoesNotGrowTheDaemon) {
    Vekd d("num_interfaces=2\n");
    for (const char* wrapper : {"/system/bin/iptables-wrapper-1.0", "/system/bin/ip-wrapper-1.0"}) {
        unlink(d.root.at(wrapper).c_str());
        ASSERT_EQ(symlink("/bin/true", d.root.at(wrapper).c_str()), 0);
    }
    ASSERT_TRUE(d.start());
    auto& client = vekd::binder::Client::instance();
    const int32_t service = client.handleForPath(d.root.at("/dev/vndbinder/vekd"));
    // Code 4 with a slot and its text, or code 5 without arguments.
    auto call = [&](uint32_t code, int32_t slot = 0, const char* params = nullptr) {
        android::Parcel data, reply;
        data.writeInterfaceToken(android::String16("vekd"));
        if (params != nullptr) {
            data.writeInt32(slot);
            data.writeCString(params);
        }
        return client.transact(service, code, data, &reply, 0) == android::NO_ERROR && reply.readInt32() == 0;
    };
#ifdef VEKD_SANITIZED
    // The sanitizers' own bookkeeping makes memory figures meaningless; the
    // rounds still run the replacement under their checks.
    constexpr int kRounds = 200;
#else
    constexpr int kRounds = 1000;
#endif
    long afterFirstHundred = 0;
    for (int round = 1; round <= kRounds; ++round) {
        ASSERT_TRUE(call(4, 0, vekd::test::kWlanParams)) << d.log();
        ASSERT_TRUE(call(4, 1, vekd::test::kWwanParams)) << d.log();
        ASSERT_TRUE(call(5)) << d.log();
        if (round == 100) afterFirstHundred = d.residentKb();
    }
    const long atEnd = d.residentKb();
    ASSERT_GT(afterFirstHundred, 0);
    std::cout << "resident memory after 100 rounds: " << afterFirstHundred << " kB, after " << kRounds << ": "
              << atEnd << " kB\n";
#ifndef VEKD_SANITIZED
    EXPECT_LE(atEnd - afterFirstHundred, 256);
#endif
    EXPECT_EQ(d.logCount("has no route"), 0u);
    expectServing(d);
}

}  // namespace
