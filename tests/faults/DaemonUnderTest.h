// The real daemon as a child process under a recording root, with what the
// fault tests look at: its answers to vekctl, its log, and the descriptors,
// threads and memory it holds.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/integration/RecordingRoot.h"
#include "tests/support/DaemonProcess.h"

namespace vekd::test {

// What /proc says about a process; -1 when it cannot be read.
int openDescriptors(pid_t pid);
int threadCount(pid_t pid);
long residentKb(pid_t pid);

// The interface strings of the two links most tests configure.
inline constexpr const char* kWlanParams = "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1";
inline constexpr const char* kWwanParams = "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1";

class DaemonUnderTest {
  public:
    explicit DaemonUnderTest(const std::string& conf);
    ~DaemonUnderTest();

    RecordingRoot& root() { return m_root; }
    const std::string& path() const { return m_root.path(); }

    // Starts vekd and waits until its service is registered; false (with the
    // log in `why`) when it is not within 20 s.
    bool start(std::string* why);
    // Starts vekd (again) without waiting; an earlier process is killed first.
    void launch();
    bool waitUntilServing(std::string* why);
    DaemonProcess& process() { return *m_process; }
    pid_t pid() const { return m_process ? m_process->pid() : -1; }
    bool alive() { return m_process && m_process->running(); }

    int vekctl(const std::vector<std::string>& args, std::string* err = nullptr) const;
    bool answersPing() const { return vekctl({"ping"}) == 0; }
    // Sends both links' strings and iface-ready; true when all were answered 0.
    bool configureTwoLinks() const;

    // Replaces a property file atomically, as a writer on a device would.
    void setProperty(const std::string& name, const std::string& value) const;

    std::string log() const;
    size_t logCount(const std::string& fragment) const;
    bool waitForLog(const std::string& fragment, std::chrono::milliseconds timeout, size_t count = 1) const;
    // Waits until the daemon holds at most `limit` descriptors; the last count.
    int waitForDescriptorsAtMost(int limit, std::chrono::milliseconds timeout) const;

  private:
    RecordingRoot m_root;
    std::string m_logFile;
    std::unique_ptr<DaemonProcess> m_process;
};

}  // namespace vekd::test
