#include "tools/vekstatd/PacketCount.h"

#include <linux/if_ether.h>

namespace vekstatd {
namespace {

constexpr uint8_t kTcp = 6;

uint16_t be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

bool portCounts(const uint8_t* tcp, const std::set<uint16_t>& ports) {
    return ports.empty() || ports.count(be16(tcp)) != 0;
}

uint32_t ipv4(const uint8_t* p, size_t captured, size_t length, const std::set<uint16_t>& ports) {
    if (captured < 20 || (p[0] >> 4) != 4) return 0;
    const size_t headerLen = static_cast<size_t>(p[0] & 0x0f) * 4;
    if (headerLen < 20 || p[9] != kTcp) return 0;
    // Later fragments carry no TCP header to check.
    if ((be16(p + 6) & 0x1fff) != 0) return 0;
    if (captured < headerLen + 4) return 0;
    // A received frame may carry link padding beyond the IP length; an
    // aggregated one may have length 0 in its header.
    size_t total = be16(p + 2);
    if (total == 0 || total > length) total = length;
    if (total <= headerLen || !portCounts(p + headerLen, ports)) return 0;
    return static_cast<uint32_t>(total - headerLen);
}

uint32_t ipv6(const uint8_t* p, size_t captured, size_t length, const std::set<uint16_t>& ports) {
    if (captured < 40 || (p[0] >> 4) != 6) return 0;
    uint8_t next = p[6];
    size_t offset = 40;
    // Hop-by-hop, routing and destination options may precede TCP.
    for (int i = 0; i < 8 && (next == 0 || next == 43 || next == 60); ++i) {
        if (captured < offset + 2) return 0;
        const uint8_t following = p[offset];
        offset += (static_cast<size_t>(p[offset + 1]) + 1) * 8;
        next = following;
    }
    if (next != kTcp || captured < offset + 4 || length <= offset) return 0;
    if (!portCounts(p + offset, ports)) return 0;
    return static_cast<uint32_t>(length - offset);
}

}  // namespace

uint32_t countedTcpBytes(const uint8_t* packet, size_t captured, size_t length,
                         uint16_t ethertype, const std::set<uint16_t>& ports) {
    if (packet == nullptr || length < captured) return 0;
    if (ethertype == ETH_P_IP) return ipv4(packet, captured, length, ports);
    if (ethertype == ETH_P_IPV6) return ipv6(packet, captured, length, ports);
    return 0;
}

}  // namespace vekstatd
