// Byte layout of a per-interface statistics file published by the kernel
// module: a 16-byte header followed by a ring of 1279 samples of 16 bytes.
// The module writes it and the daemon reads it in place through a shared
// mapping, so these structures must match the module's bytes exactly.
#pragma once

#include <cstddef>
#include <cstdint>

#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "statistics files are little-endian and are read in place"
#endif

inline constexpr uint32_t kVekStatsMagic = 0x7A717476;
inline constexpr size_t kVekStatsFileSize = 20480;
inline constexpr size_t kVekStatsSlotSize = 16;
inline constexpr uint32_t kVekStatsSlotCount = 1280;  // slot 0 is the header
inline constexpr uint32_t kVekStatsRingSlots = 1279;  // slots 1..1279

// Sample kinds: only kind 2 (with flag 0) is counted; kind 1 is skipped when
// looking for the older reference point; any other kind may serve as one.
inline constexpr uint8_t kVekSampleSpacer = 1;
inline constexpr uint8_t kVekSampleCounted = 2;

// Slot 0.
struct VekStatsHeader {
    uint32_t magic;       // kVekStatsMagic once the module has initialised the file
    uint32_t reserved0;
    uint32_t writeIndex;  // slot of the newest sample (1..1279); 0 stands for 1279
    uint32_t reserved1;
};

// Slots 1..1279.
struct VekStatsSample {
    uint64_t timestampMs;  // wall-clock milliseconds; 0 marks a slot never written
    uint32_t bytes;        // 0 ends a walk through the ring
    uint16_t aux;          // opaque, shown in the debug log only
    uint8_t kind;
    uint8_t flag;          // a kind-2 sample counts only when this is 0
};

static_assert(sizeof(VekStatsHeader) == kVekStatsSlotSize, "header is one slot");
static_assert(offsetof(VekStatsHeader, magic) == 0, "magic at byte 0");
static_assert(offsetof(VekStatsHeader, writeIndex) == 8, "writeIndex at byte 8");
static_assert(sizeof(VekStatsSample) == kVekStatsSlotSize, "sample is one slot");
static_assert(offsetof(VekStatsSample, timestampMs) == 0, "timestampMs at byte 0");
static_assert(offsetof(VekStatsSample, bytes) == 8, "bytes at byte 8");
static_assert(offsetof(VekStatsSample, aux) == 12, "aux at byte 12");
static_assert(offsetof(VekStatsSample, kind) == 14, "kind at byte 14");
static_assert(offsetof(VekStatsSample, flag) == 15, "flag at byte 15");
static_assert(kVekStatsSlotCount * kVekStatsSlotSize == kVekStatsFileSize, "1280 slots");

// The slot that precedes `slot` in ring order (slot 1 wraps to 1279).
constexpr uint32_t vekPrevSlot(uint32_t slot) { return slot <= 1 ? kVekStatsRingSlots : slot - 1; }
// The slot that follows `slot` in ring order (slot 1279 wraps to 1).
constexpr uint32_t vekNextSlot(uint32_t slot) { return slot >= kVekStatsRingSlots ? 1 : slot + 1; }
