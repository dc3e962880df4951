// Writes a text to a descriptor that another process handed over (the
// report's pipe): a reader that went away raises no SIGPIPE, and one that
// stops reading holds the writer up for at most `stallMs` at a time.
#pragma once

#include <string>

namespace vekd::platform {

// False, with errno set, when not all of the text could be written.
bool writeToPeer(int fd, const std::string& text, int stallMs);

}  // namespace vekd::platform
