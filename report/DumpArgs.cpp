// The dump arguments: only a request for help is understood; anything else
// is named in one line, shortened and made printable, and the full report
// follows.
#include <cstdio>

#include "report/Report.h"

namespace vekd::report {
namespace {

constexpr size_t kShownPerArgument = 32;
constexpr size_t kNoteLength = 160;

std::string printable(const std::string& arg) {
    std::string shown;
    for (size_t i = 0; i < arg.size() && i < kShownPerArgument; ++i) {
        const unsigned char c = static_cast<unsigned char>(arg[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\' && c != '\'') {
            shown += static_cast<char>(c);
        } else {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\x%02x", c);
            shown += escaped;
        }
    }
    if (arg.size() > kShownPerArgument) shown += "...";
    return shown;
}

}  // namespace

DumpRequest parseDumpArgs(const std::vector<std::string>& args) {
    DumpRequest request;
    std::string unknown;
    size_t unknownCount = 0;
    for (const std::string& arg : args) {
        if (arg == "-h" || arg == "--help") {
            request.help = true;
            continue;
        }
        ++unknownCount;
        if (unknown.size() < kNoteLength) unknown += " '" + printable(arg) + "'";
    }
    if (unknownCount == 0) return request;
    if (unknown.size() > kNoteLength) unknown = unknown.substr(0, kNoteLength) + "...";
    request.note = "note: " + std::to_string(unknownCount) + " unknown argument" +
                   (unknownCount == 1 ? "" : "s") + " ignored:" + unknown;
    return request;
}

std::string dumpUsage() {
    return "usage: dump [-h|--help]\n"
           "Writes the daemon's state: run state, interfaces, links and their shares,\n"
           "enrolled UIDs, DNS selection, counters since start, configuration in force.\n";
}

}  // namespace vekd::report
