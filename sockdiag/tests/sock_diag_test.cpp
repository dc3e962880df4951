// The socket destroyer against a fake netlink: the bytes of every request,
// the walk over dump replies and the log lines, without a kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include "foundation/DebugFlag.h"
#include "platform/LogSink.h"
#include "sockdiag/SockDiag.h"
#include "tests/support/FakeNetlink.h"
#include "tests/support/LogCapture.h"

namespace {

using android::net::SockDiag;
using namespace vekd::test;
using Lines = std::vector<std::string>;
using Ports = std::vector<int>;
using Replies = std::vector<Bytes>;

constexpr int kDumpFd = 100, kWriteFd = 101;  // the fake hands out descriptors from 100
constexpr uint32_t kUid = 10123;
const Bytes kDone = FakeNetlink::done();

struct Request {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};

Request decode(const Bytes& bytes) {
    Request r{};
    memcpy(&r, bytes.data(), std::min(bytes.size(), sizeof(r)));
    return r;
}

// A socket of `uid` from `src` to `dst` (IPv4 or IPv6 texts) with source port `sport`.
inet_diag_msg sock(const char* src, const char* dst, uint16_t sport = 1, uint32_t uid = kUid) {
    const int family = strchr(src, ':') ? AF_INET6 : AF_INET;
    uint8_t s[16], d[16];
    EXPECT_EQ(inet_pton(family, src, s) + inet_pton(family, dst, d), 2) << src << " " << dst;
    return FakeNetlink::socket(family, TCP_ESTABLISHED, uid, htons(sport), htons(443), s, d);
}
Bytes diag(uint32_t uid, uint16_t sport) { return FakeNetlink::diag(sock("10.0.0.1", "93.184.216.34", sport, uid)); }

class SockDiagTest : public testing::Test {
  protected:
    // Nothing else here refers to the platform library, so the linker would
    // drop it and with it the logger that feeds LogCapture.
    SockDiagTest() { vekd::platform::installHostLogger(); }
    void TearDown() override { gDebugLogEnabled = 0; }

    std::vector<Request> requestsOn(int fd) const {
        std::vector<Request> out;
        for (const auto& s : netlink.sent()) {
            if (s.fd == fd) out.push_back(decode(s.bytes));
        }
        return out;
    }
    void answer(Replies replies) {
        netlink.setResponder([replies](int, const Bytes&) { return replies; });
    }
    Lines lines() const { return log.linesOf("VEKD_SockDiag"); }

    FakeNetlink netlink;
    LogCapture log;
    iovec iov[1];
    uint8_t buf[64];
};

TEST_F(SockDiagTest, OpensOnceAndTheDumpRequestIsThe72ByteKernelLayoutWithItsErrorProbed) {
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    EXPECT_FALSE(sd.open());
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_UDP, AF_INET6, 0, 0xbff, iov, 1), 0);
    EXPECT_EQ(netlink.sent().at(0).fd, kDumpFd);
    Bytes expected = {72, 0, 0, 0, 20, 0, 0x01, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 10, 17, 0, 0, 0xff, 0x0b, 0, 0};
    expected.resize(72, 0);
    EXPECT_EQ(netlink.sent()[0].bytes, expected);
    EXPECT_EQ(netlink.peekFlags(), (Ports{MSG_PEEK | MSG_DONTWAIT}));  // the probe never blocks
    EXPECT_EQ(netlink.read(kDumpFd, buf, sizeof(buf)), 20);  // and left the fake's empty dump

    // An immediate error is returned and consumed: nothing is left for the dump.
    answer({FakeNetlink::error(-EPERM)});
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -EPERM);
    EXPECT_EQ(netlink.read(kDumpFd, buf, sizeof(buf)), 0);
    // A first dump message is peeked but left in place.
    answer({diag(1, 1)});
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), 0);
    EXPECT_EQ(netlink.read(kDumpFd, buf, sizeof(buf)), 64);

    answer({});
    netlink.failPeek(ENOBUFS);
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -ENOBUFS);
    netlink.failWrite(EMSGSIZE);
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -EMSGSIZE);
    netlink.failWrite(0, 10);  // a short write sets no errno of its own
    EXPECT_EQ(sd.sendDumpRequest(IPPROTO_TCP, AF_INET, 0, 0xbff, iov, 1), -EIO);
}

