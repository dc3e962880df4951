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

void putFdObject(uint8_t* p, uint32_t fd, bool owned) {
    putU32(p, kFdObjectType);
    putU32(p + 4, kFdObjectFlags);
    putU32(p + 8, fd);
    putU32(p + 12, 0);
    putU32(p + 16, owned ? 1 : 0);
    putU32(p + 20, 0);
}

int fdOfObject(const uint8_t* p) {
    if (getU32(p) != kFdObjectType) return -1;
    return static_cast<int>(getU32(p + 8));
}

bool ownsFd(const uint8_t* p) { return getU32(p + 16) != 0 || getU32(p + 20) != 0; }

std::vector<size_t> findWireFdObjects(const uint8_t* parcel, size_t size) {
    std::vector<size_t> found;
    size_t pos = 0;
    while (size >= kFdObjectBytes && pos <= size - kFdObjectBytes) {
        const uint8_t* p = parcel + pos;
        if (getU32(p) == kFdObjectType && getU32(p + 4) == kFdObjectFlags &&
            getU32(p + 8) == found.size() && getU32(p + 12) == 0 && !ownsFd(p)) {
            found.push_back(pos);
            pos += kFdObjectBytes;
        } else {
            pos += 4;
        }
    }
    return found;
}

}  // namespace vekd::binder::wire
