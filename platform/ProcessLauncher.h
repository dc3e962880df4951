// fork / exec / waitpid for commands run without a shell (the route check).
// A fake can answer fork() with a made-up pid and waitpid() with any status,
// so the parent's logic runs in tests without a child process.
#pragma once

#include <sys/types.h>

#include "platform/Seam.h"

namespace vekd::platform {

class ProcessLauncher {
  public:
    virtual ~ProcessLauncher() = default;
    virtual pid_t fork() = 0;
    // Only returns on failure, with errno set.
    virtual int execv(const char* path, char* const argv[]) = 0;
    virtual pid_t waitpid(pid_t pid, int* status, int options) = 0;
    static ProcessLauncher& real();
};

}  // namespace vekd::platform
