#define LOG_TAG "HostBinder"

#include "platform/binder/Driver.h"

#include <binder/IPCThreadState.h>
#include <log/log.h>
#include <pthread.h>
#include <unistd.h>
#include <utils/String8.h>

#include <cerrno>
#include <cstring>

#include "platform/binder/SocketOps.h"
#include "platform/binder/Wire.h"

namespace vekd::binder {

using android::NO_ERROR;
using android::status_t;

namespace {

// The request fields after the length: code and flags.
constexpr size_t kRequestFixedBytes = wire::kRequestHeaderBytes - 4;
// After a failed accept (out of descriptors, say) the listener rests this long
// instead of spinning on a socket that stays readable.
constexpr int64_t kAcceptRetryMs = 100;

bool sendAll(int fd, const uint8_t* data, size_t size, int stallTimeoutMs) {
    size_t done = 0;
    while (done < size) {
        ssize_t n = sys().send(fd, data + done, size - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            struct pollfd p = {fd, POLLOUT, 0};
            int ready = sys().poll(&p, 1, stallTimeoutMs);
            if (ready > 0) continue;
            if (ready < 0 && errno == EINTR) continue;
        }
        return false;
    }
    return true;
}

}  // namespace

struct Connection {
    int fd = -1;
    android::sp<android::IBinder> target;
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    std::vector<uint8_t> buf;  // bytes received and not yet handed out
    // Descriptors received and not yet handed out, with the offset in `buf`
    // of the first byte that came with them.
    std::vector<std::pair<size_t, int>> fds;
    int64_t lastProgressMs = 0;
    bool busy = false;    // one of its transactions is queued or running
    bool broken = false;  // its reply could not be delivered
};

void ReceivedFds::closeAll() {
    for (int fd : fds) sys().close(fd);
    release();
}

struct Driver::Listener {
    int fd = -1;
    std::string path;
    android::sp<android::IBinder> binder;
    int64_t restUntilMs = 0;
};

Driver& Driver::instance() {
    // Never destroyed: pool threads may still use it while the process exits.
    static Driver* driver = new Driver();
    return *driver;
}

status_t Driver::publish(const std::string& path, const android::sp<android::IBinder>& binder) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto existing = m_listeners.find(path);
    if (existing != m_listeners.end()) {
        existing->second->binder = binder;
        return NO_ERROR;
    }

    // Someone still answering there is not stale: leave their socket alone.
    int probe = sys().socket(false);
    if (probe >= 0) {
        const bool live = sys().connect(probe, path) == 0;
        sys().close(probe);
        if (live) {
            ALOGE("publish: %s is served by another process", path.c_str());
            return android::ALREADY_EXISTS;
        }
    }
    if (!sys().removeSocketFile(path)) {
        ALOGE("publish: cannot replace %s: %s", path.c_str(), strerror(errno));
        return -errno;
    }
    int fd = sys().socket(true);
    if (fd < 0) {
        ALOGE("publish: socket: %s", strerror(errno));
        return -errno;
    }
    if (sys().bind(fd, path) != 0 || sys().listen(fd, 128) != 0) {
        const int err = errno;
        ALOGE("publish: cannot listen on %s: %s", path.c_str(), strerror(err));
        sys().close(fd);
        return -err;
    }
    auto listener = std::make_unique<Listener>();
    listener->fd = fd;
    listener->path = path;
    listener->binder = binder;
    m_listeners[path] = std::move(listener);
    ensureThreadLocked();
    wake();
    return NO_ERROR;
}

void Driver::ensureThreadLocked() {
    if (m_thread.joinable()) return;
    int fds[2];
    if (sys().socketPair(fds) != 0) {
        ALOGE("cannot create the wake-up channel: %s", strerror(errno));
        fds[0] = fds[1] = -1;
    }
    m_wakeRead = fds[0];
    m_wakeFd = fds[1];
    m_thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "binder_host");
        loop();
    });
}

