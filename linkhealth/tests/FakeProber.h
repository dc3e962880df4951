// A prober that answers from a script against the fake clock: a link that
// answers does so `rttMs` after the probe; waiting moves the clock on.
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
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_resolves;
        *address = 0x0100007f;
        return m_resolvable;
    }
    bool open(size_t link, const std::string&, uint32_t) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open[link] = true;
        return true;
    }
    bool send(size_t link, uint32_t, uint16_t sequence) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_sent[link];
        auto rtt = m_rttMs.find(link);
        if (rtt == m_rttMs.end() || rtt->second < 0) return true;  // silently lost
        m_pending.emplace(nowMs() + rtt->second, linkhealth::ProbeAnswer{link, sequence});
        return true;
    }
    void wait(int timeoutMs, std::vector<linkhealth::ProbeAnswer>* answers) override {
        if (m_realSleep) usleep(1000);
        std::lock_guard<std::mutex> lock(m_mutex);
        const int64_t until = nowMs() + timeoutMs;
        if (m_pending.empty() || m_pending.begin()->first > until) {
            m_clock.setNowMs(static_cast<uint64_t>(until));
            return;
        }
        const int64_t due = m_pending.begin()->first;
        m_clock.setNowMs(static_cast<uint64_t>(due));
        while (!m_pending.empty() && m_pending.begin()->first == due) {
            answers->push_back(m_pending.begin()->second);
            m_pending.erase(m_pending.begin());
        }
    }
    void interrupt() override {}
    void closeAll() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open.clear();
        m_pending.clear();
    }

    // rttMs < 0: the link's probes are lost.
    void setRtt(size_t link, int rttMs) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_rttMs[link] = rttMs;
    }
    void setResolvable(bool resolvable) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_resolvable = resolvable;
    }
    // Threads: a wait also passes a real millisecond, so that the monitor
    // does not spin.
    void sleepInWaits() { m_realSleep = true; }
    int sent(size_t link) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sent[link];
    }
    int resolves() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_resolves;
    }

  private:
    int64_t nowMs() { return m_clock.monotonicMs(); }

    FakeClock& m_clock;
    std::mutex m_mutex;
    bool m_resolvable = true;
    bool m_realSleep = false;
    int m_resolves = 0;
    std::map<size_t, int> m_rttMs;
    std::map<size_t, int> m_sent;
    std::map<size_t, bool> m_open;
    std::multimap<int64_t, linkhealth::ProbeAnswer> m_pending;
    ScopedSeam<linkhealth::LinkProber> m_scope;
};

}  // namespace vekd::test
