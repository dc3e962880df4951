#include "tests/faults/DaemonUnderTest.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace vekd::test {
namespace {

int countEntries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return -1;
    int n = 0;
    while (const dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
    return n;
}

}  // namespace

int openDescriptors(pid_t pid) { return countEntries("/proc/" + std::to_string(pid) + "/fd"); }

int threadCount(pid_t pid) { return countEntries("/proc/" + std::to_string(pid) + "/task"); }

long residentKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

DaemonUnderTest::DaemonUnderTest(const std::string& conf)
    : m_root(conf), m_logFile(m_root.path() + "/vekd.log") {}

DaemonUnderTest::~DaemonUnderTest() { m_process.reset(); }

bool DaemonUnderTest::start(std::string* why) {
    launch();
    return waitUntilServing(why);
}

void DaemonUnderTest::launch() {
    m_process.reset();
    // Each run's log starts afresh, so counts and waits see only this run.
    unlink(m_logFile.c_str());
    m_process = std::make_unique<DaemonProcess>(binaryPath("vekd"), std::vector<std::string>{},
                                                m_root.path(), m_logFile);
}

bool DaemonUnderTest::waitUntilServing(std::string* why) {
    if (m_process && m_process->waitForLog("D vekd: Added service", std::chrono::seconds(20))) return true;
    if (why) *why = "vekd did not register its service:\n" + log();
    return false;
}

int DaemonUnderTest::vekctl(const std::vector<std::string>& args, std::string* err) const {
    return runProgram(binaryPath("vekctl"), args, m_root.path(), nullptr, err);
}

bool DaemonUnderTest::configureTwoLinks() const {
    return vekctl({"iface", "0", kWlanParams}) == 0 && vekctl({"iface", "1", kWwanParams}) == 0 &&
           vekctl({"iface-ready"}) == 0;
}

void DaemonUnderTest::setProperty(const std::string& name, const std::string& value) const {
    const std::string file = m_root.root().at("/dev/__properties__/" + name);
    const std::string tmp = file + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << value << "\n";
    }
    rename(tmp.c_str(), file.c_str());
}

std::string DaemonUnderTest::log() const { return m_process ? m_process->log() : std::string(); }

size_t DaemonUnderTest::logCount(const std::string& fragment) const {
    return m_process ? m_process->logCount(fragment) : 0;
}

bool DaemonUnderTest::waitForLog(const std::string& fragment, std::chrono::milliseconds timeout,
                                 size_t count) const {
    return m_process && m_process->waitForLog(fragment, timeout, count);
}

int DaemonUnderTest::waitForDescriptorsAtMost(int limit, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const int n = openDescriptors(pid());
        if (n <= limit || std::chrono::steady_clock::now() > deadline) return n;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace vekd::test
