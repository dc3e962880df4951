// Where the system's absolute paths live. A device uses "/"; a host takes the
// directory from VEKD_ROOT so that tests and the testbed can run side by side.
#pragma once

#include <string>

namespace vekd::platform {

// The root directory without a trailing slash ("" for "/").
std::string rootDir();

// `systemPath` (absolute, e.g. "/proc/vek/config") under the root directory.
std::string rootedPath(const std::string& systemPath);

// A shell command line whose first word begins with "/system/bin/" gets the
// root put in front of that word; every other line is returned unchanged.
std::string rootedCommand(const std::string& commandLine);

// Re-reads VEKD_ROOT; for tests that point the process at a fresh root.
void reloadRootDir();

}  // namespace vekd::platform
