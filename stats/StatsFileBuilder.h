// Builds statistics files in the module's layout: header, samples of any kind
// and flag, ring wrap-around. Used by tests and benchmarks to make rings, and
// by the host publisher (vekstatd) to write real ones.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "stats/StatsFileLayout.h"

namespace vekd::stats {

inline VekStatsSample makeSample(uint64_t timestampMs, uint32_t bytes,
                                 uint8_t kind = kVekSampleCounted, uint8_t flag = 0,
                                 uint16_t aux = 0) {
    VekStatsSample s{};
    s.timestampMs = timestampMs;
    s.bytes = bytes;
    s.aux = aux;
    s.kind = kind;
    s.flag = flag;
    return s;
}

// Writes into a 20480-byte statistics area owned by someone else (a buffer or
// a shared mapping). Samples are stored before the write index that makes
// them visible, so a concurrent reader never sees a half-written newest slot.
class StatsRingWriter {
  public:
    explicit StatsRingWriter(void* area) : m_area(static_cast<unsigned char*>(area)) {}

    void* area() const { return m_area; }
    // Everything zero: the file reads as "not ready".
    void clear();
    void setMagic(uint32_t magic = kVekStatsMagic);
    uint32_t magic() const;
    void setWriteIndex(uint32_t index);
    uint32_t writeIndex() const;
    // Any slot 1..1279; other numbers are ignored.
    void setSlot(uint32_t slot, const VekStatsSample& sample);
    VekStatsSample slotAt(uint32_t slot) const;

    // Stores `sample` in the slot after the newest one (1279 wraps to 1) and
    // makes it the newest; returns that slot. A fresh ring starts at slot 1.
    uint32_t append(const VekStatsSample& sample);
    // `count` samples of `bytes` bytes, `stepMs` apart, the first at `firstMs`.
    void appendSeries(uint64_t firstMs, uint64_t stepMs, uint32_t count, uint32_t bytes,
                      uint8_t kind = kVekSampleCounted, uint8_t flag = 0);

  private:
    VekStatsHeader* header() const { return reinterpret_cast<VekStatsHeader*>(m_area); }
    unsigned char* m_area;
};

// A statistics file in memory: zero-filled, magic not set.
class StatsFileBuilder : public StatsRingWriter {
  public:
    StatsFileBuilder();
    ~StatsFileBuilder();
    StatsFileBuilder(const StatsFileBuilder&) = delete;
    StatsFileBuilder& operator=(const StatsFileBuilder&) = delete;

    void* data() const { return area(); }
    // Writes the 20480 bytes to `path` (created or replaced); false on error.
    bool saveTo(const std::string& path) const;
};

// A statistics file on disk, mapped for writing. Opening creates it when
// missing and otherwise keeps the same inode, extending a short file with
// zeros, so that a reader that mapped the file earlier sees every later write.
class StatsFile : public StatsRingWriter {
  public:
    // Null, with the reason in `error`, when the file cannot be made.
    static std::unique_ptr<StatsFile> open(const std::string& path, std::string* error);
    ~StatsFile();
    StatsFile(const StatsFile&) = delete;
    StatsFile& operator=(const StatsFile&) = delete;

    const std::string& path() const { return m_path; }

  private:
    StatsFile(void* map, std::string path) : StatsRingWriter(map), m_path(std::move(path)) {}
    std::string m_path;
};

}  // namespace vekd::stats
