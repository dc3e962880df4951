// The control commands that the daemon writes to /proc/vek/config: texts
// terminated by NUL, possibly several per read or one split over reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace vekstatd {

// Splits a byte stream into NUL-terminated commands.
class CommandStream {
  public:
    // Longer pending texts are dropped: no command of the daemon comes near.
    static constexpr size_t kMaxCommand = 4096;

    // Appends `size` bytes; complete commands are appended to `out`. Returns
    // false when a command was dropped for being too long.
    bool feed(const char* data, size_t size, std::vector<std::string>* out);

  private:
    std::string m_pending;
    bool m_discarding = false;
};

struct Command {
    enum Kind { Protocols, Ports, Iface, Enable, Unknown };
    Kind kind = Unknown;
    std::string value;  // the text after '='
};

Command parseCommand(const std::string& text);

// "80,443" -> {80, 443}. An empty list means every port. False (with the
// offending item in `bad`) on anything but 1..65535 numbers.
bool parsePortList(const std::string& text, std::set<uint16_t>* ports, std::string* bad);

// A name that can be a network interface and a file name: 1 to 15 bytes, no
// '/', not "." or "..".
bool isValidInterfaceName(const std::string& name);

}  // namespace vekstatd
