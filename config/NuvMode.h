// An application's aggregation mode. The daemon assigns 0 and 1 itself;
// clients may send any other value, which is stored and logged as it is.
#pragma once

#include <cstdint>

enum NuvMode : int32_t {
    NUV_MODE_GAMING = 0,
    NUV_MODE_VEK = 1,
};
