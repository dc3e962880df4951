// The statistics engine's per-interface record, shared with the ratio rules.
#pragma once

#include <deque>

class VekStatsData;

// The last few rate estimates of one link (kilobits per second, oldest at the
// front) and their running maximum.
struct linkHistory_t {
    std::deque<unsigned int> rates;
    unsigned int maxRate = 0;
};

// Allocated with new (it holds a deque) and zero-filled, so the first turn
// compares its ratio against 0.
struct linkStatsWrapper_t {
    char interfaceName[128] = {};
    VekStatsData* statsData = nullptr;  // null: the interface has no statistics
    linkHistory_t history;
    unsigned int lre = 0;          // this turn's estimate after gating, kbit/s (1 kbit = 1024 bit)
    unsigned int pktCnt = 0;       // samples counted by this turn's estimate
    float interfaceRatio = 0.0f;   // share of new connections, read by the ratio rules
};
