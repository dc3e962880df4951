// The real prober: ICMP echo sockets, one per link, waited on with poll().
// A datagram ("ping") socket is used where the system allows it, otherwise a
// raw socket, whose answers are told apart by the identifier.
#include <android/log.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "linkhealth/LinkProber.h"

namespace vekd::linkhealth {
namespace {

constexpr const char* kTag = "LinkMonitor";

uint16_t checksum(const uint8_t* data, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < length; i += 2) sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
    if (length % 2 != 0) sum += static_cast<uint32_t>(data[length - 1] << 8);
    while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
    return htons(static_cast<uint16_t>(~sum));
}

class IcmpProber : public LinkProber {
  public:
    IcmpProber() : m_wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

    void lookup(const std::string& host) override {
        const std::shared_ptr<LookupState> state = m_lookup;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->wanted = host;
            state->result = Lookup::Pending;
            if (state->running) return;  // the running one looks up `wanted` next
            state->running = true;
        }
        try {
            // Detached: a look-up that never answers holds this thread and
            // nothing else; it only touches the shared state and the wake-up.
            std::thread([state, wakeFd = m_wakeFd] { lookupLoop(*state, wakeFd); }).detach();
        } catch (const std::system_error&) {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->running = false;
            state->result = Lookup::Failed;
        }
    }

    Lookup lookupResult(uint32_t* address) override {
        std::lock_guard<std::mutex> lock(m_lookup->mutex);
        *address = m_lookup->address;
        return m_lookup->result;
    }

    bool open(size_t link, const std::string& iface, uint32_t mark) override {
        closeLink(link);
        Socket s;
        s.fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_ICMP);
        if (s.fd < 0) {
            s.raw = true;
            s.fd = socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_ICMP);
        }
        if (s.fd < 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "probe socket for %s: %s", iface.c_str(),
                                strerror(errno));
            return false;
        }
        if (setsockopt(s.fd, SOL_SOCKET, SO_MARK, &mark, sizeof(mark)) != 0 ||
            setsockopt(s.fd, SOL_SOCKET, SO_BINDTODEVICE, iface.c_str(),
                       static_cast<socklen_t>(iface.size() + 1)) != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "probe socket of %s (mark 0x%x): %s",
                                iface.c_str(), mark, strerror(errno));
            ::close(s.fd);
            return false;
        }
        // Raw sockets see every echo answer; the identifier tells ours apart.
        s.identifier = static_cast<uint16_t>((getpid() << 4) + link);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sockets[link] = s;
        return true;
    }

    bool send(size_t link, uint32_t address, uint16_t sequence) override {
        Socket s;
        if (!find(link, &s)) return false;
        uint8_t packet[sizeof(icmphdr) + 8] = {};
        auto* header = reinterpret_cast<icmphdr*>(packet);
        header->type = ICMP_ECHO;
        header->un.echo.id = htons(s.identifier);
        header->un.echo.sequence = htons(sequence);
        memcpy(packet + sizeof(icmphdr), "vekdlink", 8);
        header->checksum = checksum(packet, sizeof(packet));
        struct sockaddr_in to {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = address;
        return sendto(s.fd, packet, sizeof(packet), 0, reinterpret_cast<sockaddr*>(&to),
                      sizeof(to)) == static_cast<ssize_t>(sizeof(packet));
    }

    void wait(int timeoutMs, std::vector<ProbeAnswer>* answers) override {
        std::vector<struct pollfd> fds;
        std::vector<std::pair<size_t, Socket>> links;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const auto& entry : m_sockets) links.push_back(entry);
        }
        fds.push_back({m_wakeFd, POLLIN, 0});
        for (const auto& entry : links) fds.push_back({entry.second.fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), timeoutMs < 0 ? 0 : timeoutMs) <= 0) return;
        if (fds[0].revents != 0) {
            uint64_t count;
            while (read(m_wakeFd, &count, sizeof(count)) > 0) {
            }
        }
        for (size_t i = 0; i < links.size(); ++i) {
            if (fds[i + 1].revents != 0) receive(links[i].first, links[i].second, answers);
        }
    }

    void interrupt() override {
        const uint64_t one = 1;
        if (write(m_wakeFd, &one, sizeof(one)) < 0) {
            // Already pending: the wait ends anyway.
        }
    }

    void closeAll() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& entry : m_sockets) ::close(entry.second.fd);
        m_sockets.clear();
    }

  private:
    struct LookupState {
        std::mutex mutex;
        std::string wanted;
        bool running = false;
        Lookup result = Lookup::Failed;
        uint32_t address = 0;
    };

    static bool resolveNow(const std::string& host, uint32_t* address) {
        struct addrinfo hints {};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_DGRAM;
        struct addrinfo* found = nullptr;
        const int rc = getaddrinfo(host.c_str(), nullptr, &hints, &found);
        if (rc != 0 || found == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot resolve %s: %s", host.c_str(),
                                gai_strerror(rc));
            return false;
        }
        *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
        freeaddrinfo(found);
        return true;
    }

    // Looks up what is wanted until the answer is for the name wanted last.
    static void lookupLoop(LookupState& state, int wakeFd) {
        std::unique_lock<std::mutex> lock(state.mutex);
        for (;;) {
            const std::string host = state.wanted;
            lock.unlock();
            uint32_t address = 0;
            const bool found = resolveNow(host, &address);
            lock.lock();
            if (state.wanted != host) continue;
            state.running = false;
            state.result = found ? Lookup::Found : Lookup::Failed;
            state.address = address;
            break;
        }
        lock.unlock();
        const uint64_t one = 1;
        if (write(wakeFd, &one, sizeof(one)) < 0) {
            // Already pending: the wait ends anyway.
        }
    }

    struct Socket {
        int fd = -1;
        bool raw = false;
        uint16_t identifier = 0;
    };

    bool find(size_t link, Socket* out) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_sockets.find(link);
        if (it == m_sockets.end()) return false;
        *out = it->second;
        return true;
    }

    void closeLink(size_t link) {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_sockets.find(link);
        if (it == m_sockets.end()) return;
        ::close(it->second.fd);
        m_sockets.erase(it);
    }

    static void receive(size_t link, const Socket& s, std::vector<ProbeAnswer>* answers) {
        uint8_t buffer[512];
        for (;;) {
            const ssize_t n = recv(s.fd, buffer, sizeof(buffer), 0);
            if (n <= 0) return;
            size_t offset = 0;
            if (s.raw) {
                if (static_cast<size_t>(n) < sizeof(iphdr)) continue;
                offset = static_cast<size_t>(reinterpret_cast<const iphdr*>(buffer)->ihl) * 4;
            }
            if (static_cast<size_t>(n) < offset + sizeof(icmphdr)) continue;
            icmphdr header;
            memcpy(&header, buffer + offset, sizeof(header));
            if (header.type != ICMP_ECHOREPLY) continue;
            if (s.raw && ntohs(header.un.echo.id) != s.identifier) continue;
            answers->push_back({link, ntohs(header.un.echo.sequence)});
        }
    }

    const int m_wakeFd;
    const std::shared_ptr<LookupState> m_lookup = std::make_shared<LookupState>();
    std::mutex m_mutex;
    std::map<size_t, Socket> m_sockets;
};

}  // namespace

LinkProber& LinkProber::real() {
    static IcmpProber prober;
    return prober;
}

}  // namespace vekd::linkhealth
