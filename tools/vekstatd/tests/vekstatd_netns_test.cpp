// vekstatd's packet capture on a real veth pair in a private network
// namespace: frames sent on each end are counted by the other end's file only,
// by port, and never by the end that sent them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "stats/StatsFileLayout.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {
namespace {

uint64_t wallMs() {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

TEST(VekstatdNetnsTest, EachEndCountsOnlyTheTcpBytesItReceivedFromTheCommandedPorts) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    int rc = 0;
    runShell("ip link add vs0 type veth peer name vs1 && ip link set vs0 up && ip link set vs1 up", &rc);
    ASSERT_EQ(rc, 0) << "cannot create the veth pair";
    TempRoot root;
    DaemonProcess publisher(binaryPath("vekstatd"), {"--tick-ms", "5"}, root.path(), root.at("/vekstatd.log"));
    ASSERT_TRUE(publisher.waitForLog("reading commands from", std::chrono::seconds(10)));
    const char commands[] = "ports=80,443\0iface=vs0\0iface=vs1\0enable=1";
    const int fifo = open(root.at("/proc/vek/config").c_str(), O_WRONLY);
    ASSERT_EQ(write(fifo, commands, sizeof(commands)), static_cast<ssize_t>(sizeof(commands)));
    close(fifo);
    ASSERT_TRUE(publisher.waitForLog("measuring on", std::chrono::seconds(10))) << publisher.log();
    const uint64_t startMs = wallMs();

    // Broadcast IPv4 frames of `total` bytes carrying TCP from `port`, sent out of `iface`.
    const int out = socket(AF_PACKET, SOCK_DGRAM, 0);
    auto send = [&](const char* iface, uint16_t port, uint16_t total, int count) {
        std::vector<uint8_t> p(total, 0);
        p[0] = 0x45, p[2] = total >> 8, p[3] = total & 0xff, p[8] = 64, p[9] = IPPROTO_TCP;
        p[20] = port >> 8, p[21] = port & 0xff;
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_protocol = htons(ETH_P_IP);
        to.sll_ifindex = static_cast<int>(if_nametoindex(iface));
        to.sll_halen = ETH_ALEN;
        memset(to.sll_addr, 0xff, ETH_ALEN);
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(sendto(out, p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)), total);
        }
    };
    send("vs1", 80, 1000, 5);   // vs0 counts 5 x 980
    send("vs1", 22, 1000, 4);   // a port not commanded
    send("vs0", 443, 600, 3);   // vs1 counts 3 x 580
    close(out);

    // Every sample of a file: its byte total, and all stamped within the run.
    auto published = [&](const char* iface) {
        std::vector<VekStatsSample> ring(kVekStatsRingSlots);
        const int fd = open(root.at(std::string("/proc/vek/") + iface + "_mmap").c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, ring.data(), ring.size() * kVekStatsSlotSize, kVekStatsSlotSize),
                  static_cast<ssize_t>(ring.size() * kVekStatsSlotSize));
        close(fd);
        uint64_t bytes = 0;
        for (const VekStatsSample& s : ring) {
            if (s.bytes == 0) continue;
            EXPECT_EQ(s.kind, kVekSampleCounted) << iface;
            EXPECT_TRUE(s.timestampMs >= startMs && s.timestampMs <= wallMs()) << s.timestampMs - startMs;
            bytes += s.bytes;
        }
        return bytes;
    };
    for (int i = 0; i < 250 && (published("vs0") < 4900 || published("vs1") < 1740); ++i) usleep(20000);
    usleep(100000);  // room for anything counted twice or late
    EXPECT_EQ(published("vs0"), 4900u) << publisher.log();
    EXPECT_EQ(published("vs1"), 1740u) << publisher.log();
    int status = publisher.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << publisher.log();
}

}  // namespace
}  // namespace vekd::test
