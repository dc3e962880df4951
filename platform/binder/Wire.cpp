#include "platform/binder/Wire.h"

#include <algorithm>

namespace vekd::binder::wire {

void appendFrame(std::vector<uint8_t>* out, const uint32_t* words, size_t wordCount,
                 const uint8_t* payload, size_t size) {
    const size_t start = out->size();
    out->resize(start + 4 + 4 * wordCount + size);
    uint8_t* p = out->data() + start;
    putU32(p, static_cast<uint32_t>(4 * wordCount + size));
    for (size_t i = 0; i < wordCount; ++i) putU32(p + 4 + 4 * i, words[i]);
    if (size > 0) std::copy(payload, payload + size, p + 4 + 4 * wordCount);
}

FrameCheck checkFrame(const uint8_t* buf, size_t size, size_t fixedBytes, size_t* frameBytes) {
    if (size < 4) return FrameCheck::kIncomplete;
    const uint32_t length = getU32(buf);
    if (length > kMaxFrameBytes) return FrameCheck::kTooLong;
    if (length < fixedBytes) return FrameCheck::kTooShort;
    if (size < 4 + static_cast<size_t>(length)) return FrameCheck::kIncomplete;
    *frameBytes = 4 + static_cast<size_t>(length);
    return FrameCheck::kComplete;
}

}  // namespace vekd::binder::wire
