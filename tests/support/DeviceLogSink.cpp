// The device test build's way into LogCapture: the platform's log library
// has no hook, so the test binary defines the one logging function the code
// calls and routes it through the LogSink seam. Host builds compile it,
// unlinked, so that it cannot rot.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>

#include "platform/LogSink.h"

// Without a capture installed, records go on to the platform's log.
vekd::platform::LogSink& vekd::platform::LogSink::real() {
    struct PlatformLogSink : LogSink {
        void write(int priority, const char* tag, const char* message) override {
            __android_log_write(priority, tag, message);
        }
    };
    static PlatformLogSink sink;
    return sink;
}

extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char message[4068];  // the platform's longest record
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    vekd::Seam<vekd::platform::LogSink>::get().write(priority, tag ? tag : "vekd", message);
    return 1;
}
