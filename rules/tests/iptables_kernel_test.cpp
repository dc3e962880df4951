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

TEST_F(RulesKernel, ConstructorRunTwiceLeavesEachHookOnce) {
    IptablesManager::instance();
    // A restarted daemon builds the skeleton again over what is there.
    IptablesManager::resetForTesting();
    IptablesManager::instance();

    EXPECT_EQ(countLines(rules("mangle", "OUTPUT"), "-A OUTPUT -j kwop_NUV"), 1u);
    EXPECT_EQ(countLines(rules("nat", "OUTPUT"), "-A OUTPUT -j kwop_NUV_nat"), 1u);
    const std::string postrouting = rules("nat", "POSTROUTING");
    EXPECT_EQ(countLines(postrouting, "-A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"), 1u);
    EXPECT_EQ(countLines(postrouting,
                         "-A POSTROUTING -p udp -m udp -m multiport ! --ports "
                         "32000:36999,40100:40150,50010:50060,4500,5060,500 -j kwop_nat_POSTROUTING_NUV"),
              1u);
    EXPECT_EQ(linesStartingWith(rules("mangle", "kwop_NUV2"), "-A "),
              (std::vector<std::string>{
                  "-A kwop_NUV2 -m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark "
                  "--nfmask 0xffffffff --ctmask 0xffffffff",
                  "-A kwop_NUV2 -j kwop_DNS", "-A kwop_NUV2 -j kwop_VEK"}));

    // Teardown removes the mangle side and keeps the nat per-UID path.
    IptablesManager::clean_NUV_iptables();
    EXPECT_EQ(countLines(rules("mangle", "OUTPUT"), "-A OUTPUT -j kwop_NUV"), 0u);
    EXPECT_EQ(linesStartingWith(rules("nat", "POSTROUTING"), "-A ").size(), 0u);
    int rc = 0;
    rules("mangle", "kwop_NUV2", &rc);
    EXPECT_NE(rc, 0) << "kwop_NUV2 still exists";
    EXPECT_EQ(countLines(rules("nat", "OUTPUT"), "-A OUTPUT -j kwop_NUV_nat"), 1u);
}

TEST_F(RulesKernel, MarkChainsAndPolicyRulesComeAndGo) {
    addInterface("vekw0", false, "100", "0x64");
    addInterface("vekc0", true, "101", "0x65");
    IptablesManager* m = IptablesManager::instance();
    ASSERT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);

    EXPECT_EQ(linesStartingWith(rules("mangle", "kwop_fw_vekw0"), "-A "),
              (std::vector<std::string>{"-A kwop_fw_vekw0 -j MARK --set-xmark 0x64/0xffffffff",
                                        "-A kwop_fw_vekw0 -j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xffffffff",
                                        "-A kwop_fw_vekw0 -j ACCEPT"}));
    EXPECT_EQ(linesStartingWith(rules("mangle", "kwop_fw_vekc0"), "-A ").size(), 3u);
    const std::string ipRules = runShell("ip -4 rule show");
    EXPECT_EQ(countLines(ipRules, "25000:\tfrom all fwmark 0x64 lookup 100"), 1u) << ipRules;
    EXPECT_EQ(countLines(ipRules, "25000:\tfrom all fwmark 0x65 lookup 101"), 1u) << ipRules;
    EXPECT_EQ(linesStartingWith(rules("nat", "kwop_nat_POSTROUTING_NUV"), "-A "),
              (std::vector<std::string>{"-A kwop_nat_POSTROUTING_NUV -o vekw0 -j MASQUERADE",
                                        "-A kwop_nat_POSTROUTING_NUV -o vekc0 -j MASQUERADE"}));

    ASSERT_EQ(m->cleanup_NUV_iptables_FWMARK_chains(), 0);
    for (const char* chain : {"kwop_fw_vekw0", "kwop_fw_vekc0"}) {
        int rc = 0;
        rules("mangle", chain, &rc);
        EXPECT_NE(rc, 0) << chain << " still exists";
    }
    EXPECT_EQ(runShell("ip -4 rule show").find("25000:"), std::string::npos);
}

TEST_F(RulesKernel, RatioRulesReadBackWithTheirProbabilities) {
    addInterface("vekw0", false, "100", "0x64");
    addInterface("vekc0", true, "101", "0x65");
    IptablesManager* m = IptablesManager::instance();
    ASSERT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);

    std::map<std::string, linkStatsWrapper_t*> stats;
    for (auto [name, r] : {std::pair<const char*, float>{"vekw0", 0.7f}, {"vekc0", 0.3f}}) {
        auto* w = new linkStatsWrapper_t();
        snprintf(w->interfaceName, sizeof(w->interfaceName), "%s", name);
        w->interfaceRatio = r;
        stats[name] = w;
    }
    // Twice: the second rewrite replaces the first.
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);
    ASSERT_EQ(m->set_VEK_ratio_iptables(stats), 0);
    for (auto& e : stats) delete e.second;

    const std::regex rule(
        "-A kwop_VEK -p tcp -m multiport --dports 80,443 -m state --state NEW "
        "-m statistic --mode random --probability ([0-9.]+) -j (kwop_fw_\\w+)");
    std::vector<std::pair<double, std::string>> found;
    for (const std::string& line : linesStartingWith(rules("mangle", "kwop_VEK"), "-A ")) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, rule)) << line;
        found.emplace_back(std::stod(match[1]), match[2]);
    }
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].second, "kwop_fw_vekw0");
    EXPECT_NEAR(found[0].first, 0.7, 1e-6);
    EXPECT_EQ(found[1].second, "kwop_fw_vekc0");
    EXPECT_NEAR(found[1].first, 1.0, 1e-6);
}

TEST_F(RulesKernel, UidAndDnsRulesReadBack) {
    IptablesManager* m = IptablesManager::instance();
    m->setup_NUV_UID_iptables_chains({{"10123", NUV_MODE_VEK}});
    m->update_NUV_iptables_for_UID("10123", NUV_MODE_VEK, NUV_MODE_GAMING);
    m->update_NUV_iptables_for_UID("10124", NUV_MODE_VEK, NUV_MODE_GAMING);
    EXPECT_EQ(linesStartingWith(rules("mangle", "kwop_NUV"), "-A "),
              (std::vector<std::string>{"-A kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2",
                                        "-A kwop_NUV -m owner --uid-owner 10124 -j kwop_NUV2"}));
    m->remove_NUV_iptables_for_UID("10123", NUV_MODE_GAMING);
    EXPECT_EQ(linesStartingWith(rules("nat", "kwop_NUV_nat"), "-A "),
              (std::vector<std::string>{"-A kwop_NUV_nat -m owner --uid-owner 10124 -j kwop_DNS_nat"}));

    char iface[] = "vekw0", oldDns[] = "192.0.2.1", newDns[] = "192.0.2.53";
    addInterface("vekw0", false, "100", "0x64");
    ASSERT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    EXPECT_EQ(m->update_NUV_iptables_for_DNS(iface, oldDns, newDns), 0);
    EXPECT_EQ(linesStartingWith(rules("mangle", "kwop_DNS"), "-A "),
              (std::vector<std::string>{"-A kwop_DNS -p udp -m multiport --dports 53 -j kwop_fw_vekw0"}));
    EXPECT_EQ(linesStartingWith(rules("nat", "kwop_DNS_nat"), "-A "),
              (std::vector<std::string>{
                  "-A kwop_DNS_nat -d 192.0.2.1/32 -p udp -m udp --dport 53 -j DNAT --to-destination 192.0.2.53"}));
}

}  // namespace
