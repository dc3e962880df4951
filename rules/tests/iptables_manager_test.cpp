// Every rule operation as the exact, ordered list of command lines it hands
// to the runner, plus its log lines.
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <pthread.h>

#include <cerrno>

#include "rules/tests/RulesTestBase.h"

namespace {

using Lines = std::vector<std::string>;
using vekd::test::Bytes;
using vekd::test::FakeNetlink;
using vekd::test::RecordingCommandPipe;

const std::string IPT = "/system/bin/iptables-wrapper-1.0 -w ";
const std::string IP = "/system/bin/ip-wrapper-1.0 ";
const std::string UDP_HOOK =
    "-p udp -m udp -m multiport ! --ports 32000:36999,40100:40150,50010:50060,4500,5060,500 "
    "-j kwop_nat_POSTROUTING_NUV";

// "-N chain" then "-F chain" (or "-F" then "-X") for each chain of `table`.
Lines pairs(const char* table, const char* a, const char* b, std::initializer_list<const char*> chains) {
    Lines out;
    for (const char* c : chains) {
        out.push_back(IPT + "-t " + table + " " + a + " " + c);
        out.push_back(IPT + "-t " + table + " " + b + " " + c);
    }
    return out;
}

Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Lines skeleton() {
    return pairs("mangle", "-N", "-F", {"kwop_NUV", "kwop_NUV2", "kwop_DNS", "kwop_VEK"}) +
           Lines{IPT + "-t mangle -A kwop_NUV2 -j kwop_DNS", IPT + "-t mangle -A kwop_NUV2 -j kwop_VEK"} +
           pairs("nat", "-N", "-F", {"kwop_NUV_nat", "kwop_DNS_nat"}) +
           Lines{IPT + "-t mangle -I kwop_NUV2 1 -m state --state ESTABLISHED,RELATED -j CONNMARK --restore-mark",
                 IPT + "-t mangle -I kwop_NUV 2 -j kwop_VEK",
                 IPT + "-t mangle -D OUTPUT -j kwop_NUV",
                 IPT + "-t mangle -A OUTPUT -j kwop_NUV",
                 IPT + "-t nat -D OUTPUT -j kwop_NUV_nat",
                 IPT + "-t nat -A OUTPUT -j kwop_NUV_nat",
                 IPT + "-t nat -F kwop_nat_POSTROUTING_NUV",
                 IPT + "-t nat -N kwop_nat_POSTROUTING_NUV",
                 IPT + "-t nat -D POSTROUTING " + UDP_HOOK,
                 IPT + "-t nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV",
                 IPT + "-t nat -A POSTROUTING " + UDP_HOOK,
                 IPT + "-t nat -A POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"};
}

Lines createChain(const std::string& iface, const std::string& fwmark, const std::string& table) {
    const std::string chain = "kwop_fw_" + iface;
    return {IPT + "-t mangle -N " + chain,
            IPT + "-t mangle -F " + chain,
            IPT + "-t mangle -A " + chain + " -j MARK --set-mark " + fwmark,
            IPT + "-t mangle -A " + chain + " -j CONNMARK --save-mark",
            IPT + "-t mangle -A " + chain + " -j ACCEPT",
            IP + "-4 rule add fwmark " + fwmark + " table " + table + " prio 25000",
            IPT + "-t nat -I kwop_nat_POSTROUTING_NUV -o " + iface + " -j MASQUERADE"};
}

Lines removeChain(const std::string& iface, const std::string& fwmark) {
    const std::string chain = "kwop_fw_" + iface;
    return {IPT + "-t mangle -F " + chain, IPT + "-t mangle -X " + chain,
            IP + "-4 rule del fwmark " + fwmark + " prio 25000",
            IPT + "-t nat -F kwop_nat_POSTROUTING_NUV", IPT + "-t nat -X kwop_nat_POSTROUTING_NUV"};
}

std::string ratioRule(const std::string& probability, const std::string& iface) {
    return IPT + "-t mangle -A kwop_VEK --match multiport -p tcp --dports 80,443 -m state --state NEW "
                 "-m statistic --mode random --probability " +
           probability + " -j kwop_fw_" + iface;
}

class Rules : public RulesTestBase {
  protected:
    // The manager with its constructor's commands already recorded and cleared.
    IptablesManager* manager() {
        IptablesManager* m = IptablesManager::instance();
        pipe.clear();
        log.clear();
        return m;
    }
    Lines logOf() const { return log.linesOf("NUVIptables"); }

