#include "tests/support/LogCapture.h"

namespace vekd::test {
namespace {
char letter(int priority) {
    static const char kLetters[] = "??VDIWEF";
    return (priority >= 0 && priority < 8) ? kLetters[priority] : '?';
}
}  // namespace

// Installing the logger here keeps capture working in test programs that
// otherwise use nothing of the platform library (the linker may drop it).
LogCapture::LogCapture() : m_scope(*this) { platform::installHostLogger(); }

void LogCapture::write(int priority, const char* tag, const char* message) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.push_back({priority, tag, message});
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records;
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::string> out;
    for (const LogRecord& r : records()) {
        out.push_back(std::string(1, letter(r.priority)) + " " + r.tag + ": " + r.message);
    }
    return out;
}

std::vector<std::string> LogCapture::linesOf(const std::string& tag) const {
    std::vector<std::string> out;
    for (const LogRecord& r : records()) {
        if (r.tag == tag) out.push_back(std::string(1, letter(r.priority)) + " " + r.message);
    }
    return out;
}

bool LogCapture::contains(const std::string& fragment) const { return count(fragment) > 0; }

size_t LogCapture::count(const std::string& fragment) const {
    size_t n = 0;
    for (const LogRecord& r : records()) {
        if (r.message.find(fragment) != std::string::npos) ++n;
    }
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.clear();
}

}  // namespace vekd::test
