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
    int rc = 0;
    if (entered) return true;
    if (geteuid() != 0) {
        *whyNot = "run as root (CI does)";
    } else if (unshare(CLONE_NEWNET) != 0) {
        *whyNot = std::string("unshare(CLONE_NEWNET) failed: ") + strerror(errno);
    } else if (runShell("ip link set lo up", &rc), rc != 0) {
        *whyNot = "cannot bring loopback up in the new namespace";
    } else {
        entered = true;
    }
    return entered;
}

std::string runShell(const std::string& command, int* exitCode) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = fread(buf, 1, sizeof(buf), p)) > 0;) out.append(buf, n);
    const int status = p != nullptr ? pclose(p) : -1;
    if (exitCode) *exitCode = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return out;
}

}  // namespace vekd::test
