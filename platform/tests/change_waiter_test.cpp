#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/ChangeWaiter.h"
#include "tests/support/TempRoot.h"

// A property write made before the wait is pending until then; a wake ends a
// wait under way. The long timeout only ends a test that is broken.
TEST(ChangeWaiter, PropertyWritesAndWakesEndTheWait) {
    vekd::test::TempRoot root;
    vekd::platform::ChangeWaiter& waiter = vekd::platform::ChangeWaiter::real();
    waiter.arm();
    const auto start = std::chrono::steady_clock::now();
    property_set("vendor.vek.debug", "1");
    waiter.waitForChange(60000);
    std::thread waker([&waiter] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        waiter.wake();
    });
    waiter.waitForChange(60000);
    waker.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}
