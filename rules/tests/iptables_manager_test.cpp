// Every rule operation as the exact, ordered list of command lines it runs, and its logs.
#include "config/tests/ParametersTestBase.h"
#include "rules/IptablesManager.h"
#include "rules/RuleCommand.h"
#include "tests/support/FakeNetlink.h"

namespace {

using Lines = std::vector<std::string>;

const std::string IPT = "/system/bin/iptables-wrapper-1.0 -w -t ";
const std::string IP = "/system/bin/ip-wrapper-1.0 -4 rule ";
const std::string UDP_HOOK = "POSTROUTING -p udp -m udp -m multiport ! --ports 32000:36999,40100:40150,50010:50060,4500,5060,500 -j kwop_nat_POSTROUTING_NUV";

Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Lines kSkeleton = {
    IPT + "mangle -N kwop_NUV",
    IPT + "mangle -F kwop_NUV",
    IPT + "mangle -N kwop_NUV2",
    IPT + "mangle -F kwop_NUV2",
    IPT + "mangle -N kwop_DNS",
    IPT + "mangle -F kwop_DNS",
    IPT + "mangle -N kwop_VEK",
    IPT + "mangle -F kwop_VEK",
    IPT + "mangle -A kwop_NUV2 -j kwop_DNS",
    IPT + "mangle -A kwop_NUV2 -j kwop_VEK",
    IPT + "nat -N kwop_NUV_nat",
    IPT + "nat -F kwop_NUV_nat",
    IPT + "nat -N kwop_DNS_nat",
    IPT + "nat -F kwop_DNS_nat",
    IPT + "mangle -I kwop_NUV2 1 -m state --state ESTABLISHED,RELATED -j CONNMARK --restore-mark",
    IPT + "mangle -I kwop_NUV 2 -j kwop_VEK",
    IPT + "mangle -D OUTPUT -j kwop_NUV",
    IPT + "mangle -A OUTPUT -j kwop_NUV",
    IPT + "nat -D OUTPUT -j kwop_NUV_nat",
    IPT + "nat -A OUTPUT -j kwop_NUV_nat",
    IPT + "nat -F kwop_nat_POSTROUTING_NUV",
    IPT + "nat -N kwop_nat_POSTROUTING_NUV",
    IPT + "nat -D " + UDP_HOOK,
    IPT + "nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV",
    IPT + "nat -A " + UDP_HOOK,
    IPT + "nat -A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV",
};

const Lines kTeardown = {
    IPT + "mangle -D OUTPUT -j kwop_NUV",
    IPT + "nat -D " + UDP_HOOK,
    IPT + "nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV",
    IPT + "nat -F kwop_nat_POSTROUTING_NUV",
    IPT + "nat -X kwop_nat_POSTROUTING_NUV",
    IPT + "mangle -F kwop_NUV",
    IPT + "mangle -X kwop_NUV",
    IPT + "mangle -F kwop_NUV2",
    IPT + "mangle -X kwop_NUV2",
    IPT + "mangle -F kwop_DNS",
    IPT + "mangle -X kwop_DNS",
    IPT + "mangle -F kwop_VEK",
    IPT + "mangle -X kwop_VEK",
};

Lines createChain(const std::string& iface, const std::string& mark, const std::string& table) {
    return {IPT + "mangle -N kwop_fw_" + iface,
            IPT + "mangle -F kwop_fw_" + iface,
            IPT + "mangle -A kwop_fw_" + iface + " -j MARK --set-mark " + mark,
            IPT + "mangle -A kwop_fw_" + iface + " -j CONNMARK --save-mark",
            IPT + "mangle -A kwop_fw_" + iface + " -j ACCEPT",
            IP + "add fwmark " + mark + " table " + table + " prio 25000",
            IPT + "nat -I kwop_nat_POSTROUTING_NUV -o " + iface + " -j MASQUERADE"};
}

Lines removeChain(const std::string& iface, const std::string& mark) {
    return {IPT + "mangle -F kwop_fw_" + iface,
            IPT + "mangle -X kwop_fw_" + iface,
            IP + "del fwmark " + mark + " prio 25000",
            IPT + "nat -F kwop_nat_POSTROUTING_NUV",
            IPT + "nat -X kwop_nat_POSTROUTING_NUV"};
}

// A fresh store and no manager for each test. The fake netlink keeps real sockets
// safe; each dump (the destroyer's only request here) notes whether the rule lock is held.
class Rules : public ParametersTestBase {
  protected:
    void SetUp() override {
        vekd::platform::installHostLogger();
        IptablesManager::resetForTesting();
        ParametersTestBase::SetUp();
        netlink.setResponder([this](int, const auto&) {
            lockHeldDuringDumps.push_back(IptablesManager::ruleLockHeldForTesting());
            return std::vector<vekd::test::Bytes>{vekd::test::FakeNetlink::done()};
        });
    }
    void TearDown() override {
        IptablesManager::resetForTesting();
        ParametersTestBase::TearDown();
    }
    void expectUnlocked() {
        ASSERT_FALSE(IptablesManager::ruleLockHeldForTesting());
    }
    IptablesManager* manager() {
        IptablesManager* m = IptablesManager::instance();
        pipe.clear();
        log.clear();
        return m;
    }
    Lines logOf() const { return log.linesOf("NUVIptables"); }

