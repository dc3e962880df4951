// Real sockets destroyed by the kernel, inside a network namespace of the
// test's own (the dump only sees that namespace's sockets).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "platform/LogSink.h"
#include "sockdiag/SockDiag.h"
#include "sockdiag/tests/LoopbackSockets.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetNamespace.h"

namespace {

using namespace vekd::test;

constexpr uid_t kApp = 10123;
constexpr uid_t kOtherApp = 10124;

TEST(SockDestroyKernel, DestroysTheUidsSocketsOnBothFamiliesAndSparesTheRest) {
    vekd::platform::installHostLogger();
    VEKD_REQUIRE_PRIVATE_NETNS();
    struct Scene {
        int family, appListener, appClient, appAccepted, appUdp, otherClient, otherUdp;
    };
    Fds fds;
    std::vector<Scene> scenes;
    for (int family : {AF_INET, AF_INET6}) {
        // Connections to root's listener stay queued unaccepted, which is enough.
        const int rootPort = localPort(fds.add(tcpListener(family)));
        const int udpPort = localPort(fds.add(loopbackSocket(family, SOCK_DGRAM, 0, 0)));
        Scene s{};
        s.family = family;
        s.appListener = fds.add(tcpListener(family, 128, kApp));
        s.appClient = fds.add(tcpConnect(family, rootPort, kApp));
        fds.add(tcpConnect(family, localPort(s.appListener), 0));
        s.appAccepted = fds.add(as(kApp, [&] { return accept(s.appListener, nullptr, nullptr); }));
        s.appUdp = fds.add(loopbackSocket(family, SOCK_DGRAM, kApp, udpPort));
        s.otherClient = fds.add(tcpConnect(family, rootPort, kOtherApp));
        s.otherUdp = fds.add(loopbackSocket(family, SOCK_DGRAM, kOtherApp, udpPort));
        for (int fd : {rootPort, udpPort, s.appListener, s.appClient, s.appAccepted, s.appUdp, s.otherClient, s.otherUdp}) {
            ASSERT_GT(fd, 0) << strerror(errno);
        }
        scenes.push_back(s);
    }

    LogCapture log;
    EXPECT_EQ(killSocketsForUID("10123"), 0);
    if (log.contains("SOCK DESTROY [-95]")) GTEST_SKIP() << "this kernel does not destroy sockets (CONFIG_INET_DIAG_DESTROY)";
    // Per family: the app's client, its accepted connection and its UDP socket.
    EXPECT_EQ(log.count("VEK_GAMING: SOCK DESTROY [0]"), 6u);
    for (const Scene& s : scenes) {
        SCOPED_TRACE(s.family == AF_INET ? "IPv4" : "IPv6");
        // Destroyed: closed, with the abort waiting as the socket's error.
        EXPECT_EQ(tcpState(s.appClient), TCP_CLOSE);
        EXPECT_EQ(pendingError(s.appClient), ECONNABORTED);
        EXPECT_EQ(tcpState(s.appAccepted), TCP_CLOSE);
        EXPECT_EQ(pendingError(s.appUdp), ECONNABORTED);
        // Spared: the app's listener and the other app's sockets, which still carry data.
        EXPECT_EQ(tcpState(s.appListener), TCP_LISTEN);
        EXPECT_EQ(tcpState(s.otherClient), TCP_ESTABLISHED);
        EXPECT_EQ(send(s.otherClient, "x", 1, 0), 1);
        EXPECT_EQ(send(s.otherUdp, "x", 1, 0), 1);
        EXPECT_EQ(pendingError(s.otherUdp), 0);
    }
}

}  // namespace
