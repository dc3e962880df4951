// Lets the main loop sleep until something it reads can have changed: a
// system property, or the run-state word (whose writer calls wake()).
#pragma once

#include "platform/Seam.h"

namespace vekd::platform {

class ChangeWaiter {
  public:
    virtual ~ChangeWaiter() = default;
    // Starts watching. Changes made after arm() returns are never missed.
    virtual void arm() = 0;
    // Returns when a change happened since the last return (at once if one is
    // pending), after wake(), or after `timeoutMs` at the latest.
    virtual void waitForChange(int timeoutMs) = 0;
    // Wakes the waiter; callable from any thread.
    virtual void wake() = 0;
    static ChangeWaiter& real();
};

}  // namespace vekd::platform
