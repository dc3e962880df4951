// The daemon as a process, driven only through vekctl, against wrappers that
// record every command line.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "tests/integration/RecordingRoot.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

#include <unistd.h>

namespace {

using vekd::test::binaryPath;
using vekd::test::DaemonProcess;
using vekd::test::RecordingRoot;
using vekd::test::runProgram;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

const std::string kIpt = "iptables-wrapper-1.0 -w -t ";

Lines listA() {
    const std::string udpHook =
        "POSTROUTING -p udp -m udp -m multiport ! --ports "
        "32000:36999,40100:40150,50010:50060,4500,5060,500 -j kwop_nat_POSTROUTING_NUV";
    return {kIpt + "mangle -N kwop_NUV", kIpt + "mangle -F kwop_NUV", kIpt + "mangle -N kwop_NUV2",
            kIpt + "mangle -F kwop_NUV2", kIpt + "mangle -N kwop_DNS", kIpt + "mangle -F kwop_DNS",
            kIpt + "mangle -N kwop_VEK", kIpt + "mangle -F kwop_VEK", kIpt + "mangle -A kwop_NUV2 -j kwop_DNS",
            kIpt + "mangle -A kwop_NUV2 -j kwop_VEK", kIpt + "nat -N kwop_NUV_nat", kIpt + "nat -F kwop_NUV_nat",
            kIpt + "nat -N kwop_DNS_nat", kIpt + "nat -F kwop_DNS_nat",
            kIpt + "mangle -I kwop_NUV2 1 -m state --state ESTABLISHED,RELATED -j CONNMARK --restore-mark",
            kIpt + "mangle -I kwop_NUV 2 -j kwop_VEK", kIpt + "mangle -D OUTPUT -j kwop_NUV",
            kIpt + "mangle -A OUTPUT -j kwop_NUV", kIpt + "nat -D OUTPUT -j kwop_NUV_nat",
            kIpt + "nat -A OUTPUT -j kwop_NUV_nat", kIpt + "nat -F kwop_nat_POSTROUTING_NUV",
            kIpt + "nat -N kwop_nat_POSTROUTING_NUV", kIpt + "nat -D " + udpHook,
            kIpt + "nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV", kIpt + "nat -A " + udpHook,
            kIpt + "nat -A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"};
}

Lines markChain(const std::string& iface, const std::string& mark) {
    const std::string chain = "kwop_fw_" + iface;
    return {kIpt + "mangle -N " + chain,
            kIpt + "mangle -F " + chain,
            kIpt + "mangle -A " + chain + " -j MARK --set-mark " + mark,
            kIpt + "mangle -A " + chain + " -j CONNMARK --save-mark",
            kIpt + "mangle -A " + chain + " -j ACCEPT",
            "ip-wrapper-1.0 -4 rule add fwmark " + mark + " table " + iface + " prio 25000",
            kIpt + "nat -I kwop_nat_POSTROUTING_NUV -o " + iface + " -j MASQUERADE"};
}

Lines uidPair(const char* op, const std::string& uid) {
    return {kIpt + "mangle " + op + " kwop_NUV -m owner --uid-owner " + uid + " -j kwop_NUV2",
            kIpt + "nat " + op + " kwop_NUV_nat -m owner --uid-owner " + uid + " -j kwop_DNS_nat"};
}

void append(Lines& to, const Lines& more) { to.insert(to.end(), more.begin(), more.end()); }

int vekctl(const RecordingRoot& root, const std::vector<std::string>& args, std::string* err = nullptr) {
    return runProgram(binaryPath("vekctl"), args, root.path(), nullptr, err);
}

TEST(DaemonProcess, DrivenThroughVekctlFromStartToShutdown) {
    VEKD_REQUIRE_PRIVATE_NETNS();  // update-uid destroys sockets: only our own
    RecordingRoot root("vek_uid_list=10123\nmini_est_interval=100\n");
    const std::string logFile = root.path() + "/vekd.log";
    DaemonProcess daemon(binaryPath("vekd"), {}, root.path(), logFile);

    ASSERT_TRUE(daemon.waitForLog("I Vekd-v2: VEK-V2 5.0.0 starting daemon", 10s)) << daemon.log();
    ASSERT_TRUE(daemon.waitForLog("D vekd: Added service", 10s)) << daemon.log();
    ASSERT_TRUE(root.waitForCalls(26, 10000));
    Lines expected = listA();
    EXPECT_EQ(root.calls(), expected);
    EXPECT_EQ(vekctl(root, {"ping"}), 0);

    ASSERT_EQ(vekctl(root, {"iface", "0", "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1"}), 0);
    ASSERT_EQ(vekctl(root, {"iface", "1", "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1"}), 0);
    EXPECT_TRUE(daemon.waitForLog("Vekd::updateIfaceParamNuv(1, rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1)", 5s));
    ASSERT_EQ(vekctl(root, {"iface-ready"}), 0);
    ASSERT_TRUE(root.waitForControl("enable=1", 10000)) << daemon.log();
    EXPECT_EQ(root.controlCommands(),
              (Lines{"protocols=http,https", "ports=80,443", "iface=rmnet_data0", "iface=wlan0", "enable=1"}));
    EXPECT_TRUE(daemon.waitForLog("E NuvManager:  The UID Vec entry for UID 10123 has mode 1", 5s));

    ASSERT_EQ(vekctl(root, {"update-uid", "10123", "2"}), 0);
    EXPECT_TRUE(daemon.waitForLog("I NUVIptables: old_mode=1, new_mode=2", 5s)) << daemon.log();
    ASSERT_EQ(vekctl(root, {"remove-uid", "10123", "0"}), 0);
    EXPECT_TRUE(daemon.waitForLog("I NUVIptables: old_mode=2", 5s));
    ASSERT_EQ(vekctl(root, {"wlan-inet", "1"}), 0);
    EXPECT_TRUE(daemon.waitForLog("D NUVIptables: Update DNS route to wlan0 (10.1.0.1)", 5s));

    ASSERT_EQ(vekctl(root, {"setprop", "vendor.vek.enabled", "2"}), 0);
    ASSERT_TRUE(daemon.waitForLog("I Vekd-v2: Vekd exiting", 10s)) << daemon.log();
    EXPECT_TRUE(daemon.log().find("E Vekd-v2: Nuv disabled, starting cleanup...") != std::string::npos);
    EXPECT_TRUE(root.waitForControl("enable=0", 5000));
    EXPECT_TRUE(daemon.running()) << "the process idles after shutdown instead of exiting";

    // The main loop rewrites the ratio rules whenever the split moves,
    // interleaved with the client's commands; they are checked apart.
    const Lines calls = root.calls();
    const auto shutdownStart =
        std::find(calls.begin() + 26, calls.end(), kIpt + "mangle -D OUTPUT -j kwop_NUV");
    Lines running, ratioRules;
    for (auto it = calls.begin(); it != shutdownStart; ++it) {
        const bool ratio = it - calls.begin() >= 26 &&
                           (*it == kIpt + "mangle -F kwop_VEK" || it->find("-A kwop_VEK ") != std::string::npos);
        (ratio ? ratioRules : running).push_back(*it);
    }
    const Lines shutdown(shutdownStart, calls.end());

    append(expected, {"ip-wrapper-1.0 route show table wlan0", "ip-wrapper-1.0 route show table wlan0",
                      "ip-wrapper-1.0 route show table rmnet_data0",
                      "ip-wrapper-1.0 route show table rmnet_data0",
                      // (the runner's trailing blank does not survive the shell's word splitting)
                      kIpt + "mangle -F kwop_NUV"});
    append(expected, uidPair("-A", "10123"));
    append(expected, markChain("rmnet_data0", "0x5B"));
    append(expected, markChain("wlan0", "0x5A"));
    append(expected, {uidPair("-D", "10123")[0], uidPair("-A", "10123")[0], uidPair("-D", "10123")[1],
                      uidPair("-A", "10123")[1]});
    append(expected, uidPair("-D", "10123"));
    append(expected, {kIpt + "mangle -F kwop_DNS",
                      kIpt + "mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_wlan0",
                      kIpt + "nat -F kwop_DNS_nat",
                      kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d -j DNAT --to-destination 10.1.0.1"});
    EXPECT_EQ(running.size(), expected.size());
    for (size_t i = 0; i < std::min(running.size(), expected.size()); ++i) {
        EXPECT_EQ(running[i], expected[i]) << "wrapper call " << i;
    }

    // Shutdown: the hooks and the skeleton go, then every mark chain and its rule.
    ASSERT_GE(shutdown.size(), 13u);
    EXPECT_EQ(shutdown[0], kIpt + "mangle -D OUTPUT -j kwop_NUV");
    EXPECT_EQ(shutdown[12], kIpt + "mangle -X kwop_VEK");
    for (const std::string& must : {kIpt + "mangle -X kwop_fw_rmnet_data0", kIpt + "mangle -X kwop_fw_wlan0",
                                    std::string("ip-wrapper-1.0 -4 rule del fwmark 0x5B prio 25000"),
                                    std::string("ip-wrapper-1.0 -4 rule del fwmark 0x5A prio 25000")}) {
        EXPECT_NE(std::find(shutdown.begin(), shutdown.end(), must), shutdown.end()) << must;
    }
    // With no statistics the links share equally: one rule each.
    EXPECT_FALSE(ratioRules.empty());
    for (const std::string& rule : ratioRules) {
        if (rule.find("-A kwop_VEK ") == std::string::npos) continue;
        EXPECT_NE(rule.find("-m statistic --mode random --probability"), std::string::npos) << rule;
    }
}

// Whether the report has a line whose blank-separated words start with `row`.
bool hasRow(const std::string& report, const Lines& row) {
    std::istringstream lines(report);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        Lines got;
        std::string word;
        while (words >> word && got.size() < row.size()) got.push_back(word);
        if (got == row) return true;
    }
    return false;
}

TEST(DaemonProcess, DumpShowsTheStateAsSetUp) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    RecordingRoot root("vek_uid_list=10123\nmini_est_interval=100\n");
    DaemonProcess daemon(binaryPath("vekd"), {}, root.path(), root.path() + "/vekd.log");
    ASSERT_TRUE(daemon.waitForLog("D vekd: Added service", 10s)) << daemon.log();
    ASSERT_EQ(vekctl(root, {"iface", "0", "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1"}), 0);
    ASSERT_EQ(vekctl(root, {"iface", "1", "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1"}), 0);
    ASSERT_EQ(vekctl(root, {"iface-ready"}), 0);
    ASSERT_EQ(vekctl(root, {"update-uid", "10124", "2"}), 0);
    ASSERT_EQ(vekctl(root, {"wlan-inet", "1"}), 0);

    // Without statistics both links get half, once the first turn wrote it.
    std::string report;
    for (int i = 0; i < 100 && !hasRow(report, {"rule_rewrites", "1"}); ++i) {
        std::this_thread::sleep_for(50ms);
        ASSERT_EQ(runProgram(binaryPath("vekctl"), {"dump", "--bogus"}, root.path(), &report), 0);
    }
    for (const Lines& row : std::vector<Lines>{
             {"note:", "1", "unknown", "argument", "ignored:", "'--bogus'"},
             {"run_state", "2"},
             {"wlan0", "wlan0", "0x5A", "no", "yes", "10", "0", "10.1.0.1"},
             {"rmnet_data0", "rmnet_data0", "0x5B", "yes", "no", "20", "0", "10.2.0.1"},
             {"links:", "2", "(link", "monitor", "off)"},
             {"10123", "1"},
             {"10124", "2"},
             {"dns:", "wlan0", "server", "10.1.0.1"},
             {"rule_rewrites", "1"},
             {"transactions", "updateUidNuv=1", "removeUidNuv=0", "notifyWlanInetNuv=1",
              "updateIfaceParamNuv=2", "notifyIfaceParamReadyNuv=1"},
             {"mini_est_interval=100"}}) {
        EXPECT_TRUE(hasRow(report, row)) << row[0] << " in\n" << report;
    }
    for (const char* link : {"wlan0", "rmnet_data0"}) {
        const size_t at = report.find("\n  " + std::string(link) + " ", report.find("links:"));
        ASSERT_NE(at, std::string::npos) << report;
        const std::string row = report.substr(at, report.find('\n', at + 1) - at);
        EXPECT_NE(row.find("0.500  "), std::string::npos) << row;
        EXPECT_EQ(row.substr(row.size() - 5), "0.500") << row;
    }
}

TEST(DaemonProcess, EnabledTwoBeforeStartRunsOneTurnAndCleansUp) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    RecordingRoot root("");
    root.root().writeFile("/dev/__properties__/vendor.vek.enabled", "2\n");
    DaemonProcess daemon(binaryPath("vekd"), {}, root.path(), root.path() + "/vekd.log");
    ASSERT_TRUE(daemon.waitForLog("I Vekd-v2: Vekd exiting", 10s)) << daemon.log();
    const std::string log = daemon.log();
    EXPECT_LT(log.find("Added service"), log.find("Nuv disabled, starting cleanup..."));
    // The skeleton was built and taken down again.
    EXPECT_TRUE(root.waitForCalls(26 + 13, 5000));
    EXPECT_EQ(root.calls()[26], kIpt + "mangle -D OUTPUT -j kwop_NUV");
}

