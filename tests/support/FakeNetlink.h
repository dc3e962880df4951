// The socket destroyer's netlink sockets: requests recorded, replies queued
// per descriptor, one datagram per read; by default dumps are empty and
// destroys succeed.
#pragma once

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <cstring>
#include <deque>
#include <functional>

#include "sockdiag/NetlinkOps.h"
#include "tests/support/Fakes.h"

namespace vekd::test {

using Bytes = std::vector<uint8_t>;

class FakeNetlink : public sockdiag::NetlinkOps {
  public:
    struct Sent { int fd; Bytes bytes; };
    // Datagrams to queue on `fd` in answer to `request` (written on `fd`).
    using Responder = std::function<std::vector<Bytes>(int fd, const Bytes& request)>;

    FakeNetlink() : m_scope(*this) {}

    static Bytes message(uint16_t type, const void* body, size_t bodyLen) {
        const nlmsghdr nlh = {static_cast<uint32_t>(NLMSG_LENGTH(bodyLen)), type, NLM_F_MULTI, 0, 0};
        Bytes out(NLMSG_ALIGN(nlh.nlmsg_len), 0);
        memcpy(out.data(), &nlh, sizeof(nlh));
        if (bodyLen > 0) memcpy(out.data() + NLMSG_HDRLEN, body, bodyLen);
        return out;
    }
    static Bytes done() { return message(NLMSG_DONE, "\0\0\0", 4); }
    // The kernel's error answer to a request: the error and the request's header.
    static Bytes error(int32_t err) {
        const nlmsgerr body = {err, {72, SOCK_DESTROY, 0, 0, 0}};
        return message(NLMSG_ERROR, &body, sizeof(body));
    }
    static inet_diag_msg socket(uint8_t family, uint8_t state, uint32_t uid, uint16_t sportNet,
                                uint16_t dportNet, const void* src, const void* dst) {
        const inet_diag_sockid id = {sportNet, dportNet, {}, {}, 0, {uid ^ sportNet, 0}};
        inet_diag_msg msg = {family, state, 0, 0, id, 0, 0, 0, uid, 0};
        const size_t addrLen = family == AF_INET6 ? 16 : 4;
        if (src) memcpy(msg.id.idiag_src, src, addrLen);
        if (dst) memcpy(msg.id.idiag_dst, dst, addrLen);
        return msg;
    }
    static Bytes diag(const inet_diag_msg& msg) { return message(SOCK_DIAG_BY_FAMILY, &msg, sizeof(msg)); }
    static Bytes concat(std::initializer_list<Bytes> parts) {
        Bytes out;
        for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
        return out;
    }

    void setResponder(Responder r) { underLock(m_mutex, [&] { m_responder = std::move(r); }); }
    // The next socket() / connect() calls fail with `err` (0: they succeed).
    void failConnect(int err) { m_connectErrno = err; }
    // writev() and write() fail with `err`, or with `shortBy` > 0 write that many bytes too few.
    void failWrite(int err, size_t shortBy = 0) { m_writeErrno = err, m_writeShortBy = shortBy; }
    // A read of an empty queue fails with `err` instead of returning 0.
    void failEmptyRead(int err) { m_emptyReadErrno = err; }
    // A non-blocking peek fails with `err` instead of EAGAIN.
    void failPeek(int err) { m_peekErrno = err; }
    void queue(int fd, Bytes datagram) { underLock(m_mutex, [&] { m_queues[fd].push_back(std::move(datagram)); }); }

    // What happened (the flags of every receive call in peekFlags()).
    std::vector<Sent> sent() const { return underLock(m_mutex, [&] { return m_sent; }); }
    std::vector<int> opened() const { return underLock(m_mutex, [&] { return m_opened; }); }
    std::vector<int> closed() const { return underLock(m_mutex, [&] { return m_closed; }); }
    std::vector<int> peekFlags() const { return underLock(m_mutex, [&] { return m_recvFlags; }); }

    int socket(int domain, int type, int protocol) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (domain != AF_NETLINK || type != (SOCK_DGRAM | SOCK_CLOEXEC) || protocol != NETLINK_SOCK_DIAG) {
            return errno = EPROTONOSUPPORT, -1;
        }
        m_opened.push_back(m_nextFd);
        return m_nextFd++;
    }
    int connect(int, const struct sockaddr* addr, socklen_t len) override {
        if (m_connectErrno != 0) return errno = m_connectErrno, -1;
        return len != sizeof(sockaddr_nl) || addr->sa_family != AF_NETLINK ? (errno = EINVAL, -1) : 0;
    }
    ssize_t writev(int fd, const struct iovec* iov, int iovcnt) override {
        Bytes bytes;
        for (int i = 0; i < iovcnt; ++i) {
            const auto* p = static_cast<const uint8_t*>(iov[i].iov_base);
            bytes.insert(bytes.end(), p, p + iov[i].iov_len);
        }
        return send(fd, std::move(bytes));
    }
    ssize_t write(int fd, const void* buf, size_t len) override {
        iovec iov = {const_cast<void*>(buf), len};
        return writev(fd, &iov, 1);
    }
    ssize_t read(int fd, void* buf, size_t len) override { return recvfrom(fd, buf, len, 0); }
    ssize_t recvfrom(int fd, void* buf, size_t len, int flags) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_recvFlags.push_back(flags);
        auto& q = m_queues[fd];
        if (q.empty()) {
            if (flags & MSG_DONTWAIT) return errno = m_peekErrno ? m_peekErrno : EAGAIN, -1;
            if (m_emptyReadErrno != 0) return errno = m_emptyReadErrno, -1;
            return 0;  // a real socket would block here; 0 ends the test's dump
        }
        // One datagram per call; what does not fit is lost, as on a datagram socket.
        const size_t n = std::min(len, q.front().size());
        if (n > 0) memcpy(buf, q.front().data(), n);  // an empty datagram has no data()
        if (!(flags & MSG_PEEK)) q.pop_front();
        return static_cast<ssize_t>(n);
    }
    int close(int fd) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed.push_back(fd);
        return fd < 0 ? (errno = EBADF, -1) : 0;
    }

  private:
    ssize_t send(int fd, Bytes bytes) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sent.push_back({fd, bytes});
        if (m_writeErrno != 0 && m_writeShortBy == 0) return errno = m_writeErrno, -1;
        if (m_writeShortBy > 0) return static_cast<ssize_t>(bytes.size() - std::min(m_writeShortBy, bytes.size()));
        std::vector<Bytes> replies = m_responder ? m_responder(fd, bytes) : defaultReplies(bytes);
        for (Bytes& r : replies) m_queues[fd].push_back(std::move(r));
        return static_cast<ssize_t>(bytes.size());
    }
    static std::vector<Bytes> defaultReplies(const Bytes& request) {
        nlmsghdr nlh{};
        if (request.size() >= sizeof(nlh)) memcpy(&nlh, request.data(), sizeof(nlh));
        if (nlh.nlmsg_type == SOCK_DIAG_BY_FAMILY) return {done()};
        return {};
    }

    mutable std::mutex m_mutex;
    Responder m_responder;
    std::map<int, std::deque<Bytes>> m_queues;
    std::vector<Sent> m_sent;
    std::vector<int> m_opened;
    std::vector<int> m_closed;
    std::vector<int> m_recvFlags;
    int m_nextFd = 100;
    int m_connectErrno = 0;
    int m_writeErrno = 0;
    size_t m_writeShortBy = 0;
    int m_emptyReadErrno = 0;
    int m_peekErrno = 0;
    ScopedSeam<sockdiag::NetlinkOps> m_scope;
};

}  // namespace vekd::test
