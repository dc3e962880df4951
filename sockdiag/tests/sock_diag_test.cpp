// The socket destroyer against a fake netlink: the bytes of every request,
// the walk over dump replies and the log lines, without a kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <cstring>

#include "daemon/DebugFlag.h"
#include "platform/LogSink.h"
#include "sockdiag/SockDiag.h"
#include "tests/support/FakeNetlink.h"
#include "tests/support/LogCapture.h"

namespace {

using android::net::SockDiag;
using vekd::test::Bytes;
using vekd::test::FakeNetlink;
using vekd::test::LogCapture;
using Lines = std::vector<std::string>;

constexpr int kDumpFd = 100;   // the fake hands out descriptors from 100
constexpr int kWriteFd = 101;
constexpr uint32_t kUid = 10123;

struct Request {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};

Request decode(const Bytes& bytes) {
    Request r{};
    EXPECT_GE(bytes.size(), sizeof(r));
    memcpy(&r, bytes.data(), std::min(bytes.size(), sizeof(r)));
    return r;
}

const uint8_t kV4A[4] = {10, 0, 0, 1};
const uint8_t kV4B[4] = {93, 184, 216, 34};

inet_diag_msg tcp4(uint32_t uid, uint16_t sport = 40000, uint8_t state = TCP_ESTABLISHED) {
    return FakeNetlink::socket(AF_INET, state, uid, htons(sport), htons(443), kV4A, kV4B);
}

inet_diag_msg v6(const char* src, const char* dst) {
    uint8_t s[16], d[16];
    EXPECT_EQ(inet_pton(AF_INET6, src, s), 1) << src;
    EXPECT_EQ(inet_pton(AF_INET6, dst, d), 1) << dst;
    return FakeNetlink::socket(AF_INET6, TCP_ESTABLISHED, kUid, 1, 2, s, d);
}

inet_diag_msg v4(const char* src, const char* dst) {
    in_addr s{}, d{};
    EXPECT_EQ(inet_pton(AF_INET, src, &s), 1) << src;
    EXPECT_EQ(inet_pton(AF_INET, dst, &d), 1) << dst;
    return FakeNetlink::socket(AF_INET, TCP_ESTABLISHED, kUid, 1, 2, &s, &d);
}

class SockDiagTest : public testing::Test {
  protected:
    // Nothing else here refers to the platform library, so the linker would
    // drop it and with it the logger that feeds LogCapture.
    SockDiagTest() { vekd::platform::installHostLogger(); }
    void TearDown() override { gDebugLogEnabled = 0; }

    // Requests written on `fd`, decoded.
    std::vector<Request> requestsOn(int fd) const {
        std::vector<Request> out;
        for (const auto& s : netlink.sent()) {
            if (s.fd == fd) out.push_back(decode(s.bytes));
        }
        return out;
    }

    size_t destroyRequests() const {
        size_t n = 0;
        for (const auto& s : netlink.sent()) n += decode(s.bytes).nlh.nlmsg_type == SOCK_DESTROY;
        return n;
    }

    FakeNetlink netlink;
    LogCapture log;
};

// --- open() and the descriptors ---

TEST_F(SockDiagTest, OpenCreatesTwoSocketsOnceAndTheDestructorClosesBoth) {
    {
        SockDiag sd;
        EXPECT_TRUE(sd.open());
        EXPECT_FALSE(sd.open());
        EXPECT_EQ(netlink.opened(), (std::vector<int>{kDumpFd, kWriteFd}));
    }
    EXPECT_EQ(netlink.closed(), (std::vector<int>{kDumpFd, kWriteFd}));

    // A failed connect closes both and reports its own errno.
    netlink.failConnect(ECONNREFUSED);
    SockDiag sd;
    EXPECT_FALSE(sd.open());
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(netlink.closed(), (std::vector<int>{kDumpFd, kWriteFd, kDumpFd + 2, kWriteFd + 2}));
}

// --- requests on the wire ---

TEST_F(SockDiagTest, DumpRequestIsThe72ByteKernelLayout) {
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    iovec iov[1];
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_UDP, AF_INET6, 0, 0xbff, iov, 1), 0);

    auto sent = netlink.sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].fd, kDumpFd);
    const Bytes& b = sent[0].bytes;
    ASSERT_EQ(b.size(), 72u);
    Bytes expectedHead = {72, 0, 0, 0, 20, 0, 0x01, 0x03, 0, 0, 0, 0, 0, 0, 0, 0,
                          10, 17, 0, 0, 0xff, 0x0b, 0, 0};
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 24), expectedHead);
    EXPECT_EQ(Bytes(b.begin() + 24, b.end()), Bytes(48, 0));
    // The immediate-error probe peeks without blocking.
    EXPECT_EQ(netlink.peekFlags(), (std::vector<int>{MSG_PEEK | MSG_DONTWAIT}));
}

