// vekstatd's command stream and packet accounting, and the program itself
// driven through its FIFO (no network: measuring stays off).
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <vector>

#include "stats/StatsFileLayout.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/TempRoot.h"
#include "tools/vekstatd/ControlCommands.h"
#include "tools/vekstatd/PacketCount.h"

namespace vekstatd {
namespace {

using Commands = std::vector<std::string>;

TEST(CommandStreamTest, SplitsOnNulAcrossReadsAndDropsOverlongCommands) {
    CommandStream stream;
    Commands out;
    const char first[] = "ports=80,443\0ena";
    EXPECT_TRUE(stream.feed(first, sizeof(first) - 1, &out));
    EXPECT_EQ(out, Commands{"ports=80,443"});
    EXPECT_TRUE(stream.feed("ble=1\0", 6, &out));
    EXPECT_EQ(out, (Commands{"ports=80,443", "enable=1"}));

    out.clear();
    std::string big(CommandStream::kMaxCommand + 10, 'x');
    big += std::string("\0iface=wlan0\0", 13);
    EXPECT_FALSE(stream.feed(big.data(), big.size(), &out));
    EXPECT_EQ(out, Commands{"iface=wlan0"});
}

TEST(CommandStreamTest, ParsesCommandsPortsAndNames) {
    EXPECT_EQ(parseCommand("iface=wlan0").kind, Command::Iface);
    EXPECT_EQ(parseCommand("iface=wlan0").value, "wlan0");
    EXPECT_EQ(parseCommand("enable=1").kind, Command::Enable);
    EXPECT_EQ(parseCommand("protocols=http,https").kind, Command::Protocols);
    EXPECT_EQ(parseCommand("ifac=wlan0").kind, Command::Unknown);

    std::set<uint16_t> ports{1};
    std::string bad;
    EXPECT_TRUE(parsePortList("80,443,80", &ports, &bad));
    EXPECT_EQ(ports, (std::set<uint16_t>{80, 443}));
    EXPECT_TRUE(parsePortList("", &ports, &bad));
    EXPECT_TRUE(ports.empty());
    for (const char* wrong : {"80,,443", "0", "65536", "8a", "-1", " 80"}) {
        ports = {7};
        EXPECT_FALSE(parsePortList(wrong, &ports, &bad)) << wrong;
        EXPECT_EQ(ports, std::set<uint16_t>{7}) << "unchanged on error";
    }
    EXPECT_EQ(bad, " 80");

    EXPECT_TRUE(isValidInterfaceName("rmnet_data0"));
    for (const char* wrong : {"", ".", "..", "a/b", "sixteen-chars-xx"}) {
        EXPECT_FALSE(isValidInterfaceName(wrong)) << wrong;
    }
}

// An IPv4 packet with a 20-byte header carrying TCP from `srcPort`.
std::vector<uint8_t> ipv4Tcp(uint16_t srcPort, uint16_t totalLength, uint8_t proto = 6,
                             uint16_t fragment = 0) {
    std::vector<uint8_t> p(60, 0);
    p[0] = 0x45;
    p[2] = totalLength >> 8;
    p[3] = totalLength & 0xff;
    p[6] = fragment >> 8;
    p[7] = fragment & 0xff;
    p[9] = proto;
    p[20] = srcPort >> 8;
    p[21] = srcPort & 0xff;
    return p;
}

TEST(PacketCountTest, CountsTcpSegmentsFromCommandedPorts) {
    const std::set<uint16_t> web{80, 443};
    auto count = [&](const std::vector<uint8_t>& p, size_t length, const std::set<uint16_t>& ports,
                     uint16_t type = ETH_P_IP) {
        return countedTcpBytes(p.data(), p.size() < length ? p.size() : length, length, type, ports);
    };
    EXPECT_EQ(count(ipv4Tcp(443, 1500), 1500, web), 1480u);
    EXPECT_EQ(count(ipv4Tcp(22, 1500), 1500, web), 0u);
    EXPECT_EQ(count(ipv4Tcp(22, 1500), 1500, {}), 1480u);       // no port list: any port
    EXPECT_EQ(count(ipv4Tcp(80, 1500, 17), 1500, web), 0u);     // UDP
    EXPECT_EQ(count(ipv4Tcp(80, 1500, 6, 0x00b9), 1500, web), 0u);  // later fragment
    EXPECT_EQ(count(ipv4Tcp(80, 1500, 6, 0x4000), 1500, web), 1480u);  // DF set
    EXPECT_EQ(count(ipv4Tcp(80, 40), 60, web), 20u);            // link padding
    EXPECT_EQ(count(ipv4Tcp(80, 0), 64000, web), 63980u);       // aggregated
    EXPECT_EQ(count(ipv4Tcp(80, 1500), 22, web), 0u);           // header cut short
    EXPECT_EQ(count(ipv4Tcp(80, 1500), 1500, web, ETH_P_ARP), 0u);

    std::vector<uint8_t> v6(80, 0);
    v6[0] = 0x60;
    v6[6] = 0;    // hop-by-hop options first
    v6[40] = 6;   // then TCP
    v6[41] = 0;   // 8 bytes of options
    v6[48] = 0;
    v6[49] = 80;
    EXPECT_EQ(countedTcpBytes(v6.data(), v6.size(), 1280, ETH_P_IPV6, web), 1232u);
    EXPECT_EQ(countedTcpBytes(v6.data(), 44, 1280, ETH_P_IPV6, web), 0u);
}

TEST(VekstatdProgramTest, HelpAndUsageErrors) {
    vekd::test::TempRoot root;
    std::string out;
    std::string err;
    const std::string bin = vekd::test::binaryPath("vekstatd");
    EXPECT_EQ(vekd::test::runProgram(bin, {"--help"}, root.path(), &out), 0);
    EXPECT_NE(out.find("iface=NAME"), std::string::npos);
    EXPECT_EQ(vekd::test::runProgram(bin, {"--bogus"}, root.path(), nullptr, &err), 2);
    EXPECT_NE(err.find("unknown argument"), std::string::npos);
    EXPECT_EQ(vekd::test::runProgram(bin, {"--tick-ms", "50"}, root.path()), 2);
}

// The daemon opens and closes the FIFO for every command; the publisher must
// see each, fill a file the daemon created earlier in place, and stop cleanly.
TEST(VekstatdProgramTest, ServesCommandsAcrossReopensAndFillsFilesInPlace) {
    vekd::test::TempRoot root;
    vekd::test::makeDirs(root.at("/proc/vek"));
    const std::string path = root.at("/proc/vek/wlan0_mmap");
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0644));
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);

    vekd::test::DaemonProcess publisher(vekd::test::binaryPath("vekstatd"), {}, root.path(),
                                        root.at("/vekstatd.log"));
    ASSERT_TRUE(publisher.waitForLog("reading commands from", std::chrono::seconds(10)));
    VekStatsImpl* stats = VekStatsImpl::instance();
    EXPECT_EQ(stats->writeStatsConfFile("ports=80,443"), 0);
    EXPECT_EQ(stats->writeStatsConfFile("iface=wlan0"), 0);
    EXPECT_EQ(stats->writeStatsConfFile("iface=../etc"), 0);
    EXPECT_EQ(stats->writeStatsConfFile("enable=0"), 0);
    ASSERT_TRUE(publisher.waitForLog("command: enable=0", std::chrono::seconds(10)))
        << publisher.log();
    EXPECT_NE(publisher.log().find("E vekstatd: bad interface name \"../etc\""), std::string::npos);

    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_size, 20480);
    uint32_t magic = 0;
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_EQ(pread(fd, &magic, sizeof(magic), 0), 4);
    close(fd);
    EXPECT_EQ(magic, kVekStatsMagic);

    int status = publisher.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    VekStatsImpl::resetForTesting();
}

}  // namespace
}  // namespace vekstatd
