#include "sockdiag/SockDiag.h"

#include <android/log.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "foundation/DebugFlag.h"
#include "foundation/Counters.h"
#include "sockdiag/NetlinkOps.h"

namespace {

constexpr const char* kTag = "VEKD_SockDiag";

// Bits 0 to 11 except bit 10: every TCP state from TCP_ESTABLISHED (1) to
// TCP_CLOSING (11) except TCP_LISTEN (10), so listening sockets keep
// accepting under the new rules. Bit 0 names no state; TCP_NEW_SYN_RECV (12)
// is not included. UDP sockets report their state in the same numbering.
constexpr uint32_t kStatesToDestroy = 0xbff;

constexpr size_t kReadBufferSize = 8192;

struct DiagRequest {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};
static_assert(sizeof(DiagRequest) == 72, "dump and destroy requests are 72 bytes");

// A header and the start of an error message: enough to tell an immediate
// error from the first message of a dump.
struct ErrorProbe {
    nlmsghdr nlh;
    nlmsgerr err;
};
static_assert(sizeof(ErrorProbe) == 36, "the error probe reads 36 bytes");

vekd::sockdiag::NetlinkOps& ops() { return vekd::Seam<vekd::sockdiag::NetlinkOps>::get(); }

// errno after a call that failed, or `fallback` when the call left it unset
// (a short write reports no error of its own).
int negatedErrno(int fallback = EIO) { return errno != 0 ? -errno : -fallback; }

// The UID as atoi would read it, but only when the whole text is a decimal
// number: "abc" or "" must not become UID 0 and take root's sockets with it.
bool parseUid(const char* text, int* uid) {
    if (text == nullptr) return false;
    const char* p = text;
    while (isspace(static_cast<unsigned char>(*p))) ++p;
    const char* digits = (*p == '+' || *p == '-') ? p + 1 : p;
    if (!isdigit(static_cast<unsigned char>(*digits))) return false;
    errno = 0;
    char* end = nullptr;
    long value = strtol(p, &end, 10);
    if (errno != 0 || *end != '\0' || value < INT_MIN || value > INT_MAX) return false;
    *uid = static_cast<int>(value);
    return true;
}

// The kernel answers 0 or a negated errno; any other code comes from a
// damaged message and must not reach strerror(-code), which cannot even
// negate INT_MIN.
int kernelError(int32_t code) {
    if (code <= 0 && code >= -4095) return code;
    __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK_GAMING netlink error code %d is no errno, message damaged",
                        code);
    return -EBADMSG;
}

bool isV4MappedWithLastOctet127(const uint8_t* a) {
    static const uint8_t kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return memcmp(a, kMappedPrefix, sizeof(kMappedPrefix)) == 0 && a[15] == 127;
}

bool isV6Loopback(const uint8_t* a) {
    static const uint8_t kLoopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return memcmp(a, kLoopback, sizeof(kLoopback)) == 0;
}

}  // namespace

int killSocketsForUID(const char* uid) {
    int numericUid = 0;
    if (!parseUid(uid, &numericUid)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            " VEK_GAMING Not destroying sockets: UID \"%s\" is not a decimal number",
                            uid != nullptr ? uid : "(null)");
        return -EINVAL;
    }

    android::net::SockDiag sd;
    if (!sd.open()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            " VEK_GAMING Error opening NETLINK_SOCK_DIAG socket: %s", strerror(errno));
        return -1;
    }

    int ret = sd.destroySockets(IPPROTO_TCP, static_cast<uint32_t>(numericUid), false);
    // Each pass starts its own count.
    vekd::counters::countSocketsDestroyed(static_cast<uint64_t>(sd.socketsDestroyed()));
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " VEK_GAMING Error destroying TCP sockets: %s",
                            strerror(-ret));
    } else {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " VEK_GAMING destroying TCP sockets: %s", uid);
    }

    ret = sd.destroySockets(IPPROTO_UDP, static_cast<uint32_t>(numericUid), false);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " VEK_GAMING Error destroying UDP sockets: %s",
                            strerror(-ret));
    } else {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " VEK_GAMING destroying UDP sockets: %s", uid);
    }
    vekd::counters::countSocketsDestroyed(static_cast<uint64_t>(sd.socketsDestroyed()));
    return ret;
}

