#include <android/log.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/LogSink.h"
#include "platform/WriteAll.h"

namespace vekd::platform {
namespace {

constexpr const char* kNullTag = "vekd";

char priorityLetter(int priority) {
    static const char kLetters[] = "??VDIWEF";
    if (priority < 0 || priority >= static_cast<int>(sizeof(kLetters) - 1)) return '?';
    return kLetters[priority];
}

class StderrSink : public LogSink {
  public:
    void write(int priority, const char* tag, const char* message) override {
        struct timeval tv {};
        gettimeofday(&tv, nullptr);
        struct tm local {};
        time_t secs = tv.tv_sec;
        localtime_r(&secs, &local);
        pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
        // One write per record: records of different threads never interleave
        // within a line.
        writeAll(STDERR_FILENO, formatThreadtime(local, tv.tv_usec / 1000, getpid(), tid, priority,
                                                 tag, message));
    }
};

void hostLogger(const struct __android_logger_data* data, const char* message) {
    const char* tag = (data && data->tag) ? data->tag : kNullTag;
    Seam<LogSink>::get().write(data ? data->priority : ANDROID_LOG_INFO, tag,
                               message ? message : "");
}

__attribute__((constructor)) void installAtStart() { installHostLogger(); }

}  // namespace

LogSink& LogSink::real() {
    static StderrSink sink;
    return sink;
}

std::string formatThreadtime(const struct tm& local, long millis, pid_t pid, pid_t tid,
                             int priority, const char* tag, const char* message) {
    char prefix[64];
    snprintf(prefix, sizeof(prefix), "%02d-%02d %02d:%02d:%02d.%03ld %5d %5d %c ", local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis,
             static_cast<int>(pid), static_cast<int>(tid), priorityLetter(priority));
    std::string head = prefix;
    head += tag ? tag : kNullTag;
    head += ": ";

    std::string body = message ? message : "";
    while (!body.empty() && body.back() == '\n') body.pop_back();

    std::string out;
    size_t start = 0;
    for (;;) {
        size_t nl = body.find('\n', start);
        out += head;
        out.append(body, start, nl == std::string::npos ? std::string::npos : nl - start);
        out += '\n';
        if (nl == std::string::npos) break;
        start = nl + 1;
    }
    return out;
}

void installHostLogger() {
    __android_log_set_logger(hostLogger);
    __android_log_set_default_tag(kNullTag);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace vekd::platform
