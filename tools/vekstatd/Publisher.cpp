#include "tools/vekstatd/Publisher.h"

#include <android/log.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <vector>

#include "platform/Clock.h"
#include "tools/vekstatd/PacketCount.h"

namespace vekstatd {
namespace {

constexpr const char* kTag = "vekstatd";
constexpr uint64_t kRebindIntervalMs = 1000;
constexpr int kReceiveBuffer = 4 << 20;
constexpr uint64_t kDropCheckIntervalMs = 1000;
// Enough for the network and TCP headers; the full length comes from MSG_TRUNC.
constexpr size_t kHeaderBytes = 256;
// Packets handled per wake-up and interface, so that a flood cannot starve
// the control FIFO or the sample clock.
constexpr int kMaxPacketsPerDrain = 4096;

uint64_t nowMs() {
    struct timeval tv {};
    vekd::Seam<vekd::platform::Clock>::get().getTimeOfDay(&tv);
    return vekd::platform::msOf(tv);
}

}  // namespace

Publisher::Publisher(std::string procDir, unsigned tickMs)
    : m_procDir(std::move(procDir)), m_tickMs(tickMs) {}

Publisher::~Publisher() {
    for (auto& entry : m_links) unbindLink(entry.second);
    if (m_fifoKeeper >= 0) close(m_fifoKeeper);
    if (m_fifo >= 0) close(m_fifo);
}

bool Publisher::start() {
    std::error_code ec;
    std::filesystem::create_directories(m_procDir, ec);
    if (ec) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot create %s: %s", m_procDir.c_str(),
                            ec.message().c_str());
        return false;
    }
    const std::string path = m_procDir + "/config";
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && !S_ISFIFO(st.st_mode)) unlink(path.c_str());
    if (mkfifo(path.c_str(), 0666) != 0 && errno != EEXIST) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot create the FIFO %s: %s", path.c_str(),
                            strerror(errno));
        return false;
    }
    m_fifo = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    // The daemon opens and closes the FIFO for every command; holding a writer
    // of our own keeps the last close from turning into end-of-file.
    m_fifoKeeper = m_fifo < 0 ? -1 : open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (m_fifo < 0 || m_fifoKeeper < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot open the FIFO %s: %s", path.c_str(),
                            strerror(errno));
        return false;
    }
    __android_log_print(ANDROID_LOG_INFO, kTag, "reading commands from %s, a sample every %u ms",
                        path.c_str(), m_tickMs);
    return true;
}

void Publisher::run(const volatile sig_atomic_t& stop) {
    uint64_t nextTick = nowMs() + m_tickMs;
    std::vector<struct pollfd> fds;
    std::vector<std::pair<const std::string*, Link*>> polled;
    while (!stop) {
        fds.clear();
        polled.clear();
        fds.push_back({m_fifo, POLLIN, 0});
        for (auto& entry : m_links) {
            if (entry.second.socket < 0) continue;
            fds.push_back({entry.second.socket, POLLIN, 0});
            polled.emplace_back(&entry.first, &entry.second);
        }
        const uint64_t now = nowMs();
        const int timeout = nextTick > now ? static_cast<int>(nextTick - now) : 0;
        int ready = poll(fds.data(), fds.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "poll failed: %s", strerror(errno));
            break;
        }
        if (ready > 0) {
            if (fds[0].revents & POLLIN) readCommands();
            for (size_t i = 0; i < polled.size(); ++i) {
                if (fds[i + 1].revents != 0) drain(*polled[i].first, *polled[i].second);
            }
        }
        const uint64_t after = nowMs();
        if (after >= nextTick) {
            publish(after);
            nextTick = after + m_tickMs;
        }
    }
    __android_log_print(ANDROID_LOG_INFO, kTag, "stopping");
}

void Publisher::readCommands() {
    char buf[1024];
    for (;;) {
        ssize_t n = read(m_fifo, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::vector<std::string> commands;
        if (!m_stream.feed(buf, static_cast<size_t>(n), &commands)) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "dropped a command longer than %zu bytes",
                                CommandStream::kMaxCommand);
        }
        for (const std::string& text : commands) handle(text);
    }
}

void Publisher::handle(const std::string& text) {
    __android_log_print(ANDROID_LOG_INFO, kTag, "command: %s", text.c_str());
    const Command cmd = parseCommand(text);
    switch (cmd.kind) {
        case Command::Protocols:
            // Only TCP is measured; the list is taken note of and nothing more.
            break;
        case Command::Ports: {
            std::string bad;
            if (!parsePortList(cmd.value, &m_ports, &bad)) {
                __android_log_print(ANDROID_LOG_ERROR, kTag,
                                    "bad port \"%s\" in \"%s\": keeping the previous ports",
                                    bad.c_str(), text.c_str());
            }
            break;
        }
        case Command::Iface:
            addInterface(cmd.value);
            break;
        case Command::Enable:
            if (cmd.value == "1" || cmd.value == "0") {
                setEnabled(cmd.value == "1");
            } else {
                __android_log_print(ANDROID_LOG_ERROR, kTag, "bad enable value \"%s\"",
                                    cmd.value.c_str());
            }
            break;
        case Command::Unknown:
            __android_log_print(ANDROID_LOG_ERROR, kTag, "unknown command \"%s\"", text.c_str());
            break;
    }
}

