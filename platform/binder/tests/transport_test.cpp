// A service published through defaultServiceManager() and called over its
// socket, through the binder API and by raw peers that misbehave.
#define DO_NOT_CHECK_MANUAL_BINDER_INTERFACES

#include <binder/IInterface.h>
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
#include <cstdlib>
#include <cstring>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/binder/HostBinder.h"
#include "platform/binder/SocketOps.h"
#include "platform/binder/Wire.h"
#include "tests/support/TempRoot.h"

using namespace android;
using vekd::binder::wire::getU32;
using vekd::binder::wire::putU32;

namespace {

enum : uint32_t { kEcho = 1, kWhoCalls = 2, kRecord = 3, kGate = 4, kFail = 5 };

class ITestEcho : public IInterface {
  public:
    DECLARE_META_INTERFACE(TestEcho)
    virtual int32_t echo(int32_t value) = 0;
};

class BpTestEcho : public BpInterface<ITestEcho> {
  public:
    explicit BpTestEcho(const sp<IBinder>& impl) : BpInterface<ITestEcho>(impl) {}
    int32_t echo(int32_t value) override {
        Parcel data, reply;
        data.writeInterfaceToken(ITestEcho::getInterfaceDescriptor());
        data.writeInt32(value);
        data.writeCString("");
        if (remote()->transact(kEcho, data, &reply) != NO_ERROR) return -1;
        return reply.readInt32();
    }
};

IMPLEMENT_META_INTERFACE(TestEcho, "vekd.test.IEcho");

class BnTestEcho : public BnInterface<ITestEcho> {};

// Echoes, reports its caller, records one-way calls, and can hold calls at a
// gate to see how many run at once.
class TestService : public BnTestEcho {
  public:
    int32_t echo(int32_t value) override { return value + 1; }

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags) override {
        switch (code) {
            case kEcho: {
                if (!data.checkInterface(this)) return PERMISSION_DENIED;
                const int32_t value = data.readInt32();
                const char* text = data.readCString();
                reply->writeInt32(echo(value));
                reply->writeCString(text ? text : "<none>");
                return NO_ERROR;
            }
            case kWhoCalls:
                reply->writeInt32(IPCThreadState::self()->getCallingPid());
                reply->writeInt32(static_cast<int32_t>(IPCThreadState::self()->getCallingUid()));
                return NO_ERROR;
            case kRecord: {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_recorded.push_back(data.readInt32());
                m_changed.notify_all();
                return NO_ERROR;
            }
            case kGate: {
                std::unique_lock<std::mutex> lock(m_mutex);
                ++m_inFlight;
                m_maxInFlight = std::max(m_maxInFlight, m_inFlight);
                m_changed.notify_all();
                m_changed.wait_for(lock, std::chrono::seconds(20), [this] {
                    return m_open || (m_openAt > 0 && m_inFlight >= m_openAt);
                });
                if (m_openAt > 0 && m_inFlight >= m_openAt) m_open = true;
                m_changed.notify_all();
                --m_inFlight;
                return NO_ERROR;
            }
            case kFail:
                return BAD_VALUE;
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

    // Waits (bounded) until `pred` holds under the service's lock.
    template <class Pred>
    bool waitFor(Pred pred) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(10), [&] { return pred(); });
    }
    void openGateAt(int count) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_openAt = count;
    }
    void openGate() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int32_t> m_recorded;
    int m_inFlight = 0;
    int m_maxInFlight = 0;
    int m_openAt = 0;  // the gate opens by itself once this many wait at it
    bool m_open = false;
};

// A peer that speaks the socket protocol by hand.
class RawPeer {
  public:
    explicit RawPeer(const std::string& path) {
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    }
    ~RawPeer() { close(m_fd); }
    bool connected() const { return m_connected; }

