// vekstatd's command stream and packet accounting, and the program driven through its FIFO.
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "stats/StatsFileLayout.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/TempRoot.h"
#include "tools/vekstatd/ControlCommands.h"
#include "tools/vekstatd/PacketCount.h"

namespace vekstatd {
namespace {

TEST(CommandsTest, SplitsOnNulAcrossReadsAndParsesPorts) {
    CommandStream stream;
    std::vector<std::string> out;
    EXPECT_TRUE(stream.feed("ports=80,443\0ena", 16, &out));
    EXPECT_TRUE(stream.feed("ble=1\0", 6, &out));
    std::string big(CommandStream::kMaxCommand + 1, 'x');
    EXPECT_FALSE(stream.feed((big + '\0' + "iface=wlan0" + '\0').data(), big.size() + 13, &out));
    EXPECT_EQ(out, (std::vector<std::string>{"ports=80,443", "enable=1", "iface=wlan0"}));
    EXPECT_EQ(std::make_pair(parseCommand(out[2]).kind, parseCommand(out[2]).value), std::make_pair(Command::Iface, std::string("wlan0")));

    std::set<uint16_t> ports;
    EXPECT_TRUE(parsePortList("80,443,80,0443,65535", &ports, nullptr));
    EXPECT_EQ(ports, (std::set<uint16_t>{80, 443, 65535}));
    for (const char* wrong : {"80,,443", "0", "65536", "8a", " 80"}) EXPECT_FALSE(parsePortList(wrong, &ports, nullptr)) << wrong;
    EXPECT_EQ(ports.size(), 3u) << "kept on error";
}

// IPv4 (20-byte header) or IPv6 (a hop-by-hop header before TCP), carrying `proto` from `port`.
std::vector<uint8_t> packet(int version, uint16_t port, uint16_t total = 0, uint8_t proto = 6, uint16_t frag = 0) {
    std::vector<uint8_t> p(60, 0);
    const size_t tcp = version == 4 ? 20 : 48;
    p[0] = version == 4 ? 0x45 : 0x60;
    p[2] = total >> 8;
    p[3] = total & 0xff;
    p[6] = frag >> 8;  // IPv6: next header 0, hop-by-hop
    p[7] = frag & 0xff;
    p[version == 4 ? 9 : 40] = proto;
    p[tcp] = port >> 8;
    p[tcp + 1] = port & 0xff;
    return p;
}

TEST(PacketCountTest, CountsTcpSegmentsFromCommandedPorts) {
    const std::set<uint16_t> web{80, 443};
    auto count = [&](const std::vector<uint8_t>& p, size_t captured, size_t length, const std::set<uint16_t>& ports) {
        return countedTcpBytes(p.data(), captured, length, p[0] == 0x45 ? ETH_P_IP : ETH_P_IPV6, ports);
    };
    EXPECT_EQ(count(packet(4, 443, 1500), 60, 1500, web), 1480u);
    EXPECT_EQ(count(packet(4, 22, 1500), 60, 1500, web), 0u);
    EXPECT_EQ(count(packet(4, 22, 1500), 60, 1500, {}), 1480u);           // no list: any port
    EXPECT_EQ(count(packet(4, 80, 1500, 17), 60, 1500, web), 0u);         // UDP
    EXPECT_EQ(count(packet(4, 80, 1500, 6, 0x00b9), 60, 1500, web), 0u);  // later fragment
    EXPECT_EQ(count(packet(4, 80, 40), 60, 60, web), 20u);                // link padding
    EXPECT_EQ(count(packet(4, 80, 0), 60, 64000, web), 63980u);           // aggregated
    EXPECT_EQ(count(packet(4, 80, 1500), 22, 1500, web), 0u);             // cut short
    EXPECT_EQ(count(packet(4, 80, 1500), 60, 59, web), 0u);               // more captured than sent
    EXPECT_EQ(count(packet(6, 80), 52, 1280, web), 1232u);
    EXPECT_EQ(count(packet(6, 80), 51, 1280, web), 0u);                   // TCP ports cut short
    EXPECT_EQ(count(packet(6, 80), 41, 1280, web), 0u);                   // the extension header cut short
    EXPECT_EQ(count(packet(6, 22), 52, 1280, web), 0u);
    EXPECT_EQ(countedTcpBytes(packet(4, 80, 1500).data(), 60, 1500, ETH_P_ARP, web), 0u);
    // Up to eight extension headers (sixteen bytes each, as their length fields say) before TCP; a ninth is too many.
    for (const auto& [headers, counted] : {std::make_pair(8, 1280u - 168), std::make_pair(9, 0u)}) {
        std::vector<uint8_t> p(40 + 16 * headers + 20, 0);
        p[0] = 0x60;
        for (int h = 0; h < headers; ++h) p[40 + 16 * h] = h + 1 < headers ? 0 : 6, p[40 + 16 * h + 1] = 1;
        p[40 + 16 * headers] = 0, p[40 + 16 * headers + 1] = 80;
        EXPECT_EQ(countedTcpBytes(p.data(), p.size(), 1280, ETH_P_IPV6, web), headers == 8 ? counted : 0u) << headers;
    }
}

// The daemon reopens the FIFO for every command; a file it made earlier is filled in place.
TEST(VekstatdProgramTest, ServesCommandsAcrossReopensAndFillsFilesInPlace) {
    vekd::test::TempRoot root;
    const std::string bin = vekd::test::binaryPath("vekstatd");
    std::string out;
    EXPECT_EQ(vekd::test::runProgram(bin, {"--help"}, root.path(), &out), 0);
    EXPECT_EQ(out.rfind("usage: vekstatd [--tick-ms N]\n", 0), 0u) << out;
    using Args = std::vector<std::string>;
    for (const Args& bad : {Args{"--tick-ms", "0"}, Args{"--tick-ms", "21"}, Args{"--tick-ms", "5x"}}) EXPECT_EQ(vekd::test::runProgram(bin, bad, root.path(), nullptr, &out), 2) << bad.back();
    EXPECT_EQ(out, "vekstatd: --tick-ms wants a number from 1 to 20\n");
    EXPECT_EQ(vekd::test::runProgram(bin, {"--bogus"}, root.path(), nullptr, &out), 2);
    EXPECT_NE(out.find("vekstatd: unknown argument \"--bogus\" (see --help)"), std::string::npos) << out;
    root.writeFile("/proc", "a file where a directory belongs");
    EXPECT_EQ(vekd::test::runProgram(bin, {}, root.path()), 1);
    unlink(root.at("/proc").c_str());

    root.writeFile("/proc/vek/config", "left by a crashed run");  // replaced by the FIFO
    root.writeFile("/proc/vek/wlan0_mmap", std::string(10000, '\x7f'));  // an earlier run's bytes, cut short
    const std::string path = root.at("/proc/vek/wlan0_mmap");
    struct stat before {}, after {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    vekd::test::DaemonProcess publisher(bin, {"--tick-ms", "1"}, root.path(), root.at("/vekstatd.log"));
    ASSERT_TRUE(publisher.waitForLog("a sample every 1 ms", std::chrono::seconds(10)));
    VekStatsImpl* daemonSide = VekStatsImpl::instance();
    const std::string tooLong(CommandStream::kMaxCommand + 1, 'x');
    root.writeFile("/proc/vek/config", tooLong + '\0');  // straight into the FIFO
    vekd::test::makeDirs(root.at("/proc/vek/dir_mmap"));
    for (const char* c : {"ports=8a", "ports=80,443", "iface=wlan0", "iface=../etc", "iface=dir", "iface=vekabsent0", "enable=2", "bogus", "enable=1", "enable=0"}) EXPECT_EQ(daemonSide->writeStatsConfFile(c), 0);
    ASSERT_TRUE(publisher.waitForLog("command: enable=0", std::chrono::seconds(10))) << publisher.log();
    for (const char* said : {"E vekstatd: bad interface name \"../etc\"", "E vekstatd: bad enable value \"2\"",
                             "E vekstatd: unknown command \"bogus\"", "E vekstatd: dropped a command longer than 4096 bytes",
                             "E vekstatd: interface dir: cannot open ", "E vekstatd: bad port \"8a\" in \"ports=8a\": keeping the previous ports", "E vekstatd: interface vekabsent0: No such device; retrying every second"}) {
        EXPECT_NE(publisher.log().find(said), std::string::npos) << said;
    }

    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(std::make_pair(after.st_ino, after.st_size), std::make_pair(before.st_ino, off_t{20480}));
    const std::string bytes = vekd::test::readFile(path);
    ASSERT_EQ(bytes.size(), 20480u);
    uint32_t magic = 0;
    memcpy(&magic, bytes.data(), sizeof(magic));
    EXPECT_EQ(magic, kVekStatsMagic);
    EXPECT_LT(std::count(bytes.begin(), bytes.end(), '\x7f'), 100) << "the earlier run's bytes were left";
    EXPECT_EQ(publisher.stop(SIGTERM), 0) << "a clean exit";
    VekStatsImpl::resetForTesting();
}

}  // namespace
}  // namespace vekstatd
