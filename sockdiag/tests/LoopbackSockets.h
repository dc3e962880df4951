// Real sockets on loopback owned by a chosen UID, for the namespace tests and
// the benchmark. Run only inside a private network namespace.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace vekd::test {

// Sockets created while this lives belong to `uid`: the kernel takes a
// socket's owner from the creating thread's filesystem UID.
class SocketOwner {
  public:
    explicit SocketOwner(uid_t uid);
    ~SocketOwner();
    SocketOwner(const SocketOwner&) = delete;
    SocketOwner& operator=(const SocketOwner&) = delete;

  private:
    uid_t m_previous;
};

// Closes every descriptor it holds.
class Fds {
  public:
    Fds() = default;
    ~Fds() { closeAll(); }
    Fds(const Fds&) = delete;
    Fds& operator=(const Fds&) = delete;
    int add(int fd);
    void closeAll();
    size_t size() const { return m_fds.size(); }

  private:
    std::vector<int> m_fds;
};

// A TCP listener on the loopback address of `family` (AF_INET or AF_INET6),
// on an ephemeral port; -1 on failure.
int tcpListener(int family, int backlog = 128);
// The local port of a bound socket, host byte order.
uint16_t localPort(int fd);
// Connects a new TCP socket owned by `clientUid` to `listener` on loopback and
// accepts it as `serverUid` (an accepted socket belongs to whoever accepts
// it, not to the listener's owner); false on failure.
bool tcpConnection(int family, int listener, uid_t clientUid, uid_t serverUid, int* client,
                   int* server);
// Only the client side: a TCP socket owned by `clientUid` connected to `port`
// on loopback; the kernel completes the handshake and queues the other end
// on the listener without a descriptor. -1 on failure.
int tcpConnect(int family, uint16_t port, uid_t clientUid);
// A UDP socket bound to loopback, and one connected to `port` on loopback.
int udpBound(int family);
int udpConnected(int family, uint16_t port);

// The TCP state (TCP_ESTABLISHED ...) of `fd`, or -1.
int tcpState(int fd);
// The socket's pending error (SO_ERROR), which reading clears.
int pendingError(int fd);
// Raises RLIMIT_NOFILE to at least `n`; false when the hard limit forbids it.
bool raiseOpenFileLimit(rlim_t n);

}  // namespace vekd::test
