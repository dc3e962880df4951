// hasValidRoute: does the interface's routing table exist? Runs the ip wrapper
// directly, without a shell, and looks only at its exit status.
#include <android/log.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "config/Parameters.h"
#include "platform/ProcessLauncher.h"
#include "platform/Root.h"

namespace {
constexpr const char* kTag = "VekParameters";
constexpr const char* kIpWrapper = "/system/bin/ip-wrapper-1.0";
}  // namespace

bool hasValidRoute(const char* name) {
    auto& launcher = vekd::Seam<vekd::platform::ProcessLauncher>::get();
    // Everything the child needs is prepared before fork: other threads may
    // hold locks that the child could never take.
    const std::string executable = vekd::platform::rootedPath(kIpWrapper);
    char* argv[] = {const_cast<char*>("ip-wrapper-1.0"), const_cast<char*>("route"),
                    const_cast<char*>("show"), const_cast<char*>("table"),
                    const_cast<char*>(name), nullptr};

    const pid_t pid = launcher.fork();
    if (pid < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "fork failed (%s)", strerror(errno));
        return false;
    }
    if (pid == 0) {
        launcher.execv(executable.c_str(), argv);
        __android_log_print(ANDROID_LOG_ERROR, kTag, "execl failed (%s)", strerror(errno));
        _exit(5);
    }

    // Wait for this child only: other threads run commands at the same time
    // and reaping their children would corrupt both results.
    int status = 0;
    launcher.waitpid(pid, &status, 0);
    if ((status & 0xff7f) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Invalid interface, status=%d\n", status);
        return false;
    }
    return true;
}
