// The daemon killed mid set-up, twice, then run to the end against the real
// iptables and ip in a private network namespace: every hook exists once.
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
    const std::string out = runShell(
        "for l in wlan0 rmnet_data0; do ip link add $l type veth peer name $l-p && ip link set $l up && "
        "ip link set $l-p up || exit 1; done 2>&1 && ip route add default dev wlan0 table 100 2>&1 && "
        "ip route add default dev rmnet_data0 table 101 2>&1 && echo ready");
    ASSERT_NE(out.find("ready"), std::string::npos) << out;
    vekd::test::Vekd d("vek_uid_list=10123\nmini_est_interval=200\n");
    // The real commands; routing tables are numbered in the namespace.
    d.wrap("iptables-wrapper-1.0", "exec iptables \"$@\"");
    d.wrap("ip-wrapper-1.0", "exec ip $(echo \"$*\" | sed 's/table wlan0/table 100/; s/table rmnet_data0/table 101/')");

    // Run 1: killed while the constructor appends its hooks.
    d.launch();
    ASSERT_TRUE(eventually([&] { return d.called("<-t><mangle><-A><OUTPUT><-j><kwop_NUV>"); }, 20s, 2ms)) << d.log();
    d.process->stop(SIGKILL);

    // Run 2: killed after the first link's policy-routing rule.
    ASSERT_TRUE(d.start());
    ASSERT_EQ(d.vekctl({"iface", "0", vekd::test::kWlanParams}), 0);
    ASSERT_EQ(d.vekctl({"iface", "1", vekd::test::kWwanParams}), 0);
    std::thread ready([&] { d.vekctl({"iface-ready"}); });
    const bool midway = eventually([&] { return d.called("<rule><add><fwmark><0x5B>"); }, 20s, 2ms);
    d.process->stop(SIGKILL);
    ready.join();
    ASSERT_TRUE(midway) << d.log();

    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.configureTwoLinks()) << d.log();
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}), 0);
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
    EXPECT_TRUE(d.answersPing());

    // Hooks appended after a delete, chains refilled, policy-routing rules.
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
