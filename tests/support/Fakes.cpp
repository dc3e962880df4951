#include "tests/support/Fakes.h"

namespace vekd::test {

FILE* RecordingCommandPipe::open(const char* commandLine) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_commands.emplace_back(commandLine);
    for (const std::string& fragment : m_failFragments) {
        if (m_commands.back().find(fragment) != std::string::npos) return nullptr;
    }
    FILE* f = tmpfile();
    if (f != nullptr) {
        fwrite(m_output.data(), 1, m_output.size(), f);
        rewind(f);
    }
    return f;
}

int FakeClock::getTimeOfDay(struct timeval* tv) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_failNext) {
        m_failNext = false;
        return errno = EFAULT, -1;
    }
    tv->tv_sec = static_cast<time_t>(m_nowUs / 1000000);
    tv->tv_usec = static_cast<suseconds_t>(m_nowUs % 1000000);
    return 0;
}

void FakeClock::sleep(uint64_t micros) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sleepsUs.push_back(micros);
    m_nowUs += micros;
}

pid_t FakeProcessLauncher::waitpid(pid_t pid, int* status, int) {
    m_waited.push_back(pid);
    int next = m_status;
    if (!m_queued.empty()) {
        next = m_queued.front();
        m_queued.erase(m_queued.begin());
    }
    if (status) *status = next;
    return pid;
}

}  // namespace vekd::test
