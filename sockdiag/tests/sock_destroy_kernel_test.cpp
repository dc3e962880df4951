// Real sockets destroyed by the kernel, inside a network namespace of the
// test's own (the dump only sees that namespace's sockets).
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/LogSink.h"
#include "sockdiag/SockDiag.h"
#include "sockdiag/tests/LoopbackSockets.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NetNamespace.h"

namespace {

using android::net::SockDiag;
using vekd::test::Fds;
using vekd::test::SocketOwner;

constexpr uid_t kApp = 10123;
constexpr uid_t kOtherApp = 10124;
constexpr uid_t kProbeApp = 10999;

// Whether this kernel destroys sockets on request (CONFIG_INET_DIAG_DESTROY).
bool sockDestroySupported(std::string* why) {
    Fds fds;
    const uint16_t port = vekd::test::localPort(fds.add(vekd::test::udpBound(AF_INET)));
    int probe;
    {
        SocketOwner owner(kProbeApp);
        probe = fds.add(vekd::test::udpConnected(AF_INET, port));
    }
    SockDiag sd;
    if (probe < 0 || !sd.open()) {
        *why = std::string("cannot create loopback or NETLINK_SOCK_DIAG sockets: ") + strerror(errno);
        return false;
    }
    if (sd.destroySockets(IPPROTO_UDP, kProbeApp, false) == 0 && sd.socketsDestroyed() == 1 &&
        vekd::test::pendingError(probe) == ECONNABORTED) {
        return true;
    }
    *why = "this kernel does not destroy sockets on request (needs CONFIG_INET_DIAG_DESTROY)";
    return false;
}

#define REQUIRE_SOCK_DESTROY()                                  \
    do {                                                        \
        vekd::platform::installHostLogger();                    \
        VEKD_REQUIRE_PRIVATE_NETNS();                           \
        std::string why_;                                       \
        if (!sockDestroySupported(&why_)) GTEST_SKIP() << why_; \
    } while (0)

// One family's worth of sockets around UID kApp.
struct Scene {
    Fds fds;
    int appClient = -1, peerOfAppClient = -1;  // app connects to root's listener
    int appListener = -1;                      // app listens ...
    int rootClient = -1, appAccepted = -1;     // ... and accepted root's connection
    int appUdp = -1, otherUdp = -1;
    int otherClient = -1, otherAccepted = -1;  // another app's connection

    bool build(int family) {
        using namespace vekd::test;
        auto owned = [&](uid_t uid, auto make) {
            SocketOwner owner(uid);
            return fds.add(make());
        };
        auto connection = [&](int listener, uid_t client, uid_t server, int* c, int* a) {
            bool ok = tcpConnection(family, listener, client, server, c, a);
            fds.add(*c), fds.add(*a);
            return ok;
        };
        int rootListener = fds.add(tcpListener(family));
        const uint16_t udpPort = localPort(fds.add(udpBound(family)));
        appListener = owned(kApp, [&] { return tcpListener(family); });
        appUdp = owned(kApp, [&] { return udpConnected(family, udpPort); });
        otherUdp = owned(kOtherApp, [&] { return udpConnected(family, udpPort); });
        return rootListener >= 0 && appListener >= 0 && appUdp >= 0 && otherUdp >= 0 &&
               connection(rootListener, kApp, 0, &appClient, &peerOfAppClient) &&
               connection(appListener, 0, kApp, &rootClient, &appAccepted) &&
               connection(rootListener, kOtherApp, 0, &otherClient, &otherAccepted);
    }
};

// errno after a non-blocking receive that must fail.
int receiveError(int fd) {
    char c;
    errno = 0;
    return recv(fd, &c, 1, MSG_DONTWAIT) == -1 ? errno : 0;
}

TEST(SockDestroyKernel, DestroysTheUidsSocketsOnBothFamiliesAndSparesTheRest) {
    REQUIRE_SOCK_DESTROY();
    Scene v4, v6;
    ASSERT_TRUE(v4.build(AF_INET)) << strerror(errno);
    ASSERT_TRUE(v6.build(AF_INET6)) << strerror(errno);

    vekd::test::LogCapture log;
    EXPECT_EQ(killSocketsForUID("10123"), 0);
    // Per family: the app's client, its accepted connection and its UDP socket.
    EXPECT_EQ(log.count("VEK_GAMING: SOCK DESTROY [0]"), 6u);
    EXPECT_EQ(log.count("VEK_GAMING: SOCK DESTROY [-"), 0u);

    for (Scene* s : {&v4, &v6}) {
        SCOPED_TRACE(s == &v4 ? "IPv4" : "IPv6");
        using vekd::test::pendingError;
        using vekd::test::tcpState;
        // Destroyed: closed, with the abort waiting as the socket's error; the peers reset.
        EXPECT_EQ(tcpState(s->appClient), TCP_CLOSE);
        EXPECT_EQ(pendingError(s->appClient), ECONNABORTED);
        EXPECT_EQ(tcpState(s->appAccepted), TCP_CLOSE);
        EXPECT_EQ(pendingError(s->appUdp), ECONNABORTED);
        EXPECT_EQ(receiveError(s->peerOfAppClient), ECONNRESET);
        EXPECT_EQ(receiveError(s->rootClient), ECONNRESET);

        // The app's listener still accepts.
        int c = -1, a = -1;
        EXPECT_TRUE(vekd::test::tcpConnection(s == &v4 ? AF_INET : AF_INET6, s->appListener, 0, kApp, &c, &a));
        s->fds.add(c), s->fds.add(a);

        // The other app's sockets are untouched and still carry data.
        EXPECT_EQ(tcpState(s->otherAccepted), TCP_ESTABLISHED);
        EXPECT_EQ(send(s->otherClient, "x", 1, 0), 1);
        EXPECT_EQ(pendingError(s->otherUdp), 0);
        EXPECT_EQ(send(s->otherUdp, "x", 1, 0), 1);
    }
}

}  // namespace