TEST_F(SockDiagTest, DestroyRequestCopiesTheDumpedSocket) {
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    inet_diag_msg msg = v6("2001:db8::1", "2001:db8::2");
    msg.idiag_state = TCP_TIME_WAIT;
    msg.id.idiag_if = 7;
    msg.id.idiag_cookie[0] = 0xdeadbeef;
    msg.id.idiag_cookie[1] = 0x12345678;
    EXPECT_EQ(sd.sockDestroy(IPPROTO_UDP, &msg), 0);
    EXPECT_EQ(sd.socketsDestroyed(), 1);

    auto sent = netlink.sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].fd, kWriteFd);
    ASSERT_EQ(sent[0].bytes.size(), 72u);
    Request r = decode(sent[0].bytes);
    EXPECT_EQ(r.nlh.nlmsg_len, 72u);
    EXPECT_EQ(r.nlh.nlmsg_type, SOCK_DESTROY);
    EXPECT_EQ(r.nlh.nlmsg_flags, NLM_F_REQUEST);
    EXPECT_EQ(r.nlh.nlmsg_seq, 0u);
    EXPECT_EQ(r.nlh.nlmsg_pid, 0u);
    EXPECT_EQ(r.req.sdiag_family, AF_INET6);
    EXPECT_EQ(r.req.sdiag_protocol, IPPROTO_UDP);
    EXPECT_EQ(r.req.idiag_ext, 0);
    EXPECT_EQ(r.req.pad, 0);
    EXPECT_EQ(r.req.idiag_states, 1u << TCP_TIME_WAIT);
    EXPECT_EQ(memcmp(&r.req.id, &msg.id, sizeof(msg.id)), 0);

    // A state no kernel sends must not shift past the word.
    msg.idiag_state = 200;
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), 0);
    EXPECT_EQ(decode(netlink.sent().at(1).bytes).req.idiag_states, 0u);
}

// --- the immediate-error probe ---

TEST_F(SockDiagTest, ImmediateErrorsAreReturnedAndConsumed) {
    netlink.setResponder([](int, const Bytes&) { return std::vector<Bytes>{FakeNetlink::error(-EPERM)}; });
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    iovec iov[1];
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -EPERM);
    // Peeked, then read again without flags; nothing is left for the dump.
    EXPECT_EQ(netlink.peekFlags(), (std::vector<int>{MSG_PEEK | MSG_DONTWAIT, 0}));
    uint8_t buf[64];
    EXPECT_EQ(netlink.read(kDumpFd, buf, sizeof(buf)), 0);

    netlink.setResponder([](int, const Bytes&) { return std::vector<Bytes>{}; });
    netlink.failPeek(ENOBUFS);
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -ENOBUFS);
    netlink.failWritev(EMSGSIZE);
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -EMSGSIZE);
    netlink.failWritev(0, 10);  // a short write sets no errno of its own
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -EIO);
}

TEST_F(SockDiagTest, FirstDumpMessageIsPeekedButLeftInPlace) {
    netlink.setResponder([](int, const Bytes&) {
        return std::vector<Bytes>{FakeNetlink::diag(tcp4(1)), FakeNetlink::done()};
    });
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    iovec iov[1];
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), 0);
    int seen = 0;
    EXPECT_EQ(sd.readDiagMsg(IPPROTO_TCP, [&](uint8_t, const inet_diag_msg*) { return ++seen, false; }), 0);
    EXPECT_EQ(seen, 1);
}