TEST_F(SockDiagTest, DestroyRequestCopiesTheDumpedSocketAndFailuresAreNotCounted) {
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    inet_diag_msg msg = sock("2001:db8::1", "2001:db8::2");
    msg.idiag_state = TCP_TIME_WAIT;
    EXPECT_EQ(sd.sockDestroy(IPPROTO_UDP, &msg), 0);
    EXPECT_EQ(netlink.sent().at(0).fd, kWriteFd);
    Request expected{{72, SOCK_DESTROY, NLM_F_REQUEST, 0, 0}, {AF_INET6, IPPROTO_UDP, 0, 0, 1u << TCP_TIME_WAIT, msg.id}};
    const auto* raw = reinterpret_cast<uint8_t*>(&expected);
    EXPECT_EQ(netlink.sent()[0].bytes, Bytes(raw, raw + sizeof(expected)));
    msg.idiag_state = 200;  // a state no kernel sends must not shift past the word
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), 0);
    EXPECT_EQ(decode(netlink.sent().at(1).bytes).req.idiag_states, 0u);

    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, nullptr), 0);
    answer({FakeNetlink::error(-ENOENT)});
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), -ENOENT);
    netlink.failWrite(EPIPE);
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), -EPIPE);
    netlink.failWrite(0, 1);
    EXPECT_EQ(sd.sockDestroy(IPPROTO_TCP, &msg), -EIO);
    EXPECT_EQ(sd.socketsDestroyed(), 2);
    EXPECT_EQ(lines(), (Lines{"E  VEK_GAMING sockDestroy msg is nullptr", "E VEK_GAMING FAILED sockDestroy in write", "E VEK_GAMING FAILED sockDestroy in write"}));
}

TEST_F(SockDiagTest, DumpWalkStopsAtDoneErrorsAndDamage) {
    Bytes truncated = FakeNetlink::concat({diag(1, 1), diag(1, 2)});
    truncated.resize(truncated.size() - 10);
    Bytes tooShortLen = diag(1, 3);
    tooShortLen[0] = 8;
    const Bytes shortSocket = FakeNetlink::message(SOCK_DIAG_BY_FAMILY, &kUid, 4);
    const struct { const char* name; Replies datagrams; int result; Ports ports; } cases[] = {
        {"several per read, none after done", {FakeNetlink::concat({diag(1, 1), diag(1, 2)}), FakeNetlink::concat({diag(1, 3), kDone, diag(1, 4)}), diag(1, 5)}, 0, {1, 2, 3}},
        {"an error ends the dump with its value", {FakeNetlink::concat({diag(1, 1), FakeNetlink::error(-ENOMEM), diag(1, 2)})}, -ENOMEM, {1}},
        {"a positive error code", {FakeNetlink::error(7)}, -EBADMSG, {}},
        {"the lowest errno", {FakeNetlink::error(-4095)}, -4095, {}},
        {"below the lowest errno", {FakeNetlink::error(-4096)}, -EBADMSG, {}},
        {"an error without room for its code", {FakeNetlink::message(NLMSG_ERROR, nullptr, 0)}, -EBADMSG, {}},
        {"end of stream", {}, 0, {}},
        // Truncated: the rest of the datagram is dropped; under a header: read
        // again; a length below the header stops; a short socket is skipped.
        {"damaged messages", {truncated, Bytes(7, 0xff), FakeNetlink::concat({tooShortLen, diag(1, 4)}), FakeNetlink::concat({shortSocket, diag(1, 5)}), kDone}, 0, {1, 5}},
    };
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    Ports ports;
    auto note = [&ports](uint8_t proto, const inet_diag_msg* msg) {
        ports.push_back(proto == IPPROTO_TCP ? ntohs(msg->id.idiag_sport) : -1);
        return false;
    };
    for (const auto& c : cases) {
        ports.clear();
        for (const Bytes& d : c.datagrams) netlink.queue(kDumpFd, d);
        EXPECT_EQ(sd.readDiagMsg(IPPROTO_TCP, note), c.result) << c.name;
        EXPECT_EQ(ports, c.ports) << c.name;
        while (netlink.read(kDumpFd, buf, sizeof(buf)) > 0) {
        }
    }
    EXPECT_EQ(lines(), (Lines{"E VEK_GAMING netlink error code 7 is no errno, message damaged",
                              "E VEK_GAMING netlink error code -4096 is no errno, message damaged",
                              "E VEK_GAMING error message of 16 bytes has no error code",
                              "E VEK_GAMING socket message of 20 bytes is too short, skipped"}));
    netlink.failEmptyRead(ENOBUFS);
    EXPECT_EQ(sd.readDiagMsg(IPPROTO_TCP, note), -ENOBUFS);
}

