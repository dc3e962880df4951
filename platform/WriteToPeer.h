// Writes a text to a pipe or socket that another process handed over (the
// report's): a reader that went away raises no SIGPIPE, and the whole text
// must be taken within `deadlineMs`, however the reader paces its reads.
#pragma once

#include <string>

namespace vekd::platform {

// False, with errno set, when not all of the text could be written.
bool writeToPeer(int fd, const std::string& text, int deadlineMs);

}  // namespace vekd::platform
