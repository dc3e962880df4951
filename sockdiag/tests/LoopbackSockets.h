// Real sockets on loopback owned by a chosen UID, for the namespace tests and
// the benchmark. Run only inside a private network namespace. Functions that
// make a socket answer -1 (or false) on failure.
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

// A TCP listener on the loopback address of `family` on an ephemeral port.
int tcpListener(int family, int backlog = 128);
// The local port of a bound socket, host byte order.
uint16_t localPort(int fd);
// A TCP socket owned by `clientUid` connected to `listener`, accepted as
// `serverUid` (an accepted socket belongs to whoever accepts it).
bool tcpConnection(int family, int listener, uid_t clientUid, uid_t serverUid, int* client, int* server);
// Only the client side, connected to `port`; the kernel queues the other end
// on the listener without a descriptor.
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
