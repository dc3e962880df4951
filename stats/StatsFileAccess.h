// Access to the kernel module's files under /proc/vek: the control file the
// daemon writes and the statistics files it maps. A seam, so that tests can
// make opens, writes or mappings fail and record the control commands.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "platform/Seam.h"

namespace vekd::stats {

class StatsFileAccess {
  public:
    virtual ~StatsFileAccess() = default;
    // As open(2); -1 with errno on failure.
    virtual int open(const char* path, int flags, mode_t mode) = 0;
    virtual ssize_t write(int fd, const void* data, size_t size) = 0;
    virtual int close(int fd) = 0;
    // As mmap(2) with a null hint; MAP_FAILED with errno on failure.
    virtual void* mmap(size_t length, int prot, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* addr, size_t length) = 0;
    static StatsFileAccess& real();
};

}  // namespace vekd::stats
