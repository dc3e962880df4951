// The daemon as a process, driven only through vekctl, against wrappers that
// record every command line: start-up, the wire, the wrappers really run, the
// module's FIFO and the end. Command orders are checked against the classes.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <regex>
#include <thread>

#include "sockdiag/tests/LoopbackSockets.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::binaryPath;
using vekd::test::runProgram;
using namespace std::chrono_literals;

const std::string kIpt = "<iptables-wrapper-1.0><-w><-t>";
constexpr size_t kSkeletonCalls = 26;  // the rule manager's start-up commands

TEST(DaemonProcess, DrivenThroughVekctlFromStartToShutdown) {
    VEKD_REQUIRE_PRIVATE_NETNS();  // update-uid destroys sockets: only our own
    // The link monitor probes an address of the links' own, bound to each;
    // only the first link's answers come back to it, and the other is given
    // more than this test lasts to be found dead.
    int rc;
    vekd::test::runShell("for l in wlan0 rmnet_data0; do ip link add $l type veth peer name ${l}p && ip addr add 10.77.0.1/32 dev $l && ip link set $l up && ip link set ${l}p up || exit 1; done", &rc);
    ASSERT_EQ(rc, 0);
    vekd::test::Vekd d("vek_uid_list=10123\nmini_est_interval=100\nping_period_ms=1000\nrtt_server=10.77.0.1\nmin_ping_times=500\n");
    ASSERT_TRUE(d.start());
    EXPECT_TRUE(d.process->waitForLog("I Vekd-v2: VEK-V2 5.0.0 starting daemon"));
    ASSERT_TRUE(vekd::test::eventually([&] { return d.calls().size() >= kSkeletonCalls; }, 10s));
    EXPECT_EQ(d.calls().front(), kIpt + "<mangle><-N><kwop_NUV>");
    EXPECT_EQ(d.calls()[kSkeletonCalls - 1], kIpt + "<nat><-A><POSTROUTING><-p><tcp><-j><kwop_nat_POSTROUTING_NUV>");
    ASSERT_EQ(d.vekctl({"setprop", "vendor.vek.debug", "1"}), 0);  // the idle loop takes it at once
    // Enrolling a UID destroys its connections and no other UID's.
    vekd::test::Fds fds;
    const uint16_t port = vekd::test::localPort(fds.add(vekd::test::tcpListener(AF_INET)));
    const int app = fds.add(vekd::test::tcpConnect(AF_INET, port, 10123));
    const int other = fds.add(vekd::test::tcpConnect(AF_INET, port, 10124));
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}), 0);
    EXPECT_TRUE(d.process->waitForLog("E VEKD_SockDiag:  VEK_GAMING destroying TCP sockets: 10123\n", 5s)) << d.log();
    EXPECT_EQ(vekd::test::tcpState(app), TCP_CLOSE);
    EXPECT_EQ(vekd::test::tcpState(other), TCP_ESTABLISHED);
    EXPECT_TRUE(d.process->waitForLog("I NUVIptables: old_mode=1, new_mode=2", 5s)) << d.log();

    ASSERT_TRUE(d.configureTwoLinks()) << d.log();
    const auto controlEnds = [&](const std::string& last) {
        return vekd::test::eventually([&] { return d.controlCommands().back() == last; }, 10s);
    };
    ASSERT_TRUE(controlEnds("enable=1")) << d.log();
    const std::vector<std::string> toModule = {"protocols=http,https", "ports=80,443", "iface=rmnet_data0",
                                               "iface=wlan0", "enable=1"};
    EXPECT_EQ(d.controlCommands(), toModule);
    EXPECT_TRUE(d.called("<ip-wrapper-1.0><route><show><table><rmnet_data0>"));
    EXPECT_EQ(d.process->logCount(vekd::test::kWwanParams + std::string(") = 0")), 1u) << d.log();  // the service's own answer
    ASSERT_EQ(d.vekctl({"remove-uid", "10123", "0"}), 0);
    EXPECT_TRUE(d.process->waitForLog("I NUVIptables: old_mode=1\n", 5s)) << d.log();
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
    EXPECT_TRUE(d.process->waitForLog("D NUVIptables: Update DNS route to wlan0 (10.1.0.1)", 5s)) << d.log();
    // With no statistics the main loop shares the links equally.
    EXPECT_TRUE(d.process->waitForLog("VEK_RATIO wlan0, 0, 0.500000", 5s)) << d.log();

    // The report once the first turn rewrote the rules, its columns one blank apart.
    std::string report;
    ASSERT_TRUE(vekd::test::eventually(
        [&] {
            runProgram(binaryPath("vekctl"), {"dump", "--bogus"}, d.root.path(), &report);
            report = std::regex_replace(report, std::regex(" +"), " ");
            // The link's computed and installed share, then its health as probed.
            return report.find("rule_rewrites 1") != std::string::npos &&
                   std::regex_search(report, std::regex("\n wlan0 .* 0\\.500 0\\.500 up rtt=[0-9]+ms unanswered=0"));
        },
        5s)) << report;
    for (const char* row : {"note: 1 unknown argument ignored: '--bogus'", "run_state 2", "sockets_destroyed 1\n",
                            "wlan0 wlan0 0x5A no yes 10 0 10.1.0.1", "dns: wlan0 server 10.1.0.1",
                            "transactions updateUidNuv=1 removeUidNuv=1 notifyWlanInetNuv=1 updateIfaceParamNuv=2 "
                            "notifyIfaceParamReadyNuv=1"}) {
        EXPECT_NE(report.find(row), std::string::npos) << row << " in\n" << report;
    }

    ASSERT_EQ(d.vekctl({"setprop", "vendor.vek.enabled", "2"}), 0);
    ASSERT_TRUE(d.process->waitForLog("I Vekd-v2: Vekd exiting")) << d.log();
    EXPECT_EQ(d.process->logCount("E Vekd-v2: Nuv disabled, starting cleanup..."), 1u);
    EXPECT_TRUE(controlEnds("enable=0"));
    EXPECT_TRUE(d.called(kIpt + "<mangle><-D><OUTPUT><-j><kwop_NUV>"));
    EXPECT_TRUE(d.process->running()) << "the process idles after shutdown instead of exiting";
}

