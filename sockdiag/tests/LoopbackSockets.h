// Real sockets on loopback owned by chosen UIDs, for the namespace tests and the
// benchmark (only in a private network namespace); -1 when one fails.
#pragma once

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace vekd::test {

// Closes every descriptor it holds.
struct Fds {
    ~Fds() {
        for (int fd : m_fds) close(fd);
    }
    int add(int fd) {
        if (fd >= 0) m_fds.push_back(fd);
        return fd;
    }
    std::vector<int> m_fds;
};

// `make` run as `uid`: a socket's owner is its creating thread's filesystem
// UID, and an accepted socket belongs to whoever accepts it.
template <class Make>
int as(uid_t uid, Make make) {
    const int previous = setfsuid(uid);
    const int fd = make();
    setfsuid(static_cast<uid_t>(previous));
    return fd;
}

// A socket of `type` owned by `uid`, connected to loopback `port`, or bound
// to an ephemeral loopback port when `port` is 0.
inline int loopbackSocket(int family, int type, uid_t uid, uint16_t port) {
    const int fd = as(uid, [&] { return socket(family, type | SOCK_CLOEXEC, 0); });
    sockaddr_in6 a{};  // the family and the port sit at the same offsets in sockaddr_in
    a.sin6_family = static_cast<sa_family_t>(family);
    a.sin6_port = htons(port);
    if (family == AF_INET6) a.sin6_addr = in6addr_loopback;
    if (family == AF_INET) reinterpret_cast<sockaddr_in*>(&a)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const socklen_t len = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    const auto* addr = reinterpret_cast<const sockaddr*>(&a);
    return fd >= 0 && (port != 0 ? connect(fd, addr, len) : bind(fd, addr, len)) == 0 ? fd : -1;
}

inline int tcpListener(int family, int backlog = 128, uid_t uid = 0) {
    const int fd = loopbackSocket(family, SOCK_STREAM, uid, 0);
    return fd >= 0 && listen(fd, backlog) == 0 ? fd : -1;
}

inline int tcpConnect(int family, uint16_t port, uid_t uid) { return loopbackSocket(family, SOCK_STREAM, uid, port); }

// The local port of a bound socket, host byte order (0 on failure).
inline uint16_t localPort(int fd) {
    sockaddr_in6 a{};
    socklen_t len = sizeof(a);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0 ? ntohs(a.sin6_port) : 0;
}

inline int tcpState(int fd) {
    tcp_info info{};
    socklen_t len = sizeof(info);
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 ? info.tcpi_state : -1;
}

// The socket's pending error (SO_ERROR), which reading clears.
inline int pendingError(int fd) {
    int err = 0;
    socklen_t len = sizeof(err);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 ? err : -1;
}

// Raises RLIMIT_NOFILE to at least `n` (root may raise the hard limit too).
inline bool raiseOpenFileLimit(rlim_t n) {
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur >= n) return true;
    lim = {n, lim.rlim_max < n ? n : lim.rlim_max};
    return setrlimit(RLIMIT_NOFILE, &lim) == 0;
}

}  // namespace vekd::test