namespace android {
namespace net {

SockDiag::~SockDiag() {
    ops().close(mSock);
    ops().close(mWriteSock);
}

bool SockDiag::open() {
    if (mSock != -1 && mWriteSock != -1) return false;
    // A half-open object cannot come from this class; close the stray
    // descriptor rather than leak it.
    if (mSock != -1) ops().close(mSock);
    if (mWriteSock != -1) ops().close(mWriteSock);

    mSock = ops().socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    mWriteSock = ops().socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const auto* addr = reinterpret_cast<const sockaddr*>(&kernel);
    if (mSock == -1 || mWriteSock == -1 || ops().connect(mSock, addr, sizeof(kernel)) == -1 ||
        ops().connect(mWriteSock, addr, sizeof(kernel)) == -1) {
        // The caller reports errno of the call that failed.
        const int savedErrno = errno;
        ops().close(mSock);
        ops().close(mWriteSock);
        mSock = mWriteSock = -1;
        errno = savedErrno;
        return false;
    }
    return true;
}

int SockDiag::checkImmediateError(int fd) {
    ErrorProbe probe{};
    errno = 0;
    ssize_t n = ops().recvfrom(fd, &probe, sizeof(probe), MSG_PEEK | MSG_DONTWAIT);
    if (n == static_cast<ssize_t>(sizeof(probe)) && probe.nlh.nlmsg_type == NLMSG_ERROR) {
        const int error = kernelError(probe.err.error);
        ErrorProbe consumed{};
        ops().recvfrom(fd, &consumed, sizeof(consumed), 0);
        return error;
    }
    if (n >= 0) return 0;
    return errno == EAGAIN ? 0 : negatedErrno();
}

int SockDiag::sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                              iovec* iov, int iovcnt) {
    if (iov == nullptr || iovcnt < 1) return -EINVAL;

    DiagRequest request{};
    request.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.req.sdiag_family = family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_ext = extensions;
    request.req.idiag_states = states;
    iov[0].iov_base = &request;
    iov[0].iov_len = sizeof(request);

    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) total += iov[i].iov_len;
    if (total > UINT32_MAX) return -EMSGSIZE;
    request.nlh.nlmsg_len = static_cast<uint32_t>(total);

    errno = 0;
    ssize_t written = ops().writev(mSock, iov, iovcnt);
    if (written != static_cast<ssize_t>(total)) return negatedErrno();
    return checkImmediateError(mSock);
}

int SockDiag::readDiagMsg(uint8_t proto,
                          const std::function<bool(uint8_t, const inet_diag_msg*)>& shouldDestroy) {
    auto processMsg = [this, proto, shouldDestroy](const nlmsghdr* nlh) {
        const auto* msg = static_cast<const inet_diag_msg*>(NLMSG_DATA(nlh));
        if (shouldDestroy(proto, msg)) {
            int ret = sockDestroy(proto, msg);
            __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK_GAMING: SOCK DESTROY [%d]", ret);
        }
    };

    alignas(nlmsghdr) char buffer[kReadBufferSize];
    memset(buffer, 0, sizeof(buffer));
    for (;;) {
        errno = 0;
        ssize_t bytesRead = ops().read(mSock, buffer, sizeof(buffer));
        if (bytesRead < 0) {
            if (errno == EINTR) continue;
            return negatedErrno();
        }
        if (bytesRead == 0) return 0;

        const char* cursor = buffer;
        size_t remaining = static_cast<size_t>(bytesRead);
        while (remaining >= sizeof(nlmsghdr)) {
            const auto* nlh = reinterpret_cast<const nlmsghdr*>(cursor);
            const uint32_t len = nlh->nlmsg_len;
            if (len < sizeof(nlmsghdr) || len > remaining) break;
            if (nlh->nlmsg_type == NLMSG_DONE) return 0;
            if (nlh->nlmsg_type == NLMSG_ERROR) {
                if (len < NLMSG_LENGTH(sizeof(int32_t))) {
                    __android_log_print(ANDROID_LOG_ERROR, kTag,
                                        "VEK_GAMING error message of %u bytes has no error code", len);
                    return -EBADMSG;
                }
                int32_t error;
                memcpy(&error, NLMSG_DATA(nlh), sizeof(error));
                return kernelError(error);
            }
            if (len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
                __android_log_print(ANDROID_LOG_ERROR, kTag,
                                    "VEK_GAMING socket message of %u bytes is too short, skipped", len);
            } else {
                processMsg(nlh);
            }
            const size_t step = NLMSG_ALIGN(len);
            if (step >= remaining) break;
            cursor += step;
            remaining -= step;
        }
    }
}

