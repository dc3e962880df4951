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

std::string cmd(const std::string& text) { return text + '\0'; }

class ChannelTest : public StatsTest {
  protected:
    VekStatsImpl* stats() { return VekStatsImpl::instance(); }
    // The reading end of the control FIFO, as the publisher holds it.
    int listen() {
        mkfifo(root.at("/proc/vek/config").c_str(), 0600);
        return open(root.at("/proc/vek/config").c_str(), O_RDONLY | O_NONBLOCK);
    }
    static std::string drain(int fd) {
        char buf[2048];
        ssize_t n = read(fd, buf, sizeof(buf));
        return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
    }
    bool mapped(const std::string& name) const {
        std::stringstream maps;
        maps << std::ifstream("/proc/self/maps").rdbuf();
        return maps.str().find(statsPath(name)) != std::string::npos;
    }
};

TEST_F(ChannelTest, EnableConfiguresMapsAndStartsThenDisableUnmapsAndStops) {
    EXPECT_TRUE(stats()->initMmap());  // nothing configured, nothing mapped
    configure("wlan0", false);
    configure("rmnet0", true);
    int fifo = listen();
    ASSERT_GE(fifo, 0);
    ASSERT_TRUE(stats()->enableVEK(true));
    EXPECT_EQ(drain(fifo), cmd("protocols=http,https") + cmd("ports=80,443") + cmd("iface=rmnet0") +
                               cmd("iface=wlan0") + cmd("enable=1"));
    for (auto& [name, record] : stats()->m_linkStatsMap) {
        EXPECT_STREQ(record->interfaceName, name.c_str());
        EXPECT_NE(record->statsData, nullptr);
        EXPECT_TRUE(mapped(name));
        // Created empty by the daemon's own open, extended for the mapping.
        struct stat st {};
        EXPECT_EQ(stat(statsPath(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 20480);
    }

    gDebugLogEnabled = 1;
    ASSERT_TRUE(stats()->enableVEK(false));
    EXPECT_EQ(drain(fifo), cmd("enable=0"));
    EXPECT_TRUE(log.contains("writeStatsConfFile:enable=0"));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
    EXPECT_FALSE(mapped("wlan0"));

    ASSERT_TRUE(stats()->initMmap());
    VekStatsImpl::finalize();
    EXPECT_FALSE(mapped("wlan0"));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
    close(fifo);
}

TEST_F(ChannelTest, ListCommandsUpTo511BytesAreSentWholeLongerOnesNotAtAllAndOnlyToAReader) {
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such file or directory"));
    ASSERT_EQ(mkfifo(root.at("/proc/vek/config").c_str(), 0600), 0);
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);  // a FIFO without reader
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));

    int fifo = listen();
    ASSERT_GE(fifo, 0);
    params->m_protocols = std::string(501, 'p');  // "protocols=" + 501 = 511 bytes
    params->m_ports = std::string(506, '8');      // "ports=" + 506 = 512 bytes: one too many
    ASSERT_TRUE(stats()->enableVEK(true));
    EXPECT_EQ(drain(fifo), cmd("protocols=" + params->m_protocols) + cmd("enable=1"));
    EXPECT_TRUE(log.contains("ports command does not fit in 512 bytes, not written"));
    close(fifo);
}

TEST_F(ChannelTest, UnopenableStatsFileIsTriedThreeTimesHalfASecondApart) {
    configure("wlan0", false);
    configure("rmnet0", true);
    mkdir(statsPath("wlan0").c_str(), 0755);
    EXPECT_FALSE(stats()->initMmap());
    EXPECT_EQ(clock.sleeps(), (std::vector<uint64_t>{500000, 500000, 500000}));
    EXPECT_EQ(log.count("open mmap file failed:Is a directory"), 3u);
    // Entered without statistics; the other interface is usable.
    EXPECT_EQ(stats()->m_linkStatsMap.at("wlan0")->statsData, nullptr);
    EXPECT_NE(stats()->m_linkStatsMap.at("rmnet0")->statsData, nullptr);

    for (auto& entry : params->m_interfaceMap) free(entry.second);
    params->m_interfaceMap.clear();
    EXPECT_FALSE(stats()->initMmap());  // nothing configured, but records remain
}

TEST_F(ChannelTest, ShortFileReadsNotReadyUntilThePublisherFillsTheSameInode) {
    const std::string path = statsPath("wlan0");
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0644));
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    configure("wlan0", false);
    ASSERT_TRUE(stats()->initMmap());
    VekStatsData* data = stats()->m_linkStatsMap.at("wlan0")->statsData;
    EXPECT_EQ(data->linkRateEstimate(nullptr, "wlan0"), 0u);
    EXPECT_TRUE(log.contains("VEK stat colletct is not ready"));

    std::string error;
    auto file = stats::StatsFile::open(path, &error);
    ASSERT_TRUE(file) << error;
    fillSteady(*file, 20, 8, 1024);
    EXPECT_EQ(data->linkRateEstimate(nullptr, "wlan0"), 1000u);
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(ChannelTest, ShortFileThatCannotBeExtendedIsAFailedMappingAttempt) {
    close(open(statsPath("wlan0").c_str(), O_CREAT | O_WRONLY, 0644));
    configure("wlan0", false);
    // A file-size limit below the mapping's size makes the extension fail.
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
    EXPECT_EQ(clock.sleeps().size(), 3u);
    EXPECT_EQ(stats()->m_linkStatsMap.at("wlan0")->statsData, nullptr);
}

}  // namespace
}  // namespace vekd::test
