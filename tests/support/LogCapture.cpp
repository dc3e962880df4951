#include "tests/support/LogCapture.h"

namespace vekd::test {

// Installed here, or the linker may drop the host logger from test programs.
LogCapture::LogCapture() : m_scope(*this) { platform::installHostLogger(); }

std::vector<std::string> LogCapture::select(const std::string* tag) const {
    static const char kLetters[] = "??VDIWEF";
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const Record& r : m_records) {
        const std::string letter(1, r.priority >= 0 && r.priority < 8 ? kLetters[r.priority] : '?');
        if (tag == nullptr) out.push_back(letter + " " + r.tag + ": " + r.message);
        if (tag != nullptr && r.tag == *tag) out.push_back(letter + " " + r.message);
    }
    return out;
}

size_t LogCapture::count(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    size_t n = 0;
    for (const Record& r : m_records) n += r.message.find(fragment) != std::string::npos;
    return n;
}

}  // namespace vekd::test