// IPv4 dump: kUid's socket, kUid's on loopback, another UID's; IPv6 dump: kUid's.
TEST_F(SockDiagTest, DestroySocketsTakesTheUidsSocketsOfBothFamiliesAndSparesLoopbackOnRequest) {
    netlink.setResponder([](int fd, const Bytes& request) {
        if (fd != kDumpFd) return Replies{};
        if (decode(request).req.sdiag_family == AF_INET6) return Replies{FakeNetlink::diag(sock("2001:db8::1", "2001:db8::2", 4)), kDone};
        return Replies{FakeNetlink::concat({diag(kUid, 1), FakeNetlink::diag(sock("127.0.0.1", "127.0.0.1", 2)), diag(kUid + 1, 3)}), kDone};
    });
    SockDiag sd;
    ASSERT_TRUE(sd.open());
    EXPECT_EQ(sd.destroySockets(IPPROTO_UDP, kUid, false), 0);
    EXPECT_EQ(sd.socketsDestroyed(), 3);
    gDebugLogEnabled = 1;
    EXPECT_EQ(sd.destroySockets(IPPROTO_TCP, kUid, true), 0);
    EXPECT_EQ(sd.socketsDestroyed(), 2);  // counted again for each call
    Ports ports;
    for (const Request& r : requestsOn(kWriteFd)) ports.push_back(ntohs(r.req.id.idiag_sport));
    EXPECT_EQ(ports, (Ports{1, 2, 4, 1, 4}));
    for (const Request& r : requestsOn(kDumpFd)) EXPECT_EQ(r.req.idiag_states, 0xbffu);  // all but TCP_LISTEN
    // 3 destroy lines, verbose or not, then 13 of trace (ports in network byte order).
    const Lines got = lines();
    ASSERT_EQ(got.size(), 16u);
    EXPECT_EQ(got[7], "E VEK_GAMING not destroy sockets FALSE: UID: 10123, srs_prt: 512, dst_prt: 47873");
    EXPECT_EQ(got[5], "E VEK_GAMING should destroy sockets TRUE: UID: 10123, srs_prt: 256, dst_prt: 47873");
    EXPECT_NE(std::find(got.begin(), got.end(), "D VEK_GAMING readDiagMsg check"), got.end());

    // A failed IPv4 dump skips IPv6.
    answer({FakeNetlink::error(-EACCES)});
    EXPECT_EQ(sd.destroySockets(IPPROTO_TCP, kUid, false), -EACCES);
    EXPECT_EQ(requestsOn(kDumpFd).size(), 5u);
    EXPECT_EQ(lines().back(), "E VEK_GAMING Failed to dump IPv4 sockets for UID: Permission denied");
}

