// The socket transport: a published service called through the binder API and
// by raw peers that misbehave; the client facing raw services that answer badly.
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/binder/HostBinder.h"
#include "platform/binder/SocketOps.h"
#include "platform/binder/Wire.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

using namespace android;
constexpr size_t kMiB = 1 << 20;  // the longest frame after its length word

namespace {

const std::vector<uint8_t> kPingReply = {8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};  // status 0, answer 0
enum : uint32_t { kEcho = 1, kGate = 2, kBig = 3, kUnknown = 40 };

// Echoes with its caller's pid and uid, answers with as many bytes as asked, or holds calls at a gate to count them.
class TestService : public BBinder {
  public:
    const String16& getInterfaceDescriptor() const override { return m_descriptor; }
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code == kBig) {
            const std::vector<uint8_t> bytes(static_cast<size_t>(data.readInt32()), 'r');
            return reply->write(bytes.data(), bytes.size());
        }
        if (code == kEcho) {
            if (!data.checkInterface(this)) return PERMISSION_DENIED;
            reply->writeInt32(data.readInt32() + 1);
            reply->writeInt32(IPCThreadState::self()->getCallingPid());
            return reply->writeInt32(static_cast<int32_t>(IPCThreadState::self()->getCallingUid()));
        } else if (code != kGate) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        const int now = ++m_inFlight;
        for (int max = m_maxInFlight; now > max && !m_maxInFlight.compare_exchange_weak(max, now);) {
        }
        for (int i = 0; i < 2000 && !m_open; ++i) usleep(10000);
        --m_inFlight;
        return NO_ERROR;
    }

    const String16 m_descriptor{"vekd.test.IEcho"};
    std::atomic<int> m_inFlight{0}, m_maxInFlight{0};
    std::atomic<bool> m_open{false};
};

// A raw Unix stream socket, connected or listening, closed with the object.
struct RawSocket {
    RawSocket(const std::string& path, bool listening) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        auto* a = reinterpret_cast<sockaddr*>(&addr);
        EXPECT_EQ(listening ? bind(fd, a, sizeof(addr)) | listen(fd, 8) : connect(fd, a, sizeof(addr)), 0);
        const timeval tenSeconds{10, 0};  // a broken test fails instead of hanging
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tenSeconds, sizeof(tenSeconds));
    }
    ~RawSocket() { close(fd); }
    // True once the other side has closed the connection; replies before that are skipped.
    bool closedByPeer() {
        uint8_t bytes[64];
        ssize_t n;
        while ((n = recv(fd, bytes, sizeof(bytes), 0)) > 0) {
        }
        return n == 0;
    }
    int fd;
};

std::vector<uint8_t> frame(uint32_t code, uint32_t flags, const Parcel& data = Parcel()) {
    std::vector<uint8_t> out;
    const uint32_t words[] = {code, flags};
    vekd::binder::wire::appendFrame(&out, words, 2, data.data(), data.dataSize());
    return out;
}

Parcel& echoRequest(Parcel& data, int32_t value) {
    data.writeInterfaceToken(String16("vekd.test.IEcho"));
    data.writeInt32(value);
    return data;
}

// The echo service published and served by the pool. A driver that was shut down before must serve like a new one.
class BinderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        vekd::binder::resetForTesting();
        const mode_t umaskBefore = umask(077);  // a restrictive starter changes no mode
        ProcessState::initWithDriver("/dev/vndbinder");
        ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
        umask(umaskBefore);
        struct stat dir {}, sock {};
        ASSERT_EQ(stat(m_root.at("/dev/vndbinder").c_str(), &dir) | stat(m_root.at("/dev/vndbinder/echo").c_str(), &sock), 0);
        ASSERT_EQ(std::make_pair(dir.st_mode & 07777, sock.st_mode & 07777), std::make_pair(mode_t{0755}, mode_t{0660}));
        ProcessState::self()->startThreadPool();
        ASSERT_NE(m_binder = defaultServiceManager()->checkService(String16("echo")), nullptr);
    }
    void TearDown() override {
        m_service->m_open = true;
        vekd::binder::resetForTesting();
    }
    vekd::test::TempRoot m_root;
    sp<TestService> m_service = new TestService();
    sp<IBinder> m_binder;
};

