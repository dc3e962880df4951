// The channel to the kernel module over the host's files: control commands
// through a FIFO, statistics files mapped from disk.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <vector>

#include "stats/tests/StatsTestBase.h"

namespace vekd::test {
namespace {

class ChannelTest : public StatsTest {
  protected:
    VekStatsImpl* stats() { return VekStatsImpl::instance(); }
    bool mapped(const std::string& name) const {
        std::stringstream maps;
        maps << std::ifstream("/proc/self/maps").rdbuf();
        return maps.str().find(statsPath(name)) != std::string::npos;
    }
};

// Commands go only to a reader, whole up to 511 bytes, not at all beyond.
TEST_F(ChannelTest, EnableSendsTheCommandsAndMapsEveryLinkDisableAndFinalizeUnmap) {
    const std::string fifo = root.at("/proc/vek/config");
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such file or directory"));
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));

    EXPECT_TRUE(stats()->initMmap());  // nothing configured, nothing mapped
    configure("wlan0", false);
    configure("rmnet0", true);
    const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    params->m_protocols = std::string(501, 'p');  // "protocols=" + 501 = 511 bytes
    params->m_ports = std::string(506, '8');      // "ports=" + 506 = 512 bytes: one too many
    ASSERT_TRUE(stats()->enableVEK(true));
    char buf[2048];
    const ssize_t n = read(reader, buf, sizeof(buf));
    EXPECT_EQ(std::string(buf, n > 0 ? size_t(n) : 0),
              "protocols=" + params->m_protocols + std::string("\0iface=rmnet0\0iface=wlan0\0enable=1\0", 35));
    EXPECT_TRUE(log.contains("ports command does not fit in 512 bytes, not written"));
    for (auto& [name, record] : stats()->m_linkStatsMap) {
        EXPECT_STREQ(record->interfaceName, name.c_str());
        EXPECT_TRUE(mapped(name));
        // Created empty by the daemon's own open, extended for the mapping.
        struct stat st {};
        EXPECT_EQ(stat(statsPath(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 20480);
    }

    gDebugLogEnabled = 1;
    ASSERT_TRUE(stats()->enableVEK(false));
    EXPECT_TRUE(log.contains("writeStatsConfFile:enable=0"));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
    EXPECT_FALSE(mapped("wlan0"));
    ASSERT_TRUE(stats()->initMmap());
    VekStatsImpl::finalize();
    EXPECT_FALSE(mapped("wlan0"));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
    close(reader);
}

// Three tries half a second apart; a file that cannot be opened or extended
// leaves its link without statistics, the other links are usable.
TEST_F(ChannelTest, UnmappableStatsFileIsTriedThreeTimes) {
    configure("wlan0", false);
    configure("rmnet0", true);
    mkdir(statsPath("wlan0").c_str(), 0755);
    EXPECT_FALSE(stats()->initMmap());
    EXPECT_EQ(clock.sleeps(), (std::vector<uint64_t>{500000, 500000, 500000}));
    EXPECT_EQ(log.count("open mmap file failed:Is a directory"), 3u);
    EXPECT_EQ(stats()->m_linkStatsMap.at("wlan0")->statsData, nullptr);
    EXPECT_NE(stats()->m_linkStatsMap.at("rmnet0")->statsData, nullptr);

    // A short file and a file-size limit below the mapping's size.
    VekStatsImpl::finalize();
    rmdir(statsPath("wlan0").c_str());
    close(open(statsPath("wlan0").c_str(), O_CREAT | O_WRONLY, 0644));
    struct rlimit old {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const struct rlimit small = {4096, old.rlim_max};
    auto previous = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool mappedAll = stats()->initMmap();
    setrlimit(RLIMIT_FSIZE, &old);
    signal(SIGXFSZ, previous);
    EXPECT_FALSE(mappedAll);
    EXPECT_EQ(log.count("mmap stats file failed:File too large"), 3u);
    EXPECT_EQ(stats()->m_linkStatsMap.at("wlan0")->statsData, nullptr);

    for (auto& entry : params->m_interfaceMap) free(entry.second);
    params->m_interfaceMap.clear();
    EXPECT_FALSE(stats()->initMmap());  // nothing configured, but records remain
}

}  // namespace
}  // namespace vekd::test
