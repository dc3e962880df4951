#include "platform/Root.h"

#include <cstdlib>
#include <mutex>

namespace vekd::platform {
namespace {

std::string readRootFromEnvironment() {
    // A device's daemon always uses "/"; only the device test build lets
    // VEKD_ROOT point the code at a temporary tree.
#if defined(__ANDROID__) && !defined(VEKD_ROOT_FROM_ENVIRONMENT)
    return "";
#else
    const char* env = std::getenv("VEKD_ROOT");
    std::string root = env ? env : "";
    while (!root.empty() && root.back() == '/') root.pop_back();
    return root;
#endif
}

std::mutex& rootMutex() {
    static std::mutex m;
    return m;
}

std::string& rootStorage() {
    static std::string root = readRootFromEnvironment();
    return root;
}

}  // namespace

std::string rootDir() {
    std::lock_guard<std::mutex> lock(rootMutex());
    return rootStorage();
}

void reloadRootDir() {
    std::lock_guard<std::mutex> lock(rootMutex());
    rootStorage() = readRootFromEnvironment();
}

std::string rootedPath(const std::string& systemPath) {
    return rootDir() + systemPath;
}

std::string rootedCommand(const std::string& commandLine) {
    static const std::string kSystemBin = "/system/bin/";
    if (commandLine.compare(0, kSystemBin.size(), kSystemBin) != 0) return commandLine;
    return rootDir() + commandLine;
}

}  // namespace vekd::platform
