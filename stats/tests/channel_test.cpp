// The channel to the kernel module: control commands, mapping of the
// statistics files, and the host behaviour of FIFOs and short files.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "stats/StatsFileAccess.h"
#include "stats/tests/StatsTestBase.h"

namespace vekd::test {
namespace {

using stats::StatsFileAccess;

// Records control commands and unmappings; opens or mappings can be made to
// fail. Statistics files are otherwise opened and mapped for real.
class FakeStatsFiles : public StatsFileAccess {
  public:
    static constexpr int kControlFd = 9999;

    FakeStatsFiles() : m_scope(*this) {}
    int open(const char* path, int flags, mode_t mode) override {
        opened.push_back(path);
        if (failOpens != 0 && strstr(path, failOpenFragment.c_str()) != nullptr) {
            if (failOpens > 0) --failOpens;
            errno = ENOENT;
            return -1;
        }
        if (strstr(path, "/proc/vek/config") != nullptr) return kControlFd;
        return real().open(path, flags, mode);
    }
    ssize_t write(int fd, const void* data, size_t size) override {
        if (fd != kControlFd) return real().write(fd, data, size);
        events.emplace_back(static_cast<const char*>(data), size);
        if (shortWrites) {
            errno = ENOSPC;
            return static_cast<ssize_t>(size) - 1;
        }
        return static_cast<ssize_t>(size);
    }
    int close(int fd) override { return fd == kControlFd ? 0 : real().close(fd); }
    void* mmap(size_t length, int prot, int flags, int fd, off_t offset) override {
        if (failMaps > 0) {
            --failMaps;
            errno = ENOMEM;
            return MAP_FAILED;
        }
        return real().mmap(length, prot, flags, fd, offset);
    }
    int munmap(void* addr, size_t length) override {
        events.push_back("munmap " + std::to_string(length));
        return real().munmap(addr, length);
    }

    std::vector<std::string> opened;
    std::vector<std::string> events;  // control writes (NUL included) and unmaps
    std::string failOpenFragment;
    int failOpens = 0;  // -1: always
    int failMaps = 0;
    bool shortWrites = false;

