#include "platform/WriteToPeer.h"

#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Clock.h"

namespace vekd::platform {
namespace {

// SIGPIPE blocked on this thread for the scope; one raised meanwhile is
// taken back so it never reaches the process.
class NoSigpipe {
  public:
    NoSigpipe() {
        sigemptyset(&m_pipeOnly);
        sigaddset(&m_pipeOnly, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipeOnly, &m_saved);
    }
    ~NoSigpipe() {
        const int savedErrno = errno;
        if (!m_wasPending) {
            const struct timespec none = {0, 0};
            while (sigtimedwait(&m_pipeOnly, nullptr, &none) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_saved, nullptr);
        errno = savedErrno;
    }
    NoSigpipe(const NoSigpipe&) = delete;
    NoSigpipe& operator=(const NoSigpipe&) = delete;

  private:
    sigset_t m_pipeOnly;
    sigset_t m_saved;
    bool m_wasPending = false;
};

}  // namespace

bool writeToPeer(int fd, const std::string& text, int deadlineMs) {
    NoSigpipe guard;
    Clock& clock = Seam<Clock>::get();
    const int64_t deadline = clock.monotonicMs() + deadlineMs;
    size_t done = 0;
    while (done < text.size()) {
        const int64_t left = deadline - clock.monotonicMs();
        struct pollfd p = {fd, POLLOUT, 0};
        const int ready = left > 0 ? ::poll(&p, 1, static_cast<int>(left)) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) errno = ETIMEDOUT;
        if (ready <= 0) return false;
        // At most PIPE_BUF at once, never waiting: a pipe that polled
        // writable takes that much, a socket takes what it has room for.
        size_t chunk = text.size() - done;
        if (chunk > PIPE_BUF) chunk = PIPE_BUF;
        ssize_t n = ::send(fd, text.data() + done, chunk, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK) n = ::write(fd, text.data() + done, chunk);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace vekd::platform
