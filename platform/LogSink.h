// Where the host build sends system log records.
//
// The daemon logs through the platform's __android_log_print; on a host the
// Android log library hands every record to a logger installed here, which
// passes it to the LogSink seam. The real sink writes logcat's threadtime
// format to standard error; tests install a recording sink instead.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <string>

#include "platform/Seam.h"

namespace vekd::platform {

class LogSink {
  public:
    virtual ~LogSink() = default;
    // `tag` is never null here: a null tag has already become "vekd".
    virtual void write(int priority, const char* tag, const char* message) = 0;
    static LogSink& real();
};

// One record in threadtime format, one line per text line of `message`,
// trailing newlines dropped; the result ends with '\n'.
std::string formatThreadtime(const struct tm& local, long millis, pid_t pid, pid_t tid,
                             int priority, const char* tag, const char* message);

// Installs the host logger into the Android log library. Runs by itself at
// start-up; callable again (idempotent) by code that logs from a static
// initialiser.
void installHostLogger();

}  // namespace vekd::platform
