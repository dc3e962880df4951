// The daemon as a process, driven only through vekctl, against wrappers that
// record every command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "tests/integration/RecordingRoot.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

namespace {

using vekd::test::binaryPath;
using vekd::test::DaemonProcess;
using vekd::test::RecordingRoot;
using vekd::test::runProgram;
using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

const std::string kIpt = "iptables-wrapper-1.0 -w -t ";
constexpr size_t kSkeletonCalls = 26;  // the rule manager's start-up commands

int vekctl(const RecordingRoot& root, const std::vector<std::string>& args) {
    return runProgram(binaryPath("vekctl"), args, root.path());
}

// The command orders themselves are checked against the classes; here the
// process shows that a client reaches each operation over the wire, that the
// wrappers really run, that the module's FIFO gets its commands, and that
// the process idles after shutdown.
TEST(DaemonProcess, DrivenThroughVekctlFromStartToShutdown) {
    VEKD_REQUIRE_PRIVATE_NETNS();  // update-uid destroys sockets: only our own
    RecordingRoot root("vek_uid_list=10123\nmini_est_interval=100\n");
    DaemonProcess daemon(binaryPath("vekd"), {}, root.path(), root.path() + "/vekd.log");

    ASSERT_TRUE(daemon.waitForLog("I Vekd-v2: VEK-V2 5.0.0 starting daemon", 10s)) << daemon.log();
    ASSERT_TRUE(daemon.waitForLog("D vekd: Added service", 10s)) << daemon.log();
    ASSERT_TRUE(root.waitForCalls(kSkeletonCalls, 10000));
    EXPECT_EQ(root.calls().front(), kIpt + "mangle -N kwop_NUV");
    EXPECT_EQ(root.calls().back(), kIpt + "nat -A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV");
    EXPECT_EQ(vekctl(root, {"ping"}), 0);

    ASSERT_EQ(vekctl(root, {"iface", "0", "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1"}), 0);
    ASSERT_EQ(vekctl(root, {"iface", "1", "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1"}), 0);
    ASSERT_EQ(vekctl(root, {"iface-ready"}), 0);
    ASSERT_TRUE(root.waitForControl("enable=1", 10000)) << daemon.log();
    EXPECT_EQ(root.controlCommands(),
              (Lines{"protocols=http,https", "ports=80,443", "iface=rmnet_data0", "iface=wlan0", "enable=1"}));
    const Lines calls = root.calls();
    for (const std::string& made : Lines{"ip-wrapper-1.0 route show table rmnet_data0",
                                         "ip-wrapper-1.0 -4 rule add fwmark 0x5A table wlan0 prio 25000",
                                         kIpt + "mangle -A kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2"}) {
        EXPECT_NE(std::find(calls.begin(), calls.end(), made), calls.end()) << made;
    }

    const struct {
        std::vector<std::string> args;
        const char* logged;
    } operations[] = {
        {{"update-uid", "10123", "2"}, "I NUVIptables: old_mode=1, new_mode=2"},
        {{"remove-uid", "10123", "0"}, "I NUVIptables: old_mode=2"},
        {{"wlan-inet", "1"}, "D NUVIptables: Update DNS route to wlan0 (10.1.0.1)"},
    };
    for (const auto& op : operations) {
        ASSERT_EQ(vekctl(root, op.args), 0) << op.args[0];
        EXPECT_TRUE(daemon.waitForLog(op.logged, 5s)) << daemon.log();
    }
    // With no statistics the main loop shares the links equally: ratio rules.
    EXPECT_TRUE(daemon.waitForLog("VEK_RATIO wlan0, 0, 0.500000", 5s)) << daemon.log();

    const size_t before = root.calls().size();
    ASSERT_EQ(vekctl(root, {"setprop", "vendor.vek.enabled", "2"}), 0);
    ASSERT_TRUE(daemon.waitForLog("I Vekd-v2: Vekd exiting", 10s)) << daemon.log();
    EXPECT_EQ(daemon.logCount("E Vekd-v2: Nuv disabled, starting cleanup..."), 1u);
    EXPECT_TRUE(root.waitForControl("enable=0", 5000));
    EXPECT_TRUE(daemon.running()) << "the process idles after shutdown instead of exiting";
    const Lines after = root.calls();
    EXPECT_NE(std::find(after.begin() + static_cast<long>(before), after.end(), kIpt + "mangle -D OUTPUT -j kwop_NUV"),
              after.end());
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
    // The link monitor probes loopback, which answers through either mark.
    RecordingRoot root("vek_uid_list=10123\nmini_est_interval=100\nping_period_ms=100\nrtt_server=127.0.0.1\n");
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
             {"links:", "2"},
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
        // Computed and installed share, then the link's health.
        const size_t computed = row.find(" 0.500 ");
        ASSERT_NE(computed, std::string::npos) << row;
        EXPECT_NE(row.find(" 0.500 ", computed + 1), std::string::npos) << row;
        EXPECT_NE(row.find(" up rtt="), std::string::npos) << row;
        EXPECT_EQ(row.substr(row.size() - 7), " lost=0") << row;
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
    ASSERT_TRUE(root.waitForCalls(kSkeletonCalls + 13, 5000));
    EXPECT_EQ(root.calls()[kSkeletonCalls], kIpt + "mangle -D OUTPUT -j kwop_NUV");
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