    bool send(const std::vector<uint8_t>& bytes) {
        return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    static std::vector<uint8_t> request(uint32_t code, uint32_t flags, const Parcel& data) {
        std::vector<uint8_t> out;
        const uint32_t words[] = {code, flags};
        vekd::binder::wire::appendFrame(&out, words, 2, data.data(), data.dataSize());
        return out;
    }
    // The next reply frame; false when the connection closed or nothing came.
    bool readReply(int32_t* status, std::vector<uint8_t>* body) {
        uint8_t header[8];
        if (!readExactly(header, 8)) return false;
        *status = static_cast<int32_t>(getU32(header + 4));
        body->resize(getU32(header) - 4);
        return readExactly(body->data(), body->size());
    }
    // True once the service has closed this connection.
    bool closedByService(int timeoutMs = 10000) {
        pollfd p = {m_fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) return false;
        uint8_t byte;
        return recv(m_fd, &byte, 1, MSG_DONTWAIT) <= 0;
    }

  private:
    bool readExactly(uint8_t* out, size_t size) {
        size_t got = 0;
        while (got < size) {
            pollfd p = {m_fd, POLLIN, 0};
            if (poll(&p, 1, 10000) <= 0) return false;
            ssize_t n = recv(m_fd, out + got, size - got, 0);
            if (n <= 0) return false;
            got += static_cast<size_t>(n);
        }
        return true;
    }
    int m_fd;
    bool m_connected = false;
};

class BinderTransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(ProcessState::initWithDriver("/dev/vndbinder"), nullptr);
        m_service = new TestService();
        ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), m_service), NO_ERROR);
        ProcessState::self()->startThreadPool();
    }
    void TearDown() override {
        if (m_service != nullptr) m_service->openGate();
        vekd::binder::resetForTesting();
    }
    sp<IBinder> lookUp(const char* name = "echo") {
        return defaultServiceManager()->checkService(String16(name));
    }
    bool pingOk() {
        sp<IBinder> b = lookUp();
        return b != nullptr && b->pingBinder() == NO_ERROR;
    }

    vekd::test::TempRoot m_root;
    sp<TestService> m_service;
};

