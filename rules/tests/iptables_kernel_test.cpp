// The rule manager against the real iptables and ip (wrappers under a temporary
// root) in a network namespace of the test's own: the kernel takes every kind
// of rule the manager writes, and teardown removes them.
#include <algorithm>
#include <sstream>

#include "rules/tests/RulesTestBase.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::runShell;
using RulesKernel = RulesTestBase;

TEST_F(RulesKernel, EveryRuleReadsBackOnceAndTeardownRemovesIt) {
    std::string why;
    if (!vekd::test::enterPrivateNetworkNamespace(&why)) GTEST_SKIP() << "needs a private network namespace: " << why;
    int rc = 0;
    runShell("iptables -V", &rc);
    if (rc != 0) GTEST_SKIP() << "iptables is not installed (scripts/install-deps.sh installs it)";
    root.writeFile("/system/bin/iptables-wrapper-1.0", "#!/bin/sh\nexec iptables \"$@\" 2>/dev/null\n", true);
    root.writeFile("/system/bin/ip-wrapper-1.0", "#!/bin/sh\nexec ip \"$@\" 2>/dev/null\n", true);

    IptablesManager::instance();
    IptablesManager::resetForTesting();  // a restarted daemon builds the skeleton over what is there
    IptablesManager* m = IptablesManager::instance();
    addInterface("vekw0", false, "100", "0x64");
    addInterface("vekc0", true, "101", "0x65");
    ASSERT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    linkStatsWrapper_t w[2];
    snprintf(w[0].interfaceName, sizeof(w[0].interfaceName), "vekw0");
    snprintf(w[1].interfaceName, sizeof(w[1].interfaceName), "vekc0");
    w[0].interfaceRatio = 0.7f;
    w[1].interfaceRatio = 0.3f;
    std::map<std::string, linkStatsWrapper_t*> stats{{"vekw0", &w[0]}, {"vekc0", &w[1]}};
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);  // the second rewrite replaces the first
    m->setup_NUV_UID_iptables_chains({{"10123", NUV_MODE_VEK}});
    m->update_NUV_iptables_for_UID("10124", NUV_MODE_VEK, NUV_MODE_GAMING);
    m->remove_NUV_iptables_for_UID("10123", NUV_MODE_GAMING);
    char iface[] = "vekw0", oldDns[] = "192.0.2.1", newDns[] = "192.0.2.53";
    EXPECT_EQ(m->update_NUV_iptables_for_DNS(iface, oldDns, newDns), 0);

    std::vector<std::string> lines;
    std::istringstream in(runShell("iptables -w -t mangle -S; iptables -w -t nat -S; ip -4 rule show"));
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    for (const char* line : {
             "-A POSTROUTING -p udp -m udp -m multiport ! --ports 32000:36999,40100:40150,50010:50060,4500,5060,500 -j kwop_nat_POSTROUTING_NUV",
             "-A kwop_NUV2 -m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark --nfmask 0xffffffff --ctmask 0xffffffff",
             "-A kwop_fw_vekw0 -j MARK --set-xmark 0x64/0xffffffff",
             "-A kwop_fw_vekw0 -j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xffffffff",
             "-A kwop_fw_vekc0 -j ACCEPT",
             "25000:\tfrom all fwmark 0x64 lookup 100",
             "-A kwop_nat_POSTROUTING_NUV -o vekw0 -j MASQUERADE",
             "-A kwop_NUV -m owner --uid-owner 10124 -j kwop_NUV2",
             "-A kwop_NUV_nat -m owner --uid-owner 10124 -j kwop_DNS_nat",
             "-A kwop_DNS -p udp -m multiport --dports 53 -j kwop_fw_vekw0",
             "-A kwop_DNS_nat -d 192.0.2.1/32 -p udp -m udp --dport 53 -j DNAT --to-destination 192.0.2.53",
             // Only the second rewrite's cascade, as the kernel prints its probabilities.
             "-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW -m statistic --mode random --probability 0.70000000019 -j kwop_fw_vekw0",
             "-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW -m statistic --mode random --probability 1.00000000000 -j kwop_fw_vekc0",
         }) {
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
    }
    for (const std::string& l : lines) EXPECT_EQ(l.find("--uid-owner 10123"), std::string::npos) << l;

    // Teardown removes the mangle side with the mark chains (the ratio and
    // DNS rules that refer to them go first) and keeps the nat per-UID path.
    IptablesManager::clean_NUV_iptables();
    const std::string after = runShell("iptables -w -t mangle -S; iptables -w -t nat -S POSTROUTING; ip -4 rule show");
    EXPECT_EQ(after.find("kwop_"), std::string::npos) << after;
    EXPECT_EQ(after.find("25000:"), std::string::npos) << after;
    EXPECT_NE(runShell("iptables -w -t nat -S OUTPUT").find("-A OUTPUT -j kwop_NUV_nat"), std::string::npos);
}

}  // namespace
