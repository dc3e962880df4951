// Time of day and sleeping, so that tests can give "now" and never sleep.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <cstdint>

#include "platform/Seam.h"

namespace vekd::platform {

// Milliseconds since the epoch of a time of day.
inline uint64_t msOf(const struct timeval& tv) {
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

class Clock {
  public:
    virtual ~Clock() = default;
    virtual int getTimeOfDay(struct timeval* tv) = 0;
    virtual void sleepMicros(useconds_t micros) = 0;
    virtual void sleepSeconds(unsigned seconds) = 0;
    // Milliseconds that never step back (only differences mean anything).
    // Fakes that only give the time of day get it from there.
    virtual int64_t monotonicMs() {
        struct timeval tv {};
        getTimeOfDay(&tv);
        return static_cast<int64_t>(msOf(tv));
    }
    static Clock& real();
};

}  // namespace vekd::platform
