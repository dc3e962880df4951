#include <android/log.h>
#include <gtest/gtest.h>

#include "platform/LogSink.h"

namespace {

// Threadtime lines at November 2nd, 07:05:09 with the given milliseconds.
std::string format(int ms, int pid, int tid, int prio, const char* tag, const char* message) {
    struct tm t {};
    t.tm_mon = 10, t.tm_mday = 2, t.tm_hour = 7, t.tm_min = 5, t.tm_sec = 9;
    return vekd::platform::formatThreadtime(t, ms, pid, tid, prio, tag, message);
}

TEST(HostLog, ThreadtimeLinesWithAlignedIdsOneLinePerInnerNewline) {
    EXPECT_EQ(format(42, 123, 4567, ANDROID_LOG_INFO, "Vekd-v2", "VEK-V2 5.0.0 starting daemon"),
              "11-02 07:05:09.042   123  4567 I Vekd-v2: VEK-V2 5.0.0 starting daemon\n");
    EXPECT_EQ(format(0, 1, 2, ANDROID_LOG_ERROR, "T", "a\n\nb  \n\n"),
              "11-02 07:05:09.000     1     2 E T: a\n"
              "11-02 07:05:09.000     1     2 E T: \n"
              "11-02 07:05:09.000     1     2 E T: b  \n");
}

}  // namespace
