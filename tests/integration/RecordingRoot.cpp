#include "tests/integration/RecordingRoot.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

namespace vekd::test {
namespace {

std::string wrapperScript(const std::string& root, const std::string& name) {
    return "#!/bin/sh\necho \"" + name + " $*\" >> " + root + "/calls.log\n" +
           "{ for a in \"$@\"; do printf '<%s>' \"$a\"; done; printf '\\0'; } >> " + root + "/args.log\n";
}

}  // namespace

RecordingRoot::RecordingRoot(const std::string& conf) {
    m_root.writeFile("/system/bin/iptables-wrapper-1.0", wrapperScript(path(), "iptables-wrapper-1.0"), true);
    m_root.writeFile("/system/bin/ip-wrapper-1.0", wrapperScript(path(), "ip-wrapper-1.0"), true);
    m_root.writeFile("/data/vendor/vek/vekd.conf", conf);
    m_root.writeFile("/calls.log", "");
    makeDirs(m_root.at("/proc/vek"));
    makeDirs(m_root.at("/dev/__properties__"));
    mkfifo(m_root.at("/proc/vek/config").c_str(), 0600);
    m_reader = std::thread([this] { readControl(); });
}

RecordingRoot::~RecordingRoot() {
    m_stop = true;
    m_reader.join();
}

void RecordingRoot::readControl() {
    int fd = open(m_root.at("/proc/vek/config").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    // Holding a writer of our own keeps the FIFO from reading as closed
    // between the daemon's commands.
    int keepOpen = open(m_root.at("/proc/vek/config").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (!m_stop) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_control.append(buf, static_cast<size_t>(n));
        }
    }
    close(keepOpen);
    close(fd);
}

std::vector<std::string> RecordingRoot::calls() const {
    std::ifstream in(m_root.at("/calls.log"));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::vector<std::string> RecordingRoot::argumentCalls() const {
    std::ifstream in(m_root.at("/args.log"));
    std::vector<std::string> out;
    for (std::string call; std::getline(in, call, '\0');) out.push_back(call);
    return out;
}

std::vector<std::string> RecordingRoot::controlCommands() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    std::stringstream in(m_control);
    for (std::string cmd; std::getline(in, cmd, '\0');) out.push_back(cmd);
    return out;
}

bool RecordingRoot::waitForCalls(size_t count, int timeoutMs) const {
    for (int waited = 0; waited <= timeoutMs; waited += 20) {
        if (calls().size() >= count) return true;
        usleep(20000);
    }
    return false;
}

bool RecordingRoot::waitForControl(const std::string& command, int timeoutMs) const {
    for (int waited = 0; waited <= timeoutMs; waited += 20) {
        for (const std::string& c : controlCommands()) {
            if (c == command) return true;
        }
        usleep(20000);
    }
    return false;
}

}  // namespace vekd::test