TEST_F(BinderTest, TransactionsAreAnsweredOverAClosedOnExecSocketUntilTheServiceIsGone) {
    ASSERT_NE(m_binder->remoteBinder(), nullptr) << "calls must go through the socket";
    Parcel data, reply;
    ASSERT_EQ(m_binder->transact(kEcho, echoRequest(data, 41), &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 42);
    EXPECT_EQ(reply.readInt32(), getpid()) << "the caller, known by its peer credentials";
    EXPECT_EQ(reply.readInt32(), static_cast<int32_t>(getuid()));
    int sockets = 0;  // listener, both ends of the connection; scanned while no connection closes
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        struct stat st;
        if (fd <= 2 || fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
        ++sockets;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << "socket fd " << fd;
    }
    EXPECT_GE(sockets, 3);
    Parcel big;  // a request up to a mebibyte is sent, one word more is refused before sending
    echoRequest(big, 1);
    const std::vector<uint8_t> payload(kMiB - 8 - big.dataSize(), 'x');  // fills the frame after code and flags
    big.write(payload.data(), payload.size());
    ASSERT_EQ(m_binder->transact(kEcho, big, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 2);
    big.writeInt32(0);
    vekd::test::LogCapture log;
    EXPECT_EQ(m_binder->transact(kEcho, big, &reply), FAILED_TRANSACTION);
    EXPECT_TRUE(log.contains("parcel of " + std::to_string(big.dataSize()) + " bytes is too long"));
    // A reply up to a mebibyte after its status arrives; a longer one, or one
    // to a peer that stops reading for the stall time, closes the connection.
    for (const auto& [size, status] : {std::make_pair(kMiB - 4, NO_ERROR), std::make_pair(kMiB, DEAD_OBJECT)}) {
        Parcel ask;
        ask.writeInt32(static_cast<int32_t>(size));
        EXPECT_EQ(m_binder->transact(kBig, ask, &reply), status) << size;
        EXPECT_TRUE(status != NO_ERROR || reply.dataSize() == size);
    }
    vekd::binder::setStallTimeoutForTesting(200);
    RawSocket stuck(vekd::binder::socketPath("echo"), false);
    Parcel ask;
    ask.writeInt32(static_cast<int32_t>(kMiB - 4));
    const std::vector<uint8_t> askFrame = frame(kBig, 0, ask);
    ASSERT_EQ(send(stuck.fd, askFrame.data(), askFrame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(askFrame.size()));
    pollfd hangUp = {stuck.fd, POLLRDHUP, 0};  // seen with the reply's start still unread
    EXPECT_EQ(poll(&hangUp, 1, 10000), 1);
    size_t got = 0;
    uint8_t chunk[65536];
    for (ssize_t n; (n = recv(stuck.fd, chunk, sizeof(chunk), 0)) > 0;) got += static_cast<size_t>(n);
    EXPECT_LT(got, kMiB) << "the reply was given up, and its connection closed";
    // A local call starts reading its data from the beginning, and so does its caller the reply.
    Parcel local;
    ASSERT_EQ(m_service->transact(kEcho, echoRequest(local, 6), &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 7);

    vekd::test::FakeClock clock;
    EXPECT_EQ(defaultServiceManager()->getService(String16("absent")), nullptr);
    EXPECT_TRUE(log.contains("Waiting for service 'absent'...")) << "said once, before the retries";
    EXPECT_EQ(clock.sleeps(), std::vector<uint64_t>(50, 100000)) << "five seconds, as on a device";
    for (const char* outside : {"../etc", "../vndbinder/echo"}) EXPECT_EQ(defaultServiceManager()->checkService(String16(outside)), nullptr);
    EXPECT_FALSE(defaultServiceManager()->isDeclared(String16("echo")));
    const String16 tooLong(std::string(110, 'n').c_str());  // a socket path longer than an address holds
    EXPECT_EQ(defaultServiceManager()->checkService(tooLong), nullptr);
    EXPECT_NE(defaultServiceManager()->addService(tooLong, m_service), NO_ERROR);


    // A daemon may start with descriptor 0 closed; a socket that gets it is as good as any other.
    const int saved = dup(0);
    close(0);
    sp<IBinder> zero = defaultServiceManager()->checkService(String16("echo"));  // connects on 0
    ASSERT_NE(zero, nullptr);
    Parcel request;
    ASSERT_EQ(zero->transact(kEcho, echoRequest(request, 1), &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 2);
    vekd::binder::resetForTesting();  // the service is gone
    EXPECT_EQ(m_binder->pingBinder(), DEAD_OBJECT);
    ProcessState::initWithDriver("/dev/vndbinder");
    EXPECT_EQ(defaultServiceManager()->checkService(String16("echo")), nullptr);
    EXPECT_EQ(defaultServiceManager()->addService(String16("zero"), m_service), NO_ERROR);  // listens on 0
    vekd::binder::resetForTesting();
    if (saved >= 0) dup2(saved, 0);
    close(saved);
}

// A root where the service directory cannot be made is said so.
TEST(BinderRoot, AServiceDirectoryThatCannotBeMadeIsReported) {
    vekd::test::TempRoot root;
    root.writeFile("/dev", "a file where a directory belongs");
    vekd::binder::resetForTesting();
    vekd::test::LogCapture log;
    ProcessState::initWithDriver("/dev/vndbinder");
    EXPECT_TRUE(log.contains("initWithDriver: cannot create " + root.at("/dev/vndbinder")));  // the next SetUp resets
}

// Sixteen descriptors ride with a frame, the last object ending its parcel;
// a seventeenth, even in a later message, closes the connection at once.
TEST_F(BinderTest, PeersWithTooManyDescriptorsOrBrokenFramesLoseOnlyTheirOwnConnection) {
    vekd::test::LogCapture log;
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    Parcel data, reply;
    for (int i = 0; i < 16; ++i) data.writeFileDescriptor(pipeFds[0]);
    EXPECT_EQ(m_binder->transact(kUnknown, data, &reply), UNKNOWN_TRANSACTION);
    const std::string path = vekd::binder::socketPath("echo");
    RawSocket many(path, false);
    const std::vector<uint8_t> bytes = frame(kUnknown, 0, data);
    const std::vector<int> fds(16, pipeFds[1]);
    vekd::binder::SocketOps& ops = vekd::binder::SocketOps::real();
    ASSERT_EQ(ops.sendWithFds(many.fd, bytes.data(), 1, fds.data(), 16), 1);
    ASSERT_GT(ops.sendWithFds(many.fd, bytes.data() + 1, bytes.size() - 1, fds.data(), 1), 0);
    EXPECT_TRUE(many.closedByPeer());
    EXPECT_TRUE(log.contains("closing a connection that sent more than 16 descriptors"));
    EXPECT_FALSE(log.contains("stalled")) << "closed when the surplus came, not by the stall timer";
    close(pipeFds[0]);
    close(pipeFds[1]);

    RawSocket peer(path, false);  // a ping, then a frame that cannot hold code and flags
    std::vector<uint8_t> sent = frame(IBinder::PING_TRANSACTION, 0);
    sent.insert(sent.end(), {4, 0, 0, 0, 1, 0, 0, 0});
    ASSERT_EQ(send(peer.fd, sent.data(), sent.size(), MSG_NOSIGNAL), static_cast<ssize_t>(sent.size()));
    std::vector<uint8_t> answer(12);
    EXPECT_EQ(recv(peer.fd, answer.data(), answer.size(), MSG_WAITALL), 12);
    EXPECT_EQ(answer, kPingReply);
    EXPECT_TRUE(peer.closedByPeer());
    EXPECT_EQ(m_binder->pingBinder(), NO_ERROR);
}

// The client facing services that answer badly: the caller gets a status,
// and a call that may have reached the service is never sent twice.
TEST_F(BinderTest, BadRepliesEndTheCallWithAStatus) {
    const struct {
        std::vector<uint8_t> answer;
        status_t status;
        int requests;
        bool hangUpFirst;  // the pooled connection is closed before the call
    } cases[] = {
        {{4, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff}, -2, 1, false},  // a status is passed on
        {{4, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff}, -2, 1, true},   // refused send: tried afresh once
        {{}, DEAD_OBJECT, 2, false},                           // closed before a reply: tried afresh once
        {{8, 0, 0}, DEAD_OBJECT, 1, false},                    // part of a header
        {{3, 0, 0, 0, 0, 0, 0, 0}, DEAD_OBJECT, 1, false},     // too short for a status
        {{0, 0, 0x20, 0, 0, 0, 0, 0}, DEAD_OBJECT, 1, false},  // 2 MiB announced
        {{8, 0, 0, 0, 0, 0, 0, 0, 1, 2}, DEAD_OBJECT, 1, false},  // body cut short
    };
    int n = 0;
    for (const auto& c : cases) {
        const std::string name = "raw" + std::to_string(n++);
        RawSocket raw(vekd::binder::socketPath(name), true);
        std::atomic<int> requests{0}, hungUp{0};
        std::atomic<bool> done{false};
        std::thread server([&] {  // answers the first request of each connection, then closes it
            for (pollfd p = {raw.fd, POLLIN, 0}; !done; p.revents = 0) {
                if (poll(&p, 1, 50) <= 0) continue;
                const int conn = accept(raw.fd, nullptr, nullptr);
                uint8_t request[12];
                if (c.hangUpFirst && hungUp == 0) {
                    close(conn);
                    ++hungUp;
                    continue;
                }
                if (recv(conn, request, sizeof(request), MSG_WAITALL) == sizeof(request)) ++requests;
                (void)::send(conn, c.answer.data(), c.answer.size(), MSG_NOSIGNAL);
                close(conn);
            }
        });
        sp<IBinder> binder = defaultServiceManager()->checkService(String16(name.c_str()));
        for (int i = 0; c.hangUpFirst && hungUp == 0 && i < 1000; ++i) usleep(10000);
        Parcel reply;
        EXPECT_EQ(binder ? binder->transact(kEcho, Parcel(), &reply) : NAME_NOT_FOUND, c.status) << name;
        done = true;
        server.join();
        EXPECT_EQ(requests.load(), c.requests) << name;
    }
}

// Work queued before the first pool thread joins: sixteen at once, whatever the pool size.
TEST_F(BinderTest, StaleSocketIsReplacedOtherFilesAreNotAndQueuedWorkRunsSixteenAtOnce) {
    vekd::binder::resetForTesting();  // a process without a pool
    const auto openFds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = openFds();
    vekd::test::LogCapture log;
    EXPECT_EQ(ProcessState::initWithDriver(nullptr), nullptr);
    EXPECT_TRUE(log.contains("initWithDriver: '(null)' is not an absolute path"));
    ProcessState::initWithDriver("/dev/vndbinder");
    ProcessState::self()->setThreadPoolMaxThreadCount(30);
    RawSocket(vekd::binder::socketPath("echo"), true);  // the file stays, nobody listens
    EXPECT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    std::atomic<int> ok{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 20; ++i) callers.emplace_back([&] { ok += binder->transact(kGate, Parcel(), nullptr) == NO_ERROR; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // queued before any pool thread joins
    std::thread looper([] { IPCThreadState::self()->joinThreadPool(); });
    for (int i = 0; i < 1000 && m_service->m_inFlight < 16; ++i) usleep(10000);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the other four must wait
    m_service->m_open = true;
    for (auto& t : callers) t.join();
    EXPECT_EQ(ok.load(), 20);
    EXPECT_EQ(m_service->m_maxInFlight, 16);
    int named = 0, misnamed = 0;  // every pool thread carries the platform's name, "Binder:<pid>_<n>"
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string comm = vekd::test::readFile(task.path().string() + "/comm");
        if (comm.rfind("Binder:", 0) == 0 || comm.rfind("inder:", 0) == 0) ++(comm.rfind(("Binder:" + std::to_string(getpid()) + "_").substr(0, 15), 0) == 0 ? named : misnamed);
    }
    EXPECT_EQ(std::make_pair(named >= 16, misnamed), std::make_pair(true, 0));

    m_root.writeFile("/dev/vndbinder/notes", "not a socket");
    EXPECT_EQ(defaultServiceManager()->addService(String16("notes"), m_service), -EEXIST);
    RawSocket live(vekd::binder::socketPath("live"), true);  // answered by someone else
    log.clear();
    EXPECT_EQ(defaultServiceManager()->addService(String16("live"), m_service), ALREADY_EXISTS);
    EXPECT_TRUE(log.contains("publish: " + vekd::binder::socketPath("live") + " is served by another process"));
    EXPECT_NE(defaultServiceManager()->addService(String16("a/b"), m_service), NO_ERROR);
    EXPECT_NE(defaultServiceManager()->addService(String16("proxy"), binder), NO_ERROR);
    binder.clear();
    vekd::binder::resetForTesting();  // makes the looper leave
    looper.join();
    EXPECT_EQ(openFds(), before + 1) << "only the live raw socket is still open";
}

}  // namespace
