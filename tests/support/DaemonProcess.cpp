#include "tests/support/DaemonProcess.h"
#include "tests/support/NetNamespace.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace vekd::test {
namespace {

pid_t spawn(const std::string& program, const std::vector<std::string>& args, const std::string& root, int out,
            int err, int asUser = -1) {
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        setenv("VEKD_ROOT", root.c_str(), 1);
        if (asUser >= 0 && (setgroups(0, nullptr) != 0 || setgid(asUser) != 0 || setuid(asUser) != 0)) _exit(126);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    return pid;
}

std::vector<std::string> split(const std::string& text, char end) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, end);) out.push_back(item);
    return out;
}

}  // namespace

std::string binaryPath(const std::string& name) { return std::string(VEKD_BINARY_DIR) + "/" + name; }

DaemonProcess::DaemonProcess(const std::string& program, const std::vector<std::string>& args,
                             const std::string& root, const std::string& logFile)
    : m_logFile(logFile) {
    const int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    m_pid = spawn(program, args, root, log, log);
    close(log);
}

DaemonProcess::~DaemonProcess() { stop(SIGKILL); }

std::string DaemonProcess::log() const { return readFile(m_logFile); }

size_t DaemonProcess::logCount(const std::string& fragment) const {
    const std::string text = log();
    size_t n = 0;
    for (size_t pos = text.find(fragment); pos != std::string::npos; pos = text.find(fragment, pos + 1)) ++n;
    return n;
}

bool DaemonProcess::waitForLog(const std::string& fragment, std::chrono::milliseconds timeout, size_t count) const {
    return eventually([&] { return logCount(fragment) >= count; }, timeout);
}

bool DaemonProcess::running() {
    int status = 0;
    if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) m_pid = -1;
    return m_pid > 0;
}

int DaemonProcess::stop(int signal, std::chrono::milliseconds timeout) {
    int status = -1;
    if (m_pid <= 0) return -1;
    kill(m_pid, signal);
    if (!eventually([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeout)) return -1;
    m_pid = -1;
    return status;
}

int runProgram(const std::string& program, const std::vector<std::string>& args, const std::string& root,
               std::string* out, std::string* err, int asUser) {
    FILE* outFile = tmpfile();
    FILE* errFile = tmpfile();
    const pid_t pid = spawn(program, args, root, fileno(outFile), fileno(errFile), asUser);
    int status = 0;
    // Bounded: a daemon that stops answering must fail the test, not hang it.
    const auto exited = [&] { return waitpid(pid, &status, WNOHANG) == pid; };
    const bool hung = !eventually(exited, std::chrono::seconds(30), std::chrono::milliseconds(1));
    if (hung) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    const auto text = [](FILE* f) { return readFile("/proc/self/fd/" + std::to_string(fileno(f))); };
    if (out) *out = text(outFile);
    if (err) *err = (hung ? program + " got no answer within 30 s\n" : "") + text(errFile);
    fclose(outFile);
    fclose(errFile);
    if (hung) return -2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Vekd::Vekd(const std::string& conf) {
    // Every UID the daemon enrols loses its sockets: as root, the daemon runs
    // in a network namespace of the test's own; without root it can destroy none.
    if (std::string why; geteuid() == 0 && !enterPrivateNetworkNamespace(&why)) {
        fprintf(stderr, "refusing to start vekd in the machine's own network namespace: %s\n", why.c_str());
        abort();
    }
    wrap("iptables-wrapper-1.0", "");
    wrap("ip-wrapper-1.0", "");
    root.writeFile("/data/vendor/vek/vekd.conf", conf);
    makeDirs(root.at("/dev/__properties__"));
    makeDirs(root.at("/proc/vek"));
    mkfifo(root.at("/proc/vek/config").c_str(), 0600);
    // Held open both ways, the FIFO never reads as closed nor blocks the daemon.
    m_control = open(root.at("/proc/vek/config").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    fcntl(m_control, F_SETPIPE_SZ, 1 << 20);
}

Vekd::~Vekd() { close(m_control); }

void Vekd::launch() {
    process.reset();
    // Each run's log starts afresh, so counts and waits see only this run.
    unlink(root.at("/vekd.log").c_str());
    process = std::make_unique<DaemonProcess>(binaryPath("vekd"), std::vector<std::string>{}, root.path(),
                                              root.at("/vekd.log"));
}

testing::AssertionResult Vekd::start() {
    launch();
    if (process->waitForLog("D vekd: Added service", std::chrono::seconds(20))) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "vekd did not register its service:\n" << log();
}

bool Vekd::configureTwoLinks() const {
    return vekctl({"iface", "0", kWlanParams}) == 0 && vekctl({"iface", "1", kWwanParams}) == 0 &&
           vekctl({"iface-ready"}) == 0;
}

void Vekd::setProperty(const std::string& name, const std::string& value) const {
    const std::string file = root.at("/dev/__properties__/" + name);
    std::ofstream(file + ".tmp", std::ios::trunc) << value << "\n";
    rename((file + ".tmp").c_str(), file.c_str());
}

void Vekd::wrap(const std::string& wrapper, const std::string& then) const {
    root.writeFile("/system/bin/" + wrapper,
                   "#!/bin/sh\n{ printf '<%s>' " + wrapper + " \"$@\"; printf '\\0'; } >> " + root.at("/calls.log") +
                       "\n" + then + "\n",
                   true);
}

std::vector<std::string> Vekd::calls() const { return split(readFile(root.at("/calls.log")), '\0'); }

bool Vekd::called(const std::string& fragment) const {
    const std::vector<std::string> all = calls();
    return std::any_of(all.begin(), all.end(), [&](const std::string& c) { return c.find(fragment) != c.npos; });
}

std::vector<std::string> Vekd::controlCommands() {
    char buf[4096];
    for (ssize_t n; (n = read(m_control, buf, sizeof(buf))) > 0;) m_received.append(buf, static_cast<size_t>(n));
    std::vector<std::string> out = split(m_received, '\0');
    return out.empty() ? std::vector<std::string>{""} : out;
}

int Vekd::count(const char* what) const {
    std::error_code ec;
    std::filesystem::directory_iterator it("/proc/" + std::to_string(process->pid()) + "/" + what, ec);
    return ec ? -1 : static_cast<int>(std::distance(it, std::filesystem::directory_iterator()));
}

}  // namespace vekd::test
