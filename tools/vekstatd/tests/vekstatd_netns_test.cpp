// A real TCP transfer over a shaped veth link, measured by vekstatd and read
// back through the daemon's estimator. The test process moves into a fresh
// network namespace (client side); a forked child moves into another (server
// side, behind the shaper). Both vanish with the processes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include "config/Parameters.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {
namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kTransferBytes = 2500000;  // about 2.5 s at the shaped 8 Mbit/s

sockaddr_in serverAddress() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(80);
    inet_pton(AF_INET, "192.0.2.2", &addr.sin_addr);  // documentation range, our namespaces only
    return addr;
}

bool readByte(int fd, char expected) {
    char c = 0;
    return read(fd, &c, 1) == 1 && c == expected;
}

// The server side: its own namespace, the shaper on its end of the link, one transfer.
[[noreturn]] void serve(int toParent, int fromParent) {
    alarm(30);  // never outlive a broken parent
    if (unshare(CLONE_NEWNET) != 0 || write(toParent, "n", 1) != 1 || !readByte(fromParent, 'l')) _exit(1);
    int rc = 0;
    runShell("ip link set lo up && ip addr add 192.0.2.2/24 dev vs1 && ip link set vs1 up && "
             "tc qdisc add dev vs1 root tbf rate 8mbit burst 16kb latency 100ms", &rc);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = serverAddress();
    if (rc != 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listener, 1) != 0 || write(toParent, "r", 1) != 1) {
        _exit(2);
    }
    int conn = accept(listener, nullptr, nullptr);
    std::vector<char> chunk(kTransferBytes, 'v');
    for (ssize_t sent = 0, n = 0; conn >= 0 && sent < static_cast<ssize_t>(kTransferBytes); sent += n) {
        if ((n = send(conn, chunk.data() + sent, kTransferBytes - sent, 0)) <= 0) _exit(3);
    }
    _exit(conn >= 0 ? 0 : 4);
}

TEST(VekstatdNetnsTest, EstimateOfAShapedTransferIsWithinTwentyPercentOfItsMeasuredRate) {
    VEKD_REQUIRE_PRIVATE_NETNS();
    int up[2], down[2], rc = 0;
    ASSERT_EQ(pipe(up) | pipe(down), 0);
    pid_t server = fork();
    ASSERT_GE(server, 0);
    if (server == 0) serve(up[1], down[0]);
    struct Reaper {
        pid_t pid;
        ~Reaper() { kill(pid, SIGKILL), waitpid(pid, nullptr, 0); }
    } reaper{server};
    ASSERT_TRUE(readByte(up[0], 'n'));
    runShell("ip link add vs0 type veth peer name vs1 netns " + std::to_string(server) +
             " && ip addr add 192.0.2.1/24 dev vs0 && ip link set vs0 up", &rc);
    ASSERT_EQ(rc, 0) << "cannot create the veth pair";
    ASSERT_EQ(write(down[1], "l", 1), 1);
    ASSERT_TRUE(readByte(up[0], 'r')) << "the server side (tc tbf) could not be set up";

    TempRoot root;
    DaemonProcess publisher(binaryPath("vekstatd"), {}, root.path(), root.at("/vekstatd.log"));
    ASSERT_TRUE(publisher.waitForLog("reading commands from", std::chrono::seconds(10)));
    Parameters::resetForTesting();
    Parameters::instance()->m_interfaceMap["vs0"] = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    VekStatsImpl* stats = VekStatsImpl::instance();
    ASSERT_TRUE(stats->enableVEK(true));
    ASSERT_TRUE(publisher.waitForLog("interface vs0: measuring", std::chrono::seconds(10))) << publisher.log();
    VekStatsData* estimator = stats->m_linkStatsMap.at("vs0")->statsData;
    ASSERT_NE(estimator, nullptr);

    // An estimate every 100 ms once the transfer has settled (after 0.8 s, before 90 %).
    int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = serverAddress();
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    std::vector<unsigned> estimates;
    std::vector<char> buf(65536);
    size_t received = 0;
    Clock::time_point first, last, nextEstimate;
    for (const auto deadline = Clock::now() + std::chrono::seconds(20);;) {
        pollfd pfd{client, POLLIN, 0};
        if (poll(&pfd, 1, 20) > 0) {
            ssize_t n = recv(client, buf.data(), buf.size(), 0);
            if (n <= 0) break;
            if (received == 0) nextEstimate = (first = Clock::now()) + std::chrono::milliseconds(800);
            received += static_cast<size_t>(n);
            last = Clock::now();
        }
        if (received > 0 && received < kTransferBytes * 9 / 10 && Clock::now() >= nextEstimate) {
            estimates.push_back(estimator->linkRateEstimate(nullptr, "vs0"));
            nextEstimate += std::chrono::milliseconds(100);
        }
        ASSERT_LT(Clock::now(), deadline) << "transfer stalled after " << received << " bytes";
    }
    close(client);
    ASSERT_EQ(received, kTransferBytes);
    ASSERT_GE(estimates.size(), 5u);

    // Both in kilobits of 1024 bits per second.
    const double seconds = std::chrono::duration<double>(last - first).count();
    const double measured = received * 8.0 / 1024.0 / seconds;
    std::string all;
    for (unsigned e : estimates) all += std::to_string(e) + " ";
    std::nth_element(estimates.begin(), estimates.begin() + estimates.size() / 2, estimates.end());
    const double median = estimates[estimates.size() / 2];
    EXPECT_NEAR(median, measured, measured * 0.2) << "estimates: " << all << "\n" << publisher.log();
    printf("measured %.0f kbit/s over %.2f s; median estimate %.0f kbit/s (%s)\n", measured, seconds, median, all.c_str());

    EXPECT_TRUE(stats->enableVEK(false));
    VekStatsImpl::resetForTesting();
    Parameters::resetForTesting();
    ASSERT_TRUE(publisher.waitForLog("command: enable=0", std::chrono::seconds(10)));
    int status = publisher.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << publisher.log();
}

}  // namespace
}  // namespace vekd::test
