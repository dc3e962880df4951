// The stub alone; then the real service over the socket with eight clients at
// once, the evaluation and reports turning beside them (also under ThreadSanitizer).
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
#include "platform/WriteToPeer.h"
#include "platform/binder/HostBinder.h"
#include "tests/support/InProcessDaemon.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace android;
using Lines = std::vector<std::string>;

// Answers with what shows in the stub's log that the arguments arrived.
class RecordingVekd : public BnVekd {
  public:
    int updateUidNuv(int, int) override { return 5; }
    int removeUidNuv(int, int) override { return 5; }
    int notifyWlanInetNuv(bool hasInternet) override { return hasInternet ? 1 : 0; }
    int updateIfaceParamNuv(int index, std::string) override { return index; }
    int notifyIfaceParamReadyNuv() override { return 5; }
};

TEST(Stub, EveryCodeIsDispatchedLoggedAndAnsweredWithOneZero) {
    sp<RecordingVekd> service = new RecordingVekd();
    vekd::test::LogCapture log;
    const std::string d = "D vekd: BnVekd::onTransact ";
    const struct {
        uint32_t code;
        std::function<void(Parcel&)> args;
        Lines logged;  // the call and its result (none when not called)
        const char* token = "vekd";
    } cases[] = {
        {1, [](Parcel& p) { p.writeInt32(10123), p.writeInt32(2); }, {d + "updateUidNuv(10123, 2) = 5"}},
        {2, [](Parcel& p) { p.writeInt32(10123), p.writeInt32(-1); }, {d + "removeUidNuv(10123, -1) = 5"}},
        {3, [](Parcel& p) { p.writeInt32(7); }, {d + "notifyWlanInetNuv(7) = 1"}},
        {3, [](Parcel& p) { p.writeInt32(0); }, {d + "notifyWlanInetNuv(0) = 0"}},
        {4, [](Parcel& p) { p.writeInt32(1), p.writeCString("wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1"); }, {d + "updateIfaceParamNuv(wlan0,0,wlan0,0x5A,1,10,0,1.1.1.1) = 1"}},
        {4, [](Parcel& p) { p.writeInt32(2), p.writeCString(""); }, {d + "updateIfaceParamNuv() = 2"}},
        {4, [](Parcel& p) { p.writeInt32(0); }, {}},  // no text: no call, still answered
        {5, [](Parcel&) {}, {d + "notifyIfaceParamReadyNuv() = 5"}},
        {1, [](Parcel& p) { p.writeInt32(10123), p.writeInt32(1); },  // a wrong token is warned about, the call still served
         {"W Parcel: interface token mismatch: expected 'vekd', got 'not.vekd'", d + "updateUidNuv(10123, 1) = 5"}, "not.vekd"},
    };
    for (const auto& c : cases) {
        Parcel data, reply;
        data.writeInterfaceToken(String16(c.token));
        c.args(data);
        data.setDataPosition(0);
        log.clear();
        EXPECT_EQ(service->onTransact(c.code, data, &reply, 0), NO_ERROR) << c.code;
        EXPECT_EQ(log.lines(), c.logged);
        EXPECT_EQ(std::vector<uint8_t>(reply.data(), reply.data() + reply.dataSize()), std::vector<uint8_t>(4, 0));
    }
    Parcel data, reply;  // other codes go to the platform's handler
    for (uint32_t code : {0u, 6u, 0x1000u}) EXPECT_EQ(service->onTransact(code, data, &reply, 0), UNKNOWN_TRANSACTION) << code;
}


enum class Reader { Reads, Gone, Stuck, File };

