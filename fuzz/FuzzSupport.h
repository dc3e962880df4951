// Shared by the fuzz targets: the platform effects replaced by quiet,
// non-recording stand-ins, so that millions of inputs neither fill the log
// nor grow any record, and every input starts from the same state.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "platform/CommandPipe.h"
#include "platform/LogSink.h"
#include "stats/StatsFileAccess.h"
#include "tests/support/Fakes.h"
#include "tests/support/TempRoot.h"

namespace vekd::fuzz {

// Drops every log record. VEKD_FUZZ_LOG=1 lets them through to stderr, which
// helps when replaying a crash.
class QuietLog : public platform::LogSink {
  public:
    QuietLog();
    void write(int priority, const char* tag, const char* message) override;

  private:
    bool m_echo;
    ScopedSeam<platform::LogSink> m_scope;
};

// Every command starts, prints nothing and succeeds; nothing is recorded.
class NullCommandPipe : public platform::CommandPipe {
  public:
    NullCommandPipe() : m_scope(*this) {}
    FILE* open(const char* commandLine) override;
    int close(FILE* stream) override;

  private:
    ScopedSeam<platform::CommandPipe> m_scope;
};

// The kernel module is absent: opens fail with ENOENT, and unmapping is a
// no-op so that targets may hand the engine buffers of their own.
class AbsentStatsFiles : public stats::StatsFileAccess {
  public:
    AbsentStatsFiles() : m_scope(*this) {}
    int open(const char* path, int flags, mode_t mode) override;
    ssize_t write(int fd, const void* data, size_t size) override;
    int close(int fd) override;
    void* mmap(size_t length, int prot, int flags, int fd, off_t offset) override;
    int munmap(void* addr, size_t length) override;

  private:
    ScopedSeam<stats::StatsFileAccess> m_scope;
};

// libFuzzer ends the process with exit(), never destroying the targets'
// long-lived state: remove `dir` then.
void removeAtExit(const std::string& dir);

// What every target that runs daemon code stands on: a root of its own,
// properties in memory, a route check that always succeeds, a silent log.
struct HostStandIns {
    HostStandIns() { removeAtExit(root.path()); }
    test::TempRoot root;
    test::FakeProperties props;
    test::FakeProcessLauncher launcher;
    QuietLog log;
};

// Stops the process the way libFuzzer reports as a crash, with the reason.
[[noreturn]] void fail(const char* what);

}  // namespace vekd::fuzz

#define FUZZ_CHECK(cond)                                       \
    do {                                                       \
        if (!(cond)) ::vekd::fuzz::fail("check failed: " #cond); \
    } while (0)
