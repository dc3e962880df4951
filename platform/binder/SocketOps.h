// Everything the host binder transport asks of the kernel: Unix sockets,
// polling, peer credentials, directories and a monotonic clock. Tests replace
// it through Seam<SocketOps> to inject failures.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Seam.h"

namespace vekd::binder {

class SocketOps {
  public:
    virtual ~SocketOps() = default;

    // A close-on-exec Unix stream socket; -1 with errno on failure.
    virtual int socket(bool nonBlocking) = 0;
    virtual int bind(int fd, const std::string& path) = 0;
    virtual int listen(int fd, int backlog) = 0;
    // A close-on-exec, non-blocking connection; -1 with errno on failure.
    virtual int accept(int listenFd) = 0;
    virtual int connect(int fd, const std::string& path) = 0;
    // A connected, close-on-exec, non-blocking pair (used to wake a poller).
    virtual int socketPair(int fds[2]) = 0;
    virtual ssize_t recv(int fd, void* buf, size_t len) = 0;
    // Never raises SIGPIPE.
    virtual ssize_t send(int fd, const void* buf, size_t len) = 0;
    // Sends `len` bytes with `count` descriptors attached (SCM_RIGHTS);
    // never raises SIGPIPE.
    virtual ssize_t sendWithFds(int fd, const void* buf, size_t len, const int* fds, size_t count) = 0;
    // recv() that appends the descriptors arriving with the bytes to *fds,
    // close-on-exec. More than `maxFds` at once: all of them are closed and
    // the call fails with EBADMSG.
    virtual ssize_t recvWithFds(int fd, void* buf, size_t len, std::vector<int>* fds,
                                size_t maxFds) = 0;
    virtual int poll(struct pollfd* fds, nfds_t count, int timeoutMs) = 0;
    virtual int close(int fd) = 0;
    // The credentials of the process at the other end of `fd`.
    virtual bool peerCredentials(int fd, pid_t* pid, uid_t* uid) = 0;
    // Removes a stale socket file; only sockets are removed.
    virtual bool removeSocketFile(const std::string& path) = 0;
    // mkdir -p.
    virtual bool makeDirectories(const std::string& path) = 0;
    virtual int64_t monotonicMs() = 0;

    static SocketOps& real();
};

inline SocketOps& sys() { return Seam<SocketOps>::get(); }

}  // namespace vekd::binder
