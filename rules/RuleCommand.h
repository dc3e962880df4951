// One command of the rule manager, described once: which tool and the
// arguments after its wrapper. The same description gives the IPv4 command
// line and its IPv6 twin.
#pragma once

#include <string>

enum class IpFamily { V4, V6 };

class RuleCommand {
  public:
    // A packet-filter command: iptables (IPv4) or ip6tables (IPv6), each
    // through its wrapper and waiting for the table lock.
    static RuleCommand filter(std::string args);
    // A policy-routing command: ip -4 or ip -6, through the ip wrapper.
    static RuleCommand routing(std::string args);

    std::string text(IpFamily family = IpFamily::V4) const;

  private:
    enum class Tool { Filter, Routing };
    RuleCommand(Tool tool, std::string args) : m_tool(tool), m_args(std::move(args)) {}

    Tool m_tool;
    std::string m_args;
};

// printf into a string, for the arguments of a description.
std::string formatArgs(const char* format, ...) __attribute__((format(printf, 1, 2)));
