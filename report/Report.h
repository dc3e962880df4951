// The operator's report: the text the service writes for dump().
#pragma once

#include <string>
#include <vector>

#include "foundation/Counters.h"
#include "report/Snapshot.h"

namespace vekd::report {

// What the dump arguments ask for.
struct DumpRequest {
    bool help = false;
    std::string note;  // one line about arguments that were not understood, or empty
};

DumpRequest parseDumpArgs(const std::vector<std::string>& args);

// The usage of the dump arguments.
std::string dumpUsage();

// The whole report; `note`, when given, is its first line.
std::string formatReport(const Snapshot& snapshot, const counters::CounterValues& counters,
                         const std::string& note);

}  // namespace vekd::report
