#include "sockdiag/tests/LoopbackSockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace vekd::test {
namespace {

socklen_t loopback(int family, uint16_t port, sockaddr_storage* ss) {
    memset(ss, 0, sizeof(*ss));
    if (family == AF_INET6) {
        auto* a = reinterpret_cast<sockaddr_in6*>(ss);
        a->sin6_family = AF_INET6;
        a->sin6_addr = in6addr_loopback;
        a->sin6_port = htons(port);
        return sizeof(*a);
    }
    auto* a = reinterpret_cast<sockaddr_in*>(ss);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a->sin_port = htons(port);
    return sizeof(*a);
}

// `fd` bound (port 0) or connected (`port`) to loopback; -1 (and `fd` closed) on failure.
int onLoopback(int fd, int family, bool connectTo, uint16_t port = 0) {
    if (fd < 0) return -1;
    sockaddr_storage ss;
    socklen_t len = loopback(family, port, &ss);
    auto* addr = reinterpret_cast<sockaddr*>(&ss);
    if ((connectTo ? connect(fd, addr, len) : bind(fd, addr, len)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int newSocket(int family, int type) { return socket(family, type | SOCK_CLOEXEC, 0); }

}  // namespace

SocketOwner::SocketOwner(uid_t uid) : m_previous(static_cast<uid_t>(setfsuid(uid))) {}
SocketOwner::~SocketOwner() { setfsuid(m_previous); }

int Fds::add(int fd) {
    if (fd >= 0) m_fds.push_back(fd);
    return fd;
}

void Fds::closeAll() {
    for (int fd : m_fds) close(fd);
    m_fds.clear();
}

int tcpListener(int family, int backlog) {
    int fd = onLoopback(newSocket(family, SOCK_STREAM), family, false);
    if (fd >= 0 && listen(fd, backlog) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

uint16_t localPort(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof(ss);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return 0;
    if (ss.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
    return ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

int tcpConnect(int family, uint16_t port, uid_t clientUid) {
    int fd;
    {
        SocketOwner owner(clientUid);
        fd = newSocket(family, SOCK_STREAM);
    }
    return onLoopback(fd, family, true, port);
}

bool tcpConnection(int family, int listener, uid_t clientUid, uid_t serverUid, int* client,
                   int* server) {
    *client = tcpConnect(family, localPort(listener), clientUid);
    if (*client < 0) return false;
    {
        SocketOwner owner(serverUid);
        *server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    }
    if (*server < 0) {
        close(*client);
        return false;
    }
    return true;
}

int udpBound(int family) { return onLoopback(newSocket(family, SOCK_DGRAM), family, false); }
int udpConnected(int family, uint16_t port) { return onLoopback(newSocket(family, SOCK_DGRAM), family, true, port); }

int tcpState(int fd) {
    tcp_info info{};
    socklen_t len = sizeof(info);
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0) return -1;
    return info.tcpi_state;
}

int pendingError(int fd) {
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return -1;
    return err;
}

bool raiseOpenFileLimit(rlim_t n) {
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0) return false;
    if (lim.rlim_cur >= n) return true;
    lim.rlim_cur = n;
    if (lim.rlim_max < n) lim.rlim_max = n;  // root may raise the hard limit
    return setrlimit(RLIMIT_NOFILE, &lim) == 0;
}

}  // namespace vekd::test
