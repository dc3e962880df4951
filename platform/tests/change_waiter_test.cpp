#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/ChangeWaiter.h"
#include "tests/support/TempRoot.h"

namespace {

using Clock = std::chrono::steady_clock;

// A fresh waiter per test: the real one is a process-wide object.
class Waiter : public testing::Test {
  protected:
    vekd::test::TempRoot root;
    vekd::platform::ChangeWaiter& waiter = vekd::platform::ChangeWaiter::real();

    // Seconds a wait took; the long timeout only ends a test that is broken.
    double secondsWaiting() {
        const auto start = Clock::now();
        waiter.waitForChange(60000);
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
};

TEST_F(Waiter, PropertyWritesAndWakesEndTheWaitAndArePendingUntilThen) {
    waiter.arm();
    ASSERT_EQ(property_set("vendor.vek.debug", "1"), 0);
    EXPECT_LT(secondsWaiting(), 30.0) << "a write made before the wait is not lost";

    std::thread writer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        property_set("vendor.vek.enabled", "2");
    });
    EXPECT_LT(secondsWaiting(), 30.0);
    writer.join();

    waiter.wake();
    EXPECT_LT(secondsWaiting(), 30.0);
    std::thread waker([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        waiter.wake();
    });
    EXPECT_LT(secondsWaiting(), 30.0);
    waker.join();
}

}  // namespace
