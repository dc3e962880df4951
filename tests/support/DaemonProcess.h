// Runs a program of the build (vekd, vekctl, vekstatd) as a child process
// under a root directory, with its standard error captured to a file.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace vekd::test {

// build/bin/<name> of the tree these tests were built in.
std::string binaryPath(const std::string& name);

class DaemonProcess {
  public:
    // Starts `program` with `args` and VEKD_ROOT=`root`; stderr goes to `logFile`.
    DaemonProcess(const std::string& program, const std::vector<std::string>& args,
                  const std::string& root, const std::string& logFile);
    ~DaemonProcess();  // SIGKILL, if still running
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return m_pid; }
    std::string log() const;
    size_t logCount(const std::string& fragment) const;
    // Waits until the log contains `fragment` (count times); false on timeout.
    bool waitForLog(const std::string& fragment, std::chrono::milliseconds timeout, size_t count = 1) const;
    bool running();
    // Sends `signal` and waits for the exit; the wait status, or -1 on timeout.
    int stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(10));

  private:
    pid_t m_pid = -1;
    std::string m_logFile;
};

// Runs a program to completion with VEKD_ROOT=`root`; its exit code (-1 when
// it did not exit normally, -2 when it was killed after 30 s), with stdout and
// stderr returned through the pointers.
int runProgram(const std::string& program, const std::vector<std::string>& args,
               const std::string& root, std::string* out = nullptr, std::string* err = nullptr);

}  // namespace vekd::test
