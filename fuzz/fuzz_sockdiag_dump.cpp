// The socket destroyer's dump walk over arbitrary netlink bytes. The input
// scripts the kernel: for every dump request some datagrams (any bytes), and
// for every destroy request an immediate answer or none. The walk must stay
// inside each datagram, end, and never destroy more sockets than the dumps
// described.
#include <fuzzer/FuzzedDataProvider.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/DebugFlag.h"
#include "fuzz/FuzzSupport.h"
#include "sockdiag/SockDiag.h"
#include "tests/support/FakeNetlink.h"

using vekd::test::Bytes;
using vekd::test::FakeNetlink;

namespace {

vekd::fuzz::QuietLog* quiet;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quiet = new vekd::fuzz::QuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const uint8_t mode = in.ConsumeIntegral<uint8_t>();
    gDebugLogEnabled = (mode & 1) ? 1 : 0;

    std::vector<std::vector<Bytes>> dumps;
    std::vector<Bytes> destroyAnswers;
    size_t diagMessages = 0;
    const int dumpCount = in.ConsumeIntegralInRange<int>(1, 4);
    for (int d = 0; d < dumpCount; ++d) {
        std::vector<Bytes> datagrams;
        const int count = in.ConsumeIntegralInRange<int>(0, 3);
        for (int i = 0; i < count; ++i) {
            const std::string bytes = in.ConsumeRandomLengthString(9000);
            datagrams.emplace_back(bytes.begin(), bytes.end());
            diagMessages += bytes.size() / NLMSG_LENGTH(sizeof(inet_diag_msg));
        }
        dumps.push_back(std::move(datagrams));
    }
    const int answers = in.ConsumeIntegralInRange<int>(0, 4);
    for (int i = 0; i < answers; ++i) {
        const std::string bytes = in.ConsumeRandomLengthString(64);
        destroyAnswers.emplace_back(bytes.begin(), bytes.end());
    }
    const uint32_t uid = in.ConsumeIntegral<uint32_t>();

    FakeNetlink netlink;
    size_t nextDump = 0;
    size_t nextAnswer = 0;
    netlink.setResponder([&](int, const Bytes& request) -> std::vector<Bytes> {
        nlmsghdr nlh{};
        if (request.size() >= sizeof(nlh)) memcpy(&nlh, request.data(), sizeof(nlh));
        if (nlh.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
            return nextDump < dumps.size() ? dumps[nextDump++] : std::vector<Bytes>{FakeNetlink::done()};
        }
        if (nextAnswer < destroyAnswers.size()) return {destroyAnswers[nextAnswer++]};
        return {};
    });
    if (mode & 2) netlink.failPeek(EIO);

    {
        android::net::SockDiag sd;
        FUZZ_CHECK(sd.open());
        const uint8_t proto = (mode & 4) ? IPPROTO_UDP : IPPROTO_TCP;
        sd.destroySockets(proto, uid, (mode & 8) != 0);
        FUZZ_CHECK(static_cast<size_t>(sd.socketsDestroyed()) <= diagMessages);
    }
    if (mode & 16) {
        const std::string text = std::to_string(static_cast<int32_t>(uid));
        killSocketsForUID(text.c_str());
    }
    gDebugLogEnabled = 0;
    return 0;
}
