// A link's health as the link monitor sees it: the one description that the
// monitor, the link manager and the operator's report share.
#pragma once

#include <cstdint>

namespace vekd::linkhealth {

struct LinkHealth {
    bool up = true;
    int32_t smoothedRttMs = -1;  // -1: no probe answered yet
    int32_t unansweredInRow = 0;  // probes in a row with no sign of life since
};

}  // namespace vekd::linkhealth
