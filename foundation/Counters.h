// Counts since the process started, for the operator's report. Each figure
// is exact; a set read while the daemon works need not be of one instant.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace vekd::counters {

struct CounterValues {
    uint64_t evaluationTurns = 0;
    uint64_t ruleRewrites = 0;
    uint64_t socketsDestroyed = 0;
    // Transactions that reached the service, by code, in a fixed order of
    // known codes; every other code is counted under `otherTransactions`.
    std::vector<std::pair<uint32_t, uint64_t>> transactions;
    uint64_t otherTransactions = 0;
};

void countEvaluationTurn();
void countRuleRewrite();
void countSocketsDestroyed(uint64_t count);
void countTransaction(uint32_t code);

CounterValues readCounters();
void resetCountersForTesting();

}  // namespace vekd::counters
