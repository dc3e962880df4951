// The network side of the link monitor: resolving the probe target, one ICMP
// echo socket per link, and waiting for answers. Tests replace it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Seam.h"

namespace vekd::linkhealth {

struct ProbeAnswer {
    size_t link;  // index given to open()
    uint16_t sequence;
};

class LinkProber {
  public:
    virtual ~LinkProber() = default;
    enum class Lookup { Pending, Found, Failed };
    // Starts turning `host` (an IPv4 address or a host name) into an address
    // without blocking; a wait() ends early when the answer is in. Only one
    // look-up runs at a time: while one is pending, this starts none.
    virtual void lookup(const std::string& host) = 0;
    // The answer of the last look-up; the address in network byte order.
    virtual Lookup lookupResult(uint32_t* address) = 0;
    // Opens link `link`'s socket, bound to the device `iface` so that its
    // probes leave by that link or not at all, and carrying `mark` as their
    // firewall mark, so the link's routing rule and masquerading apply.
    // Replaces an earlier socket of that index.
    virtual bool open(size_t link, const std::string& iface, uint32_t mark) = 0;
    // One echo request to `address`; false when it could not be sent.
    virtual bool send(size_t link, uint32_t address, uint16_t sequence) = 0;
    // Waits up to `timeoutMs` for answers (or interrupt()) and appends those
    // that arrived.
    virtual void wait(int timeoutMs, std::vector<ProbeAnswer>* answers) = 0;
    // Ends a wait() at once; callable from any thread.
    virtual void interrupt() = 0;
    virtual void closeAll() = 0;
    static LinkProber& real();
};

}  // namespace vekd::linkhealth
