#include "stats/StatsFileBuilder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vekd::stats {

void StatsRingWriter::clear() {
    __atomic_store_n(&header()->magic, 0u, __ATOMIC_RELEASE);
    memset(m_area, 0, kVekStatsFileSize);
}

void StatsRingWriter::setMagic(uint32_t magic) {
    __atomic_store_n(&header()->magic, magic, __ATOMIC_RELEASE);
}

uint32_t StatsRingWriter::magic() const { return __atomic_load_n(&header()->magic, __ATOMIC_ACQUIRE); }

void StatsRingWriter::setWriteIndex(uint32_t index) {
    __atomic_store_n(&header()->writeIndex, index, __ATOMIC_RELEASE);
}

uint32_t StatsRingWriter::writeIndex() const {
    return __atomic_load_n(&header()->writeIndex, __ATOMIC_ACQUIRE);
}

void StatsRingWriter::setSlot(uint32_t slot, const VekStatsSample& sample) {
    if (slot < 1 || slot > kVekStatsRingSlots) return;
    memcpy(m_area + slot * kVekStatsSlotSize, &sample, sizeof(sample));
}

VekStatsSample StatsRingWriter::slotAt(uint32_t slot) const {
    VekStatsSample s{};
    if (slot >= 1 && slot <= kVekStatsRingSlots) {
        memcpy(&s, m_area + slot * kVekStatsSlotSize, sizeof(s));
    }
    return s;
}

uint32_t StatsRingWriter::append(const VekStatsSample& sample) {
    uint32_t index = writeIndex();
    uint32_t newest = index == 0 || index > kVekStatsRingSlots ? kVekStatsRingSlots : index;
    uint32_t next = vekNextSlot(newest);
    setSlot(next, sample);
    setWriteIndex(next);
    return next;
}

void StatsRingWriter::appendSeries(uint64_t firstMs, uint64_t stepMs, uint32_t count,
                                   uint32_t bytes, uint8_t kind, uint8_t flag) {
    for (uint32_t i = 0; i < count; ++i) append(makeSample(firstMs + i * stepMs, bytes, kind, flag));
}

namespace {

void* allocateArea() {
    // Page-aligned like a mapping, so that layout mistakes show the same way.
    void* p = aligned_alloc(4096, kVekStatsFileSize);
    if (p == nullptr) abort();
    memset(p, 0, kVekStatsFileSize);
    return p;
}

}  // namespace

StatsFileBuilder::StatsFileBuilder() : StatsRingWriter(allocateArea()) {}

StatsFileBuilder::~StatsFileBuilder() { free(area()); }

bool StatsFileBuilder::saveTo(const std::string& path) const {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const auto* p = static_cast<const unsigned char*>(area());
    size_t left = kVekStatsFileSize;
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return ::close(fd) == 0;
}

std::unique_ptr<StatsFile> StatsFile::open(const std::string& path, std::string* error) {
    auto fail = [&](const char* what) -> std::unique_ptr<StatsFile> {
        if (error) *error = std::string(what) + " " + path + ": " + strerror(errno);
        return nullptr;
    };
    // Never O_TRUNC: the file keeps its inode, and a reader's mapping with it.
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return fail("cannot open");
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return fail("cannot stat");
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return fail("not a regular file");
    }
    if (st.st_size < static_cast<off_t>(kVekStatsFileSize) &&
        ftruncate(fd, static_cast<off_t>(kVekStatsFileSize)) != 0) {
        int saved = errno;
        ::close(fd);
        errno = saved;
        return fail("cannot size");
    }
    void* map = ::mmap(nullptr, kVekStatsFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    int saved = errno;
    ::close(fd);
    errno = saved;
    if (map == MAP_FAILED) return fail("cannot map");
    return std::unique_ptr<StatsFile>(new StatsFile(map, path));
}

StatsFile::~StatsFile() { ::munmap(area(), kVekStatsFileSize); }

}  // namespace vekd::stats