TEST_F(SockDiagTest, FailedDestroysAreNotCounted) {
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    inet_diag_msg msg = tcp4(kUid);

    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, nullptr), 0);
    netlink.setResponder([](int, const Bytes&) { return std::vector<Bytes>{FakeNetlink::error(-ENOENT)}; });
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), -ENOENT);
    netlink.failWrite(EPIPE);
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), -EPIPE);
    netlink.failWrite(0, 1);
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), -EIO);
    EXPECT_EQ(sd.socketsDestroyed(), 0);
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"), (Lines{"E  VEK_GAMING sockDestroy msg is nullptr",
                                                   "E VEK_GAMING FAILED sockDestroy in write",
                                                   "E VEK_GAMING FAILED sockDestroy in write"}));
}

// --- walking the dump ---

class DumpWalk : public SockDiagTest {
  protected:
    void SetUp() override { ASSERT_TRUE(sd.open()); }
    // Runs readDiagMsg over the queued datagrams; the source ports it was shown.
    int walk(std::vector<int>* ports) {
        return sd.readDiagMsg(IPPROTO_TCP, [ports](uint8_t proto, const inet_diag_msg* msg) {
            EXPECT_EQ(proto, IPPROTO_TCP);
            ports->push_back(ntohs(msg->id.idiag_sport));
            return false;
        });
    }
    SockDiag sd;
};

TEST_F(DumpWalk, SeveralMessagesInOneReadAndNothingAfterDone) {
    netlink.queue(kDumpFd, FakeNetlink::concat({FakeNetlink::diag(tcp4(1, 1)), FakeNetlink::diag(tcp4(1, 2))}));
    netlink.queue(kDumpFd, FakeNetlink::concat({FakeNetlink::diag(tcp4(1, 3)), FakeNetlink::done(),
                                                FakeNetlink::diag(tcp4(1, 4))}));
    netlink.queue(kDumpFd, FakeNetlink::diag(tcp4(1, 5)));
    std::vector<int> ports;
    EXPECT_EQ(walk(&ports), 0);
    EXPECT_EQ(ports, (std::vector<int>{1, 2, 3}));
}

TEST_F(DumpWalk, ErrorInTheDumpEndsItWithTheKernelsValue) {
    netlink.queue(kDumpFd, FakeNetlink::concat({FakeNetlink::diag(tcp4(1, 1)), FakeNetlink::error(-ENOMEM),
                                                FakeNetlink::diag(tcp4(1, 2))}));
    std::vector<int> ports;
    EXPECT_EQ(walk(&ports), -ENOMEM);
    EXPECT_EQ(ports, (std::vector<int>{1}));
}

TEST_F(DumpWalk, ErrorCodesThatAreNoErrnoCountAsDamagedMessages) {
    std::vector<int> ports;
    netlink.queue(kDumpFd, FakeNetlink::error(7));
    EXPECT_EQ(walk(&ports), -EBADMSG);
    netlink.queue(kDumpFd, FakeNetlink::error(-4095));
    EXPECT_EQ(walk(&ports), -4095);
}

TEST_F(DumpWalk, TruncatedAndMalformedMessagesAreNeverRead) {
    // A message claiming more bytes than the read returned ends the walk of
    // that datagram; the next read goes on.
    Bytes truncated = FakeNetlink::concat({FakeNetlink::diag(tcp4(1, 1)), FakeNetlink::diag(tcp4(1, 2))});
    truncated.resize(truncated.size() - 10);
    netlink.queue(kDumpFd, truncated);
    // Fewer bytes than a header: read again.
    netlink.queue(kDumpFd, Bytes(7, 0xff));
    // A header whose length is below the header size stops the walk.
    Bytes tooShortLen = FakeNetlink::diag(tcp4(1, 3));
    tooShortLen[0] = 8;
    netlink.queue(kDumpFd, FakeNetlink::concat({tooShortLen, FakeNetlink::diag(tcp4(1, 4))}));
    // A socket message too short to hold a socket is skipped with a line.
    int32_t small = 1;
    netlink.queue(kDumpFd, FakeNetlink::concat({FakeNetlink::message(SOCK_DIAG_BY_FAMILY, &small, 4),
                                                FakeNetlink::diag(tcp4(1, 5))}));
    netlink.queue(kDumpFd, FakeNetlink::done());
    std::vector<int> ports;
    EXPECT_EQ(walk(&ports), 0);
    EXPECT_EQ(ports, (std::vector<int>{1, 5}));
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"),
              (Lines{"E VEK_GAMING socket message of 20 bytes is too short, skipped"}));
}