    vekd::test::FakeNetlink netlink;
    vekd::test::RecordingCommandPipe pipe;
    std::vector<bool> lockHeldDuringDumps;
};

TEST_F(Rules, SkeletonMarkChainsInNameOrderDespiteFailuresAndTeardown) {
    addInterface("wlan0", false, "wlan0", "0x64");
    addInterface("rmnet_data0", true, "rmnet_data0", "0x65");
    IptablesManager* m = IptablesManager::instance();
    EXPECT_EQ(IptablesManager::instance(), m);
    EXPECT_EQ(pipe.commands(), kSkeleton);
    manager();
    EXPECT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    const Lines both = createChain("rmnet_data0", "0x65", "rmnet_data0") + createChain("wlan0", "0x64", "wlan0");
    EXPECT_EQ(pipe.commands(), both);

    // A null record (no line of its own) and one command of rmnet_data0, then
    // of wlan0, fail; each walk still goes over every record.
    Parameters::instance()->m_interfaceMap["ghost"] = nullptr;
    pipe.clear();
    pipe.failWhenContains("rule add fwmark 0x65");
    EXPECT_EQ(m->setup_NUV_iptables_FWMARK_chains(), -1);
    EXPECT_EQ(pipe.commands(), both);
    pipe.failWhenContains("-X kwop_fw_wlan0");
    EXPECT_EQ(m->cleanup_NUV_iptables_FWMARK_chains(), -1);
    Parameters::instance()->m_interfaceMap.erase("ghost");
    EXPECT_EQ(logOf(), (Lines{"E create_NUV_FWMARK_chain_for_iface, Creating FWMARK Chain for a NULL iface",
                              "E SEND VEK NDC COMMAND - FAIL  " + IP + "add fwmark 0x65 table rmnet_data0 prio 25000 \n",
                              "E create_NUV_FWMARK_chain_for_iface Failue when creating FWMARK tables for interface rmnet_data0 ",
                              "E setup_NUV_iptables_FWMARK_chains Creating FWMARK for interface rmnet_data0 failed",
                              "E setup_NUV_iptables_FWMARK_chains Failure when creating FWMARK tables for all interfaces ",
                              "E remove_NUV_FWMARK_chain_for_iface, Remove FWMARK Chain for a NULL iface",
                              "E SEND VEK NDC COMMAND - FAIL  " + IPT + "mangle -X kwop_fw_wlan0 \n",
                              "E remove_NUV_FWMARK_chain_for_iface Failure when creating FWMARK tables for interface wlan0 ",
                              "E cleanup_NUV_iptables_FWMARK_chains Cleanup FWMARK for interface wlan0 failed",
                              "E cleanup_NUV_iptables_FWMARK_chains Failure when cleaning FWMARK tables for all interfaces "}));

    EXPECT_EQ(m->create_NUV_FWMARK_chain_for_iface(nullptr), -1);
    EXPECT_EQ(m->remove_NUV_FWMARK_chain_for_iface(nullptr), -1);

    manager();
    gDebugLogEnabled = 1;
    IptablesManager::clean_NUV_iptables();
    EXPECT_EQ(pipe.commands(), kTeardown + removeChain("rmnet_data0", "0x65") + removeChain("wlan0", "0x64"));
    EXPECT_EQ(logOf().front(), "D ~IptablesManager IptablesManager Distructor called ");

    // A chain name is cut to 127 characters; the masquerade rule's name is not.
    const std::string name(120, 'x');
    EXPECT_EQ(manager()->create_NUV_FWMARK_chain_for_iface(addInterface(name, false, "7", "0x1")), 0);
    EXPECT_EQ(pipe.commands().at(4), IPT + "mangle -A kwop_fw_" + std::string(119, 'x') + " -j ACCEPT");
    EXPECT_EQ(pipe.commands().at(6), IPT + "nat -I kwop_nat_POSTROUTING_NUV -o " + name + " -j MASQUERADE");
}

// One description gives today's IPv4 line and its IPv6 twin.
TEST(RuleCommandTest, EachDescriptionGivesBothFamilies) {
    const struct { RuleCommand rule; std::string v4, v6; } cases[] = {
        {RuleCommand::filter("-t nat -N kwop_DNS_nat"), "/system/bin/iptables-wrapper-1.0 -w -t nat -N kwop_DNS_nat",
         "/system/bin/ip6tables-wrapper-1.0 -w -t nat -N kwop_DNS_nat"},
        {RuleCommand::routing(formatArgs("rule add fwmark %s table %s prio %d", "0x5A", "wlan0", 25000)),
         "/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5A table wlan0 prio 25000", "/system/bin/ip-wrapper-1.0 -6 rule add fwmark 0x5A table wlan0 prio 25000"},
    };
    for (const auto& c : cases) EXPECT_EQ(std::make_pair(c.rule.text(), c.rule.text(IpFamily::V6)), std::make_pair(c.v4, c.v6));
    EXPECT_EQ(formatArgs("%s", std::string(600, 'x').c_str()).size(), 600u) << "never cut";
}

// Each rule takes its share of what those before it left; unmetered links first.
TEST_F(Rules, RatioRulesCascadeOverTheConfiguredLinks) {
    const struct { const char* what; std::vector<std::tuple<const char*, bool, float>> links; std::vector<std::pair<std::string, std::string>> rules; } cases[] = {
        {"a zero ratio still gets a rule", {{"a", false, 0.0f}, {"b", false, 1.0f}, {"c", true, 0.0f}}, {{"0.000000", "a"}, {"1.000000", "b"}, {"0.000000", "c"}}},
        {"a sum over 1 is not clamped", {{"a", false, 0.8f}, {"b", false, 0.8f}, {"c", false, 0.1f}}, {{"0.800000", "a"}, {"4.000000", "b"}, {"0.000000", "c"}}},
        {"an unconfigured link gets no rule", {{"a", false, 0.6f}, {"ghost0", false, 0.4f}}, {{"0.600000", "a"}}},
        {"the metered link sorting in between comes last", {{"a", false, 0.2f}, {"b", true, 0.3f}, {"c", false, 0.5f}}, {{"0.200000", "a"}, {"0.625000", "c"}, {"1.000000", "b"}}},
    };
    std::vector<LinkShare> stats;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        stats.clear();
        for (const auto& [name, metered, ratio] : c.links) stats.push_back({name, ratio, metered, strcmp(name, "ghost0") != 0});
        gDebugLogEnabled = 1;
        EXPECT_EQ(manager()->set_VEK_ratio_iptables(stats), 0);
        Lines expected = {IPT + "mangle -F kwop_VEK"};
        for (const auto& [probability, iface] : c.rules) {
            expected.push_back(IPT + "mangle -A kwop_VEK --match multiport -p tcp --dports 80,443 -m state --state NEW -m statistic --mode random --probability " + probability + " -j kwop_fw_" + iface);
        }
        EXPECT_EQ(pipe.commands(), expected);
        EXPECT_EQ(log.count("set_VEK_ratio_iptables interface ghost0 is not configured, no rule for it"), c.rules.size() < c.links.size() ? 1u : 0u);
    }
    EXPECT_TRUE(log.contains("Updated Ratio: 0.625000"));
    pipe.failWhenContains("-F kwop_VEK");  // an unstarted command fails the rewrite
    EXPECT_EQ(IptablesManager::instance()->set_VEK_ratio_iptables(stats), -1);
    EXPECT_EQ(logOf().back(), "E set_VEK_ratio_iptables Failure when setting VEK Ratios ");
}

