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

}  // namespace vekd::binder::wire
