// The rule manager against the real iptables and ip, through wrappers under a
// temporary root, inside a network namespace of the test's own.
#include <regex>
#include <sstream>

#include "rules/tests/RulesTestBase.h"
#include "tests/support/NetNamespace.h"

namespace {

using vekd::test::runShell;

size_t countLines(const std::string& text, const std::string& line) {
    std::istringstream in(text);
    size_t n = 0;
    for (std::string l; std::getline(in, l);) n += l == line;
    return n;
}

std::vector<std::string> linesStartingWith(const std::string& text, const std::string& prefix) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) {
        if (l.rfind(prefix, 0) == 0) out.push_back(l);
    }
    return out;
}

class RulesKernel : public RulesTestBase {
  protected:
    void SetUp() override {
        RulesTestBase::SetUp();
        // Skips end the test only from the test body or SetUp itself.
        std::string why;
        if (!vekd::test::enterPrivateNetworkNamespace(&why)) {
            GTEST_SKIP() << "needs a private network namespace: " << why;
        }
        int rc = 0;
        std::string version = runShell("iptables -V 2>&1", &rc);
        if (rc != 0) GTEST_SKIP() << "iptables is not installed (scripts/install-deps.sh installs it)";
        RecordProperty("iptables", version);
        root.writeFile("/system/bin/iptables-wrapper-1.0", "#!/bin/sh\nexec iptables \"$@\" 2>/dev/null\n", true);
        root.writeFile("/system/bin/ip-wrapper-1.0", "#!/bin/sh\nexec ip \"$@\" 2>/dev/null\n", true);
    }
    static std::string rules(const std::string& table, const std::string& chain, int* rc = nullptr) {
        return runShell("iptables -w -t " + table + " -S " + chain + " 2>/dev/null", rc);
    }
};

// Every kind of rule the manager writes, read back from the kernel once each.
TEST_F(RulesKernel, EveryRuleReadsBackOnceAndTeardownRemovesIt) {
    IptablesManager::instance();
    // A restarted daemon builds the skeleton again over what is there.
    IptablesManager::resetForTesting();
    IptablesManager* m = IptablesManager::instance();
    addInterface("vekw0", false, "100", "0x64");
    addInterface("vekc0", true, "101", "0x65");
    ASSERT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    std::map<std::string, linkStatsWrapper_t*> stats;
    for (auto [name, r] : {std::pair<const char*, float>{"vekw0", 0.7f}, {"vekc0", 0.3f}}) {
        auto* w = new linkStatsWrapper_t();
        snprintf(w->interfaceName, sizeof(w->interfaceName), "%s", name);
        w->interfaceRatio = r;
        stats[name] = w;
    }
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);  // the second rewrite replaces the first
    for (auto& e : stats) delete e.second;
    m->setup_NUV_UID_iptables_chains({{"10123", NUV_MODE_VEK}});
    m->update_NUV_iptables_for_UID("10123", NUV_MODE_VEK, NUV_MODE_GAMING);
    m->update_NUV_iptables_for_UID("10124", NUV_MODE_VEK, NUV_MODE_GAMING);
    m->remove_NUV_iptables_for_UID("10123", NUV_MODE_GAMING);
    char iface[] = "vekw0", oldDns[] = "192.0.2.1", newDns[] = "192.0.2.53";
    EXPECT_EQ(m->update_NUV_iptables_for_DNS(iface, oldDns, newDns), 0);

    const std::string all = rules("mangle", "") + rules("nat", "") + runShell("ip -4 rule show");
    for (const char* line : {
             "-A OUTPUT -j kwop_NUV", "-A OUTPUT -j kwop_NUV_nat", "-A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV",
             "-A POSTROUTING -p udp -m udp -m multiport ! --ports 32000:36999,40100:40150,50010:50060,4500,5060,500 "
             "-j kwop_nat_POSTROUTING_NUV",
             "-A kwop_NUV2 -m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark --nfmask 0xffffffff "
             "--ctmask 0xffffffff",
             "-A kwop_NUV2 -j kwop_DNS", "-A kwop_NUV2 -j kwop_VEK", "-A kwop_fw_vekw0 -j MARK --set-xmark 0x64/0xffffffff",
             "-A kwop_fw_vekw0 -j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xffffffff",
             "-A kwop_fw_vekc0 -j ACCEPT", "25000:\tfrom all fwmark 0x64 lookup 100", "25000:\tfrom all fwmark 0x65 lookup 101",
             "-A kwop_nat_POSTROUTING_NUV -o vekw0 -j MASQUERADE", "-A kwop_nat_POSTROUTING_NUV -o vekc0 -j MASQUERADE",
             "-A kwop_NUV -m owner --uid-owner 10124 -j kwop_NUV2", "-A kwop_NUV_nat -m owner --uid-owner 10124 -j kwop_DNS_nat",
             "-A kwop_DNS -p udp -m multiport --dports 53 -j kwop_fw_vekw0",
             "-A kwop_DNS_nat -d 192.0.2.1/32 -p udp -m udp --dport 53 -j DNAT --to-destination 192.0.2.53"}) {
        EXPECT_EQ(countLines(all, line), 1u) << line;
    }
    EXPECT_EQ(all.find("--uid-owner 10123"), std::string::npos);
    const std::regex rule("-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW "
                          "-m statistic --mode random --probability ([0-9.]+) -j (kwop_fw_\\w+)");
    std::vector<std::pair<std::string, double>> found;
    for (const std::string& line : linesStartingWith(rules("mangle", "kwop_VEK"), "-A ")) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, rule)) << line;
        found.emplace_back(match[2], std::stod(match[1]));
    }
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].first + found[1].first, "kwop_fw_vekw0kwop_fw_vekc0");
    EXPECT_NEAR(found[0].second, 0.7, 1e-6);
    EXPECT_NEAR(found[1].second, 1.0, 1e-6);

    // Teardown removes the mangle side with the mark chains (the ratio and
    // DNS rules that refer to them go first) and keeps the nat per-UID path.
    IptablesManager::clean_NUV_iptables();
    EXPECT_EQ(runShell("ip -4 rule show").find("25000:"), std::string::npos);
    EXPECT_EQ(rules("mangle", "").find("kwop_"), std::string::npos);
    EXPECT_EQ(linesStartingWith(rules("nat", "POSTROUTING"), "-A ").size(), 0u);
    EXPECT_EQ(countLines(rules("nat", "OUTPUT"), "-A OUTPUT -j kwop_NUV_nat"), 1u);
}

}  // namespace
