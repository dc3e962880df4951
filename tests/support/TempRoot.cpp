#include "tests/support/TempRoot.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "platform/Root.h"

namespace vekd::test {

void makeDirs(const std::string& path) { std::filesystem::create_directories(path); }

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TempRoot::TempRoot() {
#ifdef __ANDROID__
    char tmpl[] = "/data/local/tmp/vekd-test-XXXXXX";  // a device has no /tmp
#else
    char tmpl[] = "/tmp/vekd-test-XXXXXX";
#endif
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = tmpl;
    if (const char* previous = getenv("VEKD_ROOT")) m_previous = previous;
    setenv("VEKD_ROOT", m_path.c_str(), 1);
    platform::reloadRootDir();
}

TempRoot::~TempRoot() {
    if (m_previous) setenv("VEKD_ROOT", m_previous->c_str(), 1);
    if (!m_previous) unsetenv("VEKD_ROOT");
    platform::reloadRootDir();
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

void TempRoot::writeFile(const std::string& systemPath, const std::string& content, bool executable) const {
    const std::string full = at(systemPath);
    makeDirs(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary | std::ios::trunc) << content;
    if (executable) chmod(full.c_str(), 0755);
}

}  // namespace vekd::test