int SockDiag::destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback) {
    mSocketsDestroyed = 0;

    auto shouldDestroy = [uid, excludeLoopback](uint8_t, const inet_diag_msg* msg) {
        if (msg == nullptr) return false;
        const bool destroy =
            msg->idiag_uid == uid && !(excludeLoopback && SockDiag::isLoopbackSocket(msg));
        if (gDebugLogEnabled) {
            // The ports stay in network byte order, as the kernel sent them.
            __android_log_print(ANDROID_LOG_ERROR, kTag,
                                destroy ? "VEK_GAMING should destroy sockets TRUE: UID: %d, srs_prt: %d, dst_prt: %d"
                                        : "VEK_GAMING not destroy sockets FALSE: UID: %d, srs_prt: %d, dst_prt: %d",
                                static_cast<int>(msg->idiag_uid), msg->id.idiag_sport,
                                msg->id.idiag_dport);
        }
        return destroy;
    };

    struct {
        uint8_t family;
        const char* name;
    } const families[] = {{AF_INET, "IPv4"}, {AF_INET6, "IPv6"}};

    for (const auto& family : families) {
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK_GAMING sendDumpRequest check");
        }
        iovec iov[1];
        int ret = sendDumpRequest(proto, family.family, 0, kStatesToDestroy, iov, 1);
        if (ret != 0) {
            if (gDebugLogEnabled) {
                __android_log_print(ANDROID_LOG_ERROR, kTag,
                                    "VEK_GAMING Failed to dump %s sockets for UID: %s", family.name,
                                    strerror(-ret));
            }
            return ret;
        }
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "VEK_GAMING readDiagMsg check");
        }
        ret = readDiagMsg(proto, shouldDestroy);
        if (ret != 0) {
            if (gDebugLogEnabled) {
                __android_log_print(ANDROID_LOG_ERROR, kTag,
                                    "VEK_GAMING Failed to destroy %s sockets for UID: %s",
                                    family.name, strerror(-ret));
            }
            return ret;
        }
        if (gDebugLogEnabled) {
            __android_log_print(ANDROID_LOG_DEBUG, kTag, "VEK_GAMING readDiagMsg checked");
        }
    }

    if (gDebugLogEnabled && mSocketsDestroyed >= 1) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "VEK_GAMING Destroyed %d sockets for UID",
                            mSocketsDestroyed);
    }
    return 0;
}

bool SockDiag::isLoopbackSocket(const inet_diag_msg* msg) {
    if (msg == nullptr) return false;
    const auto* src = reinterpret_cast<const uint8_t*>(msg->id.idiag_src);
    const auto* dst = reinterpret_cast<const uint8_t*>(msg->id.idiag_dst);
    switch (msg->idiag_family) {
        case AF_INET:
            return src[0] == 127 || dst[0] == 127 || memcmp(src, dst, 4) == 0;
        case AF_INET6:
            // Byte 15 is the last octet of a mapped IPv4 address, so
            // ::ffff:1.2.3.127 counts and ::ffff:127.0.0.1 does not; kept so
            // that the daemon spares exactly the sockets it always has.
            return isV4MappedWithLastOctet127(src) || isV4MappedWithLastOctet127(dst) ||
                   isV6Loopback(src) || isV6Loopback(dst) || memcmp(src, dst, 16) == 0;
        default:
            return false;
    }
}

int SockDiag::sockDestroy(uint8_t proto, const inet_diag_msg* msg) {
    if (msg == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, " VEK_GAMING sockDestroy msg is nullptr");
        return 0;
    }

    DiagRequest request{};
    request.nlh.nlmsg_len = sizeof(request);
    request.nlh.nlmsg_type = SOCK_DESTROY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST;
    request.req.sdiag_family = msg->idiag_family;
    request.req.sdiag_protocol = proto;
    // A state the kernel cannot have would shift past the word; match nothing.
    request.req.idiag_states = msg->idiag_state < 32 ? 1u << msg->idiag_state : 0u;
    request.req.id = msg->id;

    errno = 0;
    ssize_t written = ops().write(mWriteSock, &request, sizeof(request));
    if (written < static_cast<ssize_t>(sizeof(request))) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "VEK_GAMING FAILED sockDestroy in write");
        return negatedErrno();
    }
    int ret = checkImmediateError(mWriteSock);
    if (ret != 0) return ret;
    ++mSocketsDestroyed;
    return 0;
}

}  // namespace net
}  // namespace android
