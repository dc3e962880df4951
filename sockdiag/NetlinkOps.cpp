#include "sockdiag/NetlinkOps.h"

#include <unistd.h>

namespace vekd::sockdiag {
namespace {

class SystemNetlinkOps : public NetlinkOps {
  public:
    int socket(int domain, int type, int protocol) override {
        return ::socket(domain, type, protocol);
    }
    int connect(int fd, const struct sockaddr* addr, socklen_t len) override {
        return ::connect(fd, addr, len);
    }
    ssize_t writev(int fd, const struct iovec* iov, int iovcnt) override {
        return ::writev(fd, iov, iovcnt);
    }
    ssize_t write(int fd, const void* buf, size_t len) override { return ::write(fd, buf, len); }
    ssize_t read(int fd, void* buf, size_t len) override { return ::read(fd, buf, len); }
    ssize_t recvfrom(int fd, void* buf, size_t len, int flags) override {
        return ::recvfrom(fd, buf, len, flags, nullptr, nullptr);
    }
    int close(int fd) override { return ::close(fd); }
};

}  // namespace

NetlinkOps& NetlinkOps::real() {
    static SystemNetlinkOps ops;
    return ops;
}

}  // namespace vekd::sockdiag
