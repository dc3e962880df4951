#include "platform/Clock.h"

#include <time.h>
#include <unistd.h>

namespace vekd::platform {
namespace {

class SystemClock : public Clock {
  public:
    int getTimeOfDay(struct timeval* tv) override { return ::gettimeofday(tv, nullptr); }
    void sleepMicros(useconds_t micros) override { ::usleep(micros); }
    void sleepSeconds(unsigned seconds) override { ::sleep(seconds); }
    int64_t monotonicMs() override {
        struct timespec ts {};
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    }
};

}  // namespace

Clock& Clock::real() {
    static SystemClock clock;
    return clock;
}

}  // namespace vekd::platform
