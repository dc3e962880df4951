#include "foundation/Counters.h"

#include <atomic>
#include <cstddef>

namespace vekd::counters {
namespace {

constexpr uint32_t packChars(char a, char b, char c, char d) {
    return (static_cast<uint32_t>(a) << 24) | (static_cast<uint32_t>(b) << 16) |
           (static_cast<uint32_t>(c) << 8) | static_cast<uint32_t>(d);
}

// The service's five codes and the platform's standard ones; a fixed set,
// so that a client sending random codes cannot make the table grow.
constexpr uint32_t kKnownCodes[] = {
    1, 2, 3, 4, 5, packChars('_', 'P', 'N', 'G'), packChars('_', 'N', 'T', 'F'),
    packChars('_', 'D', 'M', 'P'),
};
constexpr size_t kKnownCount = sizeof(kKnownCodes) / sizeof(kKnownCodes[0]);

struct Counters {
    std::atomic<uint64_t> evaluationTurns{0};
    std::atomic<uint64_t> ruleRewrites{0};
    std::atomic<uint64_t> socketsDestroyed{0};
    std::atomic<uint64_t> transactions[kKnownCount + 1] = {};  // the last: other codes
};

Counters& counters() {
    static Counters c;
    return c;
}

}  // namespace

void countEvaluationTurn() { counters().evaluationTurns.fetch_add(1, std::memory_order_relaxed); }
void countRuleRewrite() { counters().ruleRewrites.fetch_add(1, std::memory_order_relaxed); }

void countSocketsDestroyed(uint64_t count) {
    counters().socketsDestroyed.fetch_add(count, std::memory_order_relaxed);
}

void countTransaction(uint32_t code) {
    size_t slot = 0;
    while (slot < kKnownCount && kKnownCodes[slot] != code) ++slot;
    counters().transactions[slot].fetch_add(1, std::memory_order_relaxed);
}

CounterValues readCounters() {
    Counters& c = counters();
    CounterValues values;
    values.evaluationTurns = c.evaluationTurns.load(std::memory_order_relaxed);
    values.ruleRewrites = c.ruleRewrites.load(std::memory_order_relaxed);
    values.socketsDestroyed = c.socketsDestroyed.load(std::memory_order_relaxed);
    for (size_t i = 0; i < kKnownCount; ++i) {
        values.transactions.emplace_back(kKnownCodes[i],
                                         c.transactions[i].load(std::memory_order_relaxed));
    }
    values.otherTransactions = c.transactions[kKnownCount].load(std::memory_order_relaxed);
    return values;
}

void resetCountersForTesting() {
    Counters& c = counters();
    c.evaluationTurns = 0;
    c.ruleRewrites = 0;
    c.socketsDestroyed = 0;
    for (auto& count : c.transactions) count = 0;
}

}  // namespace vekd::counters