void Driver::wake() {
    if (m_wakeFd < 0) return;
    const uint8_t byte = 1;
    // A full channel already means "wake up".
    (void)sys().send(m_wakeFd, &byte, 1);
}

void Driver::loop() {
    std::vector<struct pollfd> fds;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        int64_t now = sys().monotonicMs();
        for (auto& conn : m_returned) {
            conn->busy = false;
            conn->lastProgressMs = now;
            if (conn->broken) {
                closeConnection(conn->fd);
            } else {
                dispatchIfComplete(conn);
            }
        }
        m_returned.clear();

        fds.clear();
        fds.push_back({m_wakeRead, POLLIN, 0});
        int64_t timeout = -1;
        auto earliest = [&](int64_t due) {
            const int64_t wait = due > now ? due - now : 0;
            if (timeout < 0 || wait < timeout) timeout = wait;
        };
        for (auto& [path, listener] : m_listeners) {
            if (listener->restUntilMs > now) {
                earliest(listener->restUntilMs);
                continue;
            }
            fds.push_back({listener->fd, POLLIN, 0});
        }
        for (auto& [fd, conn] : m_connections) {
            if (conn->busy) continue;
            fds.push_back({fd, POLLIN, 0});
            if (!conn->buf.empty()) earliest(conn->lastProgressMs + m_stallTimeoutMs);
        }

        lock.unlock();
        int ready = sys().poll(fds.data(), fds.size(), static_cast<int>(timeout));
        lock.lock();
        if (m_stopping) break;
        now = sys().monotonicMs();

        if (ready > 0) {
            for (const auto& p : fds) {
                if (p.revents == 0) continue;
                if (p.fd == m_wakeRead) {
                    uint8_t drain[64];
                    while (sys().recv(m_wakeRead, drain, sizeof(drain)) > 0) {
                    }
                    continue;
                }
                bool isListener = false;
                for (auto& [path, listener] : m_listeners) {
                    if (listener->fd == p.fd) {
                        acceptAll(*listener);
                        isListener = true;
                        break;
                    }
                }
                if (isListener) continue;
                auto it = m_connections.find(p.fd);
                if (it != m_connections.end() && !it->second->busy) readFrom(it->second, now);
            }
        }

        // A peer that stops in the middle of a frame loses its connection.
        std::vector<int> stalled;
        for (auto& [fd, conn] : m_connections) {
            if (!conn->busy && !conn->buf.empty() &&
                now - conn->lastProgressMs >= m_stallTimeoutMs) {
                stalled.push_back(fd);
            }
        }
        for (int fd : stalled) {
            ALOGW("closing a connection that stalled in the middle of a frame");
            closeConnection(fd);
        }
    }
}

void Driver::acceptAll(Listener& listener) {
    while (true) {
        int fd = sys().accept(listener.fd);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                ALOGE("accept on %s: %s", listener.path.c_str(), strerror(errno));
                listener.restUntilMs = sys().monotonicMs() + kAcceptRetryMs;
            }
            return;
        }
        auto conn = std::make_shared<Connection>();
        conn->fd = fd;
        conn->target = listener.binder;
        if (!sys().peerCredentials(fd, &conn->pid, &conn->uid)) {
            ALOGW("no peer credentials on %s: %s", listener.path.c_str(), strerror(errno));
            conn->pid = -1;
            conn->uid = static_cast<uid_t>(-1);
        }
        m_connections[fd] = std::move(conn);
    }
}

