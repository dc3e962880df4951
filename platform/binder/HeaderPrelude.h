// Force-included before every source that uses the platform's binder headers.
// Those headers use std::unique_ptr and std::numeric_limits without including
// their standard headers (the device toolchain pulls them in indirectly), so
// code written for a device would not compile here without this.
#pragma once

#ifdef __cplusplus
#include <limits>
#include <memory>
#endif
