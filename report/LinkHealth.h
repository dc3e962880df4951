// The link monitor's view of each link, as the report shows it. The monitor
// installs a source while it runs; without one the report has no health
// column.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace vekd::report {

struct LinkHealth {
    bool up = false;
    int32_t smoothedRttMs = -1;  // -1: no probe answered yet
    uint32_t lostInRow = 0;      // probes lost in a row
};

// Returns the health of every link the monitor knows, by interface name.
using LinkHealthSource = std::function<std::map<std::string, LinkHealth>()>;

// An empty source switches the column off.
void setLinkHealthSource(LinkHealthSource source);

struct Snapshot;
// Fills each link's health from the source, if one is installed. Called
// with no other lock held: the monitor has locks of its own.
void addLinkHealth(Snapshot* snapshot);

}  // namespace vekd::report
