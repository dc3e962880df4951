// What the host build of the binder library offers beyond the platform API:
// where the service sockets live, and a way for tests to start afresh.
#pragma once

#include <string>

namespace vekd::binder {

// The directory of this process's service sockets: the root directory plus
// the driver path given to ProcessState::initWithDriver ("/dev/binder" when
// none was given).
std::string serviceDirectory();

// The socket of the service `name`.
std::string socketPath(const std::string& name);

// Stops every pool thread (after the transactions in progress), closes and
// removes this process's service sockets, closes client connections and
// forgets the process state and the default service manager, so that the
// next ProcessState::self() starts from scratch. Call it from a thread that
// is not a pool thread; the calling thread's IPCThreadState is freed too.
void resetForTesting();

// Shortens how long a peer may stall in the middle of a frame (5000 ms)
// until the next resetForTesting().
void setStallTimeoutForTesting(int ms);

}  // namespace vekd::binder
