// Clients that misbehave on the daemon's service socket cost at most their own
// connection; the service keeps answering and gives every descriptor back.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/binder/SocketOps.h"
#include "platform/binder/Wire.h"
#include "tests/support/DaemonProcess.h"

namespace {

using vekd::binder::SocketOps;
using vekd::binder::wire::getU32;
using vekd::binder::wire::putFdObject;
using vekd::binder::wire::putU32;
using vekd::test::eventually;
using namespace std::chrono_literals;

// A blocking connection to the service: it waits while the backlog is full.
int connectTo(const std::string& path) {
    const int fd = SocketOps::real().socket(false);
    if (SocketOps::real().connect(fd, path) == 0) return fd;
    close(fd);
    return -1;
}

// A frame: its length word (`length`, or what follows it), `code`, `body` zeros.
std::vector<uint8_t> frame(uint32_t code, size_t body, uint32_t length = 0) {
    std::vector<uint8_t> f(8 + body, 0);
    putU32(f.data(), length != 0 ? length : static_cast<uint32_t>(f.size() - 4));
    putU32(f.data() + 4, code);
    return f;
}

constexpr uint32_t kPing = 0x5F504E47;  // '_PNG'

// The daemon gets room for 512 descriptors, this side for a thousand sockets.
TEST(ClientFault, BrokenFramesAndAThousandClientsOnFiveHundredDescriptors) {
    rlimit mine{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &mine), 0);
    mine.rlim_cur = std::max<rlim_t>(mine.rlim_cur, std::min<rlim_t>(mine.rlim_max, 2048));
    rlimit daemonLimit = mine;
#ifndef VEKD_SANITIZED
    daemonLimit.rlim_cur = 512;  // the sanitizers misreport once descriptors run out
#endif
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &daemonLimit), 0);
    vekd::test::Vekd d("");
    const testing::AssertionResult started = d.start();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &mine), 0);
    ASSERT_TRUE(started);
    const std::string path = d.root.at("/dev/vndbinder/vekd");
    const int baseFds = d.count("fd");
    const int threadsBefore = d.count("task");
    std::vector<uint8_t> halfPing = frame(kPing, 4);
    halfPing.resize(6);
    const struct {
        const char* what;
        std::vector<uint8_t> bytes;  // none: a dump request with `objects` descriptor objects
        int objects;
        int fds;
        size_t fdsAt;
        const char* logged;
    } cases[] = {
        {"half a frame", halfPing, 0, 0, 0, "W HostBinder: closing a connection that stalled in the middle of a frame"},
        {"2 MiB", frame(1, 4088, 2u << 20), 0, 0, 0, "closing a connection that sent a frame of 2097152 bytes"},
        {"a descriptor, no object", {}, 0, 1, 0, "do not match its parcel (1 descriptors, 0 objects)"},
        {"an object, no descriptor", {}, 1, 0, 0, "do not match its parcel (0 descriptors, 1 objects)"},
        {"two objects, one descriptor", {}, 2, 1, 0, "do not match its parcel (1 descriptors, 2 objects)"},
        {"the descriptor after the first byte", {}, 1, 1, 5,
         "W HostBinder: closing a connection whose frame's descriptors do not match its parcel (1 descriptors "
         "not all with the first byte, 1 objects)"},
    };
    for (const auto& c : cases) {
        std::vector<uint8_t> bytes = c.bytes.empty() ? frame(0x5F444D50, 24 * c.objects + 4) : c.bytes;  // '_DMP'
        for (int i = 0; i < c.objects; ++i) putFdObject(bytes.data() + 12 + 24 * i, static_cast<uint32_t>(i), false);
        int pipeFds[2];
        ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
        const int sock = connectTo(path);
        const auto start = std::chrono::steady_clock::now();
        // The bytes before `fdsAt` go alone; the rest carry the descriptors.
        ASSERT_EQ(send(sock, bytes.data(), c.fdsAt, MSG_NOSIGNAL), static_cast<ssize_t>(c.fdsAt));
        if (c.fdsAt > 0) std::this_thread::sleep_for(200ms);
        const std::vector<int> fds(static_cast<size_t>(c.fds), pipeFds[1]);
        const size_t rest = bytes.size() - c.fdsAt;
        ASSERT_EQ(SocketOps::real().sendWithFds(sock, bytes.data() + c.fdsAt, rest, fds.data(), fds.size()),
                  static_cast<ssize_t>(rest));
        close(pipeFds[1]);
        // Others are served meanwhile; only a stalled frame gets a grace period.
        EXPECT_TRUE(d.answersPing()) << c.what;
        char buf[1];
        pollfd p = {sock, POLLIN, 0};
        EXPECT_TRUE(poll(&p, 1, 15000) == 1 && recv(sock, buf, 1, MSG_DONTWAIT) <= 0) << c.what << " not closed";
        EXPECT_EQ(std::chrono::steady_clock::now() - start >= 4s, c.bytes == halfPing) << c.what;
        // Once every copy the daemon received is closed, the reader sees the end.
        p = {pipeFds[0], POLLIN, 0};
        EXPECT_TRUE(poll(&p, 1, 5000) == 1 && read(pipeFds[0], buf, 1) == 0) << c.what;
        close(sock);
        close(pipeFds[0]);
        EXPECT_TRUE(d.process->waitForLog(c.logged, 5s)) << c.what << "\n" << d.log();
    }
    EXPECT_EQ(d.vekctl({"dump"}), 0);  // a matching request is served

    // A thousand clients at once, each holding its connection a while after its
    // whole reply: accepting fails for a while, and the daemon serves the rest
    // as descriptors come back.
    std::atomic<int> answered{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> clients;
    for (int i = 0; i < 1000; ++i) {
        clients.emplace_back([&] {
            while (!go) std::this_thread::yield();
            const int fd = connectTo(path);
            const std::vector<uint8_t> ping = frame(kPing, 4);
            uint8_t reply[64];
            ssize_t got = 0;
            if (fd >= 0 && send(fd, ping.data(), ping.size(), MSG_NOSIGNAL) == 12) {
                for (ssize_t n = 1; n > 0 && (got < 8 || got < 4 + getU32(reply)); got += n) {
                    n = recv(fd, reply + got, sizeof(reply) - static_cast<size_t>(got), 0);
                }
            }
            if (got >= 8 && got == 4 + getU32(reply) && getU32(reply + 4) == 0) ++answered;
            std::this_thread::sleep_for(200ms);
            close(fd);
        });
    }
    go = true;
    for (std::thread& t : clients) t.join();
    EXPECT_EQ(answered, 1000) << d.log();
#ifndef VEKD_SANITIZED
    EXPECT_TRUE(d.process->waitForLog("E HostBinder: accept on ", 1s)) << "the descriptors never ran out";
    EXPECT_NE(d.log().find("Too many open files"), std::string::npos);
#endif
    EXPECT_TRUE(eventually([&] { return d.count("fd") <= baseFds; }, 10s)) << "descriptors kept";
    EXPECT_TRUE(d.answersPing()) << d.log();
    EXPECT_LE(d.count("task"), threadsBefore + 16) << "more than the pool's sixteen workers";
}

}  // namespace
