// Time of day and sleeping, so that tests can give "now" and never sleep.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include "platform/Seam.h"

namespace vekd::platform {

class Clock {
  public:
    virtual ~Clock() = default;
    virtual int getTimeOfDay(struct timeval* tv) = 0;
    virtual void sleepMicros(useconds_t micros) = 0;
    virtual void sleepSeconds(unsigned seconds) = 0;
    static Clock& real();
};

}  // namespace vekd::platform