// A reader that never reads holds one dump, for at most 5 s: other dumps are
// told busy and other calls answer meanwhile. A stranger gets no report.
TEST(DaemonProcess, AStuckDumpHoldsNothingElseAndStrangersGetNoReport) {
    VEKD_REQUIRE_PRIVATE_NETNS();  // the stranger needs root to become one
    vekd::test::Vekd d("");
    ASSERT_TRUE(d.start());
    android::ProcessState::initWithDriver("/dev/vndbinder");
    android::sp<android::IBinder> service = android::defaultServiceManager()->checkService(android::String16("vekd"));
    ASSERT_NE(service, nullptr);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    for (const std::string page(4096, 'x'); write(fds[1], page.data(), page.size()) > 0;) continue;
    std::atomic<int> stuckStatus{1};
    std::thread stuck([&] {
        android::Parcel data, reply;
        data.writeFileDescriptor(fds[1]);
        data.writeInt32(0);
        stuckStatus = service->transact(android::IBinder::DUMP_TRANSACTION, data, &reply);
    });
    std::string err;
    EXPECT_TRUE(vekd::test::eventually([&] { return d.vekctl({"dump"}, &err) == 1 && err.find("resource busy") != std::string::npos; }, 3s)) << err;
    EXPECT_EQ(d.vekctl({"ping"}), 0);
    EXPECT_EQ(stuckStatus.load(), 1) << "the ping was answered while the stuck dump still ran";
    stuck.join();
    EXPECT_EQ(stuckStatus.load(), android::TIMED_OUT);
    close(fds[0]), close(fds[1]);

    constexpr int kShell = 2000, kStranger = 4321;  // each given the socket's group, so that it may connect
    ASSERT_EQ(chmod(d.root.path().c_str(), 0755) | chown(d.root.at("/dev/vndbinder/vekd").c_str(), -1, kShell), 0);
    EXPECT_EQ(d.vekctl({"dump"}, &err, kShell), 0) << err;
    ASSERT_EQ(chown(d.root.at("/dev/vndbinder/vekd").c_str(), -1, kStranger), 0);
    EXPECT_EQ(d.vekctl({"dump"}, &err, kStranger), 1);
    EXPECT_NE(err.find("permission denied"), std::string::npos) << err;
    EXPECT_TRUE(d.process->waitForLog("dump refused to uid 4321"));
    EXPECT_EQ(d.vekctl({"ping"}, &err, kStranger), 0) << err;
}

// A probe target whose look-up never answers holds up neither the
// configuration nor the report: both answer while it hangs.
TEST(DaemonProcess, AHungLookupHoldsUpNeitherConfigurationNorTheReport) {
    VEKD_REQUIRE_PRIVATE_NETNS();  // look-ups go to a silent server on our own loopback
    vekd::test::Vekd d("ping_period_ms=1000\nrtt_server=probe.vekd.example\n");
    std::ofstream(d.root.at("/resolv.conf")) << "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n";
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(d.root.at("/resolv.conf").c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "cannot put a resolver configuration of our own in place: " << strerror(errno);
    }
    vekd::test::Fds fds;
    const int dns = fds.add(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in at{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(bind(dns, reinterpret_cast<sockaddr*>(&at), sizeof(at)), 0) << strerror(errno);
    ASSERT_TRUE(d.start() && d.configureTwoLinks()) << d.log();
    pollfd query{dns, POLLIN, 0};
    ASSERT_EQ(poll(&query, 1, 10000), 1) << "the look-up began";
    EXPECT_EQ(d.vekctl({"iface-ready"}) | d.vekctl({"dump"}), 0);
    EXPECT_EQ(d.process->logCount("cannot resolve"), 0u) << "answered while the look-up still hung";
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
