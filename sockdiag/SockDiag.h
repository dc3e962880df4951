// Destroys a UID's TCP and UDP sockets through netlink socket diagnostics:
// the kernel dumps its sockets on one netlink socket and, while the dump is
// still being read, the matching ones are closed with SOCK_DESTROY requests
// sent on a second socket.
#pragma once

#include <linux/inet_diag.h>
#include <sys/uio.h>

#include <cstdint>
#include <functional>

// Destroys every TCP and UDP socket (IPv4 and IPv6, any state but listening)
// owned by `uid`, a decimal UID text. -1 when the netlink sockets cannot be
// opened, -EINVAL for a text that is not a decimal number; otherwise the
// result of the UDP pass (0 or a negative error number).
int killSocketsForUID(const char* uid);

namespace android {
namespace net {

class SockDiag {
  public:
    SockDiag() = default;
    virtual ~SockDiag();
    SockDiag(const SockDiag&) = delete;
    SockDiag& operator=(const SockDiag&) = delete;

    // True when both netlink sockets were created and connected; false, and
    // nothing done, when they already are.
    bool open();

    // Puts a dump request into iov[0] and sends iov[0..iovcnt). 0, a negated
    // errno, or the error the kernel answered at once.
    int sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                        iovec* iov, int iovcnt);
    // Reads the dump and destroys each socket `shouldDestroy` picks. 0 at the
    // end of the dump, a negated errno, or the kernel's error.
    int readDiagMsg(uint8_t proto,
                    const std::function<bool(uint8_t, const inet_diag_msg*)>& shouldDestroy);
    // Every non-listening socket of `proto` owned by `uid`, IPv4 then IPv6.
    int destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback);

    static bool isLoopbackSocket(const inet_diag_msg* msg);
    int sockDestroy(uint8_t proto, const inet_diag_msg* msg);

    int socketsDestroyed() const { return mSocketsDestroyed; }

  private:
    // 0, the kernel's error waiting unread on `fd` (consumed), or a negated errno.
    int checkImmediateError(int fd);

    int mSock = -1;
    int mWriteSock = -1;
    int mSocketsDestroyed = 0;
};

}  // namespace net
}  // namespace android
