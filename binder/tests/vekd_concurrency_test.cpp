// The real service on the host transport, with eight clients at once, the
// evaluation turning and reports taken beside them (also under ThreadSanitizer).
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "binder/VekdBind.h"
#include "platform/binder/HostBinder.h"
#include "tests/support/InProcessDaemon.h"

namespace {

using android::Parcel;
using android::sp;
using android::String16;

// One dump: the report read from the pipe, or "status N"; `parcel` writes what
// follows the descriptor; `closeReader` drops the read end before the call.
std::string takeDump(const sp<android::IBinder>& vekd, const std::function<void(Parcel&)>& parcel,
                     bool closeReader = false) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return "no pipe";
    fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
    if (closeReader) close(fds[0]);
    Parcel data, reply;
    data.writeFileDescriptor(fds[1]);
    parcel(data);
    const android::status_t status = vekd->transact(android::IBinder::DUMP_TRANSACTION, data, &reply);
    close(fds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; !closeReader && (n = read(fds[0], buf, sizeof(buf))) > 0;) text.append(buf, static_cast<size_t>(n));
    if (!closeReader) close(fds[0]);
    return status == android::NO_ERROR ? text : "status " + std::to_string(status);
}

void noArgs(Parcel& p) { p.writeInt32(0); }

TEST(VekdService, EightClientsAtOnceAreAnsweredWhileTheLoopEvaluatesAndAnyDumpIsAReport) {
    vekd::test::InProcessDaemon daemon;
    daemon.root.writeFile("/proc/vek/config", "");
    Parameters* params = Parameters::instance();
    IVekd::startBind();
    auto lookUp = [] { return android::defaultServiceManager()->checkService(android::String16("vekd")); };
    ASSERT_NE(lookUp()->remoteBinder(), nullptr) << "clients must go through the socket";

    std::atomic<bool> stop{false};
    std::thread loop([&] {
        while (!stop) {
            if (params->m_runState.load() == kRunStateConfigured) NuvManager::instance()->adjustParameters();
            std::this_thread::yield();
        }
    });
    constexpr int kClients = 8, kRounds = 25;
    std::atomic<int> answered{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            android::sp<android::IBinder> vekd = lookUp();
            const std::string n = std::to_string(c % 4);
            const std::string iface = "if" + n + ",0,if" + n + ",0x5" + n + ",0,1,0,10.0.0." + std::to_string(c);
            for (int r = 0; vekd != nullptr && r < kRounds; ++r) {
                for (uint32_t code : {4u, 5u, 1u, 2u, 3u}) {
                    Parcel data, reply;
                    data.writeInterfaceToken(IVekd::descriptor);
                    if (code <= 2) data.writeInt32(20000 + c), data.writeInt32(code == 1 ? 1 : 0);
                    if (code == 3) data.writeInt32(r % 2);
                    if (code == 4) data.writeInt32(c % 4), data.writeCString(iface.c_str());
                    const bool ok = vekd->transact(code, data, &reply) == android::NO_ERROR && reply.dataSize() == 4;
                    answered += ok && reply.readInt32() == 0;
                }
            }
        });
    }
    std::atomic<int> dumps{0};
    std::thread dumper([&] {
        while (answered.load() < kClients * kRounds * 5) {
            dumps += takeDump(lookUp(), noArgs).find("\ncounters since start:\n") != std::string::npos;
        }
    });
    for (std::thread& t : clients) t.join();
    dumper.join();
    stop = true;
    loop.join();

    EXPECT_EQ(answered.load(), kClients * kRounds * 5);
    EXPECT_EQ(daemon.log.count("new_mode=1"), static_cast<size_t>(kClients * kRounds));
    const std::vector<std::string> rules = daemon.log.linesOf("NUVIptables");
    EXPECT_EQ(std::count(rules.begin(), rules.end(), "I old_mode=1"), kClients * kRounds);
    EXPECT_EQ(daemon.log.count("Vekd::notifyWlanInetNuv(0)"), static_cast<size_t>(kClients * 13));
    EXPECT_EQ(params->m_runState.load(), kRunStateConfigured);
    EXPECT_GT(dumps.load(), 0);
    const std::string last = takeDump(lookUp(), noArgs);
    for (int c = 0; c < kClients; ++c) EXPECT_NE(last.find("  " + std::to_string(20000 + c) + "  0\n"), std::string::npos) << c;

    // A dump whose arguments are damaged, huge or unreadable is still a report.
    sp<android::IBinder> vekd = lookUp();
    const std::u16string lone = {0xd800, u'x', 0xdfff};
    const String16 big(std::string(450 * 1024, 'a').c_str());
    const struct {
        std::function<void(Parcel&)> parcel;  // what follows the descriptor
        bool closeReader;
        std::string expected;  // how the answer starts
    } cases[] = {
        {[](Parcel& p) { p.writeInt32(INT32_MAX); }, false, "vekd report\n"},  // huge count, no arguments
        {[](Parcel& p) { p.writeInt32(-5); }, false, "vekd report\n"},
        {[&](Parcel& p) { p.writeInt32(1), p.writeString16(lone.data(), lone.size()); }, false, "note: 1 unknown argument ignored: '"},
        {[&](Parcel& p) { p.writeInt32(1), p.writeString16(big); }, false, "note: 1 unknown argument ignored: '" + std::string(32, 'a') + "...'"},
        {[](Parcel& p) { p.writeInt32(2), p.writeInt32(1 << 30); }, false, "vekd report\n"},  // damaged argument
        {noArgs, true, "status " + std::to_string(android::FAILED_TRANSACTION)},              // reader gone
    };
    for (const auto& c : cases) EXPECT_EQ(takeDump(vekd, c.parcel, c.closeReader).rfind(c.expected, 0), 0u) << c.expected;
    Parcel data, reply;  // no descriptor where one belongs
    data.writeInt32(0);
    EXPECT_EQ(vekd->transact(android::IBinder::DUMP_TRANSACTION, data, &reply), android::BAD_TYPE);
    EXPECT_EQ(vekd->pingBinder(), android::NO_ERROR);

    vekd::binder::resetForTesting();
}

}  // namespace
