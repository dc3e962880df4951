// Writes all of a text to a descriptor, resuming after signals and short
// writes.
#pragma once

#include <string>

namespace vekd::platform {

// False when the descriptor stops taking data before the end.
bool writeAll(int fd, const std::string& text);

}  // namespace vekd::platform
