// vekd: spreads outgoing connections over several network links.
#include <android/log.h>

#include <cstdio>
#include <cstring>

#include "binder/VekdBind.h"
#include "config/Parameters.h"
#include "daemon/MainLoop.h"
#include "platform/Clock.h"

namespace {

constexpr const char* kUsage =
    "usage: vekd\n"
    "\n"
    "The link-aggregation daemon. It takes no arguments: it reads\n"
    "/data/vendor/vek/vekd.conf and the properties vendor.vek.enabled and\n"
    "vendor.vek.debug, publishes the binder service \"vekd\" (driven with vekctl),\n"
    "and runs until vendor.vek.enabled is 2, then idles.\n"
    "\n"
    "On a Linux host every system path is taken under $VEKD_ROOT (unset: /);\n"
    "the wrappers iptables-wrapper-1.0 and ip-wrapper-1.0 are run from\n"
    "$VEKD_ROOT/system/bin. The log goes to standard error.\n";

}  // namespace

int main(int argc, char** argv) {
    // Any argument is a mistake or a question: answer it without starting,
    // since starting would build rules under whatever root is in force.
    if (argc > 1) {
        const bool help = strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0;
        if (!help) fprintf(stderr, "vekd: unexpected argument '%s'\n", argv[1]);
        fputs(kUsage, help ? stdout : stderr);
        return help ? 0 : 2;
    }

    __android_log_print(ANDROID_LOG_INFO, "Vekd-v2", "VEK-V2 5.0.0 starting daemon");
    Parameters* params = Parameters::instance();
    IVekd::startBind();

    MainLoop loop(params);
    loop.run();
    loop.shutdown();

    // Switched off: the process stays, idle; its binder threads keep running.
    for (;;) vekd::Seam<vekd::platform::Clock>::get().sleepSeconds(600);
}
