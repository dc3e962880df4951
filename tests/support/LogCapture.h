// Records every log record written while it is alive.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/LogSink.h"

namespace vekd::test {

struct LogRecord {
    int priority;
    std::string tag;
    std::string message;
};

class LogCapture : public platform::LogSink {
  public:
    LogCapture();
    void write(int priority, const char* tag, const char* message) override;

    std::vector<LogRecord> records() const;
    // Records as "P TAG: message" (P one of V D I W E F), in order.
    std::vector<std::string> lines() const;
    // Only the records of `tag`, as "P message".
    std::vector<std::string> linesOf(const std::string& tag) const;
    bool contains(const std::string& fragment) const;
    size_t count(const std::string& fragment) const;
    void clear();

  private:
    mutable std::mutex m_mutex;
    std::vector<LogRecord> m_records;
    ScopedSeam<platform::LogSink> m_scope;
};

}  // namespace vekd::test
