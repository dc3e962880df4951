// Real sockets destroyed by the kernel, inside a network namespace of the
// test's own (the dump only sees that namespace's sockets).
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/LogSink.h"
#include "sockdiag/SockDiag.h"
#include "sockdiag/tests/LoopbackSockets.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetNamespace.h"

namespace {

using namespace vekd::test;

constexpr uid_t kApp = 10123, kOtherApp = 10124;

// Whether this kernel destroys sockets at all, asked of `ss -K` with a
// connection of the test's own (only this namespace's sockets are in reach).
bool kernelDestroysSockets() {
    Fds fds;
    const uint16_t port = localPort(fds.add(tcpListener(AF_INET)));
    const int probe = fds.add(tcpConnect(AF_INET, port, 0));
    if (port == 0 || probe < 0) return false;
    runShell("ss -K -t dport = :" + std::to_string(port) + " >/dev/null 2>&1");
    return tcpState(probe) == TCP_CLOSE;
}

TEST(SockDestroyKernel, DestroysTheUidsSocketsOnBothFamiliesAndSparesTheRest) {
    vekd::platform::installHostLogger();
    VEKD_REQUIRE_PRIVATE_NETNS();
    if (!kernelDestroysSockets()) GTEST_SKIP() << "this kernel does not destroy sockets (CONFIG_INET_DIAG_DESTROY)";
    Fds fds;
    LogCapture log;
    for (int family : {AF_INET, AF_INET6}) {
        SCOPED_TRACE(family == AF_INET ? "IPv4" : "IPv6");
        // Connections to root's listener stay queued unaccepted, which is enough.
        const int rootPort = localPort(fds.add(tcpListener(family)));
        const int udpPort = localPort(fds.add(loopbackSocket(family, SOCK_DGRAM, 0, 0)));
        const int appListener = fds.add(tcpListener(family, 128, kApp));
        const int appClient = fds.add(tcpConnect(family, rootPort, kApp));
        fds.add(tcpConnect(family, localPort(appListener), 0));
        const int appAccepted = fds.add(as(kApp, [&] { return accept(appListener, nullptr, nullptr); }));
        const int appUdp = fds.add(loopbackSocket(family, SOCK_DGRAM, kApp, udpPort));
        const int otherClient = fds.add(tcpConnect(family, rootPort, kOtherApp));
        const int otherUdp = fds.add(loopbackSocket(family, SOCK_DGRAM, kOtherApp, udpPort));
        ASSERT_GT(std::min({rootPort, udpPort, appListener, appClient, appAccepted, appUdp, otherClient, otherUdp}), 0);

        log.clear();
        EXPECT_EQ(killSocketsForUID("10123"), 0);
        // Destroyed: the app's client, its accepted connection and its UDP
        // socket, closed with the abort waiting as the socket's error.
        EXPECT_EQ(log.count("VEK_GAMING: SOCK DESTROY [0]"), 3u);
        EXPECT_EQ(tcpState(appClient), TCP_CLOSE);
        EXPECT_EQ(pendingError(appClient), ECONNABORTED);
        EXPECT_EQ(tcpState(appAccepted), TCP_CLOSE);
        EXPECT_EQ(pendingError(appUdp), ECONNABORTED);
        // Spared: the app's listener and the other app's sockets, which still carry data.
        EXPECT_EQ(tcpState(appListener), TCP_LISTEN);
        EXPECT_EQ(tcpState(otherClient), TCP_ESTABLISHED);
        EXPECT_EQ(send(otherUdp, "x", 1, 0), 1);
        EXPECT_EQ(pendingError(otherUdp), 0);
    }
}

}  // namespace
