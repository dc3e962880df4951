// The host binder transport over arbitrary bytes. The input is the byte
// stream a client writes on a service socket: it is cut into frames and
// parcels in-process, and the same bytes go to a real service of this
// process over its socket, the first byte carrying as many copies of a
// pipe's write end as bits 8-9 of the first frame's flags say. Every reply
// must be one well-formed frame, no more replies may come than complete
// requests went in, the service must close the connection once the client
// has finished sending, and by then it must have closed every descriptor
// it received.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "platform/binder/HostBinder.h"
#include "platform/binder/Wire.h"
#include "tests/support/TempRoot.h"

using android::Parcel;
using android::status_t;
namespace wire = vekd::binder::wire;

namespace {

// Reads its arguments in a way chosen by the code and writes them back.
class EchoService : public android::BBinder {
  public:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code % 8) {
            case 1:
                if (!data.enforceInterface(android::String16("vekd.fuzz"))) return android::PERMISSION_DENIED;
                reply->writeInt32(data.readInt32());
                return reply->writeCString(nonNull(data.readCString()));
            case 2:
                return reply->writeString16(data.readString16());
            case 3:
                reply->writeInt64(data.readInt64());
                reply->writeDouble(data.readDouble());
                return reply->writeString8(data.readString8());
            case 4:
                return reply->appendFrom(&data, 0, data.dataSize());
            case 5:
                for (int fd = data.readFileDescriptor(); fd >= 0; fd = data.readFileDescriptor()) {
                    reply->writeInt32(fcntl(fd, F_GETFD));
                }
                return android::NO_ERROR;
            default:
                return android::BBinder::onTransact(code, data, reply, flags);
        }
    }

  private:
    static const char* nonNull(const char* s) { return s != nullptr ? s : ""; }
};

struct World {
    World() { vekd::fuzz::removeAtExit(root.path()); }
    vekd::test::TempRoot root;
    vekd::fuzz::QuietLog log;
    std::string socketPath;
};

World* world;

// Every reader over one parcel, until it runs dry.
void decodeParcel(const uint8_t* bytes, size_t size, uint32_t code) {
    Parcel p;
    p.setData(bytes, size);
    p.enforceInterface(android::String16("vekd"));
    for (int step = 0; step < 64 && p.dataAvail() > 0; ++step) {
        switch ((code + static_cast<uint32_t>(step)) % 7) {
            case 0: p.readInt32(); break;
            case 1: p.readCString(); break;
            case 2: p.readString16(); break;
            case 3: p.readInt64(); break;
            case 4: p.readString8(); break;
            case 5: {
                std::string utf8;
                p.readUtf8FromUtf16(&utf8);
                break;
            }
            case 6: p.readFloat(); p.readFileDescriptor(); break;
        }
    }
}

// Complete, non-one-way requests at the start of the stream: at most that
// many replies may come.
size_t walkFrames(const uint8_t* data, size_t size) {
    size_t answered = 0;
    while (size > 0) {
        size_t frameBytes = 0;
        const wire::FrameCheck check = wire::checkFrame(data, size, wire::kRequestHeaderBytes - 4, &frameBytes);
        if (check != wire::FrameCheck::kComplete) break;
        FUZZ_CHECK(frameBytes >= wire::kRequestHeaderBytes && frameBytes <= size);
        const uint32_t code = wire::getU32(data + 4);
        const uint32_t flags = wire::getU32(data + 8);
        decodeParcel(data + wire::kRequestHeaderBytes, frameBytes - wire::kRequestHeaderBytes, code);
        if ((flags & android::IBinder::FLAG_ONEWAY) == 0) ++answered;
        data += frameBytes;
        size -= frameBytes;
    }
    return answered;
}

int connectService() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(fd >= 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", world->socketPath.c_str());
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    } while (rc != 0 && errno == EINTR);
    FUZZ_CHECK(rc == 0);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    world = new World();
    android::ProcessState::initWithDriver("/dev/vndbinder");
    android::defaultServiceManager()->addService(android::String16("fuzz"), new EchoService());
    android::ProcessState::self()->startThreadPool();
    world->socketPath = vekd::binder::socketPath("fuzz");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const size_t maxReplies = walkFrames(data, size);

    // libFuzzer's timeout alarm interrupts system calls now and then.
    int fd = connectService();
    int pipeFds[2];
    FUZZ_CHECK(pipe2(pipeFds, O_CLOEXEC) == 0);
    const size_t fdCount = size >= 12 ? (data[9] & 3) : 0;
    // The service may close early (a bad length); later bytes then go nowhere.
    size_t sent = 0;
    if (fdCount > 0) {
        const int fds[3] = {pipeFds[1], pipeFds[1], pipeFds[1]};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(fds))] = {};
        iovec iov = {const_cast<uint8_t*>(data), 1};
        msghdr msg{};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
        memcpy(CMSG_DATA(c), fds, sizeof(int) * fdCount);
        ssize_t n;
        do {
            n = sendmsg(fd, &msg, MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        FUZZ_CHECK(n == 1);
        sent = 1;
    }
    close(pipeFds[1]);
    while (sent < size) {
        ssize_t n = send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);

    std::vector<uint8_t> in;
    uint8_t chunk[65536];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        struct pollfd p = {fd, POLLIN, 0};
        const int ready = poll(&p, 1, 100);
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) {
            // Far beyond any turn of the service: a hang is a fault.
            FUZZ_CHECK(std::chrono::steady_clock::now() < deadline);
            continue;
        }
        FUZZ_CHECK(ready == 1);
        ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        in.insert(in.end(), chunk, chunk + n);
    }
    close(fd);

    // Every copy of the write end is gone: the reader sees the end. (Copies
    // the service never read are released by the kernel just after the
    // connection ends, hence the grace.)
    struct pollfd ended = {pipeFds[0], POLLIN, 0};
    char byte;
    FUZZ_CHECK(poll(&ended, 1, 2000) == 1 && read(pipeFds[0], &byte, 1) == 0);
    close(pipeFds[0]);

    size_t replies = 0;
    size_t pos = 0;
    while (pos < in.size()) {
        size_t frameBytes = 0;
        FUZZ_CHECK(wire::checkFrame(in.data() + pos, in.size() - pos, wire::kReplyHeaderBytes - 4,
                                    &frameBytes) == wire::FrameCheck::kComplete);
        pos += frameBytes;
        ++replies;
    }
    FUZZ_CHECK(replies <= maxReplies);
    return 0;
}
