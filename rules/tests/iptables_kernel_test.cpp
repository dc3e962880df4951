// The real iptables and ip, in a network namespace of the test's own, take every
// kind of rule the manager writes (through wrappers under a temporary root).
#include "config/tests/ParametersTestBase.h"
#include "rules/IptablesManager.h"
#include "tests/support/NetNamespace.h"

namespace {

// The manager's sockets are destroyed for real, which only reaches this namespace.
using RulesKernel = ParametersTestBase;

TEST_F(RulesKernel, EveryRuleReadsBackOnceAndTeardownRemovesIt) {
    std::string why;
    if (!vekd::test::enterPrivateNetworkNamespace(&why)) GTEST_SKIP() << "needs a private network namespace: " << why;
    int rc = 0;
    vekd::test::runShell("iptables -V", &rc);
    if (rc != 0) GTEST_SKIP() << "iptables is not installed (scripts/install-deps.sh installs it)";
    root.writeFile("/system/bin/iptables-wrapper-1.0", "#!/bin/sh\nexec iptables \"$@\" 2>/dev/null\n", true);
    root.writeFile("/system/bin/ip-wrapper-1.0", "#!/bin/sh\nexec ip \"$@\" 2>/dev/null\n", true);

    IptablesManager::instance();
    IptablesManager::resetForTesting();  // a restarted daemon builds the skeleton over what is there
    IptablesManager* m = IptablesManager::instance();
    addInterface("vekw0", false, "100", "0x64");
    ASSERT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    const std::vector<LinkShare> stats{{"vekw0", 0.7f, false, true}};
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);  // the second rewrite replaces the first
    m->setup_NUV_UID_iptables_chains({{"10123", NUV_MODE_VEK}});
    m->update_NUV_iptables_for_UID("10124", NUV_MODE_VEK, NUV_MODE_GAMING);
    m->remove_NUV_iptables_for_UID("10123", NUV_MODE_GAMING);
    char iface[] = "vekw0", oldDns[] = "192.0.2.1", newDns[] = "192.0.2.53";
    EXPECT_EQ(m->update_NUV_iptables_for_DNS(iface, oldDns, newDns), 0);

    const std::string all = "\n" + vekd::test::runShell("iptables -w -t mangle -S; iptables -w -t nat -S; ip -4 rule show");
    for (const char* line : {
             "-A POSTROUTING -p udp -m udp -m multiport ! --ports 32000:36999,40100:40150,50010:50060,4500,5060,500 -j kwop_nat_POSTROUTING_NUV",
             "-A kwop_NUV2 -m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark --nfmask 0xffffffff --ctmask 0xffffffff",
             "-A kwop_fw_vekw0 -j MARK --set-xmark 0x64/0xffffffff",
             "25000:\tfrom all fwmark 0x64 lookup 100",
             "-A kwop_nat_POSTROUTING_NUV -o vekw0 -j MASQUERADE",
             "-A kwop_NUV -m owner --uid-owner 10124 -j kwop_NUV2",
             "-A kwop_DNS -p udp -m multiport --dports 53 -j kwop_fw_vekw0",
             "-A kwop_NUV_nat -m owner --uid-owner 10124 -j kwop_DNS_nat",
             "-A kwop_DNS_nat -d 192.0.2.1/32 -p udp -m udp --dport 53 -j DNAT --to-destination 192.0.2.53",
             // Only the second rewrite's rule, with the probability as the kernel prints it.
             "-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW -m statistic --mode random --probability 0.70000000019 -j kwop_fw_vekw0",
         }) {
        const std::string whole = std::string("\n") + line + "\n";
        EXPECT_NE(all.find(whole), std::string::npos) << line;
        EXPECT_EQ(all.find(whole), all.rfind(whole)) << line;
    }
    EXPECT_EQ(all.find("--uid-owner 10123"), std::string::npos);

    // Teardown empties what refers to the mark chains before it removes them.
    IptablesManager::clean_NUV_iptables();
    const std::string after = vekd::test::runShell("iptables -w -t mangle -S; iptables -w -t nat -S POSTROUTING; ip -4 rule show");
    EXPECT_EQ(after.find("kwop_"), std::string::npos) << after;
    EXPECT_EQ(after.find("25000:"), std::string::npos) << after;
}

}  // namespace
