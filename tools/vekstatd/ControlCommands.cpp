#include "tools/vekstatd/ControlCommands.h"

#include <cstdlib>
#include <cstring>

namespace vekstatd {

bool CommandStream::feed(const char* data, size_t size, std::vector<std::string>* out) {
    bool ok = true;
    for (size_t i = 0; i < size; ++i) {
        const char c = data[i];
        if (c == '\0') {
            if (!m_discarding) out->push_back(m_pending);
            m_pending.clear();
            m_discarding = false;
            continue;
        }
        if (m_discarding) continue;
        if (m_pending.size() >= kMaxCommand) {
            m_pending.clear();
            m_discarding = true;
            ok = false;
            continue;
        }
        m_pending.push_back(c);
    }
    return ok;
}

Command parseCommand(const std::string& text) {
    static const struct {
        const char* prefix;
        Command::Kind kind;
    } kPrefixes[] = {{"protocols=", Command::Protocols},
                     {"ports=", Command::Ports},
                     {"iface=", Command::Iface},
                     {"enable=", Command::Enable}};
    Command cmd;
    for (const auto& p : kPrefixes) {
        const size_t n = strlen(p.prefix);
        if (text.compare(0, n, p.prefix) == 0) {
            cmd.kind = p.kind;
            cmd.value = text.substr(n);
            return cmd;
        }
    }
    cmd.value = text;
    return cmd;
}

bool parsePortList(const std::string& text, std::set<uint16_t>* ports, std::string* bad) {
    std::set<uint16_t> result;
    size_t start = 0;
    while (start < text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(start, comma - start);
        char* end = nullptr;
        long value = item.empty() || item[0] < '0' || item[0] > '9' ? -1 : strtol(item.c_str(), &end, 10);
        if (value < 1 || value > 65535 || (end != nullptr && *end != '\0')) {
            if (bad) *bad = item;
            return false;
        }
        result.insert(static_cast<uint16_t>(value));
        start = comma + 1;
    }
    *ports = std::move(result);
    return true;
}

bool isValidInterfaceName(const std::string& name) {
    return !name.empty() && name.size() <= 15 && name.find('/') == std::string::npos &&
           name != "." && name != "..";
}

}  // namespace vekstatd
