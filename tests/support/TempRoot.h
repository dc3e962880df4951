// A fresh root directory for one test: VEKD_ROOT points at it while the object lives, and it is removed afterwards.
#pragma once

#include <optional>
#include <string>

namespace vekd::test {

class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return m_path; }
    // `systemPath` ("/data/vendor/vek/vekd.conf") under this root.
    std::string at(const std::string& systemPath) const { return m_path + systemPath; }
    // Writes `content` to `systemPath` under the root, creating directories.
    void writeFile(const std::string& systemPath, const std::string& content, bool executable = false) const;

  private:
    std::string m_path;
    std::optional<std::string> m_previous;  // VEKD_ROOT before
};

// Creates every directory of `path` (like mkdir -p).
void makeDirs(const std::string& path);
// The whole content of the file at `path`; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace vekd::test