TEST_F(DumpWalk, ReadFailureAndEndOfStream) {
    std::vector<int> ports;
    EXPECT_EQ(walk(&ports), 0);  // read() returned 0
    netlink.failEmptyRead(ENOBUFS);
    EXPECT_EQ(walk(&ports), -ENOBUFS);
    // An error message without room for its code is refused, not read past.
    netlink.queue(kDumpFd, FakeNetlink::message(NLMSG_ERROR, nullptr, 0));
    EXPECT_EQ(walk(&ports), -EBADMSG);
    EXPECT_TRUE(ports.empty());
}

// --- destroySockets ---

class DestroySockets : public SockDiagTest {
  protected:
    // IPv4 dump: two sockets of kUid (one loopback), one of another UID.
    // IPv6 dump: one socket of kUid. Destroys succeed.
    void SetUp() override {
        netlink.setResponder([](int fd, const Bytes& request) {
            Request r = decode(request);
            if (fd != kDumpFd) return std::vector<Bytes>{};
            if (r.req.sdiag_family == AF_INET) {
                inet_diag_msg loop = v4("127.0.0.1", "127.0.0.1");
                loop.id.idiag_sport = htons(2);
                return std::vector<Bytes>{
                    FakeNetlink::concat({FakeNetlink::diag(tcp4(kUid, 1)), FakeNetlink::diag(loop),
                                         FakeNetlink::diag(tcp4(kUid + 1, 3))}),
                    FakeNetlink::done()};
            }
            inet_diag_msg six = v6("2001:db8::1", "2001:db8::2");
            six.id.idiag_sport = htons(4);
            return std::vector<Bytes>{FakeNetlink::concat({FakeNetlink::diag(six), FakeNetlink::done()})};
        });
        ASSERT_TRUE(sd.open());
    }
    std::vector<int> destroyedPorts() const {
        std::vector<int> ports;
        for (const Request& r : requestsOn(kWriteFd)) ports.push_back(ntohs(r.req.id.idiag_sport));
        return ports;
    }
    SockDiag sd;
};

TEST_F(DestroySockets, DumpsIPv4ThenIPv6AndDestroysOnlyTheUidsSockets) {
    EXPECT_EQ(sd.destroySockets(IPPROTO_UDP, kUid, false), 0);
    EXPECT_EQ(sd.socketsDestroyed(), 3);
    EXPECT_EQ(destroyedPorts(), (std::vector<int>{1, 2, 4}));
    auto dumps = requestsOn(kDumpFd);
    ASSERT_EQ(dumps.size(), 2u);
    EXPECT_EQ(dumps[0].req.sdiag_family, AF_INET);
    EXPECT_EQ(dumps[1].req.sdiag_family, AF_INET6);
    for (const Request& r : dumps) {
        EXPECT_EQ(r.req.sdiag_protocol, IPPROTO_UDP);
        EXPECT_EQ(r.req.idiag_states, 0xbffu);  // everything but TCP_LISTEN
    }
    // Each destroyed socket gets one line, verbose logging or not.
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"), (Lines(3, "E VEK_GAMING: SOCK DESTROY [0]")));

    // The count starts again with each call.
    EXPECT_EQ(sd.destroySockets(IPPROTO_UDP, kUid, true), 0);
    EXPECT_EQ(sd.socketsDestroyed(), 2);
    EXPECT_EQ(destroyedPorts(), (std::vector<int>{1, 2, 4, 1, 4}));
}

