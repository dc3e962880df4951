// Which received packets count for an interface's samples: TCP segments from
// one of the commanded ports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>

namespace vekstatd {

// `packet` starts at the network header (a packet socket of type SOCK_DGRAM);
// `captured` bytes of it are present and `length` is its full length on the
// wire (from MSG_TRUNC). `ethertype` is the link protocol in host order
// (ETH_P_IP or ETH_P_IPV6). Returns the TCP segment's length (TCP header and
// payload) when its source port is in `ports` (empty: any port), else 0.
uint32_t countedTcpBytes(const uint8_t* packet, size_t captured, size_t length,
                         uint16_t ethertype, const std::set<uint16_t>& ports);

}  // namespace vekstatd