    RecordingCommandPipe pipe;
};

TEST_F(Rules, SkeletonOnceAndTeardownRemovesItWithEveryMarkChainThenANewManagerRebuilds) {
    addInterface("wlan0", false, "wlan0", "0x64");
    addInterface("rmnet0", true, "rmnet0", "0x65");
    IptablesManager* m = IptablesManager::instance();
    EXPECT_EQ(IptablesManager::instance(), m);
    EXPECT_EQ(pipe.commands(), skeleton());
    EXPECT_TRUE(logOf().empty());
    manager();
    gDebugLogEnabled = 1;
    IptablesManager::clean_NUV_iptables();
    EXPECT_EQ(pipe.commands(), (Lines{IPT + "-t mangle -D OUTPUT -j kwop_NUV", IPT + "-t nat -D POSTROUTING " + UDP_HOOK,
                                      IPT + "-t nat -D POSTROUTING -p tcp -j kwop_nat_POSTROUTING_NUV"} +
                                pairs("nat", "-F", "-X", {"kwop_nat_POSTROUTING_NUV"}) +
                                pairs("mangle", "-F", "-X", {"kwop_NUV", "kwop_NUV2", "kwop_DNS", "kwop_VEK"}) +
                                removeChain("rmnet0", "0x65") + removeChain("wlan0", "0x64")));
    EXPECT_EQ(logOf().front(), "D ~IptablesManager IptablesManager Distructor called ");

    // Nothing left to destroy; the next instance() starts over.
    pipe.clear();
    IptablesManager::clean_NUV_iptables();
    EXPECT_TRUE(pipe.commands().empty());
    IptablesManager::instance();
    EXPECT_EQ(pipe.commands(), skeleton());
}

TEST_F(Rules, SetupAndCleanupWalkEveryInterfaceInNameOrderDespiteAFailure) {
    addInterface("wlan0", false, "wlan0", "0x64");
    addInterface("rmnet_data0", true, "rmnet_data0", "0x65");
    IptablesManager* m = manager();
    EXPECT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    EXPECT_EQ(m->cleanup_NUV_iptables_FWMARK_chains(), 0);
    const Lines both = createChain("rmnet_data0", "0x65", "rmnet_data0") + createChain("wlan0", "0x64", "wlan0");
    EXPECT_EQ(pipe.commands(), both + removeChain("rmnet_data0", "0x65") + removeChain("wlan0", "0x64"));
    EXPECT_TRUE(logOf().empty());

    // One command of rmnet_data0 cannot start; wlan0 is still set up.
    pipe.clear();
    pipe.failWhenContains("rule add fwmark 0x65");
    EXPECT_EQ(m->setup_NUV_iptables_FWMARK_chains(), -1);
    EXPECT_EQ(pipe.commands(), both);
    EXPECT_EQ(logOf(),
              (Lines{"E SEND VEK NDC COMMAND - FAIL  " + IP + "-4 rule add fwmark 0x65 table rmnet_data0 prio 25000 \n",
                     "E create_NUV_FWMARK_chain_for_iface Failue when creating FWMARK tables for interface rmnet_data0 ",
                     "E setup_NUV_iptables_FWMARK_chains Creating FWMARK for interface rmnet_data0 failed",
                     "E setup_NUV_iptables_FWMARK_chains Failure when creating FWMARK tables for all interfaces "}));

    log.clear();
    pipe.failWhenContains("-X kwop_fw_wlan0");
    EXPECT_EQ(m->cleanup_NUV_iptables_FWMARK_chains(), -1);
    Lines lines = logOf();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], "E remove_NUV_FWMARK_chain_for_iface Failure when creating FWMARK tables for interface wlan0 ");
    EXPECT_EQ(lines[2], "E cleanup_NUV_iptables_FWMARK_chains Cleanup FWMARK for interface wlan0 failed");
    EXPECT_EQ(lines[3], "E cleanup_NUV_iptables_FWMARK_chains Failure when cleaning FWMARK tables for all interfaces ");

    // A long name gives a chain name cut to 127 characters; the masquerade
    // rule names the interface itself, uncut.
    const std::string name(120, 'x');
    pipe.clear();
    EXPECT_EQ(m->create_NUV_FWMARK_chain_for_iface(addInterface(name, false, "7", "0x1")), 0);
    const Lines commands = pipe.commands();
    ASSERT_EQ(commands.size(), 7u);
    EXPECT_EQ(commands[4], IPT + "-t mangle -A kwop_fw_" + std::string(119, 'x') + " -j ACCEPT");
    EXPECT_EQ(commands[6], IPT + "-t nat -I kwop_nat_POSTROUTING_NUV -o " + name + " -j MASQUERADE");
}