TEST_F(DestroySockets, VerboseLinesTraceEveryStep) {
    gDebugLogEnabled = 1;
    EXPECT_EQ(sd.destroySockets(IPPROTO_TCP, kUid, true), 0);
    const std::string p1 = std::to_string(htons(1)), p2 = std::to_string(htons(2)),
                      p3 = std::to_string(htons(3)), p4 = std::to_string(htons(4)),
                      p443 = std::to_string(htons(443));
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"),
              (Lines{"E VEK_GAMING sendDumpRequest check",
                     "D VEK_GAMING readDiagMsg check",
                     "E VEK_GAMING should destroy sockets TRUE: UID: 10123, srs_prt: " + p1 + ", dst_prt: " + p443,
                     "E VEK_GAMING: SOCK DESTROY [0]",
                     "E VEK_GAMING not destroy sockets FALSE: UID: 10123, srs_prt: " + p2 + ", dst_prt: 2",
                     "E VEK_GAMING not destroy sockets FALSE: UID: 10124, srs_prt: " + p3 + ", dst_prt: " + p443,
                     "D VEK_GAMING readDiagMsg checked",
                     "E VEK_GAMING sendDumpRequest check",
                     "D VEK_GAMING readDiagMsg check",
                     "E VEK_GAMING should destroy sockets TRUE: UID: 10123, srs_prt: " + p4 + ", dst_prt: 2",
                     "E VEK_GAMING: SOCK DESTROY [0]",
                     "D VEK_GAMING readDiagMsg checked",
                     "I VEK_GAMING Destroyed 2 sockets for UID"}));
}

TEST_F(DestroySockets, FailedIPv4DumpSkipsIPv6) {
    gDebugLogEnabled = 1;
    netlink.setResponder([](int, const Bytes&) { return std::vector<Bytes>{FakeNetlink::error(-EACCES)}; });
    EXPECT_EQ(sd.destroySockets(IPPROTO_TCP, kUid, false), -EACCES);
    EXPECT_EQ(requestsOn(kDumpFd).size(), 1u);
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"),
              (Lines{"E VEK_GAMING sendDumpRequest check",
                     "E VEK_GAMING Failed to dump IPv4 sockets for UID: Permission denied"}));
}

// --- loopback test ---

TEST(IsLoopbackSocket, LoopbackOrEqualAddressesAndByte15OfMappedOnes) {
    const struct {
        int family;
        const char *src, *dst;
        bool loopback;
    } cases[] = {
        {AF_INET, "127.0.0.1", "8.8.8.8", true},
        {AF_INET, "8.8.8.8", "127.9.9.9", true},
        {AF_INET, "10.0.0.1", "10.0.0.1", true},
        {AF_INET, "10.0.0.1", "10.0.0.2", false},
        {AF_INET, "1.2.3.127", "10.0.0.2", false},
        {AF_INET6, "::ffff:1.2.3.127", "2001:db8::2", true},
        {AF_INET6, "2001:db8::2", "::ffff:1.2.3.127", true},
        {AF_INET6, "::ffff:127.0.0.1", "2001:db8::2", false},
        {AF_INET6, "::1.2.3.127", "2001:db8::2", false},  // not mapped
        {AF_INET6, "::1", "2001:db8::2", true},
        {AF_INET6, "2001:db8::2", "::1", true},
        {AF_INET6, "2001:db8::5", "2001:db8::5", true},
        {AF_INET6, "2001:db8::5", "2001:db8::6", false},
    };
    for (const auto& c : cases) {
        inet_diag_msg m = c.family == AF_INET ? v4(c.src, c.dst) : v6(c.src, c.dst);
        EXPECT_EQ(SockDiag::isLoopbackSocket(&m), c.loopback) << c.src << " -> " << c.dst;
    }
    inet_diag_msg other = v6("::1", "::1");
    other.idiag_family = AF_UNIX;
    EXPECT_FALSE(SockDiag::isLoopbackSocket(&other));
    EXPECT_FALSE(SockDiag::isLoopbackSocket(nullptr));
}

// --- killSocketsForUID ---

TEST_F(SockDiagTest, KillWithNothingToDestroyLogsBothPasses) {
    EXPECT_EQ(killSocketsForUID("10123"), 0);
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"), (Lines{"E  VEK_GAMING destroying TCP sockets: 10123",
                                                   "E  VEK_GAMING destroying UDP sockets: 10123"}));
    auto dumps = requestsOn(kDumpFd);
    ASSERT_EQ(dumps.size(), 4u);
    const int protos[] = {IPPROTO_TCP, IPPROTO_TCP, IPPROTO_UDP, IPPROTO_UDP};
    const int families[] = {AF_INET, AF_INET6, AF_INET, AF_INET6};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(dumps[i].req.sdiag_protocol, protos[i]);
        EXPECT_EQ(dumps[i].req.sdiag_family, families[i]);
    }
    EXPECT_EQ(netlink.closed(), (std::vector<int>{kDumpFd, kWriteFd}));
}

