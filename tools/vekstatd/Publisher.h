// The host stand-in for the kernel module: reads the daemon's control
// commands from the FIFO R/proc/vek/config and, while measuring is enabled,
// publishes each commanded interface's received TCP traffic as samples in
// R/proc/vek/<iface>_mmap.
#pragma once

#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "stats/StatsFileBuilder.h"
#include "tools/vekstatd/ControlCommands.h"

namespace vekstatd {

class Publisher {
  public:
    // `procDir` is R/proc/vek; a sample is written every `tickMs` (1..20) for
    // each interface that received counted traffic since the last one.
    Publisher(std::string procDir, unsigned tickMs);
    ~Publisher();
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;

    // Creates the directory and the FIFO; false (logged) when impossible.
    bool start();
    // Serves until `stop` becomes non-zero.
    void run(const volatile sig_atomic_t& stop);

  private:
    struct Link {
        std::unique_ptr<vekd::stats::StatsFile> file;
        int socket = -1;
        int ifindex = 0;
        uint64_t pendingBytes = 0;
        uint64_t lastBindAttemptMs = 0;
        uint64_t lastDropCheckMs = 0;
    };

    void readCommands();
    void handle(const std::string& text);
    void addInterface(const std::string& name);
    void setEnabled(bool enabled);
    bool bindLink(const std::string& name, Link& link);
    void unbindLink(Link& link);
    void drain(const std::string& name, Link& link);
    void reportDrops(const std::string& name, Link& link);
    void publish(uint64_t nowMs);

    std::string m_procDir;
    unsigned m_tickMs;
    int m_fifo = -1;
    int m_fifoKeeper = -1;  // our own writer: the FIFO never reports end-of-file
    CommandStream m_stream;
    std::set<uint16_t> m_ports;
    bool m_enabled = false;
    std::map<std::string, Link> m_links;
};

}  // namespace vekstatd
