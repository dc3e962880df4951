#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "linkhealth/LinkMonitor.h"
#include "linkhealth/tests/FakeProber.h"
#include "tests/support/InProcessDaemon.h"

namespace {

using Commands = std::vector<std::string>;

const std::string kIpt = "/system/bin/iptables-wrapper-1.0 -w -t ";
const std::string kWlan = "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1";
const std::string kWwan = "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1";

// Leaves other bytes than zero where the next call's locals will lie.
__attribute__((noinline)) void dirtyStack() {
    volatile char junk[8192];
    for (auto& c : junk) c = 'x';
}

class Manager : public testing::Test, protected vekd::test::InProcessDaemon {
  protected:
    // No control file: the commands to the module are the process tests' business.
    void SetUp() override {
        root.writeFile(kVekdConfPath, "gaming_uid_list=9999,10010\nvek_uid_list=10010,10123\n");
        vekd::test::makeDirs(root.at("/proc/vek"));
    }
    NuvManager* configured(const std::vector<std::string>& ifaces) {
        NuvManager* m = NuvManager::instance();
        for (size_t i = 0; i < ifaces.size(); ++i) m->setInterfaceParamsNuv(static_cast<int>(i), ifaces[i]);
        Parameters::instance()->m_numInterfaces = static_cast<int>(ifaces.size());
        m->configInterfaceRelatedParams();
        pipe.clear();
        log.clear();
        return m;
    }
    Commands commandsWith(const std::string& fragment) const {
        Commands out = pipe.commands();
        out.erase(std::remove_if(out.begin(), out.end(), [&](auto& c) { return c.find(fragment) == std::string::npos; }), out.end());
        return out;
    }
};

TEST_F(Manager, ReadyNotificationConfiguresUidsThenMarksThenStatisticsThenRunState) {
    NuvManager* m = NuvManager::instance();
    EXPECT_EQ(log.count("Enter NuvManagerInit -> this function needs to be called only once"), 1u);
    m->setInterfaceParamsNuv(0, kWlan);
    m->setInterfaceParamsNuv(1, kWwan);
    m->setInterfaceParamsNuv(4, "beyond");  // only slots 0 to 3 exist
    m->setInterfaceParamsNuv(-1, "before");
    EXPECT_EQ(Parameters::instance()->m_ifaceParams[3], "");
    pipe.clear();
    log.clear();
    m->configInterfaceRelatedParams();

    // UIDs in byte order of their text; 10010 is in both lists and ends with mode 1.
    EXPECT_EQ(log.linesOf("NuvManager"),
              (Commands{"E  The UID Vec entry for UID 10010 has mode 1", "E  The UID Vec entry for UID 10123 has mode 1",
                        "E  The UID Vec entry for UID 9999 has mode 0"}));
    Commands commands = pipe.commands();
    ASSERT_GE(commands.size(), 8u);
    EXPECT_EQ(commands[1], kIpt + "mangle -A kwop_NUV -m owner --uid-owner 10010 -j kwop_NUV2");
    EXPECT_EQ(commands[7], kIpt + "mangle -N kwop_fw_rmnet_data0");
    EXPECT_EQ(Parameters::instance()->m_runState.load(), kRunStateConfigured);
    EXPECT_EQ(waiter.wakes(), 1);

    // Again: rules set up again, statistics not enabled twice.
    pipe.clear();
    m->configInterfaceRelatedParams();
    EXPECT_EQ(pipe.commands(), commands);
    EXPECT_EQ(log.count("open stats config file failed"), 5u);  // protocols, ports, two links, enable
}

TEST_F(Manager, UidUpdatesAndRemovalsRecordModesUnknownUidsCountingAsModeOne) {
    NuvManager* m = configured({kWlan});
    gDebugLogEnabled = 1;
    m->setRuleForUid(20000, 2);
    EXPECT_TRUE(log.contains("did not find the element for 20000 "));
    m->setRuleForUid(20000, 2);
    EXPECT_TRUE(log.contains("found the element for 20000 "));
    EXPECT_EQ(log.count("old_mode=1, new_mode=2"), 1u);
    EXPECT_EQ(commandsWith("--uid-owner 20000").size(), 8u);  // each time a delete and an append per table

    pipe.clear();
    m->removeRuleForUid(30000, 7);  // unknown: only recorded
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(m->uidModes().at("30000"), 7);
    m->removeRuleForUid(10123, 0);  // known with mode 1
    EXPECT_EQ(pipe.commands().size(), 2u);
    EXPECT_TRUE(log.contains("found the element for 10123 "));
    EXPECT_EQ(m->uidModes().at("10123"), 0);
    m->setRuleForUid(10123, 1);
    EXPECT_TRUE(log.contains("old_mode=0, new_mode=1"));
}

// The DNS follows the WLAN when it has internet, else the preferred other
// link (0x5B), else the last other one; no match keeps the choice.
TEST_F(Manager, DnsChoice) {
    NuvManager* m = configured({"a0,1,a0,0x5C,0,1,0,10.0.0.1", "b0,1,b0,0x5B,0,1,0,10.0.0.2",
                                "c0,0,c0,0x5A,1,1,0,10.0.0.3", "d0,1,d0,0x5C,0,1,0,10.0.0.4"});
    dirtyStack();  // an old server left unset would show
    m->notifyWlanHasInternet(false);
    EXPECT_STREQ(m->dnsInterface()->name, "b0");
    // The first choice ever redirects from an empty old server.
    EXPECT_EQ(commandsWith("DNAT"), (Commands{kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d  -j DNAT --to-destination 10.0.0.2"}));
    pipe.clear();
    m->notifyWlanHasInternet(true);
    EXPECT_STREQ(m->dnsInterface()->name, "c0");
    EXPECT_EQ(commandsWith("DNAT"), (Commands{kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d 10.0.0.2 -j DNAT --to-destination 10.0.0.3"}));
    // The WLAN sent again with another server: the store frees the record the choice was copied from.
    m->setInterfaceParamsNuv(2, "c0,0,c0,0x5A,1,1,0,10.0.0.9");
    m->configInterfaceRelatedParams();
    pipe.clear();
    m->notifyWlanHasInternet(true);
    EXPECT_EQ(commandsWith("DNAT"), (Commands{kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d 10.0.0.3 -j DNAT --to-destination 10.0.0.9"}));

    vekd::test::resetDaemonSingletons();
    m = configured({"a0,1,a0,0x5C,0,1,0,10.0.0.1", "d0,1,d0,0x5C,0,1,0,10.0.0.4"});
    m->notifyWlanHasInternet(false);
    EXPECT_STREQ(m->dnsInterface()->name, "d0");
    m->notifyWlanHasInternet(true);  // no WLAN: the choice stays
    EXPECT_STREQ(m->dnsInterface()->name, "d0");
}

TEST_F(Manager, CleanupTakesEverythingDownOnceAndLaterCallsDoNothing) {
    NuvManager* m = NuvManager::instance();
    pipe.clear();
    m->notifyWlanHasInternet(true);  // nothing chosen yet: no DNS update
    EXPECT_TRUE(pipe.commands().empty());
    m->setRuleForUid(1, 1);  // and the rule lock was not left held
    EXPECT_EQ(pipe.commands().size(), 4u);
    m->cleanup();  // never configured: no statistics to stop
    EXPECT_FALSE(commandsWith("-X kwop_VEK").empty());
    vekd::test::resetDaemonSingletons();

    m = configured({kWlan, kWwan});
    m->notifyWlanHasInternet(true);  // a DNS choice no later notification may apply
    pipe.clear();
    m->cleanup();
    EXPECT_EQ(pipe.commands().at(0), kIpt + "mangle -D OUTPUT -j kwop_NUV");

    pipe.clear();
    m->cleanup();
    m->setRuleForUid(10123, 1);
    m->notifyWlanHasInternet(true);
    m->configInterfaceRelatedParams();
    EXPECT_EQ(m->adjustParameters(), 0);
    EXPECT_TRUE(pipe.commands().empty());
}

// The link monitor's thread against binder calls, and the first ready
// notification publishing the statistics engine while WLAN notifications read
// it (the thread sanitizer build runs this too). Once configured, only a
// change of health moves the DNS, in the main loop's turn it wakes.
TEST_F(Manager, ADeadLinkLosesItsShareAndTheDnsAtOnce) {
    vekd::test::FakeProber prober(clock);
    prober.sleepInWaits = true;
    Parameters::instance()->m_pingPeriodMs = 1000;  // by the fake clock
    Parameters::instance()->m_minPingTimes = 2;
    NuvManager* m = NuvManager::instance();
    std::atomic<bool> stop{false};
    std::atomic<bool> ready{false};
    std::atomic<int> calls{0};
    std::thread binder([&] {
        for (; !stop; ++calls) {
            m->setRuleForUid(10123, 1);
            if (!ready) m->notifyWlanHasInternet(false);
        }
    });
    while (calls == 0) std::this_thread::yield();
    configured({kWlan, kWwan});
    ready = true;
    m->notifyWlanHasInternet(false);
    m->adjustParameters();
    EXPECT_STREQ(m->dnsInterface()->name, "rmnet_data0");
    pipe.clear();
    prober.setRtt(0, -1);  // rmnet_data0 (links in name order) stops answering
    m->waitForNextTurn(30'000'000);  // the main loop's sleep, cut short
    EXPECT_TRUE(log.contains("link rmnet_data0 down: 5 probes unanswered in a row, nothing received"));
    EXPECT_TRUE(commandsWith("-j kwop_fw_wlan0").empty()) << "the monitor's thread writes no rule";
    m->adjustParameters();
    EXPECT_FALSE(commandsWith("1.000000 -j kwop_fw_wlan0").empty());
    EXPECT_FALSE(commandsWith(kIpt + "mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_wlan0").empty());
    m->configInterfaceRelatedParams();  // the same links again: rmnet_data0 stays down
    pipe.clear();
    m->adjustParameters();
    EXPECT_TRUE(commandsWith("-A kwop_VEK").empty());
    stop = true;
    binder.join();
    m->cleanup();
    EXPECT_TRUE(m->linkMonitor().snapshot().empty());
}

}  // namespace
