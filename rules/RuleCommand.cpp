#include "rules/RuleCommand.h"

#include <cstdarg>
#include <cstdio>

RuleCommand RuleCommand::filter(std::string args) { return RuleCommand(Tool::Filter, std::move(args)); }

RuleCommand RuleCommand::routing(std::string args) { return RuleCommand(Tool::Routing, std::move(args)); }

std::string RuleCommand::text(IpFamily family) const {
    const bool v6 = family == IpFamily::V6;
    if (m_tool == Tool::Routing) {
        return std::string("/system/bin/ip-wrapper-1.0 ") + (v6 ? "-6 " : "-4 ") + m_args;
    }
    return std::string(v6 ? "/system/bin/ip6tables-wrapper-1.0 -w " : "/system/bin/iptables-wrapper-1.0 -w ") + m_args;
}

std::string formatArgs(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string out(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) vsnprintf(&out[0], out.size() + 1, format, again);
    va_end(again);
    return out;
}
