#include <gtest/gtest.h>

#include "daemon/CommandRunner.h"
#include "daemon/DebugFlag.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

namespace {

using vekd::test::LogCapture;
using vekd::test::RecordingCommandPipe;

class CommandRunner : public testing::Test {
  protected:
    void SetUp() override { gDebugLogEnabled = 1; }
    void TearDown() override { gDebugLogEnabled = 0; }
    LogCapture log;
};

TEST_F(CommandRunner, CommandThatPrintsNothingLogsOnlyThePassLine) {
    RecordingCommandPipe pipe;
    EXPECT_EQ(execnetd("/system/bin/ip-wrapper-1.0 rule"), 0);
    EXPECT_EQ(pipe.commands(), std::vector<std::string>{"/system/bin/ip-wrapper-1.0 rule"});
    EXPECT_EQ(log.lines(), std::vector<std::string>{
                               "E NUVIptables: SEND VEK NDC COMMAND - PASS  /system/bin/ip-wrapper-1.0 rule\n"});
}

TEST_F(CommandRunner, OutputIsLoggedInPiecesOfAtMost1023Characters) {
    RecordingCommandPipe pipe;
    pipe.setOutput(std::string(1500, 'a') + "\nshort\n");
    EXPECT_EQ(execnetd("x"), 0);
    auto lines = log.linesOf("NUVIptables");
    ASSERT_EQ(lines.size(), 4u);
    // The log library itself caps a record at 1023 bytes, so the first piece
    // shows cut; the second proves where the runner split the line.
    EXPECT_EQ(lines[1].rfind("I  VEK EXECNETD RESP aaaa", 0), 0u);
    EXPECT_EQ(lines[2], "I  VEK EXECNETD RESP " + std::string(477, 'a') + "\n");
    EXPECT_EQ(lines[3], "I  VEK EXECNETD RESP short\n");
}

TEST_F(CommandRunner, QuietWhenVerboseIsOff) {
    gDebugLogEnabled = 0;
    RecordingCommandPipe pipe;
    pipe.setOutput("something\n");
    EXPECT_EQ(execnetd("x"), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(CommandRunner, CommandThatCannotStartLogsTheFailLineEvenWhenQuiet) {
    gDebugLogEnabled = 0;
    RecordingCommandPipe pipe;
    pipe.failWhenContains("bad");
    EXPECT_EQ(execnetd("bad cmd"), -1);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"E NUVIptables: SEND VEK NDC COMMAND - FAIL  bad cmd \n"});
}

TEST_F(CommandRunner, ShellSyntaxIsRefusedAndNothingStarts) {
    RecordingCommandPipe pipe;
    for (const char* cmd : {"a;b", "a|b", "a&b", "a$b", "a`b`", "a<b", "a>b", "a(b)", "a\\b",
                            "a'b", "a\"b", "a\nb", "a\tb", "a\vb", "a\fb", "a\rb"}) {
        EXPECT_EQ(execnetd(cmd), -1) << cmd;
    }
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(log.count("refusing command with shell syntax"), 16u);
    EXPECT_FALSE(commandHasShellSyntax(
        "/system/bin/iptables-wrapper-1.0 -w -t nat -A POSTROUTING -p udp -m udp -m multiport ! "
        "--ports 32000:36999,40100:40150,50010:50060,4500,5060,500 -j kwop_nat_POSTROUTING_NUV"));
}

TEST_F(CommandRunner, RealShellRunsTheWrapperUnderTheRootAndIgnoresItsExitStatus) {
    vekd::test::TempRoot root;
    root.writeFile("/system/bin/ip-wrapper-1.0",
                   "#!/bin/sh\necho \"args: $*\"\nexit 3\n",
                   true);
    EXPECT_EQ(execnetd("/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5A table wlan0 prio 25000"), 0);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "E NUVIptables: SEND VEK NDC COMMAND - PASS  /system/bin/ip-wrapper-1.0 -4 rule add "
                  "fwmark 0x5A table wlan0 prio 25000\n",
                  "I NUVIptables:  VEK EXECNETD RESP args: -4 rule add fwmark 0x5A table wlan0 prio 25000\n"}));
}

}  // namespace