TEST(IsLoopbackSocket, LoopbackOrEqualAddressesAndByte15OfMappedOnes) {
    const struct { const char *src, *dst; bool loopback; } cases[] = {
        {"127.0.0.1", "8.8.8.8", true},
        {"8.8.8.8", "127.9.9.9", true},
        {"10.0.0.1", "10.0.0.1", true},
        {"10.0.0.1", "10.0.0.2", false},
        {"::ffff:1.2.3.127", "2001:db8::2", true},
        {"2001:db8::2", "::ffff:1.2.3.127", true},
        {"::ffff:127.0.0.1", "2001:db8::2", false},
        {"::1.2.3.127", "2001:db8::2", false},  // not mapped
        {"::1", "2001:db8::2", true},
        {"2001:db8::2", "::1", true},
        {"2001:db8::5", "2001:db8::5", true},
    };
    for (const auto& c : cases) {
        inet_diag_msg m = sock(c.src, c.dst);
        EXPECT_EQ(SockDiag::isLoopbackSocket(&m), c.loopback) << c.src << " -> " << c.dst;
        m.idiag_family = AF_UNIX;
        EXPECT_FALSE(SockDiag::isLoopbackSocket(&m)) << c.src << " -> " << c.dst;
    }
    EXPECT_FALSE(SockDiag::isLoopbackSocket(nullptr));
}

TEST_F(SockDiagTest, KillRunsATcpThenAUdpPassAndReturnsTheUdpResult) {
    const std::string tcp = "E  VEK_GAMING destroying TCP sockets: 10123", udp = "E  VEK_GAMING destroying UDP sockets: 10123", gone = "E VEK_GAMING: SOCK DESTROY [0]";
    const struct { const char* uid; Replies tcpReplies, udpReplies; int result; Lines lines; } cases[] = {
        {"10123", {kDone}, {kDone}, 0, {tcp, udp}},
        {"10123", {FakeNetlink::error(-EPERM)}, {diag(kUid, 1), diag(kUid + 1, 2), kDone}, 0, {"E  VEK_GAMING Error destroying TCP sockets: Operation not permitted", gone, gone, udp}},
        {"10123", {kDone}, {FakeNetlink::diag(sock("127.0.0.1", "127.0.0.1", 2, kUid)), kDone}, 0, {tcp, gone, gone, udp}},  // loopback too
        {"10123", {kDone}, {FakeNetlink::error(-EINVAL)}, -EINVAL, {tcp, "E  VEK_GAMING Error destroying UDP sockets: Invalid argument"}},
        // Found by fuzzing: a damaged error message carrying INT_MIN was negated for strerror.
        {"10123", {kDone}, {FakeNetlink::error(INT32_MIN)}, -EBADMSG, {tcp, "E VEK_GAMING netlink error code -2147483648 is no errno, message damaged", "E  VEK_GAMING Error destroying UDP sockets: Bad message"}},
        // UIDs read as atoi reads them: leading blanks and a sign.
        {" \t7", {diag(7, 1), diag(8, 1), kDone}, {kDone}, 0, {gone, gone, "E  VEK_GAMING destroying TCP sockets:  \t7", "E  VEK_GAMING destroying UDP sockets:  \t7"}},
        {"-1", {kDone}, {diag(7, 1), diag(0xffffffffu, 1), kDone}, 0, {"E  VEK_GAMING destroying TCP sockets: -1", gone, gone, "E  VEK_GAMING destroying UDP sockets: -1"}},
    };
    for (const auto& c : cases) {
        log.clear();
        netlink.setResponder([&c](int, const Bytes& request) { return decode(request).req.sdiag_protocol == IPPROTO_TCP ? c.tcpReplies : c.udpReplies; });
        EXPECT_EQ(killSocketsForUID(c.uid), c.result) << c.lines.back();
        EXPECT_EQ(lines(), c.lines);
    }
    for (const char* bad : {"", "  ", "abc", "10123x", "12 3", "+", "99999999999", "0x10"}) {
        EXPECT_EQ(killSocketsForUID(bad), -EINVAL) << bad;
        EXPECT_EQ(lines().back(), std::string("E  VEK_GAMING Not destroying sockets: UID \"") + bad + "\" is not a decimal number");
    }
    EXPECT_EQ(killSocketsForUID(nullptr), -EINVAL);
    // Sockets that cannot be connected are closed again.
    netlink.failConnect(ECONNREFUSED);
    EXPECT_EQ(killSocketsForUID("10123"), -1);
    EXPECT_EQ(lines().back(), "E  VEK_GAMING Error opening NETLINK_SOCK_DIAG socket: Connection refused");
    EXPECT_EQ(netlink.closed().size(), netlink.opened().size() + 2);  // and the destructor's two -1
}

}  // namespace