TEST(DaemonProcess, IdleDaemonReactsToTheDebugPropertyAtOnce) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    RecordingRoot root("");
    DaemonProcess daemon(binaryPath("vekd"), {}, root.path(), root.path() + "/vekd.log");
    ASSERT_TRUE(daemon.waitForLog("Added service", 10s));
    ASSERT_EQ(vekctl(root, {"setprop", "vendor.vek.debug", "1"}), 0);
    ASSERT_EQ(vekctl(root, {"update-uid", "10123", "1"}), 0);
    // Verbose lines appear only once the loop has picked the property up.
    EXPECT_TRUE(daemon.waitForLog("NUV destroying sockets = 10123", 5s)) << daemon.log();
}

}  // namespace

namespace {

TEST(DaemonProcess, ArgumentsAreAnsweredWithoutStarting) {
    vekd::test::TempRoot root;
    std::string out, err;
    EXPECT_EQ(runProgram(binaryPath("vekd"), {"--help"}, root.path(), &out, &err), 0);
    EXPECT_EQ(out.rfind("usage: vekd\n", 0), 0u);
    EXPECT_EQ(runProgram(binaryPath("vekd"), {"--verbose"}, root.path(), &out, &err), 2);
    EXPECT_NE(err.find("vekd: unexpected argument '--verbose'"), std::string::npos);
    EXPECT_EQ(access(root.at("/dev/vndbinder").c_str(), F_OK), -1) << "nothing may start";
}

}  // namespace