void Driver::readFrom(const std::shared_ptr<Connection>& conn, int64_t now) {
    uint8_t chunk[16384];
    std::vector<int> fds;
    while (true) {
        fds.clear();
        ssize_t n = sys().recvWithFds(conn->fd, chunk, sizeof(chunk), &fds, wire::kMaxFdsPerFrame);
        for (int fd : fds) conn->fds.emplace_back(conn->buf.size(), fd);
        if (conn->fds.size() > wire::kMaxFdsPerFrame) {
            ALOGW("closing a connection that sent more than %zu descriptors", wire::kMaxFdsPerFrame);
            closeConnection(conn->fd);
            return;
        }
        if (n > 0) {
            conn->buf.insert(conn->buf.end(), chunk, chunk + n);
            conn->lastProgressMs = now;
            size_t frameBytes = 0;
            const wire::FrameCheck check =
                wire::checkFrame(conn->buf.data(), conn->buf.size(), kRequestFixedBytes, &frameBytes);
            if (check == wire::FrameCheck::kIncomplete) continue;
            if (check != wire::FrameCheck::kComplete) {
                ALOGW("closing a connection that sent a frame of %u bytes",
                      wire::getU32(conn->buf.data()));
                closeConnection(conn->fd);
                return;
            }
            dispatchIfComplete(conn);
            return;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n < 0 && errno == EBADMSG) {
            ALOGW("closing a connection that sent more than %zu descriptors at once", wire::kMaxFdsPerFrame);
        }
        if (n == 0 && !conn->buf.empty()) {
            ALOGW("closing a connection that ended in the middle of a frame");
        }
        closeConnection(conn->fd);
        return;
    }
}

bool Driver::dispatchIfComplete(const std::shared_ptr<Connection>& conn) {
    size_t frameBytes = 0;
    const wire::FrameCheck check =
        wire::checkFrame(conn->buf.data(), conn->buf.size(), kRequestFixedBytes, &frameBytes);
    if (check == wire::FrameCheck::kIncomplete) return false;
    if (check != wire::FrameCheck::kComplete) {
        closeConnection(conn->fd);
        return false;
    }
    // The frame's descriptors must all have come with its first byte, one
    // for each descriptor object in its parcel.
    ReceivedFds fds;
    bool misplaced = false;
    size_t kept = 0;
    for (const auto& [at, fd] : conn->fds) {
        if (at < frameBytes) {
            misplaced = misplaced || at != 0;
            fds.fds.push_back(fd);
        } else {
            conn->fds[kept++] = {at - frameBytes, fd};
        }
    }
    conn->fds.resize(kept);
    fds.offsets = wire::findWireFdObjects(conn->buf.data() + wire::kRequestHeaderBytes,
                                          frameBytes - wire::kRequestHeaderBytes);
    if (misplaced || fds.offsets.size() != fds.fds.size()) {
        ALOGW("closing a connection whose frame's descriptors do not match its parcel "
              "(%zu descriptors%s, %zu objects)",
              fds.fds.size(), misplaced ? " not all with the first byte" : "", fds.offsets.size());
        // Closed before the connection, so the peer never sees the end first.
        fds.closeAll();
        closeConnection(conn->fd);
        return false;
    }

    Work work;
    work.connection = conn;
    work.target = conn->target;
    work.code = wire::getU32(conn->buf.data() + 4);
    work.flags = wire::getU32(conn->buf.data() + 8);
    work.callingPid = conn->pid;
    work.callingUid = conn->uid;
    work.data.assign(conn->buf.begin() + wire::kRequestHeaderBytes,
                     conn->buf.begin() + static_cast<ptrdiff_t>(frameBytes));
    work.fds = std::move(fds);
    conn->buf.erase(conn->buf.begin(), conn->buf.begin() + static_cast<ptrdiff_t>(frameBytes));
    conn->busy = true;
    m_queue.push_back(std::move(work));
    maybeSpawnLocked();
    m_workReady.notify_one();
    return true;
}

void Driver::closeConnection(int fd) {
    auto it = m_connections.find(fd);
    if (it == m_connections.end()) return;
    for (const auto& received : it->second->fds) sys().close(received.second);
    it->second->fds.clear();
    sys().close(fd);
    it->second->fd = -1;
    m_connections.erase(it);
}

