#include "fuzz/FuzzSupport.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

namespace vekd::fuzz {

QuietLog::QuietLog() : m_echo(getenv("VEKD_FUZZ_LOG") != nullptr), m_scope(*this) {}

void QuietLog::write(int priority, const char* tag, const char* message) {
    if (m_echo) fprintf(stderr, "%d %s: %s\n", priority, tag, message);
}

FILE* NullCommandPipe::open(const char*) { return fopen("/dev/null", "re"); }

int NullCommandPipe::close(FILE* stream) { return fclose(stream) == 0 ? 0 : -1; }

int AbsentStatsFiles::open(const char*, int, mode_t) {
    errno = ENOENT;
    return -1;
}

ssize_t AbsentStatsFiles::write(int, const void*, size_t) {
    errno = EBADF;
    return -1;
}

int AbsentStatsFiles::close(int) { return 0; }

void* AbsentStatsFiles::mmap(size_t, int, int, int, off_t) {
    errno = ENODEV;
    return MAP_FAILED;
}

int AbsentStatsFiles::munmap(void*, size_t) { return 0; }

void removeAtExit(const std::string& dir) {
    static std::vector<std::string>* dirs = new std::vector<std::string>();
    if (dirs->empty()) {
        atexit([] {
            for (const std::string& d : *dirs) {
                std::error_code ec;
                std::filesystem::remove_all(d, ec);
            }
        });
    }
    dirs->push_back(dir);
}

void fail(const char* what) {
    fprintf(stderr, "fuzz: %s\n", what);
    abort();
}

}  // namespace vekd::fuzz
