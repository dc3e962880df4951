// The frames that carry transactions over a service socket. All integers are
// little-endian.
//   request: u32 length of the rest, u32 code, u32 flags, parcel bytes
//   reply:   u32 length of the rest, i32 status, parcel bytes
// One-way requests get no reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vekd::binder::wire {

// The longest "rest of frame" either side accepts.
constexpr size_t kMaxFrameBytes = 1u << 20;
constexpr size_t kRequestHeaderBytes = 12;
constexpr size_t kReplyHeaderBytes = 8;

inline void putU32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

inline uint32_t getU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Appends one whole frame: the length, `wordCount` 32-bit words (code and
// flags, or the status), then `size` payload bytes.
void appendFrame(std::vector<uint8_t>* out, const uint32_t* words, size_t wordCount,
                 const uint8_t* payload, size_t size);

enum class FrameCheck {
    kIncomplete,  // need more bytes
    kComplete,    // *frameBytes bytes, header included, form one frame
    kTooLong,     // announced length above kMaxFrameBytes
    kTooShort,    // announced length cannot even hold the fixed fields
};

// Looks at the start of a receive buffer. `fixedBytes` is the size of the
// fields after the length (8 for requests, 4 for replies).
FrameCheck checkFrame(const uint8_t* buf, size_t size, size_t fixedBytes, size_t* frameBytes);

// A file-descriptor object in parcel bytes, where the platform puts its
// flat object: u32 type, u32 flags, u32 descriptor, u32 zero, u64 cookie
// (non-zero: the parcel owns the descriptor). On the wire the descriptor
// field holds the object's place among the frame's descriptors (0, 1, ...)
// and the cookie is 0; the descriptors themselves travel as SCM_RIGHTS with
// the first byte of the request frame.
constexpr size_t kFdObjectBytes = 24;
constexpr uint32_t kFdObjectType = 0x66642a85;  // 'f' 'd' '*' 0x85
constexpr uint32_t kFdObjectFlags = 0x17f;      // accepts descriptors, priority 0x7f
// The most descriptors one request may carry.
constexpr size_t kMaxFdsPerFrame = 16;

void putFdObject(uint8_t* p, uint32_t fd, bool owned);
// The descriptor of an object in the parcel's own (not wire) form, -1 when
// `p` holds no descriptor object.
int fdOfObject(const uint8_t* p);
bool ownsFd(const uint8_t* p);

// The offsets of the descriptor objects in a request's parcel bytes as they
// came off the wire, in order. Only objects numbered 0, 1, ... in sequence
// count, so plain data is very unlikely to be taken for one.
std::vector<size_t> findWireFdObjects(const uint8_t* parcel, size_t size);

}  // namespace vekd::binder::wire
