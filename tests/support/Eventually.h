// Polling for a condition that another thread or process makes true.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace vekd::test {

// Polls `condition` until it holds; false when `timeout` passed first. The
// deadline is by the clock, however long each check takes.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
                       std::chrono::milliseconds every = std::chrono::milliseconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(every);
    }
    return true;
}

}  // namespace vekd::test
