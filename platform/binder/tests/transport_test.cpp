// The socket transport: a service published through defaultServiceManager()
// and called through the binder API, by raw peers that misbehave, and a client
// facing raw services that answer badly. One fixture per concern.
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/binder/HostBinder.h"
#include "platform/binder/SocketOps.h"
#include "platform/binder/Wire.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

using namespace android;
using vekd::binder::wire::getU32;
using vekd::binder::wire::kMaxFrameBytes;

namespace {

enum : uint32_t { kEcho = 1, kWhoCalls = 2, kRecord = 3, kGate = 4, kFail = 5, kBytes = 6 };

// Echoes, reports its caller, records one-way calls, answers with N bytes,
// and holds calls at a gate to see how many run at once.
class TestService : public BBinder {
  public:
    const String16& getInterfaceDescriptor() const override { return m_descriptor; }
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        switch (code) {
            case kEcho: {
                if (!data.checkInterface(this)) return PERMISSION_DENIED;
                reply->writeInt32(data.readInt32() + 1);
                const char* text = data.readCString();
                return reply->writeCString(text ? text : "<none>");
            }
            case kWhoCalls:
                reply->writeInt32(IPCThreadState::self()->getCallingPid());
                return reply->writeInt32(static_cast<int32_t>(IPCThreadState::self()->getCallingUid()));
            case kRecord:
                m_recorded.push_back(data.readInt32());
                break;
            case kGate:
                m_maxInFlight = std::max(m_maxInFlight, ++m_inFlight);
                m_changed.notify_all();
                m_changed.wait_for(lock, std::chrono::seconds(20), [this] { return m_open; });
                --m_inFlight;
                break;
            case kFail:
                return BAD_VALUE;
            case kBytes: {
                std::vector<uint8_t> bytes(static_cast<size_t>(data.readInt32()));
                for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i % 251);
                return reply->write(bytes.data(), bytes.size());
            }
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
        m_changed.notify_all();
        return NO_ERROR;
    }
    // Waits (bounded) until `pred` holds under the service's lock.
    template <class Pred>
    bool waitFor(Pred pred) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(10), pred);
    }
    void openGate() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

    const String16 m_descriptor{"vekd.test.IEcho"};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int32_t> m_recorded;
    int m_inFlight = 0;
    int m_maxInFlight = 0;
    bool m_open = false;
};

int unixSocket(const std::string& path, bool listening) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    const bool ok = listening ? bind(fd, a, sizeof(addr)) == 0 && listen(fd, 8) == 0
                              : connect(fd, a, sizeof(addr)) == 0;
    EXPECT_TRUE(ok) << path;
    return fd;
}

