// The real service on the host transport, with eight clients at once and the
// evaluation turning beside them. Built under ThreadSanitizer too.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "binder/VekdBind.h"
#include "platform/binder/HostBinder.h"
#include "tests/support/InProcessDaemon.h"

namespace {

using android::Parcel;

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
    for (std::thread& t : clients) t.join();
    stop = true;
    loop.join();

    EXPECT_EQ(answered.load(), kClients * kRounds * 5);
    EXPECT_EQ(daemon.log.count("new_mode=1"), static_cast<size_t>(kClients * kRounds));
    const std::vector<std::string> rules = daemon.log.linesOf("NUVIptables");
    EXPECT_EQ(std::count(rules.begin(), rules.end(), "I old_mode=1"), kClients * kRounds);
    EXPECT_EQ(daemon.log.count("Vekd::notifyWlanInetNuv(0)"), static_cast<size_t>(kClients * 13));
    EXPECT_EQ(NuvManager::instance()->uidModes().size(), static_cast<size_t>(kClients));
    EXPECT_EQ(params->m_runState.load(), kRunStateConfigured);
    vekd::binder::resetForTesting();
}

}  // namespace
