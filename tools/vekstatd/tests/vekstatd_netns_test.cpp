// vekstatd's packet capture on a veth pair in a private network namespace: frames sent
// out of one end are counted in the other end's file only, by port, never by the sender.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <unistd.h>

#include <fstream>

#include "stats/StatsFileLayout.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {
namespace {

TEST(VekstatdNetnsTest, OnlyTheReceivingEndCountsTcpBytesFromTheCommandedPorts) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    int rc = 0;
    runShell("ip link add vs0 type veth peer name vs1 && ip link set vs0 up && ip link set vs1 up", &rc);
    ASSERT_EQ(rc, 0) << "cannot create the veth pair";
    TempRoot root;
    DaemonProcess publisher(binaryPath("vekstatd"), {"--tick-ms", "5"}, root.path(), root.at("/vekstatd.log"));
    ASSERT_TRUE(publisher.waitForLog("reading commands from", std::chrono::seconds(10)));
    const char commands[] = "ports=80,443\0iface=vs0\0iface=vs1\0enable=1";
    std::ofstream(root.at("/proc/vek/config"), std::ios::binary).write(commands, sizeof(commands));
    ASSERT_TRUE(publisher.waitForLog("measuring on", std::chrono::seconds(10))) << publisher.log();

    // Broadcast IPv4 frames of `total` bytes carrying TCP from `port`, sent out of `iface`.
    const int out = socket(AF_PACKET, SOCK_DGRAM, 0);
    auto send = [&](const char* iface, uint16_t port, uint16_t total, int count) {
        const uint8_t head[] = {0x45, 0, uint8_t(total >> 8), uint8_t(total), 0, 0, 0, 0, 64, IPPROTO_TCP, 0, 0,
                                0, 0, 0, 0, 0, 0, 0, 0, uint8_t(port >> 8), uint8_t(port)};  // then the TCP ports
        std::vector<uint8_t> p(head, head + sizeof(head));
        p.resize(total);
        sockaddr_ll to{AF_PACKET, htons(ETH_P_IP), static_cast<int>(if_nametoindex(iface)), 0, 0, ETH_ALEN,
                       {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}};  // broadcast
        for (int i = 0; i < count; ++i) ASSERT_EQ(sendto(out, p.data(), total, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), total);
    };
    send("vs1", 80, 1000, 5);  // vs0 counts 5 x 980
    send("vs1", 22, 1000, 4);  // a port not commanded
    close(out);

    // The bytes of every sample of a file.
    auto published = [&](const char* iface) {
        std::vector<VekStatsSample> ring(kVekStatsRingSlots);
        std::ifstream file(root.at(std::string("/proc/vek/") + iface + "_mmap"), std::ios::binary);
        file.seekg(kVekStatsSlotSize).read(reinterpret_cast<char*>(ring.data()), ring.size() * kVekStatsSlotSize);
        uint64_t bytes = 0;
        for (const VekStatsSample& s : ring) bytes += s.bytes;
        return bytes;
    };
    for (int i = 0; i < 250 && published("vs0") < 4900; ++i) usleep(20000);
    usleep(100000);  // room for anything counted twice or late
    EXPECT_EQ(std::make_pair(published("vs0"), published("vs1")), std::make_pair(uint64_t{4900}, uint64_t{0}))
        << publisher.log();
}

}  // namespace
}  // namespace vekd::test
