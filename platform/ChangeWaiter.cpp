#include "platform/ChangeWaiter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <mutex>

#ifdef __ANDROID__
#include <sys/system_properties.h>
#endif

#include "platform/PropertyStore.h"

namespace vekd::platform {
namespace {

#ifdef __ANDROID__
// Device: the property area's global serial changes with every property
// write. The platform's wait cannot be interrupted, so it is taken in short
// slices between which wake() is noticed.
class PropertyAreaWaiter : public ChangeWaiter {
  public:
    void arm() override { m_serial = __system_property_area_serial(); }

    void waitForChange(int timeoutMs) override {
        constexpr int kSliceMs = 50;
        for (int waited = 0; waited < timeoutMs && !m_woken.exchange(false); waited += kSliceMs) {
            const timespec slice = {0, kSliceMs * 1000000L};
            uint32_t serial = m_serial;
            if (__system_property_wait(nullptr, m_serial, &serial, &slice) && serial != m_serial) {
                m_serial = serial;
                return;
            }
        }
    }

    void wake() override { m_woken = true; }

  private:
    uint32_t m_serial = 0;
    std::atomic<bool> m_woken{false};
};
#else
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
#endif

}  // namespace

ChangeWaiter& ChangeWaiter::real() {
#ifdef __ANDROID__
    static PropertyAreaWaiter waiter;
#else
    static InotifyWaiter waiter;
#endif
    return waiter;
}

}  // namespace vekd::platform
