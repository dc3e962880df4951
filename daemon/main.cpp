// vekd: spreads outgoing connections over several network links.
#include <android/log.h>

#include "config/Parameters.h"

int main() {
    __android_log_print(ANDROID_LOG_INFO, "Vekd-v2", "VEK-V2 5.0.0 starting daemon");
    Parameters::instance();
    // The control service and the polling loop join here as they land.
    return 0;
}
