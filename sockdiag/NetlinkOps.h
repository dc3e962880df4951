// The socket calls of the socket destroyer. Tests replace them with a fake
// that answers with prepared byte buffers, so the request building and the
// dump walk run without a kernel.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "platform/Seam.h"

namespace vekd::sockdiag {

class NetlinkOps {
  public:
    virtual ~NetlinkOps() = default;
    // Each behaves like the system call of the same name, errno included.
    virtual int socket(int domain, int type, int protocol) = 0;
    virtual int connect(int fd, const struct sockaddr* addr, socklen_t len) = 0;
    virtual ssize_t writev(int fd, const struct iovec* iov, int iovcnt) = 0;
    virtual ssize_t write(int fd, const void* buf, size_t len) = 0;
    virtual ssize_t read(int fd, void* buf, size_t len) = 0;
    virtual ssize_t recvfrom(int fd, void* buf, size_t len, int flags) = 0;
    virtual int close(int fd) = 0;
    static NetlinkOps& real();
};

}  // namespace vekd::sockdiag
