// The client side of the host transport: every remote service is a handle
// naming its socket, and calls to it travel over pooled connections, one
// connection per call in flight.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <binder/Parcel.h>

namespace vekd::binder {

// A descriptor object of an outgoing request: where it stands in the parcel
// bytes and the caller's descriptor.
struct OutgoingFd {
    size_t offset;
    int fd;
};

class Client {
  public:
    static Client& instance();

    // The handle of the service listening on `path`, the same for every call
    // with the same path; nothing is connected.
    int32_t handleForPath(const std::string& path);
    bool knowsHandle(int32_t handle);

    // True when the service answers a connection now; the connection is kept
    // for the next call.
    bool probe(int32_t handle);

    android::status_t transact(int32_t handle, uint32_t code, const android::Parcel& data,
                               android::Parcel* reply, uint32_t flags,
                               const std::vector<OutgoingFd>& fds = {});

    // Closes the idle connections; handles stay valid.
    void closeIdleConnections();

  private:
    // Connections kept per service; more calls in flight than this open
    // extra connections and close them afterwards.
    static constexpr size_t kMaxIdlePerService = 16;

    struct Channel {
        std::string path;
        std::vector<int> idle;
    };

    Client() = default;
    int takeConnection(int32_t handle, bool* reused, android::status_t* err);
    void giveBack(int32_t handle, int fd);
    enum class Outcome {
        kDone,             // answered (or sent, when one-way); *status is the answer
        kLostBeforeReply,  // the connection failed before any reply byte
        kBroken,           // the connection failed or the reply was malformed
    };
    Outcome roundTrip(int fd, const std::vector<uint8_t>& request, const std::vector<int>& fds,
                      uint32_t flags, android::Parcel* reply, android::status_t* status);

    std::mutex m_mutex;
    std::map<int32_t, Channel> m_channels;
    std::map<std::string, int32_t> m_byPath;
    int32_t m_nextHandle = 1;
};

}  // namespace vekd::binder
