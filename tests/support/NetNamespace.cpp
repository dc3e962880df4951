#include "tests/support/NetNamespace.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vekd::test {

bool enterPrivateNetworkNamespace(std::string* whyNot) {
    static bool entered = false;
    if (entered) return true;
    if (geteuid() != 0) {
        if (whyNot) *whyNot = "run as root (CI does)";
        return false;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        if (whyNot) *whyNot = std::string("unshare(CLONE_NEWNET) failed: ") + strerror(errno);
        return false;
    }
    int rc = 0;
    runShell("ip link set lo up", &rc);
    if (rc != 0) {
        if (whyNot) *whyNot = "cannot bring loopback up in the new namespace";
        return false;
    }
    entered = true;
    return true;
}

std::string runShell(const std::string& command, int* exitCode) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) {
        if (exitCode) *exitCode = -1;
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    int status = pclose(p);
    if (exitCode) *exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
}

}  // namespace vekd::test
