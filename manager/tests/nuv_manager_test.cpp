#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "linkhealth/LinkMonitor.h"
#include "linkhealth/tests/FakeProber.h"
#include "tests/support/InProcessDaemon.h"

namespace {

using Commands = std::vector<std::string>;

const std::string kIpt = "/system/bin/iptables-wrapper-1.0 -w -t ";

class Manager : public testing::Test, protected vekd::test::InProcessDaemon {
  protected:
    void SetUp() override {
        root.writeFile(kVekdConfPath, "gaming_uid_list=9999,10010\nvek_uid_list=10010,10123\n");
        // A FIFO keeps every control command in order, as the module reads them.
        vekd::test::makeDirs(root.at("/proc/vek"));
        ASSERT_EQ(mkfifo(root.at("/proc/vek/config").c_str(), 0600), 0);
        control = open(root.at("/proc/vek/config").c_str(), O_RDONLY | O_NONBLOCK);
    }
    void TearDown() override { close(control); }
    NuvManager* configured(const std::vector<std::string>& ifaces) {
        Parameters::instance();
        NuvManager* m = NuvManager::instance();
        for (size_t i = 0; i < ifaces.size(); ++i) m->setInterfaceParamsNuv(static_cast<int>(i), ifaces[i]);
        Parameters::instance()->m_numInterfaces = static_cast<int>(ifaces.size());
        m->configInterfaceRelatedParams();
        pipe.clear();
        log.clear();
        return m;
    }
    std::string controlCommands() {
        char buf[2048];
        for (ssize_t n; (n = read(control, buf, sizeof(buf))) > 0;) written.append(buf, static_cast<size_t>(n));
        return written;
    }
    Commands commandsWith(const std::string& fragment) const {
        Commands out;
        for (const std::string& c : pipe.commands()) {
            if (c.find(fragment) != std::string::npos) out.push_back(c);
        }
        return out;
    }

