// Tests that use the real kernel run in a network namespace of their own; CTest
// runs each test case in its own process, so the namespace vanishes with it.
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
#define VEKD_REQUIRE_PRIVATE_NETNS()                                       \
    if (std::string whyNot; !vekd::test::enterPrivateNetworkNamespace(&whyNot)) \
    GTEST_SKIP() << "needs a private network namespace: " << whyNot
