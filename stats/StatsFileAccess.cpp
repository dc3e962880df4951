#include "stats/StatsFileAccess.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace vekd::stats {
namespace {

// On a device these are the kernel module's proc files. On a host the control
// file is a FIFO read by the statistics publisher and the statistics files are
// ordinary files, which needs two adjustments:
//  - a write-only open never blocks: with nobody reading the FIFO it fails
//    with ENXIO, which the caller reports like a missing file;
//  - a statistics file shorter than the mapping is extended in place with
//    zeros before it is mapped, since touching a page beyond the end of a
//    file raises SIGBUS. Zeros read as "not ready", and the publisher later
//    fills the same inode, so the mapping made now sees its samples.
class HostStatsFileAccess : public StatsFileAccess {
  public:
    int open(const char* path, int flags, mode_t mode) override {
#ifndef __ANDROID__
        if ((flags & O_ACCMODE) == O_WRONLY) flags |= O_NONBLOCK;
#endif
        return ::open(path, flags | O_CLOEXEC, mode);
    }

    ssize_t write(int fd, const void* data, size_t size) override {
        ssize_t n;
        do {
            n = ::write(fd, data, size);
        } while (n < 0 && errno == EINTR);
        return n;
    }

    int close(int fd) override { return ::close(fd); }

    void* mmap(size_t length, int prot, int flags, int fd, off_t offset) override {
#ifndef __ANDROID__
        if (!coversMapping(fd, length, offset)) return MAP_FAILED;
#endif
        return ::mmap(nullptr, length, prot, flags, fd, offset);
    }

    int munmap(void* addr, size_t length) override { return ::munmap(addr, length); }

  private:
    // Makes a regular file at least offset + length bytes long. The descriptor
    // may be read-only, so the file is reopened for writing through /proc.
    static bool coversMapping(int fd, size_t length, off_t offset) {
        struct stat st {};
        if (fstat(fd, &st) != 0) return false;
        const off_t needed = offset + static_cast<off_t>(length);
        if (!S_ISREG(st.st_mode) || st.st_size >= needed) return true;
        char self[64];
        snprintf(self, sizeof(self), "/proc/self/fd/%d", fd);
        int rw = ::open(self, O_WRONLY | O_CLOEXEC);
        if (rw < 0) return false;
        // Re-checked on the writable descriptor: the publisher may have sized
        // the file meanwhile, and a file must never shrink under its mapping.
        bool ok = fstat(rw, &st) == 0 && (st.st_size >= needed || ftruncate(rw, needed) == 0);
        int saved = errno;
        ::close(rw);
        errno = saved;
        return ok;
    }
};

}  // namespace

StatsFileAccess& StatsFileAccess::real() {
    static HostStatsFileAccess access;
    return access;
}

}  // namespace vekd::stats
