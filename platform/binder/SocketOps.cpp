#include "platform/binder/SocketOps.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/binder/Wire.h"

namespace vekd::binder {
namespace {

// The control buffers' size: the wire's limit per frame.
constexpr size_t kMaxPassedFds = wire::kMaxFdsPerFrame;

bool fillAddress(const std::string& path, sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

class RealSocketOps : public SocketOps {
  public:
    int socket(bool nonBlocking) override {
        return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), 0);
    }
    int bind(int fd, const std::string& path) override {
        sockaddr_un addr;
        if (!fillAddress(path, &addr)) return -1;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return -1;
        // The daemon's user and group may connect, whatever the umask of
        // whoever started it.
        return ::chmod(path.c_str(), 0660);
    }
    int listen(int fd, int backlog) override { return ::listen(fd, backlog); }
    int accept(int listenFd) override {
        return ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    }
    int connect(int fd, const std::string& path) override {
        sockaddr_un addr;
        if (!fillAddress(path, &addr)) return -1;
        int rc;
        do {
            rc = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        } while (rc < 0 && errno == EINTR);
        return rc;
    }
    int socketPair(int fds[2]) override {
        return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds);
    }
    ssize_t recv(int fd, void* buf, size_t len) override { return ::recv(fd, buf, len, 0); }
    ssize_t send(int fd, const void* buf, size_t len) override {
        return ::send(fd, buf, len, MSG_NOSIGNAL);
    }
    ssize_t sendWithFds(int fd, const void* buf, size_t len, const int* fds, size_t count) override {
        if (count == 0) return send(fd, buf, len);
        if (count > kMaxPassedFds) {
            errno = EINVAL;
            return -1;
        }
        alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxPassedFds)];
        memset(control, 0, sizeof(control));
        struct iovec iov = {const_cast<void*>(buf), len};
        struct msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * count);
        struct cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int) * count);
        memcpy(CMSG_DATA(cmsg), fds, sizeof(int) * count);
        return ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    }
    ssize_t recvWithFds(int fd, void* buf, size_t len, std::vector<int>* fds, size_t maxFds) override {
        // Room for more than allowed, so that a surplus is seen and closed
        // rather than silently cut off.
        alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int) * (kMaxPassedFds + 1))];
        struct iovec iov = {buf, len};
        struct msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        const ssize_t n = ::recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
        if (n < 0) return n;
        std::vector<int> got;
        for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
            const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int received;
                memcpy(&received, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
                got.push_back(received);
            }
        }
        if ((msg.msg_flags & MSG_CTRUNC) != 0 || got.size() > maxFds) {
            for (int received : got) ::close(received);
            errno = EBADMSG;
            return -1;
        }
        fds->insert(fds->end(), got.begin(), got.end());
        return n;
    }
    int poll(struct pollfd* fds, nfds_t count, int timeoutMs) override {
        return ::poll(fds, count, timeoutMs);
    }
    int close(int fd) override { return ::close(fd); }
    bool peerCredentials(int fd, pid_t* pid, uid_t* uid) override {
        struct ucred cred;
        socklen_t len = sizeof(cred);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof(cred)) {
            return false;
        }
        *pid = cred.pid;
        *uid = cred.uid;
        return true;
    }
    bool removeSocketFile(const std::string& path) override {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) return errno == ENOENT;
        if (!S_ISSOCK(st.st_mode)) {
            errno = EEXIST;
            return false;
        }
        return ::unlink(path.c_str()) == 0 || errno == ENOENT;
    }
    bool makeDirectories(const std::string& path) override {
        std::string partial;
        size_t pos = 0;
        while (pos != std::string::npos) {
            pos = path.find('/', pos + 1);
            partial = path.substr(0, pos);
            if (partial.empty()) continue;
            if (::mkdir(partial.c_str(), 0755) == 0) {
                ::chmod(partial.c_str(), 0755);  // not narrowed by the umask
            } else if (errno != EEXIST) {
                return false;
            }
        }
        struct stat st;
        return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    int64_t monotonicMs() override {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    }
};

}  // namespace

SocketOps& SocketOps::real() {
    static RealSocketOps ops;
    return ops;
}

}  // namespace vekd::binder
