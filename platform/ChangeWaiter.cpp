#include "platform/ChangeWaiter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <mutex>

#include "platform/PropertyStore.h"

namespace vekd::platform {
namespace {

// Host: inotify on the property directory, and an eventfd for wake().
class InotifyWaiter : public ChangeWaiter {
  public:
    InotifyWaiter() : m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    void arm() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_inotifyFd >= 0) return;
        const std::string dir = propertyDir();
        std::error_code ec;
        std::filesystem::create_directories(dir, ec);
        m_inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (m_inotifyFd >= 0) {
            inotify_add_watch(m_inotifyFd, dir.c_str(),
                              IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MODIFY);
        }
    }

    void waitForChange(int timeoutMs) override {
        struct pollfd fds[2] = {{m_wakeFd, POLLIN, 0}, {m_inotifyFd, POLLIN, 0}};
        int r;
        do {
            r = poll(fds, 2, timeoutMs);
        } while (r < 0 && errno == EINTR);
        drain(m_wakeFd);
        drain(m_inotifyFd);
    }

    void wake() override {
        const uint64_t one = 1;
        ssize_t r = ::write(m_wakeFd, &one, sizeof(one));
        (void)r;  // a full counter already means "wake up"
    }

  private:
    static void drain(int fd) {
        if (fd < 0) return;
        char buf[4096];
        while (::read(fd, buf, sizeof(buf)) > 0) {
        }
    }

    std::mutex m_mutex;
    int m_wakeFd;
    int m_inotifyFd = -1;
};

}  // namespace

ChangeWaiter& ChangeWaiter::real() {
    static InotifyWaiter waiter;
    return waiter;
}

}  // namespace vekd::platform
