#include "foundation/DebugFlag.h"

std::atomic<int32_t> gDebugLogEnabled{0};
