#include "platform/Clock.h"

#include <unistd.h>

namespace vekd::platform {
namespace {

class SystemClock : public Clock {
  public:
    int getTimeOfDay(struct timeval* tv) override { return ::gettimeofday(tv, nullptr); }
    void sleepMicros(useconds_t micros) override { ::usleep(micros); }
    void sleepSeconds(unsigned seconds) override { ::sleep(seconds); }
};

}  // namespace

Clock& Clock::real() {
    static SystemClock clock;
    return clock;
}

}  // namespace vekd::platform
