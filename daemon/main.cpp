// vekd: spreads outgoing connections over several network links.
#include <android/log.h>

#include "binder/VekdBind.h"
#include "config/Parameters.h"
#include "daemon/MainLoop.h"
#include "platform/Clock.h"

int main() {
    __android_log_print(ANDROID_LOG_INFO, "Vekd-v2", "VEK-V2 5.0.0 starting daemon");
    Parameters* params = Parameters::instance();
    IVekd::startBind();

    MainLoop loop(params);
    loop.run();
    loop.shutdown();

    // Switched off: the process stays, idle; its binder threads keep running.
    for (;;) vekd::Seam<vekd::platform::Clock>::get().sleepSeconds(600);
}
