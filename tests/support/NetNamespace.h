// Tests that use the real kernel run inside a network namespace of their own,
// never in the machine's. CTest runs each test case in its own process, so
// the namespace vanishes with the test.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace vekd::test {

// Moves the calling process into a new network namespace with loopback up.
// False, with the reason, when that is impossible (not root, no support).
bool enterPrivateNetworkNamespace(std::string* whyNot);

// Runs `command` through /bin/sh; its standard output, and the exit code.
std::string runShell(const std::string& command, int* exitCode = nullptr);

}  // namespace vekd::test

// Skips the current test unless it now runs in a private network namespace.
#define VEKD_REQUIRE_PRIVATE_NETNS()                                              \
    do {                                                                          \
        std::string vekdWhyNot_;                                                  \
        if (!vekd::test::enterPrivateNetworkNamespace(&vekdWhyNot_)) {            \
            GTEST_SKIP() << "needs a private network namespace: " << vekdWhyNot_; \
        }                                                                         \
    } while (0)