TEST_F(Rules, EmptyMapNullRecordsAndNullArgumentsRunNothing) {
    IptablesManager* m = manager();
    EXPECT_EQ(m->setup_NUV_iptables_FWMARK_chains(), 0);
    EXPECT_EQ(m->cleanup_NUV_iptables_FWMARK_chains(), 0);
    EXPECT_EQ(m->create_NUV_FWMARK_chain_for_iface(nullptr), -1);
    EXPECT_EQ(m->remove_NUV_FWMARK_chain_for_iface(nullptr), -1);
    // A null record counts as a failure without a per-record line.
    params->m_interfaceMap["ghost"] = nullptr;
    EXPECT_EQ(m->setup_NUV_iptables_FWMARK_chains(), -1);
    params->m_interfaceMap.erase("ghost");
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(logOf(), (Lines{"E create_NUV_FWMARK_chain_for_iface, Creating FWMARK Chain for a NULL iface",
                              "E remove_NUV_FWMARK_chain_for_iface, Remove FWMARK Chain for a NULL iface",
                              "E create_NUV_FWMARK_chain_for_iface, Creating FWMARK Chain for a NULL iface",
                              "E setup_NUV_iptables_FWMARK_chains Failure when creating FWMARK tables for all interfaces "}));
}

// --- ratio rules ---

class RatioRules : public Rules {
  protected:
    ~RatioRules() override {
        for (auto& e : stats) delete e.second;
    }
    void ratio(const std::string& name, float r) {
        auto* w = new linkStatsWrapper_t();
        snprintf(w->interfaceName, sizeof(w->interfaceName), "%s", name.c_str());
        w->interfaceRatio = r;
        delete stats[name];
        stats[name] = w;
    }
    int apply() { return manager()->set_VEK_ratio_iptables(stats); }
    const std::string flush = IPT + "-t mangle -F kwop_VEK";
    std::map<std::string, linkStatsWrapper_t*> stats;
};