    int control = -1;
    std::string written;
};

const std::string kWlan = "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1";
const std::string kWwan = "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1";

TEST_F(Manager, ReadyNotificationConfiguresUidsThenMarksThenStatisticsThenRunState) {
    Parameters* params = Parameters::instance();
    NuvManager* m = NuvManager::instance();
    EXPECT_EQ(NuvManager::instance(), m);
    EXPECT_EQ(log.count("Enter NuvManagerInit -> this function needs to be called only once"), 1u);
    EXPECT_EQ(pipe.commands().size(), 26u);  // the rule skeleton
    m->setInterfaceParamsNuv(0, kWlan);
    m->setInterfaceParamsNuv(1, kWwan);
    m->setInterfaceParamsNuv(4, "beyond");  // only slots 0 to 3 exist
    m->setInterfaceParamsNuv(-1, "before");
    EXPECT_EQ(params->m_ifaceParams[3], "");
    pipe.clear();
    log.clear();
    m->configInterfaceRelatedParams();

    // UIDs in byte order of their text; 10010 is in both lists and ends with mode 1.
    EXPECT_EQ(log.linesOf("NuvManager"),
              (Commands{"E  The UID Vec entry for UID 10010 has mode 1", "E  The UID Vec entry for UID 10123 has mode 1",
                        "E  The UID Vec entry for UID 9999 has mode 0"}));
    Commands commands = pipe.commands();
    ASSERT_GE(commands.size(), 8u);
    EXPECT_EQ(commands[0], kIpt + "mangle -F kwop_NUV ");
    EXPECT_EQ(commands[1], kIpt + "mangle -A kwop_NUV -m owner --uid-owner 10010 -j kwop_NUV2");
    EXPECT_EQ(commands[6], kIpt + "nat -A kwop_NUV_nat -m owner --uid-owner 9999 -j kwop_DNS_nat");
    EXPECT_EQ(commands[7], kIpt + "mangle -N kwop_fw_rmnet_data0");
    EXPECT_EQ(commandsWith("prio 25000"),
              (Commands{"/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5B table rmnet_data0 prio 25000",
                        "/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5A table wlan0 prio 25000"}));
    EXPECT_EQ(controlCommands(),
              std::string("protocols=http,https\0ports=80,443\0iface=rmnet_data0\0iface=wlan0\0enable=1\0", 73));
    EXPECT_EQ(params->m_runState.load(), kRunStateConfigured);
    EXPECT_EQ(waiter.wakes(), 1);

    // Again: rules set up again, statistics not enabled twice.
    pipe.clear();
    m->configInterfaceRelatedParams();
    EXPECT_EQ(pipe.commands(), commands);
    EXPECT_EQ(controlCommands().size(), 73u);
    EXPECT_EQ(m->uidModes(), (std::map<std::string, NuvMode>{
                                 {"10010", NUV_MODE_VEK}, {"10123", NUV_MODE_VEK}, {"9999", NUV_MODE_GAMING}}));
}

TEST_F(Manager, UidUpdatesAndRemovalsRecordModesUnknownUidsCountingAsModeOne) {
    NuvManager* m = configured({kWlan});
    m->setRuleForUid(20000, 2);
    m->setRuleForUid(20000, 2);
    EXPECT_EQ(log.count("old_mode=1, new_mode=2"), 1u);
    EXPECT_EQ(log.count("old_mode=2, new_mode=2"), 1u);
    EXPECT_EQ(commandsWith("--uid-owner 20000").size(), 8u);  // each time a delete and an append per table
    m->setRuleForUid(-5, 0);  // negative UIDs keep their sign in the key
    EXPECT_EQ(m->uidModes().count("-5"), 1u);

    pipe.clear();
    m->removeRuleForUid(30000, 7);  // unknown: only recorded
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(m->uidModes().at("30000"), 7);
    m->removeRuleForUid(10123, 0);  // known with mode 1
    EXPECT_EQ(pipe.commands().size(), 2u);
    EXPECT_TRUE(log.contains("old_mode=1"));
    EXPECT_EQ(m->uidModes().at("10123"), 0);
    m->setRuleForUid(10123, 1);
    EXPECT_TRUE(log.contains("old_mode=0, new_mode=1"));
}

// The DNS follows the WLAN when it has internet, else the preferred other
// link (0x5B), else the last other one; no match keeps the choice.
TEST_F(Manager, DnsChoice) {
    NuvManager* m = configured({"a0,1,a0,0x5C,0,1,0,10.0.0.1", "b0,1,b0,0x5B,0,1,0,10.0.0.2",
                                "c0,0,c0,0x5A,1,1,0,10.0.0.3", "d0,1,d0,0x5C,0,1,0,10.0.0.4"});
    m->notifyWlanHasInternet(false);
    EXPECT_STREQ(m->dnsInterface()->name, "b0");
    // The first choice ever redirects from an empty old server.
    EXPECT_EQ(commandsWith("kwop_DNS"),
              (Commands{kIpt + "mangle -F kwop_DNS", kIpt + "mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_b0",
                        kIpt + "nat -F kwop_DNS_nat",
                        kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d  -j DNAT --to-destination 10.0.0.2"}));
    pipe.clear();
    m->notifyWlanHasInternet(true);
    EXPECT_STREQ(m->dnsInterface()->name, "c0");
    EXPECT_EQ(commandsWith("DNAT"),
              (Commands{kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d 10.0.0.2 -j DNAT --to-destination 10.0.0.3"}));

    vekd::test::resetDaemonSingletons();
    m = configured({"a0,1,a0,0x5C,0,1,0,10.0.0.1", "d0,1,d0,0x5C,0,1,0,10.0.0.4"});
    m->notifyWlanHasInternet(false);
    EXPECT_STREQ(m->dnsInterface()->name, "d0");
    pipe.clear();
    m->notifyWlanHasInternet(true);  // no WLAN: the choice stays and is applied again
    EXPECT_STREQ(m->dnsInterface()->name, "d0");
    EXPECT_EQ(pipe.commands(), (Commands{kIpt + "mangle -F kwop_DNS",
                                         kIpt + "mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_d0"}));
}

TEST_F(Manager, DnsChoiceOutlivesTheRecordItWasCopiedFrom) {
    NuvManager* m = configured({kWlan, kWwan});
    m->notifyWlanHasInternet(true);
    // The client sends the WLAN again with another server: the store frees
    // the record the choice was made from.
    m->setInterfaceParamsNuv(0, "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.9");
    m->configInterfaceRelatedParams();
    pipe.clear();
    m->notifyWlanHasInternet(true);
    EXPECT_EQ(commandsWith("DNAT"),
              (Commands{kIpt + "nat -A kwop_DNS_nat -p udp --dport 53 -d 10.1.0.1 -j DNAT --to-destination 10.1.0.9"}));
}

// The first ready notification publishes the statistics engine while WLAN
// notifications read it (run under the thread sanitizer).
TEST_F(Manager, WlanNotificationsRaceTheFirstReadyNotification) {
    Parameters::instance();
    NuvManager* m = NuvManager::instance();
    pipe.clear();
    m->notifyWlanHasInternet(true);  // nothing chosen yet: no DNS update
    EXPECT_TRUE(pipe.commands().empty());
    m->setRuleForUid(1, 1);  // and the rule lock was not left held
    EXPECT_EQ(pipe.commands().size(), 4u);
    m->setInterfaceParamsNuv(0, kWlan);
    Parameters::instance()->m_numInterfaces = 1;
    std::atomic<bool> done{false};
    std::atomic<int> calls{0};
    std::thread notifier([&] {
        for (; !done; ++calls) m->notifyWlanHasInternet(true);
    });
    while (calls == 0) std::this_thread::yield();
    m->configInterfaceRelatedParams();
    done = true;
    notifier.join();
    m->notifyWlanHasInternet(true);
    EXPECT_STREQ(m->dnsInterface()->name, "wlan0");
}

TEST_F(Manager, CleanupTakesEverythingDownOnceAndLaterCallsDoNothing) {
    Parameters::instance();
    NuvManager::instance()->cleanup();  // never configured: statistics untouched
    EXPECT_EQ(controlCommands(), "");
    EXPECT_FALSE(commandsWith("-X kwop_VEK").empty());
    vekd::test::resetDaemonSingletons();

    NuvManager* m = configured({kWlan, kWwan});
    m->cleanup();
    Commands commands = pipe.commands();
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands.front(), kIpt + "mangle -D OUTPUT -j kwop_NUV");
    EXPECT_EQ(commandsWith("rule del"), (Commands{"/system/bin/ip-wrapper-1.0 -4 rule del fwmark 0x5B prio 25000",
                                                  "/system/bin/ip-wrapper-1.0 -4 rule del fwmark 0x5A prio 25000"}));
    const std::string control = controlCommands();
    EXPECT_EQ(control.substr(control.size() - 9), std::string("enable=0\0", 9));

    pipe.clear();
    m->cleanup();
    m->setRuleForUid(10123, 1);
    m->notifyWlanHasInternet(true);
    m->configInterfaceRelatedParams();
    EXPECT_EQ(m->adjustParameters(), 0);
    EXPECT_TRUE(pipe.commands().empty());
}

// The link monitor's thread against binder calls and evaluation turns (the
// thread sanitizer build runs this too).
TEST_F(Manager, ADeadLinkLosesItsShareAndTheDnsAtOnceAndGetsThemBack) {
    vekd::test::FakeProber prober(clock);
    prober.sleepInWaits = true;
    prober.setRtt(0, 1);  // rmnet_data0 (links in name order)
    prober.setRtt(1, 1);  // wlan0
    Parameters* params = Parameters::instance();
    params->m_pingPeriodMs = 5;
    params->m_minPingTimes = 2;
    NuvManager* m = configured({kWlan, kWwan});
    m->notifyWlanHasInternet(false);
    m->adjustParameters();
    ASSERT_STREQ(m->dnsInterface()->name, "rmnet_data0");
    auto waitFor = [](const std::function<bool()>& condition) {
        for (int i = 0; i < 5000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return condition();
    };
    std::atomic<bool> stop{false};
    std::thread binder([&] {
        while (!stop) m->setRuleForUid(10123, 1), m->notifyWlanHasInternet(false);
    });

    pipe.clear();
    prober.setRtt(0, -1);
    EXPECT_TRUE(waitFor([&] { return log.contains("link rmnet_data0 down: 2 probes lost in a row"); }));
    // No evaluation by the main loop was needed.
    EXPECT_TRUE(waitFor([&] { return !commandsWith("1.000000 -j kwop_fw_wlan0").empty(); }));
    // The DNS choice, as the rules show it (the choice itself is being written).
    const std::string dnsTo = kIpt + "mangle -A kwop_DNS --match multiport -p udp --dport 53 -j kwop_fw_";
    EXPECT_TRUE(waitFor([&] { return !commandsWith(dnsTo + "wlan0").empty(); }));

    pipe.clear();
    prober.setRtt(0, 1);
    std::thread mainLoop([&] {
        while (!stop) m->adjustParameters();
    });
    EXPECT_TRUE(waitFor([&] { return !commandsWith(dnsTo + "rmnet_data0").empty(); }));
    EXPECT_TRUE(log.contains("link rmnet_data0 up: round-trip time 1 ms"));
    stop = true;
    binder.join();
    mainLoop.join();
    m->cleanup();
    EXPECT_TRUE(m->linkMonitor().snapshot().empty());
}

}  // namespace