bool readExactly(int fd, uint8_t* out, size_t size) {
    for (size_t got = 0; got < size;) {
        pollfd p = {fd, POLLIN, 0};
        ssize_t n = poll(&p, 1, 10000) > 0 ? recv(fd, out + got, size - got, 0) : -1;
        if (n <= 0) return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

std::vector<uint8_t> frame(const std::vector<uint32_t>& words, const Parcel& data) {
    std::vector<uint8_t> out;
    vekd::binder::wire::appendFrame(&out, words.data(), words.size(), data.data(), data.dataSize());
    return out;
}

// A client that speaks the socket protocol by hand.
class RawPeer {
  public:
    explicit RawPeer(const std::string& path) : m_fd(unixSocket(path, false)) {}
    ~RawPeer() { close(m_fd); }
    bool send(const std::vector<uint8_t>& bytes) {
        return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // The status of the next reply frame, its body in *body; false when none came.
    bool readReply(int32_t* status, std::vector<uint8_t>* body) {
        uint8_t header[8];
        if (!readExactly(m_fd, header, 8)) return false;
        *status = static_cast<int32_t>(getU32(header + 4));
        body->resize(getU32(header) - 4);
        return readExactly(m_fd, body->data(), body->size());
    }
    // True once the service has closed this connection.
    bool closedByService() {
        pollfd p = {m_fd, POLLIN, 0};
        uint8_t byte;
        return poll(&p, 1, 10000) > 0 && recv(m_fd, &byte, 1, MSG_DONTWAIT) <= 0;
    }

  private:
    int m_fd;
};

// A service answered by hand: every connection gets `answer` written back
// after its first request, then is closed.
class RawService {
  public:
    RawService(const std::string& path, std::vector<uint8_t> answer)
        : m_fd(unixSocket(path, true)), m_thread([this, answer] {
              while (!m_stop) {
                  pollfd p = {m_fd, POLLIN, 0};
                  if (poll(&p, 1, 50) <= 0) continue;
                  int conn = accept(m_fd, nullptr, nullptr);
                  uint8_t request[12];
                  if (readExactly(conn, request, sizeof(request))) ++m_requests;
                  (void)::send(conn, answer.data(), answer.size(), MSG_NOSIGNAL);
                  close(conn);
              }
          }) {}
    ~RawService() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    std::atomic<int> m_requests{0};

  private:
    int m_fd;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// The echo service published and served by the pool.
class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // A driver that was shut down before must serve like a new one.
        vekd::binder::resetForTesting();
        ASSERT_NE(ProcessState::initWithDriver("/dev/vndbinder"), nullptr);
        m_service = new TestService();
        ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
        ProcessState::self()->startThreadPool();
        m_binder = defaultServiceManager()->checkService(String16("echo"));
        ASSERT_NE(m_binder, nullptr);
    }
    void TearDown() override {
        m_service->openGate();
        vekd::binder::resetForTesting();
    }
    bool pingOk() {
        sp<IBinder> b = defaultServiceManager()->checkService(String16("echo"));
        return b != nullptr && b->pingBinder() == NO_ERROR;
    }

    vekd::test::TempRoot m_root;
    sp<TestService> m_service;
    sp<IBinder> m_binder;
};

TEST_F(ServiceTest, StandardAndOwnTransactionsAreAnsweredOverTheSocket) {
    struct stat st;
    ASSERT_EQ(stat(m_root.at("/dev/vndbinder/echo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    ASSERT_NE(m_binder->remoteBinder(), nullptr) << "calls must go through the socket";
    EXPECT_EQ(m_binder->getInterfaceDescriptor(), String16("vekd.test.IEcho"));

    Parcel data, reply;
    data.writeInterfaceToken(String16("vekd.test.IEcho"));
    data.writeInt32(41);
    data.writeCString("wlan0");
    ASSERT_EQ(m_binder->transact(kEcho, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 42);
    EXPECT_STREQ(reply.readCString(), "wlan0");
    const std::pair<uint32_t, status_t> refused[] = {
        {0, UNKNOWN_TRANSACTION}, {0x00123456, UNKNOWN_TRANSACTION}, {kFail, BAD_VALUE}};
    for (auto [code, status] : refused) {
        EXPECT_EQ(m_binder->transact(code, Parcel(), &reply), status) << code;
    }

    ASSERT_EQ(m_binder->transact(kWhoCalls, Parcel(), &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), getpid());
    EXPECT_EQ(reply.readInt32(), static_cast<int32_t>(getuid()));
    // Outside a transaction a thread is its own caller.
    EXPECT_EQ(IPCThreadState::self()->getCallingPid(), getpid());

    EXPECT_EQ(defaultServiceManager()->checkService(String16("absent")), nullptr);
    EXPECT_EQ(defaultServiceManager()->checkService(String16("../etc")), nullptr);
    EXPECT_EQ(defaultServiceManager()->getService(String16("echo"))->pingBinder(), NO_ERROR);
    Vector<String16> names = defaultServiceManager()->listServices();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0], String16("echo"));
}

TEST_F(ServiceTest, OneWayCallsGetNoReply) {
    Parcel five;
    five.writeInt32(5);
    EXPECT_EQ(m_binder->transact(kRecord, five, nullptr, IBinder::FLAG_ONEWAY), NO_ERROR);
    EXPECT_TRUE(m_service->waitFor([&] { return m_service->m_recorded.size() == 1; }));

    // On the wire: the first reply after a one-way request belongs to the ping that followed it.
    RawPeer peer(vekd::binder::socketPath("echo"));
    Parcel six;
    six.writeInt32(6);
    std::vector<uint8_t> bytes = frame({kRecord, IBinder::FLAG_ONEWAY}, six);
    const std::vector<uint8_t> ping = frame({IBinder::PING_TRANSACTION, 0}, Parcel());
    bytes.insert(bytes.end(), ping.begin(), ping.end());
    ASSERT_TRUE(peer.send(bytes));
    int32_t status = -1;
    std::vector<uint8_t> body;
    ASSERT_TRUE(peer.readReply(&status, &body));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(body, (std::vector<uint8_t>{0, 0, 0, 0}));
    std::lock_guard<std::mutex> lock(m_service->m_mutex);
    EXPECT_EQ(m_service->m_recorded, (std::vector<int32_t>{5, 6}));
}

TEST_F(ServiceTest, SixteenTransactionsRunAtOnceAndNoMore) {
    ProcessState::self()->setThreadPoolMaxThreadCount(30);
    std::atomic<int> ok{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 20; ++i) {
        callers.emplace_back([&ok] {
            sp<IBinder> b = defaultServiceManager()->checkService(String16("echo"));
            Parcel reply;
            if (b != nullptr && b->transact(kGate, Parcel(), &reply) == NO_ERROR) ++ok;
        });
    }
    EXPECT_TRUE(m_service->waitFor([&] { return m_service->m_inFlight == 16; }));
    // Give the other four every chance to start; they must wait instead.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    m_service->openGate();
    for (auto& t : callers) t.join();
    EXPECT_EQ(ok.load(), 20);
    EXPECT_EQ(m_service->m_maxInFlight, 16);
}

TEST_F(ServiceTest, FramesUpToOneMebibyteAreCarriedBothWays) {
    const size_t largest = kMaxFrameBytes - 8;  // after code and flags
    std::vector<uint8_t> payload(largest, 'x');
    payload[largest - 8] = 0;  // a C string that fills the frame
    Parcel data, reply;
    data.writeInterfaceToken(String16("vekd.test.IEcho"));
    data.writeInt32(1);
    data.write(payload.data(), largest - data.dataSize());
    ASSERT_EQ(data.dataSize(), largest);
    ASSERT_EQ(m_binder->transact(kEcho, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 2);
    data.writeInt32(0);  // one word too many: refused before sending
    EXPECT_EQ(m_binder->transact(kEcho, data, &reply), FAILED_TRANSACTION);

    // A reply arrives in many pieces and is stored whole; one word too long
    // loses the connection rather than leaving the caller waiting.
    Parcel ask;
    ask.writeInt32(static_cast<int32_t>(kMaxFrameBytes - 4));
    ASSERT_EQ(m_binder->transact(kBytes, ask, &reply), NO_ERROR);
    ASSERT_EQ(reply.dataSize(), kMaxFrameBytes - 4);
    for (size_t i = 0; i < reply.dataSize(); i += 4093) ASSERT_EQ(size_t{reply.data()[i]}, i % 251) << i;
    ask.setDataPosition(0);
    ask.writeInt32(static_cast<int32_t>(kMaxFrameBytes));
    EXPECT_EQ(m_binder->transact(kBytes, ask, &reply), DEAD_OBJECT);
    EXPECT_TRUE(pingOk());
}

TEST_F(ServiceTest, MisbehavingPeersLoseOnlyTheirOwnConnection) {
    const std::string path = vekd::binder::socketPath("echo");
    const std::vector<std::vector<uint8_t>> bad = {
        {'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '\r', '\n'},
        {0, 0, 0x20, 0, 1, 0, 0, 0, 0, 0, 0, 0},  // announces 2 MiB
        {4, 0, 0, 0, 1, 0, 0, 0},                 // cannot hold code and flags
    };
    for (const auto& bytes : bad) {
        RawPeer peer(path);
        ASSERT_TRUE(peer.send(bytes));
        EXPECT_TRUE(peer.closedByService()) << bytes.size();
    }
    RawPeer(path).send({100, 0, 0, 0, 1, 0});  // half a frame, then gone
    EXPECT_EQ(m_binder->pingBinder(), NO_ERROR);

    // A peer that stalls in the middle of a frame is cut off; one that pauses
    // between whole frames is not.
    vekd::binder::setStallTimeoutForTesting(300);
    RawPeer staller(path), idle(path);
    ASSERT_TRUE(staller.send({16, 0, 0, 0, 1, 0}));
    EXPECT_TRUE(pingOk());
    EXPECT_TRUE(staller.closedByService());
    int32_t status = -1;
    std::vector<uint8_t> body;
    for (int round = 0; round < 2; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        ASSERT_TRUE(idle.send(frame({IBinder::PING_TRANSACTION, 0}, Parcel())));
        ASSERT_TRUE(idle.readReply(&status, &body)) << round;
        EXPECT_EQ(status, 0);
    }
}

TEST_F(ServiceTest, GoneServiceIsReportedDead) {
    vekd::binder::resetForTesting();
    EXPECT_EQ(m_binder->pingBinder(), DEAD_OBJECT);
    EXPECT_FALSE(m_binder->isBinderAlive());
    EXPECT_EQ(defaultServiceManager()->checkService(String16("echo")), nullptr);
}

TEST_F(ServiceTest, EverySocketIsClosedOnExec) {
    int sockets = 0;
    DIR* dir = opendir("/proc/self/fd");
    ASSERT_NE(dir, nullptr);
    while (struct dirent* entry = readdir(dir)) {
        const int fd = atoi(entry->d_name);
        struct stat st;
        if (fd <= 2 || fd == dirfd(dir) || fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
        ++sockets;
        EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << "socket fd " << fd;
    }
    closedir(dir);
    EXPECT_GE(sockets, 3);  // listener, both ends of the connection
}

// The client against services that answer badly: the caller gets a status,
// and a call that may have reached the service is never sent twice.
class ClientTest : public ::testing::Test {
  protected:
    void TearDown() override { vekd::binder::resetForTesting(); }
    vekd::test::TempRoot m_root;
};

TEST_F(ClientTest, BadRepliesEndTheCallWithAStatus) {
    struct Case {
        std::vector<uint8_t> answer;
        status_t status;
        int requests;
    } cases[] = {
        {{4, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff}, -2, 1},  // a status is passed on
        {{}, DEAD_OBJECT, 2},                           // closed before a reply: tried afresh once
        {{8, 0, 0}, DEAD_OBJECT, 1},                    // part of a header
        {{3, 0, 0, 0, 0, 0, 0, 0}, DEAD_OBJECT, 1},     // too short for a status
        {{0, 0, 0x20, 0, 0, 0, 0, 0}, DEAD_OBJECT, 1},  // 2 MiB announced
        {{8, 0, 0, 0, 0, 0, 0, 0, 1, 2}, DEAD_OBJECT, 1},  // body cut short
    };
    ProcessState::initWithDriver("/dev/vndbinder");
    int n = 0;
    for (const Case& c : cases) {
        const std::string name = "raw" + std::to_string(n++);
        RawService raw(vekd::binder::socketPath(name), c.answer);
        sp<IBinder> binder = defaultServiceManager()->checkService(String16(name.c_str()));
        ASSERT_NE(binder, nullptr) << name;
        Parcel reply;
        EXPECT_EQ(binder->transact(kEcho, Parcel(), &reply), c.status) << name;
        EXPECT_EQ(raw.m_requests.load(), c.requests) << name;
    }
}

// Publishing, and serving on a platform whose calls fail now and then.
class PublishTest : public ::testing::Test {
  protected:
    void SetUp() override { ProcessState::initWithDriver("/dev/vndbinder"); }
    void TearDown() override { vekd::binder::resetForTesting(); }
    vekd::test::TempRoot m_root;
    sp<TestService> m_service = new TestService();
};

TEST_F(PublishTest, StaleSocketIsReplacedButOtherFilesAreNot) {
    close(unixSocket(vekd::binder::socketPath("echo"), true));  // the file stays, nobody listens
    EXPECT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    EXPECT_EQ(binder->pingBinder(), NO_ERROR);

    m_root.writeFile("/dev/vndbinder/notes", "not a socket");
    EXPECT_NE(defaultServiceManager()->addService(String16("notes"), m_service), NO_ERROR);
    EXPECT_NE(defaultServiceManager()->addService(String16("a/b"), m_service), NO_ERROR);
    EXPECT_NE(defaultServiceManager()->addService(String16("proxy"), binder), NO_ERROR);
}

TEST_F(PublishTest, PoolServesFromAThreadThatJoinedIt) {
    ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
    std::thread looper([] { IPCThreadState::self()->joinThreadPool(); });
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    EXPECT_EQ(binder->pingBinder(), NO_ERROR);
    vekd::binder::resetForTesting();  // makes the looper leave
    looper.join();
}

// accept() failing (out of descriptors, say) must neither spin nor stop the
// service; calls interrupted by signals are resumed; a caller without
// credentials is served as unknown.
class FaultyOps : public vekd::binder::SocketOps {
  public:
    int socket(bool nb) override { return real().socket(nb); }
    int bind(int fd, const std::string& p) override { return real().bind(fd, p); }
    int listen(int fd, int b) override { return real().listen(fd, b); }
    int accept(int fd) override {
        if (m_acceptFailures.fetch_sub(1) > 0) return errno = EMFILE, -1;
        return real().accept(fd);
    }
    int connect(int fd, const std::string& p) override { return real().connect(fd, p); }
    int socketPair(int fds[2]) override {
        const int rc = real().socketPair(fds);
        m_wake[0] = fds[0], m_wake[1] = fds[1];
        return rc;
    }
    // Every other send and receive of each thread is interrupted (not the
    // driver's wake-up channel, whose sends never block).
    bool interrupted(int fd) {
        thread_local bool toggle = false;
        if (fd == m_wake[0] || fd == m_wake[1]) return false;
        toggle = !toggle;
        if (toggle) errno = EINTR;
        return toggle;
    }
    ssize_t recv(int fd, void* b, size_t n) override { return interrupted(fd) ? -1 : real().recv(fd, b, n); }
    ssize_t send(int fd, const void* b, size_t n) override { return interrupted(fd) ? -1 : real().send(fd, b, n); }
    int poll(struct pollfd* f, nfds_t n, int t) override { return real().poll(f, n, t); }
    int close(int fd) override { return real().close(fd); }
    bool peerCredentials(int, pid_t*, uid_t*) override { return false; }
    bool removeSocketFile(const std::string& p) override { return real().removeSocketFile(p); }
    bool makeDirectories(const std::string& p) override { return real().makeDirectories(p); }
    int64_t monotonicMs() override { return real().monotonicMs(); }

    std::atomic<int> m_acceptFailures{3};
    int m_wake[2] = {-1, -1};
};

TEST_F(PublishTest, FailingAcceptInterruptedCallsAndMissingCredentialsAreSurvived) {
    vekd::test::LogCapture log;
    FaultyOps faulty;
    vekd::ScopedSeam<vekd::binder::SocketOps> seam(faulty);
    ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    Parcel reply;
    for (int call = 0; call < 3; ++call) {
        ASSERT_EQ(binder->transact(kWhoCalls, Parcel(), &reply), NO_ERROR) << call;
        EXPECT_EQ(reply.readInt32(), -1);  // unknown caller, not a crash
    }
    EXPECT_LE(faulty.m_acceptFailures.load(), 0);
    const std::string path = vekd::binder::socketPath("echo");
    EXPECT_TRUE(log.contains("accept on " + path + ": "));
    EXPECT_TRUE(log.contains("no peer credentials on " + path + ": "));
    vekd::binder::resetForTesting();
}

}  // namespace
