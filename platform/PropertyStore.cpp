#include "platform/PropertyStore.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Root.h"
#include "platform/WriteAll.h"

namespace vekd::platform {
namespace {

constexpr size_t kMaxValueBytes = PROPERTY_VALUE_MAX - 1;

bool makeDirs(const std::string& dir) {
    std::string path;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        path = dir.substr(0, pos);
        if (path.empty()) continue;
        if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

class FilePropertyStore : public PropertyStore {
  public:
    std::optional<std::string> read(const std::string& name) override {
        if (!isValidPropertyName(name)) return std::nullopt;
        int fd = ::open((propertyDir() + "/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) return std::nullopt;
        char buf[PROPERTY_VALUE_MAX];
        size_t got = 0;
        while (got < kMaxValueBytes) {
            ssize_t n = ::read(fd, buf + got, kMaxValueBytes - got);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        ::close(fd);
        std::string value(buf, got);
        size_t nl = value.find('\n');
        if (nl != std::string::npos) value.resize(nl);
        // A NUL inside the file ends the value as it would in the C API.
        value.resize(strnlen(value.c_str(), value.size()));
        if (value.empty()) return std::nullopt;
        return value;
    }

    bool write(const std::string& name, const std::string& value) override {
        if (!isValidPropertyName(name) || value.size() > kMaxValueBytes) return false;
        if (value.find('\n') != std::string::npos) return false;
        const std::string dir = propertyDir();
        if (!makeDirs(dir)) return false;
        const std::string tmp = dir + "/." + name + ".tmp." + std::to_string(getpid()) + "." +
                                std::to_string(syscall(SYS_gettid));
        int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        bool ok = writeAll(fd, value + "\n");
        ok = (::close(fd) == 0) && ok;
        if (!ok || ::rename(tmp.c_str(), (dir + "/" + name).c_str()) != 0) {
            ::unlink(tmp.c_str());
            return false;
        }
        return true;
    }
};

}  // namespace

PropertyStore& PropertyStore::real() {
    static FilePropertyStore store;
    return store;
}

std::string propertyDir() { return rootedPath("/dev/__properties__"); }

bool isValidPropertyName(const std::string& name) {
    if (name.empty() || name == "." || name == ".." || name.size() >= 256) return false;
    return name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

}  // namespace vekd::platform

// The platform's property API, served from the seam above.
extern "C" int property_get(const char* key, char* value, const char* default_value) {
    using vekd::platform::PropertyStore;
    if (value == nullptr) return 0;
    std::optional<std::string> found;
    if (key != nullptr) found = vekd::Seam<PropertyStore>::get().read(key);
    const char* src = found ? found->c_str() : (default_value ? default_value : "");
    size_t len = strnlen(src, PROPERTY_VALUE_MAX - 1);
    memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

extern "C" int property_set(const char* key, const char* value) {
    using vekd::platform::PropertyStore;
    if (key == nullptr) return -1;
    return vekd::Seam<PropertyStore>::get().write(key, value ? value : "") ? 0 : -1;
}
