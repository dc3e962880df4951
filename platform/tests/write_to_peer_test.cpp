#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "platform/WriteToPeer.h"

namespace {

// One deadline for the whole text: a reader taking a page every 50 ms from a
// full pipe would need two seconds for this one, and gets 300 ms.
TEST(WriteToPeer, AReaderSlowerThanTheDeadlineIsGivenUp) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    for (const std::string page(4096, 'x'); write(fds[1], page.data(), page.size()) > 0;) continue;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        char buf[4096];
        for (; !done; usleep(50000)) EXPECT_NE(read(fds[0], buf, sizeof(buf)), 0);
    });
    errno = 0;
    EXPECT_FALSE(vekd::platform::writeToPeer(fds[1], std::string(40 * 4096, 'y'), 300));
    EXPECT_EQ(errno, ETIMEDOUT);
    done = true;
    reader.join();
    close(fds[0]), close(fds[1]);
}

}  // namespace
