// A real TCP transfer over a shaped veth link, measured by vekstatd and read
// back through the daemon's estimator. Runs in namespaces of its own: the
// test process moves into a fresh one (the client side), and a forked child
// moves into another (the server side, behind the shaper).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "config/Parameters.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kClientAddr = "192.0.2.1";  // documentation range, our namespaces only
constexpr const char* kServerAddr = "192.0.2.2";
constexpr uint16_t kPort = 80;
constexpr size_t kTransferBytes = 2500000;  // 2.5 s at the shaped rate

bool readByte(int fd, char expected) {
    char c = 0;
    return read(fd, &c, 1) == 1 && c == expected;
}

// The child: its own namespace, the shaped end of the link, one transfer.
[[noreturn]] void serve(int toParent, int fromParent) {
    alarm(30);  // never outlive a broken parent
    if (unshare(CLONE_NEWNET) != 0) _exit(10);
    if (write(toParent, "n", 1) != 1 || !readByte(fromParent, 'l')) _exit(11);
    int rc = 0;
    runShell("ip link set lo up && ip addr add 192.0.2.2/24 dev vs1 && ip link set vs1 up && "
             "tc qdisc add dev vs1 root tbf rate 8mbit burst 16kb latency 100ms",
             &rc);
    if (rc != 0) _exit(12);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    inet_pton(AF_INET, kServerAddr, &addr.sin_addr);
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(listener, 1) != 0) {
        _exit(13);
    }
    if (write(toParent, "r", 1) != 1) _exit(14);
    int conn = accept(listener, nullptr, nullptr);
    if (conn < 0) _exit(15);
    std::vector<char> chunk(65536, 'v');
    for (size_t sent = 0; sent < kTransferBytes;) {
        ssize_t n = send(conn, chunk.data(), std::min(chunk.size(), kTransferBytes - sent), 0);
        if (n <= 0) _exit(16);
        sent += static_cast<size_t>(n);
    }
    close(conn);
    _exit(0);
}

TEST(VekstatdNetnsTest, EstimateOfAShapedTransferIsWithinTwentyPercentOfItsMeasuredRate) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    int rc = 0;
    runShell("command -v tc >/dev/null", &rc);
    if (rc != 0) GTEST_SKIP() << "needs tc (iproute2)";

    int up[2];
    int down[2];
    ASSERT_EQ(pipe(up), 0);
    ASSERT_EQ(pipe(down), 0);
    pid_t server = fork();
    ASSERT_GE(server, 0);
    if (server == 0) serve(up[1], down[0]);
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    } reaper{server};

    ASSERT_TRUE(readByte(up[0], 'n'));
    runShell("ip link add vs0 type veth peer name vs1 netns " + std::to_string(server) +
                 " && ip addr add 192.0.2.1/24 dev vs0 && ip link set vs0 up",
             &rc);
    ASSERT_EQ(rc, 0) << "cannot create the veth pair";
    ASSERT_EQ(write(down[1], "l", 1), 1);
    ASSERT_TRUE(readByte(up[0], 'r')) << "the server side could not be set up";

    TempRoot root;
    DaemonProcess publisher(binaryPath("vekstatd"), {}, root.path(), root.at("/vekstatd.log"));
    ASSERT_TRUE(publisher.waitForLog("reading commands from", std::chrono::seconds(10)));

    Parameters::resetForTesting();
    Parameters* params = Parameters::instance();
    auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    snprintf(info->name, sizeof(info->name), "vs0");
    params->m_interfaceMap["vs0"] = info;
    VekStatsImpl* stats = VekStatsImpl::instance();
    ASSERT_TRUE(stats->enableVEK(true));
    ASSERT_TRUE(publisher.waitForLog("interface vs0: measuring", std::chrono::seconds(10)))
        << publisher.log();
    VekStatsData* estimator = stats->m_linkStatsMap.at("vs0")->statsData;
    ASSERT_NE(estimator, nullptr);

    int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    inet_pton(AF_INET, kServerAddr, &addr.sin_addr);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);

    // Estimates are taken every 100 ms once the transfer has settled.
    std::vector<unsigned> estimates;
    std::vector<char> buf(65536);
    size_t received = 0;
    Clock::time_point first{};
    Clock::time_point last{};
    Clock::time_point nextEstimate{};
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (;;) {
        pollfd pfd{client, POLLIN, 0};
        poll(&pfd, 1, 20);
        if (pfd.revents != 0) {
            ssize_t n = recv(client, buf.data(), buf.size(), 0);
            if (n <= 0) break;
            if (received == 0) {
                first = Clock::now();
                nextEstimate = first + std::chrono::milliseconds(800);
            }
            received += static_cast<size_t>(n);
            last = Clock::now();
        }
        if (received > 0 && received < kTransferBytes * 9 / 10 && Clock::now() >= nextEstimate) {
            unsigned samples = 0;
            estimates.push_back(estimator->linkRateEstimate(&samples, "vs0"));
            nextEstimate += std::chrono::milliseconds(100);
        }
        ASSERT_LT(Clock::now(), deadline) << "transfer stalled after " << received << " bytes";
    }
    close(client);
    ASSERT_EQ(received, kTransferBytes);

    // Both in kilobits of 1024 bits per second.
    const double seconds = std::chrono::duration<double>(last - first).count();
    const double measured = received * 8.0 / 1024.0 / seconds;
    ASSERT_GE(estimates.size(), 5u);
    std::vector<unsigned> sorted = estimates;
    std::sort(sorted.begin(), sorted.end());
    const double median = sorted[sorted.size() / 2];
    std::string all;
    for (unsigned e : estimates) all += std::to_string(e) + " ";
    EXPECT_NEAR(median, measured, measured * 0.2) << "estimates: " << all << "\n" << publisher.log();
    std::printf("measured %.0f kbit/s over %.2f s; median estimate %.0f kbit/s of %zu (%s)\n", measured,
                seconds, median, estimates.size(), all.c_str());

    EXPECT_TRUE(stats->enableVEK(false));
    VekStatsImpl::resetForTesting();
    Parameters::resetForTesting();
    ASSERT_TRUE(publisher.waitForLog("command: enable=0", std::chrono::seconds(10)));
    int status = publisher.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << publisher.log();
}

}  // namespace
}  // namespace vekd::test