TEST_F(SockDiagTest, FailedTcpPassStillRunsTheUdpPassWhoseResultIsReturned) {
    netlink.setResponder([](int, const Bytes& request) {
        Request r = decode(request);
        if (r.req.sdiag_protocol == IPPROTO_TCP) return std::vector<Bytes>{FakeNetlink::error(-EPERM)};
        return std::vector<Bytes>{FakeNetlink::diag(tcp4(kUid)), FakeNetlink::done()};
    });
    EXPECT_EQ(killSocketsForUID("10123"), 0);
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"),
              (Lines{"E  VEK_GAMING Error destroying TCP sockets: Operation not permitted",
                     "E VEK_GAMING: SOCK DESTROY [0]", "E VEK_GAMING: SOCK DESTROY [0]",
                     "E  VEK_GAMING destroying UDP sockets: 10123"}));

    log.clear();
    netlink.setResponder([](int, const Bytes& request) {
        if (decode(request).req.sdiag_protocol == IPPROTO_UDP) return std::vector<Bytes>{FakeNetlink::error(-EINVAL)};
        return std::vector<Bytes>{FakeNetlink::done()};
    });
    EXPECT_EQ(killSocketsForUID("10123"), -EINVAL);
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"), (Lines{"E  VEK_GAMING destroying TCP sockets: 10123",
                                                   "E  VEK_GAMING Error destroying UDP sockets: Invalid argument"}));
}

// Found by fuzzing: a damaged error message carrying INT_MIN was negated
// for strerror.
TEST_F(SockDiagTest, ErrorCodesThatAreNoErrnoCountAsDamagedMessages) {
    netlink.setResponder([](int, const Bytes&) { return std::vector<Bytes>{FakeNetlink::error(INT32_MIN)}; });
    EXPECT_EQ(killSocketsForUID("10123"), -EBADMSG);
    EXPECT_TRUE(log.contains("VEK_GAMING netlink error code -2147483648 is no errno, message damaged"));
}

TEST_F(SockDiagTest, KillReportsSocketsThatCannotBeOpened) {
    netlink.failSocket(EMFILE);
    EXPECT_EQ(killSocketsForUID("10123"), -1);
    EXPECT_EQ(log.linesOf("VEKD_SockDiag"),
              (Lines{"E  VEK_GAMING Error opening NETLINK_SOCK_DIAG socket: Too many open files"}));
    EXPECT_TRUE(netlink.sent().empty());
}

TEST_F(SockDiagTest, OnlyDecimalUidTextsAreAccepted) {
    // Numeric texts read as atoi reads them: leading blanks and a sign.
    netlink.setResponder([](int, const Bytes&) {
        return std::vector<Bytes>{FakeNetlink::diag(tcp4(0xffffffffu)), FakeNetlink::diag(tcp4(7)),
                                  FakeNetlink::done()};
    });
    EXPECT_EQ(killSocketsForUID(" \t7"), 0);
    EXPECT_EQ(killSocketsForUID("-1"), 0);
    EXPECT_EQ(destroyRequests(), 8u);  // per call 4 dumps of 2 sockets, one match each

    const size_t before = netlink.sent().size();
    for (const char* bad : {"", "  ", "abc", "10123x", "12 3", "+", "99999999999", "0x10"}) {
        EXPECT_EQ(killSocketsForUID(bad), -EINVAL) << bad;
        EXPECT_TRUE(log.contains(std::string(" VEK_GAMING Not destroying sockets: UID \"") + bad +
                                 "\" is not a decimal number"))
            << bad;
    }
    EXPECT_EQ(killSocketsForUID(nullptr), -EINVAL);
    EXPECT_EQ(netlink.sent().size(), before);
}

}  // namespace
