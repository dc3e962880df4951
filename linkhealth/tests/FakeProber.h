// Each link answers `rttMs` after each probe (never when negative); waits move the fake clock.
#pragma once

#include <unistd.h>

#include <map>
#include <mutex>

#include "linkhealth/LinkProber.h"
#include "tests/support/Fakes.h"

namespace vekd::test {

class FakeProber : public linkhealth::LinkProber {
  public:
    explicit FakeProber(FakeClock& clock) : m_clock(clock), m_scope(*this) {}
    bool resolve(const std::string&, uint32_t* address) override {
        *address = 0x0100007f;
        ++resolves;
        return resolvable;
    }
    bool open(size_t, const std::string&, uint32_t) override { return true; }
    bool send(size_t link, uint32_t, uint16_t sequence) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++sent[link];
        if (m_rttMs[link] >= 0) m_pending.emplace(m_clock.monotonicMs() + m_rttMs[link], linkhealth::ProbeAnswer{link, sequence});
        return true;
    }
    void wait(int timeoutMs, std::vector<linkhealth::ProbeAnswer>* answers) override {
        if (sleepInWaits) usleep(1000);  // threads: no spinning
        std::lock_guard<std::mutex> lock(m_mutex);
        const int64_t until = std::min(m_clock.monotonicMs() + timeoutMs, m_pending.empty() ? INT64_MAX : m_pending.begin()->first);
        m_clock.setNowMs(static_cast<uint64_t>(until));
        for (; !m_pending.empty() && m_pending.begin()->first == until; m_pending.erase(m_pending.begin())) {
            answers->push_back(m_pending.begin()->second);
        }
    }
    void interrupt() override {}
    void closeAll() override {}
    void setRtt(size_t link, int ms) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_rttMs[link] = ms;
    }

    bool resolvable = true;
    bool sleepInWaits = false;
    int resolves = 0;
    std::map<size_t, int> sent;

  private:
    FakeClock& m_clock;
    std::mutex m_mutex;
    std::map<size_t, int> m_rttMs;  // guarded by m_mutex
    std::multimap<int64_t, linkhealth::ProbeAnswer> m_pending;
    ScopedSeam<linkhealth::LinkProber> m_scope;
};

}  // namespace vekd::test