TEST_F(Rules, PerUidAndDnsRulesWithTheSocketsDestroyedUnderTheLock) {
    gDebugLogEnabled = 1;
    // A UID text of two words gets no rule.
    manager()->setup_NUV_UID_iptables_chains({{"10123", NUV_MODE_VEK}, {"10124 -j ACCEPT", NUV_MODE_VEK}});
    EXPECT_EQ(pipe.commands(), (Lines{IPT + "mangle -F kwop_NUV ",
                                      IPT + "mangle -A kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2",
                                      IPT + "nat -A kwop_NUV_nat -m owner --uid-owner 10123 -j kwop_DNS_nat"}));
    EXPECT_EQ(log.count("The UID Vec entry for UID 10123 has mode 1"), 1u);
    EXPECT_EQ(log.count("setup_NUV_UID_iptables_chains UID \"10124 -j ACCEPT\" is not one word, no rule for it"), 1u);

    // Updates and removals destroy the UID's sockets under the rule lock.
    EXPECT_EQ(manager()->setup_NUV_iptables_FWMARK_chains(), 0);  // no interface: nothing to do
    manager()->update_NUV_iptables_for_UID("10123", NUV_MODE_GAMING, static_cast<NuvMode>(7));
    const Lines del = {IPT + "mangle -D kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2",
                       IPT + "nat -D kwop_NUV_nat -m owner --uid-owner 10123 -j kwop_DNS_nat"};
    EXPECT_EQ(pipe.commands(), (Lines{del[0],
                                      IPT + "mangle -A kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2",
                                      del[1],
                                      IPT + "nat -A kwop_NUV_nat -m owner --uid-owner 10123 -j kwop_DNS_nat"}));
    EXPECT_EQ(log.count("old_mode=0, new_mode=7"), 1u);
    EXPECT_EQ(log.count("NUV destroying sockets = 10123"), 1u);
    EXPECT_EQ(lockHeldDuringDumps, std::vector<bool>(4, true));
    expectUnlocked();

    manager()->remove_NUV_iptables_for_UID("10123", NUV_MODE_VEK);
    EXPECT_EQ(pipe.commands(), del);
    const Lines lines = logOf();
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()), (Lines{"I old_mode=1", "I NUV destroying sockets = 10123"}));
    EXPECT_EQ(lockHeldDuringDumps, std::vector<bool>(8, true));

    // An oversized UID runs no command.
    manager()->update_NUV_iptables_for_UID(std::string(600, '1'), NUV_MODE_GAMING, NUV_MODE_VEK);
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(log.count("does not fit in 512, not run"), 4u);
    expectUnlocked();

    // The DNS redirect is rewritten only when the server changed.
    char iface[] = "wlan0", oldDns[] = "192.168.1.1", newDns[] = "10.0.0.53", same[] = "10.0.0.53";
    const Lines mangle = {IPT + "mangle -F kwop_DNS",
                          IPT + "mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_wlan0"};
    EXPECT_EQ(manager()->update_NUV_iptables_for_DNS(iface, oldDns, newDns), 0);
    EXPECT_EQ(pipe.commands(), (mangle + Lines{IPT + "nat -F kwop_DNS_nat",
                                               IPT + "nat -A kwop_DNS_nat -p udp --dport 53 -d 192.168.1.1 -j DNAT --to-destination 10.0.0.53"}));
    EXPECT_EQ(logOf().back(), "D Update DNS route to wlan0 (10.0.0.53)");
    EXPECT_EQ(manager()->update_NUV_iptables_for_DNS(iface, newDns, same), 0);
    EXPECT_EQ(pipe.commands(), mangle);
    expectUnlocked();

    // A null interface returns with the lock still held, until reset.
    EXPECT_EQ(manager()->update_NUV_iptables_for_DNS(nullptr, same, same), -1);
    EXPECT_TRUE(IptablesManager::ruleLockHeldForTesting());
    IptablesManager::resetForTesting();
    expectUnlocked();
}

}  // namespace