void Driver::maybeSpawnLocked() {
    if (m_loopers == 0 || m_stopping) return;
    if (m_idle >= m_queue.size() || m_extraThreads >= m_maxThreads) return;
    ++m_extraThreads;
    const std::string name =
        android::String8::format("Binder:%d_%X", getpid(), ++m_threadSeq).string();
    m_spawned.emplace_back([name] {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        android::IPCThreadState::self()->joinThreadPool(false);
    });
}

bool Driver::waitForWork(Work* work) {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_idle;
    m_workReady.wait(lock, [this] {
        return m_stopping || (!m_queue.empty() && m_executing < kMaxConcurrentTransactions);
    });
    --m_idle;
    if (m_stopping) return false;
    *work = std::move(m_queue.front());
    m_queue.pop_front();
    ++m_executing;
    // Whatever is still queued needs another thread once this one is busy.
    maybeSpawnLocked();
    return true;
}

void Driver::finishWork(Work* work, status_t status, const android::Parcel& reply) {
    std::shared_ptr<Connection> conn = std::move(work->connection);
    if ((work->flags & android::IBinder::FLAG_ONEWAY) == 0 && conn->fd >= 0) {
        std::vector<uint8_t> frame;
        frame.reserve(wire::kReplyHeaderBytes + reply.dataSize());
        const uint32_t words[] = {static_cast<uint32_t>(status)};
        wire::appendFrame(&frame, words, 1, reply.data(), reply.dataSize());
        int stallMs;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            stallMs = m_stallTimeoutMs;
        }
        if (frame.size() - 4 > wire::kMaxFrameBytes) {
            ALOGE("reply to code %u is too long (%zu bytes)", work->code, reply.dataSize());
            conn->broken = true;
        } else if (!sendAll(conn->fd, frame.data(), frame.size(), stallMs)) {
            conn->broken = true;
        }
    }
    work->target = nullptr;
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_executing;
    m_returned.push_back(std::move(conn));
    m_workReady.notify_one();
    wake();
}

void Driver::setMaxThreads(size_t count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_maxThreads = count;
}

void Driver::spawnLooper(bool isMain, const std::string& name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping) return;
    m_spawned.emplace_back([isMain, name] {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
        android::IPCThreadState::self()->joinThreadPool(isMain);
    });
}

void Driver::looperEntered() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_loopers;
    // Work may have queued up before the first pool thread arrived.
    maybeSpawnLocked();
}

void Driver::looperLeft() {
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_loopers;
    m_loopersChanged.notify_all();
}

void Driver::setStallTimeoutMs(int ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stallTimeoutMs = ms;
}

void Driver::shutdown() {
    std::vector<std::thread> spawned;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        m_workReady.notify_all();
        wake();
    }
    if (m_thread.joinable()) m_thread.join();
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        // Threads that joined the pool themselves leave it too.
        m_loopersChanged.wait(lock, [this] { return m_loopers == 0; });
        spawned.swap(m_spawned);
    }
    for (auto& t : spawned) t.join();

    std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.clear();
    m_returned.clear();
    for (auto& [fd, conn] : m_connections) {
        for (const auto& received : conn->fds) sys().close(received.second);
        conn->fds.clear();
        sys().close(fd);
        conn->fd = -1;
    }
    m_connections.clear();
    for (auto& [path, listener] : m_listeners) {
        sys().close(listener->fd);
        sys().removeSocketFile(path);
    }
    m_listeners.clear();
    if (m_wakeRead >= 0) sys().close(m_wakeRead);
    if (m_wakeFd >= 0) sys().close(m_wakeFd);
    m_wakeRead = m_wakeFd = -1;
    m_maxThreads = 15;
    m_extraThreads = 0;
    m_idle = 0;
    m_executing = 0;
    m_stallTimeoutMs = kDefaultStallTimeoutMs;
    m_stopping = false;
}

}  // namespace vekd::binder
