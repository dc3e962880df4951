#include "platform/ProcessLauncher.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace vekd::platform {
namespace {

class PosixLauncher : public ProcessLauncher {
  public:
    pid_t fork() override { return ::fork(); }
    int execv(const char* path, char* const argv[]) override { return ::execv(path, argv); }
    pid_t waitpid(pid_t pid, int* status, int options) override {
        pid_t r;
        do {
            r = ::waitpid(pid, status, options);
        } while (r < 0 && errno == EINTR);
        return r;
    }
};

}  // namespace

ProcessLauncher& ProcessLauncher::real() {
    static PosixLauncher launcher;
    return launcher;
}

}  // namespace vekd::platform
