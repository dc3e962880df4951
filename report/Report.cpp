// Formats a snapshot as plain text: sections with a heading line, tables
// with one row per line and columns separated by blanks, "-" where there is
// no value.
#include "report/Report.h"

#include <cinttypes>
#include <cstdio>

namespace vekd::report {
namespace {

using Row = std::vector<std::string>;

std::string fixed3(float value) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f", static_cast<double>(value));
    return text;
}

std::string number(uint64_t value) { return std::to_string(value); }
std::string yesNo(bool value) { return value ? "yes" : "no"; }
std::string orDash(const std::string& text) { return text.empty() ? "-" : text; }

// Texts from the client or the configuration file must not break a line.
std::string oneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    return text;
}

// Configuration values (interface texts come from any client) are cut to
// this length, so that nobody can make the report grow without bound.
constexpr size_t kMaxValueShown = 256;

std::string shownValue(const std::string& value) {
    if (value.size() <= kMaxValueShown) return oneLine(value);
    return oneLine(value.substr(0, kMaxValueShown)) + "... (" + std::to_string(value.size()) + " bytes)";
}

// Left-aligned columns, two blanks apart, indented by two.
void appendTable(std::string* out, const Row& titles, const std::vector<Row>& rows) {
    std::vector<Row> clean;
    for (const Row& row : rows) {
        clean.emplace_back();
        for (const std::string& cell : row) clean.back().push_back(oneLine(cell));
    }
    std::vector<size_t> widths(titles.size());
    for (size_t c = 0; c < titles.size(); ++c) widths[c] = titles[c].size();
    for (const Row& row : clean) {
        for (size_t c = 0; c < row.size() && c < widths.size(); ++c) {
            if (row[c].size() > widths[c]) widths[c] = row[c].size();
        }
    }
    auto line = [&](const Row& cells) {
        std::string text = " ";
        for (size_t c = 0; c < cells.size(); ++c) {
            text += " " + cells[c];
            if (c + 1 < cells.size()) text += std::string(widths[c] - cells[c].size() + 1, ' ');
        }
        *out += text + "\n";
    };
    line(titles);
    for (const Row& row : clean) line(row);
}

// The columns of the links table. A new column is one entry here.
struct LinkColumn {
    const char* title;
    std::string (*cell)(const LinkRow&);
    bool needsMonitor;
};

std::string healthCell(const LinkRow& link) {
    if (!link.health) return "-";
    const int32_t rtt = link.health->smoothedRttMs;
    return std::string(link.health->up ? "up" : "down") + " rtt=" +
           (rtt < 0 ? std::string("-") : number(static_cast<uint64_t>(rtt)) + "ms") +
           " unanswered=" + number(link.health->unansweredInRow);
}

const LinkColumn kLinkColumns[] = {
    {"name", [](const LinkRow& l) { return l.name; }, false},
    {"measured", [](const LinkRow& l) { return yesNo(l.measured); }, false},
    {"estimate_kbps", [](const LinkRow& l) { return number(l.estimate); }, false},
    {"history_max_kbps", [](const LinkRow& l) { return number(l.historyMax); }, false},
    {"history", [](const LinkRow& l) { return number(l.historyLength); }, false},
    {"samples", [](const LinkRow& l) { return number(l.samples); }, false},
    {"computed_share", [](const LinkRow& l) { return fixed3(l.computedShare); }, false},
    {"installed_share",
     [](const LinkRow& l) { return l.installedShare ? fixed3(*l.installedShare) : std::string("-"); },
     false},
    {"health", healthCell, true},
};

const char* runStateText(const Snapshot& s) {
    if (s.cleanedUp) return "switched off (rules removed, evaluation stopped)";
    switch (s.runState) {
        case 0: return "starting";
        case 1: return "ready, waiting for the interfaces";
        case 2: return "interfaces configured, evaluating";
        default: return "unknown";
    }
}

std::string transactionName(uint32_t code) {
    switch (code) {
        case 1: return "updateUidNuv";
        case 2: return "removeUidNuv";
        case 3: return "notifyWlanInetNuv";
        case 4: return "updateIfaceParamNuv";
        case 5: return "notifyIfaceParamReadyNuv";
        case 0x5f504e47: return "ping";       // '_PNG'
        case 0x5f4e5446: return "interface";  // '_NTF'
        case 0x5f444d50: return "dump";       // '_DMP'
        default: return std::to_string(code);
    }
}

void appendInterfaces(std::string* out, const Snapshot& s) {
    *out += "\ninterfaces: " + number(s.interfaces.size()) + "\n";
    if (s.interfaces.empty()) return;
    std::vector<Row> rows;
    for (const InterfaceRow& i : s.interfaces) {
        rows.push_back({i.name, orDash(i.routeTable), orDash(i.fwmark), yesNo(i.metered),
                        yesNo(i.isDefault), std::to_string(i.cost), std::to_string(i.bias),
                        orDash(i.dnsServer)});
    }
    appendTable(out, {"name", "table", "mark", "metered", "default", "cost", "bias", "dns"}, rows);
}

void appendLinks(std::string* out, const Snapshot& s) {
    *out += "\nlinks: " + number(s.links.size()) + (s.monitorOn ? "" : " (link monitor off)") + "\n";
    if (s.links.empty()) return;
    Row titles;
    std::vector<Row> rows(s.links.size());
    for (const LinkColumn& column : kLinkColumns) {
        if (column.needsMonitor && !s.monitorOn) continue;
        titles.push_back(column.title);
        for (size_t r = 0; r < s.links.size(); ++r) rows[r].push_back(column.cell(s.links[r]));
    }
    appendTable(out, titles, rows);
}

void appendUids(std::string* out, const Snapshot& s) {
    *out += "\nuids: " + number(s.uids.size()) + "\n";
    if (s.uids.empty()) return;
    std::vector<Row> rows;
    for (const UidRow& u : s.uids) rows.push_back({u.uid, std::to_string(u.mode)});
    appendTable(out, {"uid", "mode"}, rows);
}

void appendCounters(std::string* out, const counters::CounterValues& c) {
    *out += "\ncounters since start:\n";
    *out += "  evaluation_turns " + number(c.evaluationTurns) + "\n";
    *out += "  rule_rewrites " + number(c.ruleRewrites) + "\n";
    *out += "  sockets_destroyed " + number(c.socketsDestroyed) + "\n";
    *out += "  transactions";
    for (const auto& [code, count] : c.transactions) {
        *out += " " + transactionName(code) + "=" + number(count);
    }
    *out += " other=" + number(c.otherTransactions) + "\n";
}

}  // namespace

std::string formatReport(const Snapshot& s, const counters::CounterValues& counters, const std::string& note) {
    std::string out;
    if (!note.empty()) out += note + "\n";
    out += "vekd report\n";
    out += "run_state " + std::to_string(s.runState) + " (" + runStateText(s) + ")\n";
    appendInterfaces(&out, s);
    appendLinks(&out, s);
    appendUids(&out, s);
    out += "\ndns: " + (s.dnsInterface.empty() ? std::string("none chosen")
                                                : oneLine(s.dnsInterface) + " server " + orDash(oneLine(s.dnsServer))) +
           "\n";
    appendCounters(&out, counters);
    out += "\nconfiguration:\n";
    for (const auto& [key, value] : s.config) out += "  " + key + "=" + shownValue(value) + "\n";
    return out;
}

}  // namespace vekd::report
