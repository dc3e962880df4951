// The real service on the host transport, with eight clients at once, the
// evaluation turning and reports taken beside them. Built under
// ThreadSanitizer too.
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

// One dump over the socket: the report as read from the pipe, or "status N".
// `parcel` writes what follows the descriptor; `closeReader` drops the read
// end before the call.
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
    if (closeReader) return "status " + std::to_string(status);
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return status == android::NO_ERROR ? text : "status " + std::to_string(status);
}

void noArgs(Parcel& p) { p.writeInt32(0); }

TEST(VekdService, EightClientsAtOnceAreAllAnsweredWhileTheLoopEvaluates) {
    vekd::test::InProcessDaemon daemon;
    daemon.root.writeFile("/proc/vek/config", "");
    Parameters* params = Parameters::instance();
    IVekd::startBind();
    auto lookUp = [] { return android::defaultServiceManager()->checkService(android::String16("vekd")); };
    ASSERT_NE(lookUp(), nullptr);
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
                    if (vekd->transact(code, data, &reply) == android::NO_ERROR && reply.readInt32() == 0 &&
                        reply.dataSize() == 4) {
                        ++answered;
                    }
                }
            }
        });
    }
    std::atomic<int> dumps{0};
    std::thread dumper([&] {
        sp<android::IBinder> vekd = android::defaultServiceManager()->checkService(String16("vekd"));
        while (answered.load() < kClients * kRounds * 5) {
            if (takeDump(vekd, noArgs).find("\ncounters since start:\n") != std::string::npos) ++dumps;
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
    EXPECT_EQ(NuvManager::instance()->uidModes().size(), static_cast<size_t>(kClients));
    EXPECT_EQ(params->m_runState.load(), kRunStateConfigured);
    EXPECT_GT(dumps.load(), 0);
    const std::string last = takeDump(lookUp(), noArgs);
    for (int c = 0; c < kClients; ++c) {
        EXPECT_NE(last.find("  " + std::to_string(20000 + c) + "  0\n"), std::string::npos) << last;
    }

    vekd::binder::resetForTesting();
}

TEST(VekdService, DumpsOfAnyShapeAreAnsweredWithoutHarm) {
    vekd::test::InProcessDaemon daemon;
    IVekd::startBind();
    sp<android::IBinder> vekd = android::defaultServiceManager()->checkService(String16("vekd"));
    ASSERT_NE(vekd, nullptr);
    const std::u16string lone = {0xd800, u'x', 0xdfff};
    struct Case {
        const char* what;
        std::function<void(Parcel&)> parcel;
        bool closeReader;
        std::string expected;
    } cases[] = {
        {"huge count, no arguments", [](Parcel& p) { p.writeInt32(INT32_MAX); }, false, "vekd report\n"},
        {"negative count", [](Parcel& p) { p.writeInt32(-5); }, false, "vekd report\n"},
        {"unpaired surrogates",
         [&](Parcel& p) {
             p.writeInt32(1);
             p.writeString16(lone.data(), lone.size());
         },
         false, "note: 1 unknown argument ignored: '"},
        {"450 KiB argument",
         [](Parcel& p) {
             p.writeInt32(1);
             p.writeString16(String16(std::string(450 * 1024, 'a').c_str()));
         },
         false, "note: 1 unknown argument ignored: '" + std::string(32, 'a') + "...'"},
        {"damaged argument", [](Parcel& p) { p.writeInt32(2), p.writeInt32(1 << 30); }, false, "vekd report\n"},
        {"reader gone", noArgs, true, "status " + std::to_string(android::FAILED_TRANSACTION)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(takeDump(vekd, c.parcel, c.closeReader).rfind(c.expected, 0), 0u) << c.what;
    }
    // No descriptor where one belongs.
    Parcel data, reply;
    data.writeInt32(0);
    EXPECT_EQ(vekd->transact(android::IBinder::DUMP_TRANSACTION, data, &reply), android::BAD_TYPE);
    EXPECT_EQ(vekd->pingBinder(), android::NO_ERROR);

    vekd::binder::resetForTesting();
}

}  // namespace
