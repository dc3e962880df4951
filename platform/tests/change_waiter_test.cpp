#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "platform/ChangeWaiter.h"
#include "tests/support/TempRoot.h"

namespace {

// A property write or a wake, made before the wait or during it, ends the
// wait; the long timeout only ends a test that is broken.
TEST(ChangeWaiter, PropertyWritesAndWakesEndTheWaitAndArePendingUntilThen) {
    vekd::test::TempRoot root;
    vekd::platform::ChangeWaiter& waiter = vekd::platform::ChangeWaiter::real();
    waiter.arm();
    const std::function<void()> changes[] = {[] { property_set("vendor.vek.debug", "1"); },
                                             [&waiter] { waiter.wake(); }};
    for (const auto& change : changes) {
        for (bool during : {false, true}) {
            std::thread changer([&] {
                if (during) std::this_thread::sleep_for(std::chrono::milliseconds(50));
                change();
            });
            if (!during) changer.join();
            const auto start = std::chrono::steady_clock::now();
            waiter.waitForChange(60000);
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << during;
            if (during) changer.join();
        }
    }
}

}  // namespace