void Publisher::addInterface(const std::string& name) {
    if (!isValidInterfaceName(name)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "bad interface name \"%s\"", name.c_str());
        return;
    }
    if (m_links.count(name) != 0) return;
    std::string error;
    auto file = vekd::stats::StatsFile::open(m_procDir + "/" + name + "_mmap", &error);
    if (!file) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "interface %s: %s", name.c_str(), error.c_str());
        return;
    }
    // Samples of an earlier run would look like this run's; start empty and
    // mark the file ready last.
    file->clear();
    file->setMagic();
    __android_log_print(ANDROID_LOG_INFO, kTag, "interface %s: publishing %s", name.c_str(),
                        file->path().c_str());
    Link& link = m_links[name];
    link.file = std::move(file);
    if (m_enabled) bindLink(name, link);
}

void Publisher::setEnabled(bool enabled) {
    m_enabled = enabled;
    for (auto& entry : m_links) {
        Link& link = entry.second;
        link.pendingBytes = 0;
        link.lastBindAttemptMs = 0;
        if (enabled) {
            bindLink(entry.first, link);
        } else {
            unbindLink(link);
        }
    }
    __android_log_print(ANDROID_LOG_INFO, kTag, "measuring %s", enabled ? "on" : "off");
}

bool Publisher::bindLink(const std::string& name, Link& link) {
    if (link.socket >= 0) return true;
    const bool firstAttempt = link.lastBindAttemptMs == 0;
    link.lastBindAttemptMs = nowMs();
    const unsigned index = if_nametoindex(name.c_str());
    if (index == 0) {
        if (firstAttempt) {
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                "interface %s: %s; retrying every second", name.c_str(),
                                strerror(errno));
        }
        return false;
    }
    int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ALL));
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "interface %s: packet socket: %s",
                            name.c_str(), strerror(errno));
        return false;
    }
    // Room for a few hundred milliseconds of a fast link while we are not
    // scheduled; beyond the system's limit when we may (root).
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof(kReceiveBuffer)) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof(kReceiveBuffer));
    }
    struct sockaddr_ll addr {};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = static_cast<int>(index);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "interface %s: bind: %s", name.c_str(),
                            strerror(errno));
        close(fd);
        return false;
    }
    link.socket = fd;
    link.ifindex = static_cast<int>(index);
    __android_log_print(ANDROID_LOG_INFO, kTag, "interface %s: measuring (index %u)", name.c_str(),
                        index);
    return true;
}

void Publisher::unbindLink(Link& link) {
    if (link.socket >= 0) close(link.socket);
    link.socket = -1;
    link.ifindex = 0;
}

void Publisher::drain(const std::string& name, Link& link) {
    uint8_t buf[kHeaderBytes];
    for (int i = 0; i < kMaxPacketsPerDrain && link.socket >= 0; ++i) {
        struct sockaddr_ll from {};
        socklen_t fromLen = sizeof(from);
        ssize_t n = recvfrom(link.socket, buf, sizeof(buf), MSG_DONTWAIT | MSG_TRUNC,
                             reinterpret_cast<struct sockaddr*>(&from), &fromLen);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return;
            // The interface went away: measure again once it is back.
            __android_log_print(ANDROID_LOG_ERROR, kTag, "interface %s: %s", name.c_str(),
                                strerror(errno));
            unbindLink(link);
            return;
        }
        // Received traffic only, and only of this interface (the socket may
        // have queued other interfaces' packets before it was bound).
        if (from.sll_ifindex != link.ifindex || from.sll_pkttype == PACKET_OUTGOING) continue;
        const size_t length = static_cast<size_t>(n);
        const size_t captured = length < sizeof(buf) ? length : sizeof(buf);
        if (m_enabled) {
            link.pendingBytes +=
                countedTcpBytes(buf, captured, length, ntohs(from.sll_protocol), m_ports);
        }
    }
}

void Publisher::reportDrops(const std::string& name, Link& link) {
    // Reading the statistics resets them: each report covers the last period.
    struct tpacket_stats st {};
    socklen_t len = sizeof(st);
    if (getsockopt(link.socket, SOL_PACKET, PACKET_STATISTICS, &st, &len) == 0 && st.tp_drops > 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "interface %s: %u packets not seen (receive queue full); "
                            "samples understate the traffic",
                            name.c_str(), st.tp_drops);
    }
}

void Publisher::publish(uint64_t now) {
    if (!m_enabled) return;
    for (auto& entry : m_links) {
        Link& link = entry.second;
        if (link.socket < 0 && now - link.lastBindAttemptMs >= kRebindIntervalMs) {
            bindLink(entry.first, link);
        }
        if (link.socket >= 0 && now - link.lastDropCheckMs >= kDropCheckIntervalMs) {
            link.lastDropCheckMs = now;
            reportDrops(entry.first, link);
        }
        if (link.pendingBytes == 0) continue;
        const uint64_t cap = std::numeric_limits<uint32_t>::max();
        const uint32_t bytes = static_cast<uint32_t>(link.pendingBytes < cap ? link.pendingBytes : cap);
        link.file->append(vekd::stats::makeSample(now, bytes));
        link.pendingBytes = 0;
    }
}

}  // namespace vekstatd
