// The device test build's way into LogCapture: the platform's log library
// has no hook, so the test binary defines the one logging function the code
// calls and routes it through the LogSink seam. Host builds compile it,
// unlinked, so that it cannot rot.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>

#include "platform/LogSink.h"

namespace vekd::platform {
namespace {

// Without a capture installed, records go on to the platform's log.
class PlatformLogSink : public LogSink {
  public:
    void write(int priority, const char* tag, const char* message) override {
        __android_log_write(priority, tag, message);
    }
};

}  // namespace

LogSink& LogSink::real() {
    static PlatformLogSink sink;
    return sink;
}

}  // namespace vekd::platform

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char message[4068];  // the platform's longest record
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    vekd::Seam<vekd::platform::LogSink>::get().write(priority, tag ? tag : "vekd", message);
    return 1;
}
