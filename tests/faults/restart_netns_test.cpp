// The daemon killed with SIGKILL in the middle of its set-up, twice, and
// started again, against the real iptables and ip inside a private network
// namespace: afterwards every hook exists exactly once.
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>
#include <thread>

#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::eventually;
using vekd::test::runShell;
using namespace std::chrono_literals;

TEST(KilledMidConfiguration, RestartLeavesEveryHookOnce) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    int rc = -1;
    const std::string out = runShell(
        "ip link add wlan0 type veth peer name wlan0-peer && "
        "ip link add rmnet_data0 type veth peer name rmnet-peer && "
        "for l in wlan0 wlan0-peer rmnet_data0 rmnet-peer; do ip link set $l up || exit 1; done && "
        "ip route add default dev wlan0 table 100 && ip route add default dev rmnet_data0 table 101 2>&1",
        &rc);
    ASSERT_EQ(rc, 0) << out;
    vekd::test::Vekd d("vek_uid_list=10123\nmini_est_interval=200\n");
    // The real commands; routing tables are numbered in the namespace.
    d.wrap("iptables-wrapper-1.0", "exec iptables \"$@\"");
    d.wrap("ip-wrapper-1.0", "exec ip $(echo \"$*\" | sed 's/table wlan0/table 100/; s/table rmnet_data0/table 101/')");

    // Run 1: killed while the constructor appends its hooks.
    d.launch();
    ASSERT_TRUE(eventually([&] { return d.called("-t mangle -A OUTPUT -j kwop_NUV"); }, 20s, 2ms)) << d.log();
    d.process->stop(SIGKILL);

    // Run 2: killed after the first link's policy-routing rule.
    ASSERT_TRUE(d.start());
    ASSERT_EQ(d.vekctl({"iface", "0", vekd::test::kWlanParams}), 0);
    ASSERT_EQ(d.vekctl({"iface", "1", vekd::test::kWwanParams}), 0);
    std::thread ready([&] { d.vekctl({"iface-ready"}); });
    const bool midway = eventually([&] { return d.called("rule add fwmark 0x5B"); }, 20s, 2ms);
    d.process->stop(SIGKILL);
    ready.join();
    ASSERT_TRUE(midway) << d.log();

    // Run 3: to the end.
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.configureTwoLinks()) << d.log();
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}), 0);
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
    EXPECT_TRUE(d.answersPing());

    // Hooks appended again after a delete, chains flushed and refilled, and
    // policy-routing rules (the kernel refuses a duplicate): one copy each.
    const std::pair<const char*, const char*> once[] = {
        {"iptables -w -t mangle -S OUTPUT", "-A OUTPUT -j kwop_NUV"},
        {"iptables -w -t nat -S POSTROUTING", "-A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"},
        {"iptables -w -t nat -S POSTROUTING", "-p udp -m udp -m multiport ! --ports"},
        {"iptables -w -t mangle -S kwop_NUV2", "--restore-mark"},
        {"iptables -w -t mangle -S kwop_NUV", "--uid-owner 10123"},
        {"iptables -w -t nat -S kwop_nat_POSTROUTING_NUV", "-o wlan0 -j MASQUERADE"},
        {"iptables -w -t mangle -S kwop_fw_wlan0", "-j MARK --set-xmark 0x5a"},
        {"ip rule show", "fwmark 0x5a lookup 100"},
        {"ip rule show", "fwmark 0x5b lookup 101"},
    };
    for (const auto& [command, rule] : once) {
        const std::string listing = runShell(command);
        std::istringstream lines(listing);
        size_t copies = 0;
        for (std::string l; std::getline(lines, l);) copies += l.find(rule) != std::string::npos;
        EXPECT_EQ(copies, 1u) << command << ":\n" << listing;
    }
}

}  // namespace
