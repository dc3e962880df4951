// Recording fakes for the platform seams, each installed for its lifetime.
#pragma once

#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/ChangeWaiter.h"
#include "platform/Clock.h"
#include "platform/CommandPipe.h"
#include "platform/ProcessLauncher.h"
#include "platform/PropertyStore.h"

namespace vekd::test {

// Runs `f` under `m`, for the fakes' one-line accessors.
template <class F>
auto underLock(std::mutex& m, F f) {
    std::lock_guard<std::mutex> lock(m);
    return f();
}

// System properties held in memory; an empty value reads as unset.
class FakeProperties : public platform::PropertyStore {
  public:
    FakeProperties() : m_scope(*this) {}
    std::optional<std::string> read(const std::string& name) override {
        const std::string value = underLock(m_mutex, [&] { return m_values[name]; });
        return value.empty() ? std::nullopt : std::optional<std::string>(value);
    }
    bool write(const std::string& name, const std::string& value) override {
        underLock(m_mutex, [&] { m_values[name] = value; });
        return true;
    }
    void set(const std::string& name, const std::string& value) { write(name, value); }
    void unset(const std::string& name) { write(name, ""); }

  private:
    std::mutex m_mutex;
    std::map<std::string, std::string> m_values;
    ScopedSeam<platform::PropertyStore> m_scope;
};

// Records every command line handed to the runner; commands print nothing unless told otherwise.
class RecordingCommandPipe : public platform::CommandPipe {
  public:
    RecordingCommandPipe() : m_scope(*this) {}
    FILE* open(const char* commandLine) override;
    int close(FILE* stream) override { return fclose(stream); }

    std::vector<std::string> commands() const { return underLock(m_mutex, [&] { return m_commands; }); }
    void clear() { underLock(m_mutex, [&] { m_commands.clear(); }); }
    // Commands containing `fragment` cannot be started.
    void failWhenContains(const std::string& f) { underLock(m_mutex, [&] { m_failFragments.push_back(f); }); }
    // Every started command prints `output`.
    void setOutput(const std::string& output) { underLock(m_mutex, [&] { m_output = output; }); }

  private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_commands;
    std::vector<std::string> m_failFragments;
    std::string m_output;
    ScopedSeam<platform::CommandPipe> m_scope;
};

// A clock that stands still until told otherwise; sleeping advances it.
class FakeClock : public platform::Clock {
  public:
    explicit FakeClock(uint64_t nowMs = 1700000000000ULL) : m_nowUs(nowMs * 1000), m_scope(*this) {}
    int getTimeOfDay(struct timeval* tv) override;
    void sleepMicros(useconds_t micros) override { sleep(micros); }
    void sleepSeconds(unsigned seconds) override { sleep(seconds * 1000000ULL); }

    void setNowMs(uint64_t ms) { underLock(m_mutex, [&] { m_nowUs = ms * 1000; }); }
    void failNextTimeOfDay() { m_failNext = true; }
    // Microseconds, in order.
    std::vector<uint64_t> sleeps() const { return underLock(m_mutex, [&] { return m_sleepsUs; }); }

  private:
    void sleep(uint64_t micros);

    mutable std::mutex m_mutex;
    uint64_t m_nowUs;
    bool m_failNext = false;
    std::vector<uint64_t> m_sleepsUs;
    ScopedSeam<platform::Clock> m_scope;
};

// fork() answers 40001, 40002, ... and waitpid() a chosen status.
class FakeProcessLauncher : public platform::ProcessLauncher {
  public:
    FakeProcessLauncher() : m_scope(*this) {}
    pid_t fork() override { return m_failFork ? (errno = EAGAIN, -1) : 40000 + ++m_forks; }
    int execv(const char*, char* const[]) override { return errno = ENOENT, -1; }
    pid_t waitpid(pid_t pid, int* status, int options) override;

    // The wait status for the next children (default 0: exited with 0).
    void setStatus(int status) { m_status = status; }
    // Statuses for the next children one by one, before the one above.
    void queueStatuses(std::vector<int> statuses) { m_queued = std::move(statuses); }
    void failFork() { m_failFork = true; }
    int forks() const { return m_forks; }
    std::vector<pid_t> waitedPids() const { return m_waited; }

  private:
    int m_status = 0;
    std::vector<int> m_queued;
    bool m_failFork = false;
    int m_forks = 0;
    std::vector<pid_t> m_waited;
    ScopedSeam<platform::ProcessLauncher> m_scope;
};

// Never blocks; counts the waits and wakes.
class FakeChangeWaiter : public platform::ChangeWaiter {
  public:
    FakeChangeWaiter() : m_scope(*this) {}
    void arm() override {}
    void waitForChange(int) override { ++m_waits; }
    void wake() override { ++m_wakes; }
    int waits() const { return m_waits; }
    int wakes() const { return m_wakes; }

  private:
    std::atomic<int> m_waits{0};
    std::atomic<int> m_wakes{0};
    ScopedSeam<platform::ChangeWaiter> m_scope;
};

}  // namespace vekd::test
