#include "daemon/DebugFlag.h"

std::atomic<int32_t> gDebugLogEnabled{0};
