// A root directory for running the real daemon without touching any packet
// filter: wrappers that record their arguments instead of running iptables
// and ip, a FIFO control file whose commands are collected, and a
// configuration.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempRoot.h"

namespace vekd::test {

class RecordingRoot {
  public:
    explicit RecordingRoot(const std::string& conf);
    ~RecordingRoot();

    const std::string& path() const { return m_root.path(); }
    const TempRoot& root() const { return m_root; }
    // Every wrapper call so far, one "iptables-wrapper-1.0 ARGS" or
    // "ip-wrapper-1.0 ARGS" line each, in order.
    std::vector<std::string> calls() const;
    // The same calls with every argument in <> ("<-w><-t><mangle>..."), so
    // that where one argument ends and the next begins stays visible.
    std::vector<std::string> argumentCalls() const;
    // The control commands received so far, without their NULs.
    std::vector<std::string> controlCommands() const;
    bool waitForCalls(size_t count, int timeoutMs) const;
    bool waitForControl(const std::string& command, int timeoutMs) const;

  private:
    void readControl();

    TempRoot m_root;
    std::atomic<bool> m_stop{false};
    mutable std::mutex m_mutex;
    std::string m_control;
    std::thread m_reader;
};

}  // namespace vekd::test
