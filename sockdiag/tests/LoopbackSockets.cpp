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

int boundSocket(int family, int type) {
    int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_storage ss;
    socklen_t len = loopback(family, 0, &ss);
    if (bind(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Connects `fd` to `port` on loopback; `fd`, or -1 (and `fd` closed).
int connectToLoopback(int fd, int family, uint16_t port) {
    if (fd < 0) return -1;
    sockaddr_storage ss;
    socklen_t len = loopback(family, port, &ss);
    if (connect(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

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
    int fd = boundSocket(family, SOCK_STREAM);
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
        fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    }
    return connectToLoopback(fd, family, port);
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

int udpBound(int family) { return boundSocket(family, SOCK_DGRAM); }

int udpConnected(int family, uint16_t port) {
    return connectToLoopback(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0), family, port);
}

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