TEST_F(RatioRules, UnmeteredFirstThenMeteredEachTakingItsShareOfTheRest) {
    struct Case {
        const char* what;
        std::vector<std::tuple<std::string, bool, float>> links;  // name, metered, ratio
        Lines rules;
    };
    const std::vector<Case> cases = {
        {"no link: only the flush", {}, {}},
        {"only metered links start from a zero sum", {{"a", true, 0.25f}, {"b", true, 0.75f}},
         {ratioRule("0.250000", "a"), ratioRule("1.000000", "b")}},
        {"a zero ratio still gets a rule", {{"a", false, 0.0f}, {"b", false, 1.0f}, {"c", true, 0.0f}},
         {ratioRule("0.000000", "a"), ratioRule("1.000000", "b"), ratioRule("0.000000", "c")}},
        {"a sum over 1 is not clamped", {{"a", false, 0.8f}, {"b", false, 0.8f}, {"c", false, 0.1f}},
         {ratioRule("0.800000", "a"), ratioRule("4.000000", "b"), ratioRule("0.000000", "c")}},
        {"the metered link sorting in between comes last", {{"a", false, 0.2f}, {"b", true, 0.3f}, {"c", false, 0.5f}},
         {ratioRule("0.200000", "a"), ratioRule("0.625000", "c"), ratioRule("1.000000", "b")}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        for (auto& e : stats) delete e.second;
        stats.clear();
        for (const auto& [name, metered, r] : c.links) {
            addInterface(name, metered, "1", "0x1");
            ratio(name, r);
        }
        gDebugLogEnabled = 1;
        EXPECT_EQ(apply(), 0);
        EXPECT_EQ(pipe.commands(), Lines{flush} + c.rules);
    }
    Lines lines;
    for (const std::string& l : logOf()) {
        if (l.find("COMMAND") == std::string::npos) lines.push_back(l);
    }
    EXPECT_EQ(lines, (Lines{"E handle->interfaceRatio: 0.200000 handle->interfaceName: a", "E Updated Ratio: 0.200000",
                            "E handle->interfaceRatio: 0.500000 handle->interfaceName: c", "E Updated Ratio: 0.625000",
                            "E handle->interfaceRatio: 0.300000 handle->interfaceName: b", "E Updated Ratio: 1.000000"}));
}

TEST_F(RatioRules, UnknownAndNullEntriesAreSkippedAndUnstartableCommandsFailAfterTrying) {
    addInterface("wlan0", false, "1", "0x1");
    ratio("wlan0", 0.6f);
    ratio("ghost0", 0.4f);
    stats["null0"] = nullptr;
    EXPECT_EQ(apply(), 0);
    EXPECT_EQ(pipe.commands(), (Lines{flush, ratioRule("0.600000", "wlan0")}));
    EXPECT_EQ(params->m_interfaceMap.size(), 1u);  // the store is not touched
    EXPECT_EQ(logOf(), (Lines{"E set_VEK_ratio_iptables interface ghost0 is not configured, no rule for it"}));

    pipe.failWhenContains("-F kwop_VEK");
    EXPECT_EQ(apply(), -1);
    EXPECT_EQ(pipe.commands(), (Lines{flush, ratioRule("0.600000", "wlan0")}));
    EXPECT_EQ(logOf().back(), "E set_VEK_ratio_iptables Failure when setting VEK Ratios ");
}

// --- per-UID and DNS rules ---

class UidRules : public Rules {
  protected:
    void SetUp() override {
        Rules::SetUp();
        // Each dump request (the socket destroyer's first step) notes whether
        // the rule lock was held at that moment.
        netlink.setResponder([this](int, const Bytes& request) {
            nlmsghdr nlh{};
            memcpy(&nlh, request.data(), sizeof(nlh));
            if (nlh.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
                const bool unlocked = pthread_mutex_trylock(&gIptablesMutex) == 0;
                if (unlocked) pthread_mutex_unlock(&gIptablesMutex);
                lockHeldDuringDumps.push_back(!unlocked);
            }
            return std::vector<Bytes>{FakeNetlink::done()};
        });
    }
    std::vector<bool> lockHeldDuringDumps;
};

TEST_F(UidRules, SetupEmptiesTheMangleChainAndAddsBothRulesPerUid) {
    gDebugLogEnabled = 1;
    manager()->setup_NUV_UID_iptables_chains({{"10123", NUV_MODE_VEK}, {"10050", NUV_MODE_GAMING}});
    EXPECT_EQ(pipe.commands(),
              (Lines{IPT + "-t mangle -F kwop_NUV ",
                     IPT + "-t mangle -A kwop_NUV -m owner --uid-owner 10050 -j kwop_NUV2",
                     IPT + "-t nat -A kwop_NUV_nat -m owner --uid-owner 10050 -j kwop_DNS_nat",
                     IPT + "-t mangle -A kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2",
                     IPT + "-t nat -A kwop_NUV_nat -m owner --uid-owner 10123 -j kwop_DNS_nat"}));
    EXPECT_TRUE(log.contains("The UID Vec entry for UID 10050 has mode 0"));
    EXPECT_TRUE(log.contains("The UID Vec entry for UID 10123 has mode 1"));
    EXPECT_TRUE(netlink.sent().empty());

    pipe.clear();
    manager()->setup_NUV_UID_iptables_chains({});
    EXPECT_EQ(pipe.commands(), (Lines{IPT + "-t mangle -F kwop_NUV "}));

    // A leading blank is kept (the rule then matches nothing); a second word is refused.
    pipe.clear();
    manager()->setup_NUV_UID_iptables_chains(
        {{" 10004", NUV_MODE_VEK}, {"10123 -j ACCEPT", NUV_MODE_VEK}, {"10124\t-j\tACCEPT", NUV_MODE_VEK}});
    EXPECT_EQ(pipe.commands(),
              (Lines{IPT + "-t mangle -F kwop_NUV ",
                     IPT + "-t mangle -A kwop_NUV -m owner --uid-owner  10004 -j kwop_NUV2",
                     IPT + "-t nat -A kwop_NUV_nat -m owner --uid-owner  10004 -j kwop_DNS_nat"}));
    EXPECT_TRUE(log.contains("setup_NUV_UID_iptables_chains UID \"10123 -j ACCEPT\" is not one word, no rule for it"));
    EXPECT_TRUE(log.contains("setup_NUV_UID_iptables_chains UID \"10124\t-j\tACCEPT\" is not one word, no rule for it"));
}

TEST_F(UidRules, UpdateAndRemoveRewriteTheRulesThenDestroyTheSocketsUnderTheLock) {
    manager()->update_NUV_iptables_for_UID("10123", NUV_MODE_GAMING, static_cast<NuvMode>(7));
    const Lines del = {IPT + "-t mangle -D kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2",
                       IPT + "-t nat -D kwop_NUV_nat -m owner --uid-owner 10123 -j kwop_DNS_nat"};
    EXPECT_EQ(pipe.commands(), (Lines{del[0], IPT + "-t mangle -A kwop_NUV -m owner --uid-owner 10123 -j kwop_NUV2", del[1],
                                      IPT + "-t nat -A kwop_NUV_nat -m owner --uid-owner 10123 -j kwop_DNS_nat"}));
    EXPECT_EQ(log.lines(), (Lines{"I NUVIptables: old_mode=0, new_mode=7",
                                  "E VEKD_SockDiag:  VEK_GAMING destroying TCP sockets: 10123",
                                  "E VEKD_SockDiag:  VEK_GAMING destroying UDP sockets: 10123"}));
    EXPECT_EQ(lockHeldDuringDumps, std::vector<bool>(4, true));
    ASSERT_EQ(pthread_mutex_trylock(&gIptablesMutex), 0);  // released afterwards
    pthread_mutex_unlock(&gIptablesMutex);

    gDebugLogEnabled = 1;
    manager()->remove_NUV_iptables_for_UID("10123", NUV_MODE_VEK);
    EXPECT_EQ(pipe.commands(), del);
    Lines lines = logOf();
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()), (Lines{"I old_mode=1", "I NUV destroying sockets = 10123"}));
    EXPECT_EQ(lockHeldDuringDumps, std::vector<bool>(8, true));

    // An oversized UID runs no command, and the destroyer refuses it too.
    const size_t sent = netlink.sent().size();
    manager()->update_NUV_iptables_for_UID(std::string(600, '1'), NUV_MODE_GAMING, NUV_MODE_VEK);
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(log.count("does not fit in 512, not run"), 4u);
    EXPECT_EQ(netlink.sent().size(), sent);
    ASSERT_EQ(pthread_mutex_trylock(&gIptablesMutex), 0);
    pthread_mutex_unlock(&gIptablesMutex);
}