  private:
    StatsFileAccess& real() { return StatsFileAccess::real(); }
    ScopedSeam<StatsFileAccess> m_scope;
};

std::string cmd(const char* text) { return std::string(text, strlen(text) + 1); }

class ChannelTest : public StatsTest {
  protected:
    VekStatsImpl* stats() { return VekStatsImpl::instance(); }
    FakeStatsFiles files;
};

TEST_F(ChannelTest, EnableConfiguresMapsAndStartsThenDisableUnmapsAndStops) {
    configure("wlan0", false);
    configure("rmnet0", true);
    ASSERT_TRUE(stats()->enableVEK(true));
    EXPECT_EQ(files.events, (std::vector<std::string>{cmd("protocols=http,https"), cmd("ports=80,443"),
                                                      cmd("iface=rmnet0"), cmd("iface=wlan0"),
                                                      cmd("enable=1")}));
    ASSERT_EQ(stats()->m_linkStatsMap.size(), 2u);
    for (auto& [name, record] : stats()->m_linkStatsMap) {
        EXPECT_STREQ(record->interfaceName, name.c_str());
        ASSERT_NE(record->statsData, nullptr);
        // The daemon's own open created the file; it was extended for mapping.
        struct stat st {};
        ASSERT_EQ(stat(statsPath(name).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 20480);
    }

    files.events.clear();
    ASSERT_TRUE(stats()->enableVEK(false));
    EXPECT_EQ(files.events,
              (std::vector<std::string>{"munmap 20480", "munmap 20480", cmd("enable=0")}));
    EXPECT_EQ(files.events.back().size(), 9u);
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());

    // finalize unmaps what is still mapped; the next instance starts empty.
    ASSERT_TRUE(stats()->initMmap());
    files.events.clear();
    VekStatsImpl::finalize();
    EXPECT_EQ(files.events, (std::vector<std::string>{"munmap 20480", "munmap 20480"}));
    EXPECT_TRUE(stats()->m_linkStatsMap.empty());
}

TEST_F(ChannelTest, UnopenableStatsFileIsTriedThreeTimesHalfASecondApart) {
    configure("wlan0", false);
    configure("rmnet0", true);
    files.failOpenFragment = "wlan0_mmap";
    files.failOpens = -1;
    EXPECT_FALSE(stats()->initMmap());
    EXPECT_EQ(clock.sleeps(), (std::vector<uint64_t>{500000, 500000, 500000}));
    EXPECT_EQ(log.count("open mmap file failed:No such file or directory"), 3u);
    // Still entered, without statistics; the other interface is usable.
    ASSERT_EQ(stats()->m_linkStatsMap.count("wlan0"), 1u);
    EXPECT_EQ(stats()->m_linkStatsMap["wlan0"]->statsData, nullptr);
    EXPECT_NE(stats()->m_linkStatsMap["rmnet0"]->statsData, nullptr);
}

TEST_F(ChannelTest, TransientOpenAndMapFailuresAreRetried) {
    configure("wlan0", false);
    files.failOpenFragment = "wlan0_mmap";
    files.failOpens = 1;
    files.failMaps = 1;
    EXPECT_TRUE(stats()->initMmap());
    EXPECT_EQ(clock.sleeps().size(), 2u);
    EXPECT_TRUE(log.contains("mmap stats file failed:Cannot allocate memory"));
    EXPECT_NE(stats()->m_linkStatsMap["wlan0"]->statsData, nullptr);

    // A second mapping replaces the record of the same name.
    linkStatsWrapper_t* first = stats()->m_linkStatsMap["wlan0"];
    files.failMaps = 3;
    EXPECT_FALSE(stats()->initMmap());
    EXPECT_NE(stats()->m_linkStatsMap["wlan0"], first);
    EXPECT_EQ(stats()->m_linkStatsMap["wlan0"]->statsData, nullptr);
}

TEST_F(ChannelTest, WithoutConfiguredInterfacesMappingSucceedsOnlyWhenNothingIsMapped) {
    EXPECT_TRUE(stats()->initMmap());
    configure("wlan0", false);
    ASSERT_TRUE(stats()->initMmap());
    for (auto& entry : params->m_interfaceMap) free(entry.second);
    params->m_interfaceMap.clear();
    EXPECT_FALSE(stats()->initMmap());
}

TEST_F(ChannelTest, LongNamesAreCutIntoTheRecordAndThePath) {
    const std::string name(130, 'a');
    configure(name, false);
    stats()->initMmap();
    EXPECT_EQ(strlen(stats()->m_linkStatsMap[name]->interfaceName), 127u);
    EXPECT_EQ(files.opened.back(), root.path() + ("/proc/vek/" + name).substr(0, 127));
}

TEST_F(ChannelTest, ControlFileFailuresAreReported) {
    files.failOpenFragment = "config";
    files.failOpens = 1;
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such file or directory"));

    files.shortWrites = true;
    EXPECT_EQ(stats()->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("write the config failed:No space left on device\n"));
}

// The real file access from here on.
class HostChannelTest : public StatsTest {};

TEST_F(HostChannelTest, ControlFifoNeverBlocksAndCarriesNulTerminatedCommands) {
    const std::string fifo = root.at("/proc/vek/config");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    VekStatsImpl* stats = VekStatsImpl::instance();
    EXPECT_EQ(stats->writeStatsConfFile("enable=1"), -1);
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));

    int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_EQ(stats->writeStatsConfFile("ports=80,443"), 0);
    EXPECT_EQ(stats->writeStatsConfFile("enable=1"), 0);
    char buf[64];
    ssize_t n = read(reader, buf, sizeof(buf));
    close(reader);
    EXPECT_EQ(std::string(buf, n > 0 ? n : 0), cmd("ports=80,443") + cmd("enable=1"));
}

TEST_F(HostChannelTest, ShortFileReadsNotReadyUntilThePublisherFillsTheSameInode) {
    const std::string path = statsPath("wlan0");
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0644));
    struct stat before {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    configure("wlan0", false);
    ASSERT_TRUE(VekStatsImpl::instance()->initMmap());
    VekStatsData* data = VekStatsImpl::instance()->m_linkStatsMap["wlan0"]->statsData;
    ASSERT_NE(data, nullptr);
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
    EXPECT_EQ(after.st_size, 20480);
}

}  // namespace
}  // namespace vekd::test
