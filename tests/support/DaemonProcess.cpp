#include "tests/support/DaemonProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#ifndef VEKD_BINARY_DIR
#error "VEKD_BINARY_DIR must name the build's bin directory"
#endif

namespace vekd::test {
namespace {

std::vector<char*> argvOf(const std::string& program, const std::vector<std::string>& args) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    return argv;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

std::string binaryPath(const std::string& name) { return std::string(VEKD_BINARY_DIR) + "/" + name; }

DaemonProcess::DaemonProcess(const std::string& program, const std::vector<std::string>& args,
                             const std::string& root, const std::string& logFile)
    : m_logFile(logFile) {
    std::vector<char*> argv = argvOf(program, args);
    m_pid = fork();
    if (m_pid == 0) {
        int fd = open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) dup2(fd, STDERR_FILENO);
        int devnull = open("/dev/null", O_RDWR);
        if (devnull >= 0) {
            dup2(devnull, STDIN_FILENO);
            dup2(devnull, STDOUT_FILENO);
        }
        setenv("VEKD_ROOT", root.c_str(), 1);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

DaemonProcess::~DaemonProcess() {
    if (m_pid > 0 && running()) stop(SIGKILL);
}

std::string DaemonProcess::log() const { return slurp(m_logFile); }

size_t DaemonProcess::logCount(const std::string& fragment) const {
    const std::string text = log();
    size_t n = 0;
    for (size_t pos = text.find(fragment); pos != std::string::npos; pos = text.find(fragment, pos + 1)) ++n;
    return n;
}

bool DaemonProcess::waitForLog(const std::string& fragment, std::chrono::milliseconds timeout,
                               size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (logCount(fragment) < count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

bool DaemonProcess::running() {
    if (m_pid <= 0) return false;
    int status = 0;
    pid_t r = waitpid(m_pid, &status, WNOHANG);
    if (r == m_pid) {
        m_pid = -1;
        return false;
    }
    return r == 0;
}

int DaemonProcess::stop(int signal, std::chrono::milliseconds timeout) {
    if (m_pid <= 0) return -1;
    kill(m_pid, signal);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_pid = -1;
            return status;
        }
        if (std::chrono::steady_clock::now() > deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int runProgram(const std::string& program, const std::vector<std::string>& args, const std::string& root,
               std::string* out, std::string* err) {
    char outPath[] = "/tmp/vekd-run-out-XXXXXX";
    char errPath[] = "/tmp/vekd-run-err-XXXXXX";
    int outFd = mkstemp(outPath);
    int errFd = mkstemp(errPath);
    std::vector<char*> argv = argvOf(program, args);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outFd, STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        setenv("VEKD_ROOT", root.c_str(), 1);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    // Bounded: a daemon that stops answering must fail the test, not hang it.
    int status = 0;
    bool hung = pid > 0;
    for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
         hung && std::chrono::steady_clock::now() < deadline;) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            hung = false;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    if (hung) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    close(outFd);
    close(errFd);
    if (out) *out = slurp(outPath);
    if (err) *err = (hung ? std::string(program + " got no answer within 30 s\n") : std::string()) + slurp(errPath);
    unlink(outPath);
    unlink(errPath);
    if (hung) return -2;
    return (pid > 0 && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
}

}  // namespace vekd::test
