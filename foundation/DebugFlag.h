// The process-wide verbose-log flag: 0 or 1, written only by the main loop and
// read before every verbose log line. Atomic so that readers on binder threads
// never race with the main loop's refresh.
#pragma once

#include <atomic>
#include <cstdint>

extern std::atomic<int32_t> gDebugLogEnabled;
