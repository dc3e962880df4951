#include <android/log.h>
#include <gtest/gtest.h>

#include <regex>

#include "platform/LogSink.h"
#include "tests/support/LogCapture.h"

using vekd::platform::formatThreadtime;

namespace {

struct tm sampleTime() {
    struct tm t {};
    t.tm_mon = 10;  // November
    t.tm_mday = 2;
    t.tm_hour = 7;
    t.tm_min = 5;
    t.tm_sec = 9;
    return t;
}

TEST(HostLogFormat, ThreadtimeLineWithAlignedIds) {
    EXPECT_EQ(formatThreadtime(sampleTime(), 42, 123, 4567, ANDROID_LOG_INFO, "Vekd-v2",
                               "VEK-V2 5.0.0 starting daemon"),
              "11-02 07:05:09.042   123  4567 I Vekd-v2: VEK-V2 5.0.0 starting daemon\n");
}

TEST(HostLogFormat, InnerNewlinesSplitAndTrailingOnesDropButBlanksKept) {
    EXPECT_EQ(formatThreadtime(sampleTime(), 0, 1, 2, ANDROID_LOG_ERROR, "T", "a\n\nb  \n\n"),
              "11-02 07:05:09.000     1     2 E T: a\n"
              "11-02 07:05:09.000     1     2 E T: \n"
              "11-02 07:05:09.000     1     2 E T: b  \n");
    EXPECT_EQ(formatThreadtime(sampleTime(), 0, 1, 2, ANDROID_LOG_DEBUG, "T", "\n"),
              "11-02 07:05:09.000     1     2 D T: \n");
}

TEST(HostLogFormat, EveryPriorityHasItsLetter) {
    const char* letters = "VDIWEF";
    for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_FATAL; ++prio) {
        std::string line = formatThreadtime(sampleTime(), 0, 1, 1, prio, "t", "m");
        EXPECT_EQ(line[31], letters[prio - ANDROID_LOG_VERBOSE]) << line;
    }
}

TEST(HostLog, PlatformPrintReachesSinkWithNullTagAsVekdAtEveryPriority) {
    vekd::test::LogCapture log;
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "x=%d", 5);
    __android_log_print(ANDROID_LOG_ERROR, "NUVIptables", "SEND %s \n", "cmd");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"D vekd: x=5", "E NUVIptables: SEND cmd \n"}));
}

TEST(HostLog, RealSinkWritesOneThreadtimeLinePerRecordToStderr) {
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_INFO, "Vekd-v2", "VEK-V2 5.0.0 starting daemon");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(
        err, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [ \d]{5} [ \d]{5} I Vekd-v2: )"
                        R"(VEK-V2 5\.0\.0 starting daemon\n)")))
        << err;
}

}  // namespace
