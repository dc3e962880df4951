// The daemon killed with SIGKILL in the middle of its set-up, twice, and
// started again, against the real iptables and ip inside a private network
// namespace: afterwards every hook exists exactly once.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "tests/faults/DaemonUnderTest.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::DaemonUnderTest;
using vekd::test::runShell;
using namespace std::chrono_literals;

size_t countLines(const std::string& text, const std::string& line) {
    std::istringstream in(text);
    size_t n = 0;
    for (std::string l; std::getline(in, l);) n += l == line;
    return n;
}

size_t countContaining(const std::string& text, const std::string& fragment) {
    std::istringstream in(text);
    size_t n = 0;
    for (std::string l; std::getline(in, l);) n += l.find(fragment) != std::string::npos;
    return n;
}

bool callsContain(DaemonUnderTest& d, const std::string& fragment) {
    const auto calls = d.root().calls();
    return std::any_of(calls.begin(), calls.end(),
                       [&](const std::string& c) { return c.find(fragment) != std::string::npos; });
}

bool waitForCall(DaemonUnderTest& d, const std::string& fragment, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!callsContain(d, fragment)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// Wrappers that log each call like the recording ones and then run the real
// commands; routing tables are numbered in the namespace.
void installRealWrappers(DaemonUnderTest& d) {
    const std::string calls = d.path() + "/calls.log";
    d.root().root().writeFile("/system/bin/iptables-wrapper-1.0",
                              "#!/bin/sh\necho \"iptables-wrapper-1.0 $*\" >> " + calls +
                                  "\nexec iptables \"$@\"\n",
                              true);
    d.root().root().writeFile("/system/bin/ip-wrapper-1.0",
                              "#!/bin/bash\necho \"ip-wrapper-1.0 $*\" >> " + calls +
                                  "\nargs=() prev=\nfor a in \"$@\"; do\n"
                                  "  if [ \"$prev\" = table ]; then\n"
                                  "    case $a in wlan0) a=100 ;; rmnet_data0) a=101 ;; esac\n"
                                  "  fi\n  args+=(\"$a\"); prev=$a\ndone\nexec ip \"${args[@]}\"\n",
                              true);
}

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

    DaemonUnderTest d("vek_uid_list=10123\nmini_est_interval=200\n");
    installRealWrappers(d);

    // Run 1: killed while the constructor appends its hooks.
    d.launch();
    ASSERT_TRUE(waitForCall(d, "-t mangle -A OUTPUT -j kwop_NUV", 20s)) << d.log();
    d.process().stop(SIGKILL);

    // Run 2: killed while the interfaces are being configured.
    std::string why;
    d.launch();
    ASSERT_TRUE(d.waitUntilServing(&why)) << why;
    ASSERT_EQ(d.vekctl({"iface", "0", vekd::test::kWlanParams}), 0);
    ASSERT_EQ(d.vekctl({"iface", "1", vekd::test::kWwanParams}), 0);
    std::thread ready([&] { d.vekctl({"iface-ready"}); });
    // After the first link's policy-routing rule, before the second link's chain.
    const bool midway = waitForCall(d, "rule add fwmark 0x5B", 20s);
    d.process().stop(SIGKILL);
    ready.join();
    ASSERT_TRUE(midway) << d.log();

    // Run 3: to the end.
    d.launch();
    ASSERT_TRUE(d.waitUntilServing(&why)) << why;
    ASSERT_TRUE(d.configureTwoLinks()) << d.log();
    ASSERT_EQ(d.vekctl({"update-uid", "10123", "2"}), 0);
    ASSERT_EQ(d.vekctl({"wlan-inet", "1"}), 0);
    EXPECT_TRUE(d.answersPing());

    const std::string mangleOut = runShell("iptables -w -t mangle -S OUTPUT");
    const std::string natOut = runShell("iptables -w -t nat -S OUTPUT");
    const std::string natPost = runShell("iptables -w -t nat -S POSTROUTING");
    EXPECT_EQ(countLines(mangleOut, "-A OUTPUT -j kwop_NUV"), 1u) << mangleOut;
    EXPECT_EQ(countLines(natOut, "-A OUTPUT -j kwop_NUV_nat"), 1u) << natOut;
    EXPECT_EQ(countLines(natPost, "-A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"), 1u) << natPost;
    EXPECT_EQ(countContaining(natPost, "-p udp -m udp -m multiport ! --ports"), 1u) << natPost;

    // The chains that were flushed and refilled hold one copy of each rule.
    const std::string nuv2 = runShell("iptables -w -t mangle -S kwop_NUV2");
    EXPECT_EQ(countContaining(nuv2, "--restore-mark"), 1u) << nuv2;
    EXPECT_EQ(countContaining(nuv2, "-j kwop_VEK"), 1u) << nuv2;
    const std::string uids = runShell("iptables -w -t mangle -S kwop_NUV");
    EXPECT_EQ(countContaining(uids, "--uid-owner 10123"), 1u) << uids;
    const std::string masq = runShell("iptables -w -t nat -S kwop_nat_POSTROUTING_NUV");
    EXPECT_EQ(countContaining(masq, "-o wlan0 -j MASQUERADE"), 1u) << masq;
    EXPECT_EQ(countContaining(masq, "-o rmnet_data0 -j MASQUERADE"), 1u) << masq;
    const std::string mark = runShell("iptables -w -t mangle -S kwop_fw_wlan0");
    EXPECT_EQ(countContaining(mark, "-j MARK --set-xmark 0x5a"), 1u) << mark;

    // A policy-routing rule added again is refused by the kernel as a
    // duplicate, so each link keeps one.
    const std::string rules = runShell("ip rule show");
    EXPECT_EQ(countContaining(rules, "fwmark 0x5a lookup 100"), 1u) << rules;
    EXPECT_EQ(countContaining(rules, "fwmark 0x5b lookup 101"), 1u) << rules;
}

}  // namespace
