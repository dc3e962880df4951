// The programs of the build as child processes under a root directory.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {

std::string binaryPath(const std::string& name);

class DaemonProcess {
  public:
    // Starts `program` with `args` and VEKD_ROOT=`root`; its output goes to `logFile`.
    DaemonProcess(const std::string& program, const std::vector<std::string>& args,
                  const std::string& root, const std::string& logFile);
    ~DaemonProcess();  // SIGKILL, if still running
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return m_pid; }
    std::string log() const;
    size_t logCount(const std::string& fragment) const;
    // Waits until the log contains `fragment` (count times); false on timeout.
    bool waitForLog(const std::string& fragment, std::chrono::milliseconds timeout = std::chrono::seconds(10),
                    size_t count = 1) const;
    bool running();
    // Sends `signal` and waits for the exit; the wait status, or -1 on timeout.
    int stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    pid_t m_pid = -1;
    std::string m_logFile;
};

// Runs a program to completion with VEKD_ROOT=`root`, as user and group
// `asUser` when given: its exit code (-1: no normal exit, -2: killed after
// 30 s), stdout and stderr.
int runProgram(const std::string& program, const std::vector<std::string>& args,
               const std::string& root, std::string* out = nullptr, std::string* err = nullptr,
               int asUser = -1);

inline constexpr const char* kWlanParams = "wlan0,0,wlan0,0x5A,1,10,0,10.1.0.1";
inline constexpr const char* kWwanParams = "rmnet_data0,1,rmnet_data0,0x5B,0,20,0,10.2.0.1";

// The real vekd under a root with its configuration, wrappers that log each
// call instead of touching a packet filter, and the module's control FIFO.
class Vekd {
  public:
    explicit Vekd(const std::string& conf);
    ~Vekd();

    // (Re)starts vekd with a fresh log; start() also waits for its service.
    void launch();
    testing::AssertionResult start();
    int vekctl(const std::vector<std::string>& args, std::string* err = nullptr, int asUser = -1) const {
        return runProgram(binaryPath("vekctl"), args, root.path(), nullptr, err, asUser);
    }
    bool answersPing() const { return vekctl({"ping"}) == 0; }
    bool configureTwoLinks() const;
    // Replaces a property file atomically, as a writer on a device would.
    void setProperty(const std::string& name, const std::string& value) const;
    // Makes `wrapper` log its call, then run the shell text `then`.
    void wrap(const std::string& wrapper, const std::string& then) const;
    std::string log() const { return process->log(); }

    // Every wrapper call so far as "<wrapper><arg>...<arg>", argument ends visible.
    std::vector<std::string> calls() const;
    // Whether some call so far contains `fragment`.
    bool called(const std::string& fragment) const;
    // The control commands received so far, without their NULs ({""} when none).
    std::vector<std::string> controlCommands();
    // Descriptors or threads of the daemon, from /proc; -1 when unreadable.
    int count(const char* what) const;

    TempRoot root;
    std::unique_ptr<DaemonProcess> process;

  private:
    int m_control = -1;
    std::string m_received;
};

}  // namespace vekd::test