// A dump's report, or "status N". A reader that is gone closed the pipe's read
// end before the call; a stuck one filled the pipe and reads nothing; File
// hands over a regular file instead of a pipe.
std::string takeDump(const sp<android::IBinder>& vekd, const std::function<void(Parcel&)>& parcel,
                     Reader reader = Reader::Reads) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return "no pipe";
    const std::string page(4096, 'x');
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
    while (reader == Reader::Stuck && write(fds[1], page.data(), page.size()) > 0) {
    }
    fcntl(fds[1], F_SETFL, 0);
    if (reader == Reader::Gone) close(fds[0]);
    FILE* file = tmpfile();
    Parcel data, reply;
    data.writeFileDescriptor(reader == Reader::File ? fileno(file) : fds[1]);
    parcel(data);
    const android::status_t status = vekd->transact(android::IBinder::DUMP_TRANSACTION, data, &reply);
    fclose(file);
    close(fds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n; reader == Reader::Reads && (n = read(fds[0], buf, sizeof(buf))) > 0;) text.append(buf, static_cast<size_t>(n));
    if (reader != Reader::Gone) close(fds[0]);
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
    std::atomic<int> dumps{0};
    std::thread loop([&] {
        while (!stop) {
            if (params->m_runState.load() == kRunStateConfigured) NuvManager::instance()->adjustParameters();
            dumps += takeDump(lookUp(), noArgs).find("\ncounters since start:\n") != std::string::npos;
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
    for (std::thread& t : clients) t.join();
    stop = true;
    loop.join();

    EXPECT_EQ(answered.load(), kClients * kRounds * 5);
    EXPECT_EQ(daemon.log.count("new_mode=1"), static_cast<size_t>(kClients * kRounds));
    const std::vector<std::string> rules = daemon.log.linesOf("NUVIptables");
    EXPECT_EQ(std::count(rules.begin(), rules.end(), "I old_mode=1"), kClients * kRounds);
    EXPECT_EQ(daemon.log.count("Vekd::notifyWlanInetNuv(0)"), static_cast<size_t>(kClients * 13));
    EXPECT_EQ(daemon.log.count("onTransact notifyIfaceParamReadyNuv() = 0"), static_cast<size_t>(kClients * kRounds));
    EXPECT_EQ(params->m_runState.load(), kRunStateConfigured);
    EXPECT_GT(dumps.load(), 0);
    const std::string last = takeDump(lookUp(), noArgs);
    for (int c = 0; c < kClients; ++c) EXPECT_NE(last.find("  " + std::to_string(20000 + c) + "  0\n"), std::string::npos) << c;

    // A dump whose arguments are damaged, huge or unreadable is still a report.
    const std::u16string lone = {0xd800, u'x', 0xdfff};
    const struct {
        std::function<void(Parcel&)> parcel;  // what follows the descriptor
        Reader reader;
        std::string expected;  // how the answer starts
    } cases[] = {
        {[](Parcel& p) { p.writeInt32(INT32_MAX); }, Reader::Reads, "vekd report\n"},  // huge count, no arguments
        {[](Parcel& p) { p.writeInt32(-5); }, Reader::Reads, "vekd report\n"},
        {[&](Parcel& p) { p.writeInt32(1), p.writeString16(lone.data(), lone.size()); }, Reader::Reads, "note: 1 unknown argument ignored: '"},
        {[&](Parcel& p) { p.writeInt32(1), p.writeString16(String16(("b" + std::string(450 * 1024, 'a')).c_str())); }, Reader::Reads, "note: 1 unknown argument ignored: 'b" + std::string(31, 'a') + "...'"},
        {[](Parcel& p) { p.writeInt32(1), p.writeString16(String16("x")), p.writeString16(String16("--help")); }, Reader::Reads, "note: 1 unknown argument ignored: 'x'"},  // only the count is read
        {[](Parcel& p) { p.writeInt32(8); for (int i = 0; i < 8; ++i) p.writeString16(String16(std::string(40, 'x').c_str())); }, Reader::Reads, "note: 8 unknown arguments ignored: '" + std::string(32, 'x') + "...' '"},
        {[](Parcel& p) { p.writeInt32(2), p.writeInt32(1 << 30); }, Reader::Reads, "vekd report\n"},  // damaged argument
        {noArgs, Reader::Gone, "status " + std::to_string(android::FAILED_TRANSACTION)},
        {noArgs, Reader::Stuck, "status " + std::to_string(android::TIMED_OUT)},  // given up after 5 s
        {noArgs, Reader::File, "status " + std::to_string(android::BAD_VALUE)},  // only a pipe or a socket
    };
    for (const auto& c : cases) EXPECT_EQ(takeDump(lookUp(), c.parcel, c.reader).rfind(c.expected, 0), 0u) << c.expected;
    Parcel data, reply;  // no descriptor where one belongs
    data.writeInt32(0);
    EXPECT_EQ(lookUp()->transact(android::IBinder::DUMP_TRANSACTION, data, &reply), android::BAD_TYPE);
    EXPECT_EQ(lookUp()->pingBinder(), android::NO_ERROR);
    EXPECT_EQ(String8(lookUp()->getInterfaceDescriptor()), String8(IVekd::descriptor));

    vekd::binder::resetForTesting();
}

// One deadline for the report's whole text: a reader taking a page every
// 50 ms from a full pipe would need two seconds for this one, and gets 300 ms.
TEST(DumpWriter, AReaderSlowerThanTheDeadlineIsGivenUp) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    for (const std::string page(4096, 'x'); write(fds[1], page.data(), page.size()) > 0;) continue;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        for (char buf[4096]; !done; usleep(50000)) EXPECT_NE(read(fds[0], buf, sizeof(buf)), 0);
    });
    errno = 0;
    EXPECT_FALSE(vekd::platform::writeToPeer(fds[1], std::string(40 * 4096, 'y'), 300));
    EXPECT_EQ(errno, ETIMEDOUT);
    done = true;
    reader.join();
    close(fds[0]), close(fds[1]);
}

}  // namespace
