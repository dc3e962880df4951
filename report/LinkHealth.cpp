#include "report/LinkHealth.h"

#include <mutex>

#include "report/Snapshot.h"

namespace vekd::report {
namespace {

std::mutex s_sourceMutex;
LinkHealthSource s_source;

}  // namespace

void setLinkHealthSource(LinkHealthSource source) {
    std::lock_guard<std::mutex> lock(s_sourceMutex);
    s_source = std::move(source);
}

void addLinkHealth(Snapshot* snapshot) {
    LinkHealthSource source;
    {
        std::lock_guard<std::mutex> lock(s_sourceMutex);
        source = s_source;
    }
    if (!source) return;
    snapshot->monitorOn = true;
    const std::map<std::string, LinkHealth> health = source();
    for (LinkRow& link : snapshot->links) {
        auto it = health.find(link.name);
        // A link the monitor does not watch shows as unknown, not as down.
        link.health = it != health.end() ? std::optional<LinkHealth>(it->second) : std::nullopt;
    }
}

}  // namespace vekd::report
