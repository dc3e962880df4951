// vekstatd: publishes per-interface traffic samples for vekd on a Linux host,
// where no kernel module does. Runs in the daemon's network namespace.
#include <android/log.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Root.h"
#include "tools/vekstatd/Publisher.h"

namespace {

volatile sig_atomic_t gStop = 0;

void onSignal(int) { gStop = 1; }

void usage(FILE* out) {
    fprintf(out,
            "usage: vekstatd [--tick-ms N]\n"
            "\n"
            "Stands in for the kernel statistics module of vekd on a Linux host.\n"
            "Creates $VEKD_ROOT/proc/vek and the FIFO $VEKD_ROOT/proc/vek/config, reads\n"
            "the daemon's NUL-terminated commands from it:\n"
            "  protocols=LIST   noted (TCP is measured)\n"
            "  ports=P1,P2,...  count TCP segments from these source ports (empty: any)\n"
            "  iface=NAME       create $VEKD_ROOT/proc/vek/NAME_mmap and measure NAME\n"
            "  enable=1|0       start or stop measuring\n"
            "and, while measuring, writes every N ms (default 10, at most 20) one sample of\n"
            "the TCP bytes each interface received since the previous sample.\n"
            "Logs to standard error; stops on SIGTERM or SIGINT.\n"
            "\n"
            "  --tick-ms N   sample period in milliseconds (1..20)\n"
            "  --help        this text\n");
}

}  // namespace

int main(int argc, char** argv) {
    unsigned tickMs = 10;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        }
        if (arg == "--tick-ms" && i + 1 < argc) {
            char* end = nullptr;
            long value = strtol(argv[++i], &end, 10);
            if (end == argv[i] || *end != '\0' || value < 1 || value > 20) {
                fprintf(stderr, "vekstatd: --tick-ms wants a number from 1 to 20\n");
                return 2;
            }
            tickMs = static_cast<unsigned>(value);
            continue;
        }
        fprintf(stderr, "vekstatd: unknown argument \"%s\" (see --help)\n", arg.c_str());
        return 2;
    }

    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    vekstatd::Publisher publisher(vekd::platform::rootedPath("/proc/vek"), tickMs);
    if (!publisher.start()) return 1;
    publisher.run(gStop);
    return 0;
}
