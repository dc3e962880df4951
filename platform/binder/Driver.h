// The host's stand-in for the binder driver, server side: it listens on the
// sockets of the services this process published, reads request frames and
// queues them for the pool threads, which run them and send the replies.
//
// One thread polls every socket, so a slow or stalled peer never holds a pool
// thread; a connection is not read again until its transaction is answered,
// which keeps the transactions of one connection in order.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/IBinder.h>
#include <binder/Parcel.h>

namespace vekd::binder {

struct Connection;

// Descriptors received with a request, closed unless handed on; `offsets`
// are where their objects stand in the parcel bytes.
class ReceivedFds {
  public:
    ReceivedFds() = default;
    ReceivedFds(ReceivedFds&& other) noexcept { take(other); }
    ReceivedFds& operator=(ReceivedFds&& other) noexcept {
        if (this != &other) {
            closeAll();
            take(other);
        }
        return *this;
    }
    ~ReceivedFds() { closeAll(); }
    ReceivedFds(const ReceivedFds&) = delete;
    ReceivedFds& operator=(const ReceivedFds&) = delete;

    void closeAll();
    // Someone else closes them now.
    void release() {
        fds.clear();
        offsets.clear();
    }

    std::vector<int> fds;
    std::vector<size_t> offsets;

  private:
    void take(ReceivedFds& other) {
        fds.swap(other.fds);
        offsets.swap(other.offsets);
        other.release();
    }
};

// One transaction handed to a pool thread.
struct Work {
    std::shared_ptr<Connection> connection;
    android::sp<android::IBinder> target;
    uint32_t code = 0;
    uint32_t flags = 0;
    pid_t callingPid = -1;
    uid_t callingUid = static_cast<uid_t>(-1);
    std::vector<uint8_t> data;
    ReceivedFds fds;
};

class Driver {
  public:
    // At most this many transactions run at once, whatever the pool size.
    static constexpr size_t kMaxConcurrentTransactions = 16;
    static constexpr int kDefaultStallTimeoutMs = 5000;

    static Driver& instance();

    // Listens for `binder` on the socket `path`; a stale socket file there is
    // replaced. Publishing the same path again swaps the object.
    android::status_t publish(const std::string& path, const android::sp<android::IBinder>& binder);

    // Pool threads: blocks until a transaction may run; false when the pool
    // is being shut down.
    bool waitForWork(Work* work);
    // Sends the reply (unless one-way) and gives the connection back.
    void finishWork(Work* work, android::status_t status, const android::Parcel& reply);

    // Threads beyond the first that the driver may start when every pool
    // thread is busy.
    void setMaxThreads(size_t count);
    // Starts a pool thread that runs IPCThreadState::joinThreadPool(isMain).
    void spawnLooper(bool isMain, const std::string& name);
    // Called by a thread entering and leaving joinThreadPool.
    void looperEntered();
    void looperLeft();

    // Tests shorten the mid-frame stall limit.
    void setStallTimeoutMs(int ms);

    // Closes every socket, stops and joins the threads it started, forgets
    // all services; afterwards the driver can be used again.
    void shutdown();

  private:
    Driver() = default;
    struct Listener;

    void ensureThreadLocked();
    void wake();
    void loop();
    void acceptAll(Listener& listener);
    void readFrom(const std::shared_ptr<Connection>& conn, int64_t now);
    // Queues the first frame of the connection's buffer when it is whole.
    bool dispatchIfComplete(const std::shared_ptr<Connection>& conn);
    void closeConnection(int fd);
    void maybeSpawnLocked();

    std::mutex m_mutex;
    std::condition_variable m_workReady;
    std::condition_variable m_loopersChanged;
    std::deque<Work> m_queue;
    std::map<std::string, std::unique_ptr<Listener>> m_listeners;  // by socket path
    std::map<int, std::shared_ptr<Connection>> m_connections;       // by fd
    std::vector<std::shared_ptr<Connection>> m_returned;  // answered, to be polled again
    std::thread m_thread;
    int m_wakeRead = -1;  // the poller's end of the wake-up channel
    int m_wakeFd = -1;    // written to wake the poller
    bool m_stopping = false;
    int m_stallTimeoutMs = kDefaultStallTimeoutMs;

    // Pool bookkeeping.
    std::vector<std::thread> m_spawned;
    size_t m_maxThreads = 15;
    size_t m_extraThreads = 0;
    size_t m_loopers = 0;
    size_t m_idle = 0;
    size_t m_executing = 0;
    uint32_t m_threadSeq = 0;
};

}  // namespace vekd::binder
