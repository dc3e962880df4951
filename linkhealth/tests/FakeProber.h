// Each link answers `rttMs` after each probe (never when negative), less a
// seeded share of lost probes; waits move the fake clock.
#pragma once

#include <unistd.h>

#include <map>
#include <mutex>
#include <random>

#include "linkhealth/LinkProber.h"
#include "tests/support/Fakes.h"

namespace vekd::test {

class FakeProber : public linkhealth::LinkProber {
  public:
    explicit FakeProber(FakeClock& clock) : m_clock(clock), m_scope(*this) {}
    void lookup(const std::string&) override { ++lookups; }
    Lookup lookupResult(uint32_t* address) override {
        *address = 0x0100007f;
        return lookupHangs ? Lookup::Pending : resolvable ? Lookup::Found : Lookup::Failed;
    }
    bool open(size_t, const std::string&, uint32_t) override { return true; }
    bool send(size_t link, uint32_t, uint16_t sequence) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (sendFails) return false;
        const int64_t ramp = (m_clock.monotonicMs() - m_rampFromMs[link]) * m_rampMsPerS[link] / 1000;
        const int rtt = m_rttMs[link] + static_cast<int>(std::min<int64_t>(ramp, m_rampUpToMs[link]));
        bool lost = m_lossPercent[link] > 0 && static_cast<int>(m_random() % 100) < m_lossPercent[link];
        lost |= m_deadFromMs.count(link) != 0 && m_clock.monotonicMs() + rtt / 2 >= m_deadFromMs[link];  // dropped at the far end
        if (m_rttMs[link] >= 0 && !lost) m_pending.emplace(m_clock.monotonicMs() + rtt, linkhealth::ProbeAnswer{link, sequence});
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
    // From now on: answers after `ms` (plus `rampMsPerS` for each second
    // from now, up to `ms` + `rampUpToMs`), `lossPercent` of them lost.
    void setRtt(size_t link, int ms, int lossPercent = 0, int rampMsPerS = 0, int rampUpToMs = 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_rttMs[link] = ms;
        m_lossPercent[link] = lossPercent;
        m_rampMsPerS[link] = rampMsPerS;
        m_rampUpToMs[link] = rampUpToMs;
        m_rampFromMs[link] = m_clock.monotonicMs();
    }

    void blackHole(size_t link, int64_t fromMs) { m_deadFromMs[link] = fromMs; }  // nothing passes from then on
    bool resolvable = true;
    bool lookupHangs = false;
    bool sendFails = false;
    bool sleepInWaits = false;
    int lookups = 0;

  private:
    FakeClock& m_clock;
    std::mutex m_mutex;
    // Guarded by m_mutex.
    std::map<size_t, int> m_rttMs, m_lossPercent, m_rampMsPerS, m_rampUpToMs;
    std::map<size_t, int64_t> m_rampFromMs, m_deadFromMs;
    std::mt19937 m_random{20261125};
    std::multimap<int64_t, linkhealth::ProbeAnswer> m_pending;
    ScopedSeam<linkhealth::LinkProber> m_scope;
};

}  // namespace vekd::test
