#define LOG_TAG "HostBinder"

#include "platform/binder/Client.h"

#include <binder/IBinder.h>
#include <log/log.h>

#include <cerrno>
#include <cstring>

#include "platform/binder/SocketOps.h"
#include "platform/binder/Wire.h"

namespace vekd::binder {

using android::DEAD_OBJECT;
using android::NO_ERROR;
using android::status_t;

namespace {

bool sendAll(int fd, const uint8_t* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = sys().send(fd, data + done, size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (!(n < 0 && errno == EINTR)) {
            return false;
        }
    }
    return true;
}

// Reads exactly `size` bytes; *got tells how many arrived before a failure.
bool recvAll(int fd, uint8_t* data, size_t size, size_t* got) {
    *got = 0;
    while (*got < size) {
        ssize_t n = sys().recv(fd, data + *got, size - *got);
        if (n > 0) {
            *got += static_cast<size_t>(n);
        } else if (!(n < 0 && errno == EINTR)) {
            return false;
        }
    }
    return true;
}

}  // namespace

Client& Client::instance() {
    // Never destroyed: calls may still be made while the process exits.
    static Client* client = new Client();
    return *client;
}

int32_t Client::handleForPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_byPath.find(path);
    if (it != m_byPath.end()) return it->second;
    const int32_t handle = m_nextHandle++;
    m_byPath[path] = handle;
    m_channels[handle].path = path;
    return handle;
}

bool Client::knowsHandle(int32_t handle) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_channels.count(handle) != 0;
}

int Client::takeConnection(int32_t handle, bool* reused, status_t* err) {
    std::string path;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_channels.find(handle);
        if (it == m_channels.end()) {
            *err = android::BAD_VALUE;
            return -1;
        }
        if (!it->second.idle.empty()) {
            const int fd = it->second.idle.back();
            it->second.idle.pop_back();
            *reused = true;
            return fd;
        }
        path = it->second.path;
    }
    *reused = false;
    int fd = sys().socket(false);
    if (fd < 0) {
        *err = -errno;
        return -1;
    }
    if (sys().connect(fd, path) != 0) {
        sys().close(fd);
        *err = DEAD_OBJECT;
        return -1;
    }
    return fd;
}

void Client::giveBack(int32_t handle, int fd) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_channels.find(handle);
        if (it != m_channels.end() && it->second.idle.size() < kMaxIdlePerService) {
            it->second.idle.push_back(fd);
            return;
        }
    }
    sys().close(fd);
}

bool Client::probe(int32_t handle) {
    bool reused = false;
    status_t err = NO_ERROR;
    // A fresh connection, so that a service that went away is noticed.
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_channels.find(handle);
        if (it == m_channels.end()) return false;
        for (int fd : it->second.idle) sys().close(fd);
        it->second.idle.clear();
    }
    int fd = takeConnection(handle, &reused, &err);
    if (fd < 0) return false;
    giveBack(handle, fd);
    return true;
}

Client::Outcome Client::roundTrip(int fd, const std::vector<uint8_t>& request,
                                  const std::vector<int>& fds, uint32_t flags,
                                  android::Parcel* reply, status_t* status) {
    *status = NO_ERROR;
    size_t first = 0;
    if (!fds.empty()) {
        // The descriptors ride on the frame's first byte.
        ssize_t n;
        do {
            n = sys().sendWithFds(fd, request.data(), 1, fds.data(), fds.size());
        } while (n < 0 && errno == EINTR);
        if (n != 1) return Outcome::kLostBeforeReply;
        first = 1;
    }
    if (!sendAll(fd, request.data() + first, request.size() - first)) {
        return first == 0 ? Outcome::kLostBeforeReply : Outcome::kBroken;
    }
    if ((flags & android::IBinder::FLAG_ONEWAY) != 0) return Outcome::kDone;

    uint8_t header[wire::kReplyHeaderBytes];
    size_t got = 0;
    if (!recvAll(fd, header, sizeof(header), &got)) {
        return got == 0 ? Outcome::kLostBeforeReply : Outcome::kBroken;
    }
    size_t frameBytes = 0;
    const wire::FrameCheck check =
        wire::checkFrame(header, sizeof(header), wire::kReplyHeaderBytes - 4, &frameBytes);
    if (check == wire::FrameCheck::kTooLong || check == wire::FrameCheck::kTooShort) {
        ALOGE("malformed reply (length %u)", wire::getU32(header));
        return Outcome::kBroken;
    }
    const size_t payload = wire::getU32(header) - (wire::kReplyHeaderBytes - 4);
    std::vector<uint8_t> body(payload);
    if (payload > 0 && !recvAll(fd, body.data(), payload, &got)) return Outcome::kBroken;
    if (reply != nullptr && reply->setData(body.data(), body.size()) != NO_ERROR) {
        // The connection is in step; only this reply could not be stored.
        *status = android::NO_MEMORY;
        return Outcome::kDone;
    }
    *status = static_cast<status_t>(wire::getU32(header + 4));
    return Outcome::kDone;
}

status_t Client::transact(int32_t handle, uint32_t code, const android::Parcel& data,
                          android::Parcel* reply, uint32_t flags,
                          const std::vector<OutgoingFd>& fds) {
    if (data.dataSize() > wire::kMaxFrameBytes - (wire::kRequestHeaderBytes - 4)) {
        ALOGE("transaction %u: parcel of %zu bytes is too long", code, data.dataSize());
        return android::FAILED_TRANSACTION;
    }
    if (fds.size() > wire::kMaxFdsPerFrame) {
        ALOGE("transaction %u: %zu descriptors, at most %zu", code, fds.size(), wire::kMaxFdsPerFrame);
        return android::FAILED_TRANSACTION;
    }
    std::vector<uint8_t> request;
    request.reserve(wire::kRequestHeaderBytes + data.dataSize());
    const uint32_t words[] = {code, flags};
    wire::appendFrame(&request, words, 2, data.data(), data.dataSize());
    // On the wire each descriptor object carries its place in the frame.
    std::vector<int> passed;
    for (const OutgoingFd& object : fds) {
        wire::putFdObject(request.data() + wire::kRequestHeaderBytes + object.offset,
                          static_cast<uint32_t>(passed.size()), false);
        passed.push_back(object.fd);
    }

    // A pooled connection may have been closed by a service that restarted;
    // such a call is tried once more on a fresh connection.
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reused = false;
        status_t err = NO_ERROR;
        int fd = takeConnection(handle, &reused, &err);
        if (fd < 0) return err;
        status_t status = NO_ERROR;
        const Outcome outcome = roundTrip(fd, request, passed, flags, reply, &status);
        if (outcome == Outcome::kDone) {
            giveBack(handle, fd);
            return status;
        }
        sys().close(fd);
        if (outcome == Outcome::kLostBeforeReply && reused) continue;
        return DEAD_OBJECT;
    }
    return DEAD_OBJECT;
}

void Client::closeIdleConnections() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& [handle, channel] : m_channels) {
        for (int fd : channel.idle) sys().close(fd);
        channel.idle.clear();
    }
}

}  // namespace vekd::binder
