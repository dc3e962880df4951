// Records every log record written while it is alive.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/LogSink.h"
#include "tests/support/Fakes.h"

namespace vekd::test {

class LogCapture : public platform::LogSink {
  public:
    LogCapture();
    void write(int priority, const char* tag, const char* message) override {
        underLock(m_mutex, [&] { m_records.push_back({priority, tag, message}); });
    }

    // Records as "P TAG: message" (P one of V D I W E F), in order.
    std::vector<std::string> lines() const { return select(nullptr); }
    // Only the records of `tag`, as "P message".
    std::vector<std::string> linesOf(const std::string& tag) const { return select(&tag); }
    bool contains(const std::string& fragment) const { return count(fragment) > 0; }
    size_t count(const std::string& fragment) const;
    void clear() { underLock(m_mutex, [&] { m_records.clear(); }); }

  private:
    struct Record {
        int priority;
        std::string tag;
        std::string message;
    };
    std::vector<std::string> select(const std::string* tag) const;

    mutable std::mutex m_mutex;
    std::vector<Record> m_records;
    ScopedSeam<platform::LogSink> m_scope;
};

}  // namespace vekd::test
