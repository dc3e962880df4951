// Starting a shell command line with its standard output piped back: the
// popen/pclose pair behind the command runner. On a host the first word of a
// "/system/bin/" line is resolved under the root directory.
#pragma once

#include <cstdio>

#include "platform/Seam.h"

namespace vekd::platform {

class CommandPipe {
  public:
    virtual ~CommandPipe() = default;
    // A stream of the command's standard output, or nullptr when it cannot start.
    virtual FILE* open(const char* commandLine) = 0;
    // Waits for the command; the wait status, or -1.
    virtual int close(FILE* stream) = 0;
    static CommandPipe& real();
};

}  // namespace vekd::platform