TEST_F(BinderTransportTest, ServiceAnswersStandardAndOwnTransactionsOverItsSocket) {
    struct stat st;
    ASSERT_EQ(stat(m_root.at("/dev/vndbinder/echo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));

    sp<IBinder> binder = lookUp();
    ASSERT_NE(binder, nullptr);
    ASSERT_NE(binder->remoteBinder(), nullptr) << "calls must go through the socket";
    EXPECT_EQ(binder->pingBinder(), NO_ERROR);
    EXPECT_EQ(binder->getInterfaceDescriptor(), String16("vekd.test.IEcho"));

    Parcel data, reply;
    data.writeInterfaceToken(String16("vekd.test.IEcho"));
    data.writeInt32(41);
    data.writeCString("wlan0");
    ASSERT_EQ(binder->transact(kEcho, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 42);
    EXPECT_STREQ(reply.readCString(), "wlan0");

    Parcel empty, unknownReply;
    EXPECT_EQ(binder->transact(0, empty, &unknownReply), UNKNOWN_TRANSACTION);
    EXPECT_EQ(binder->transact(0x00123456, empty, &unknownReply), UNKNOWN_TRANSACTION);
    EXPECT_EQ(binder->transact(kFail, empty, &unknownReply), BAD_VALUE);

    // The typed proxy of the platform's interface macros works unchanged.
    sp<ITestEcho> typed = interface_cast<ITestEcho>(binder);
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->echo(9), 10);

    EXPECT_EQ(lookUp("absent"), nullptr);
    EXPECT_EQ(lookUp("../etc"), nullptr);
    EXPECT_EQ(defaultServiceManager()->getService(String16("echo"))->pingBinder(), NO_ERROR);
    Vector<String16> names = defaultServiceManager()->listServices();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0], String16("echo"));
}

TEST_F(BinderTransportTest, CallerIsKnownByItsPeerCredentials) {
    sp<IBinder> binder = lookUp();
    Parcel data, reply;
    ASSERT_EQ(binder->transact(kWhoCalls, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), getpid());
    EXPECT_EQ(reply.readInt32(), static_cast<int32_t>(getuid()));
    // Outside a transaction a thread is its own caller.
    EXPECT_EQ(IPCThreadState::self()->getCallingPid(), getpid());
}

TEST_F(BinderTransportTest, OneWayCallsGetNoReply) {
    sp<IBinder> binder = lookUp();
    Parcel data;
    data.writeInt32(5);
    EXPECT_EQ(binder->transact(kRecord, data, nullptr, IBinder::FLAG_ONEWAY), NO_ERROR);
    EXPECT_TRUE(m_service->waitFor([&] { return m_service->m_recorded.size() == 1; }));

    // On the wire: the first reply after a one-way request belongs to the
    // ping that followed it.
    RawPeer peer(vekd::binder::socketPath("echo"));
    ASSERT_TRUE(peer.connected());
    Parcel six, none;
    six.writeInt32(6);
    std::vector<uint8_t> bytes = RawPeer::request(kRecord, IBinder::FLAG_ONEWAY, six);
    std::vector<uint8_t> ping = RawPeer::request(IBinder::PING_TRANSACTION, 0, none);
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

// Client threads, each calling the gate once over its own proxy.
class GateCallers {
  public:
    explicit GateCallers(int count) {
        for (int i = 0; i < count; ++i) {
            m_threads.emplace_back([this] {
                sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
                Parcel data, reply;
                if (binder != nullptr && binder->transact(kGate, data, &reply) == NO_ERROR) ++m_ok;
            });
        }
    }
    ~GateCallers() { joinAndCountSuccesses(); }
    int joinAndCountSuccesses() {
        for (auto& t : m_threads) {
            if (t.joinable()) t.join();
        }
        return m_ok.load();
    }

  private:
    std::vector<std::thread> m_threads;
    std::atomic<int> m_ok{0};
};

TEST_F(BinderTransportTest, SixteenClientsAreServedAtTheSameTime) {
    m_service->openGateAt(16);  // only sixteen calls running together pass
    GateCallers callers(16);
    EXPECT_EQ(callers.joinAndCountSuccesses(), 16);
    std::lock_guard<std::mutex> lock(m_service->m_mutex);
    EXPECT_EQ(m_service->m_maxInFlight, 16);
}

TEST_F(BinderTransportTest, NoMoreThanSixteenTransactionsRunAtOnce) {
    ProcessState::self()->setThreadPoolMaxThreadCount(30);
    GateCallers callers(20);
    EXPECT_TRUE(m_service->waitFor([&] { return m_service->m_inFlight == 16; }));
    // Give the other four every chance to start; they must wait instead.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    {
        std::lock_guard<std::mutex> lock(m_service->m_mutex);
        EXPECT_EQ(m_service->m_inFlight, 16);
    }
    m_service->openGate();
    EXPECT_EQ(callers.joinAndCountSuccesses(), 20);
    std::lock_guard<std::mutex> lock(m_service->m_mutex);
    EXPECT_EQ(m_service->m_maxInFlight, 16);
}

TEST_F(BinderTransportTest, MisbehavingPeersLoseOnlyTheirOwnConnection) {
    const std::string path = vekd::binder::socketPath("echo");
    sp<IBinder> good = lookUp();
    ASSERT_EQ(good->pingBinder(), NO_ERROR);

    RawPeer garbage(path);
    ASSERT_TRUE(garbage.send({'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P', '\r', '\n'}));
    EXPECT_TRUE(garbage.closedByService());

    RawPeer huge(path);  // announces 2 MiB, sends a little
    std::vector<uint8_t> header(12);
    putU32(header.data(), 2u << 20);
    putU32(header.data() + 4, kEcho);
    ASSERT_TRUE(huge.send(header));
    EXPECT_TRUE(huge.closedByService());

    RawPeer tiny(path);  // a length that cannot hold code and flags
    ASSERT_TRUE(tiny.send({4, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_TRUE(tiny.closedByService());

    {
        RawPeer truncated(path);  // half a frame, then gone
        std::vector<uint8_t> half(12);
        putU32(half.data(), 100);
        ASSERT_TRUE(truncated.send(half));
    }
    EXPECT_EQ(good->pingBinder(), NO_ERROR);
    EXPECT_TRUE(pingOk());
}

TEST_F(BinderTransportTest, PeerStallingMidFrameIsCutOffWhileOthersAreServed) {
    vekd::binder::setStallTimeoutForTesting(300);
    RawPeer staller(vekd::binder::socketPath("echo"));
    std::vector<uint8_t> half(6);
    putU32(half.data(), 16);
    ASSERT_TRUE(staller.send(half));
    EXPECT_TRUE(pingOk());
    EXPECT_TRUE(staller.closedByService());
    EXPECT_TRUE(pingOk());

    // A peer that pauses between whole frames is not stalling.
    RawPeer idle(vekd::binder::socketPath("echo"));
    Parcel none;
    ASSERT_TRUE(idle.send(RawPeer::request(IBinder::PING_TRANSACTION, 0, none)));
    int32_t status = -1;
    std::vector<uint8_t> body;
    ASSERT_TRUE(idle.readReply(&status, &body));
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    ASSERT_TRUE(idle.send(RawPeer::request(IBinder::PING_TRANSACTION, 0, none)));
    EXPECT_TRUE(idle.readReply(&status, &body));
    EXPECT_EQ(status, 0);
}

TEST_F(BinderTransportTest, FramesUpToOneMebibyteAreCarried) {
    sp<IBinder> binder = lookUp();
    const size_t largest = vekd::binder::wire::kMaxFrameBytes - 8;
    std::vector<uint8_t> payload(largest, 'x');
    payload[largest - 8] = 0;  // a C string that fills the frame
    Parcel data, reply;
    data.writeInterfaceToken(String16("vekd.test.IEcho"));
    data.writeInt32(1);
    data.write(payload.data(), largest - data.dataSize());
    ASSERT_EQ(data.dataSize(), largest);
    ASSERT_EQ(binder->transact(kEcho, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), 2);

    data.writeInt32(0);  // one word too many: refused before sending
    EXPECT_EQ(binder->transact(kEcho, data, &reply), FAILED_TRANSACTION);
    EXPECT_EQ(binder->pingBinder(), NO_ERROR);
}

TEST_F(BinderTransportTest, GoneServiceIsReportedDead) {
    sp<IBinder> binder = lookUp();
    ASSERT_EQ(binder->pingBinder(), NO_ERROR);
    vekd::binder::resetForTesting();
    EXPECT_EQ(binder->pingBinder(), DEAD_OBJECT);
    EXPECT_FALSE(binder->isBinderAlive());
    EXPECT_EQ(lookUp(), nullptr);
}

TEST_F(BinderTransportTest, EverySocketIsClosedOnExec) {
    sp<IBinder> binder = lookUp();
    ASSERT_EQ(binder->pingBinder(), NO_ERROR);
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

// Publishing when a previous run left its socket behind, or when something
// else occupies the name.
class PublishTest : public ::testing::Test {
  protected:
    void TearDown() override { vekd::binder::resetForTesting(); }
    vekd::test::TempRoot m_root;
};

TEST_F(PublishTest, StaleSocketIsReplacedButOtherFilesAreNot) {
    ProcessState::initWithDriver("/dev/vndbinder");
    const std::string stale = m_root.at("/dev/vndbinder/echo");
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, stale.c_str(), sizeof(addr.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);  // the file stays, nobody listens

    sp<TestService> service = new TestService();
    EXPECT_EQ(defaultServiceManager()->addService(String16("echo"), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    EXPECT_EQ(binder->pingBinder(), NO_ERROR);

    m_root.writeFile("/dev/vndbinder/notes", "not a socket");
    EXPECT_NE(defaultServiceManager()->addService(String16("notes"), service), NO_ERROR);
    EXPECT_NE(defaultServiceManager()->addService(String16("a/b"), service), NO_ERROR);
    EXPECT_NE(defaultServiceManager()->addService(String16("proxy"), binder), NO_ERROR);
}

TEST_F(PublishTest, PoolServesFromAThreadThatJoinedIt) {
    ProcessState::initWithDriver("/dev/vndbinder");
    sp<TestService> service = new TestService();
    ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), service), NO_ERROR);
    std::thread looper([] { IPCThreadState::self()->joinThreadPool(); });
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    EXPECT_EQ(binder->pingBinder(), NO_ERROR);
    vekd::binder::resetForTesting();  // makes the looper leave
    looper.join();
}

// accept() failing (out of descriptors, say) must neither spin nor stop the
// service: the pending client is taken once accept works again.
class FlakyAccept : public vekd::binder::SocketOps {
  public:
    int socket(bool nb) override { return real().socket(nb); }
    int bind(int fd, const std::string& p) override { return real().bind(fd, p); }
    int listen(int fd, int b) override { return real().listen(fd, b); }
    int accept(int fd) override {
        if (m_failures.fetch_sub(1) > 0) {
            errno = EMFILE;
            return -1;
        }
        return real().accept(fd);
    }
    int connect(int fd, const std::string& p) override { return real().connect(fd, p); }
    int socketPair(int fds[2]) override { return real().socketPair(fds); }
    ssize_t recv(int fd, void* b, size_t n) override { return real().recv(fd, b, n); }
    ssize_t send(int fd, const void* b, size_t n) override { return real().send(fd, b, n); }
    ssize_t sendWithFds(int fd, const void* b, size_t n, const int* f, size_t c) override {
        return real().sendWithFds(fd, b, n, f, c);
    }
    ssize_t recvWithFds(int fd, void* b, size_t n, std::vector<int>* f, size_t m) override {
        return real().recvWithFds(fd, b, n, f, m);
    }
    int poll(struct pollfd* f, nfds_t n, int t) override { return real().poll(f, n, t); }
    int close(int fd) override { return real().close(fd); }
    bool peerCredentials(int, pid_t*, uid_t*) override { return false; }
    bool removeSocketFile(const std::string& p) override { return real().removeSocketFile(p); }
    bool makeDirectories(const std::string& p) override { return real().makeDirectories(p); }
    int64_t monotonicMs() override { return real().monotonicMs(); }

    std::atomic<int> m_failures{3};
};

TEST_F(PublishTest, FailingAcceptAndMissingCredentialsAreSurvived) {
    FlakyAccept flaky;
    vekd::ScopedSeam<vekd::binder::SocketOps> seam(flaky);
    ProcessState::initWithDriver("/dev/vndbinder");
    sp<TestService> service = new TestService();
    ASSERT_EQ(defaultServiceManager()->addService(String16("echo"), service), NO_ERROR);
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16("echo"));
    ASSERT_NE(binder, nullptr);
    Parcel data, reply;
    ASSERT_EQ(binder->transact(kWhoCalls, data, &reply), NO_ERROR);
    EXPECT_EQ(reply.readInt32(), -1);  // unknown caller, not a crash
    EXPECT_LE(flaky.m_failures.load(), 0);
    vekd::binder::resetForTesting();
}

}  // namespace