TEST_F(UidRules, DnsUpdateRedirectsOnlyWhenTheServerChanged) {
    char iface[] = "wlan0", oldDns[] = "192.168.1.1", newDns[] = "10.0.0.53", same[] = "10.0.0.53";
    const Lines mangle = {IPT + "-t mangle -F kwop_DNS",
                          IPT + "-t mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_wlan0"};
    IptablesManager* m = manager();
    EXPECT_EQ(m->update_NUV_iptables_for_DNS(iface, oldDns, newDns), 0);
    EXPECT_EQ(pipe.commands(),
              (mangle + Lines{IPT + "-t nat -F kwop_DNS_nat",
                              IPT + "-t nat -A kwop_DNS_nat -p udp --dport 53 -d 192.168.1.1 -j DNAT --to-destination 10.0.0.53"}));
    EXPECT_EQ(logOf(), (Lines{"D Update DNS route to wlan0 (10.0.0.53)"}));
    EXPECT_EQ(manager()->update_NUV_iptables_for_DNS(iface, newDns, same), 0);
    EXPECT_EQ(pipe.commands(), mangle);

    // A null interface returns with the lock still held, until reset.
    EXPECT_EQ(manager()->update_NUV_iptables_for_DNS(nullptr, same, same), -1);
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_TRUE(logOf().empty());
    EXPECT_EQ(pthread_mutex_trylock(&gIptablesMutex), EBUSY);
    IptablesManager::resetForTesting();
    ASSERT_EQ(pthread_mutex_trylock(&gIptablesMutex), 0);
    pthread_mutex_unlock(&gIptablesMutex);
}

}  // namespace
