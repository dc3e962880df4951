#include <gtest/gtest.h>

#include "foundation/CommandRunner.h"
#include "foundation/DebugFlag.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

namespace {

using Lines = std::vector<std::string>;

// A command is run, refused when it holds shell syntax, and logged when verbose.
TEST(CommandRunner, ResultAndLogLinesOfACommandWithAndWithoutVerboseLoggingAndShellSyntaxRefused) {
    vekd::test::LogCapture log;
    vekd::test::RecordingCommandPipe pipe;
    const struct {
        int verbose;
        const char* command;
        int result;
        Lines log;
    } cases[] = {
        {1, "/system/bin/ip-wrapper-1.0 rule", 0, {"E NUVIptables: SEND VEK NDC COMMAND - PASS  /system/bin/ip-wrapper-1.0 rule\n",
                                                   "I NUVIptables:  VEK EXECNETD RESP out\n"}},
        {0, "/system/bin/ip-wrapper-1.0 rule", 0, {}},
        {0, "bad cmd", -1, {"E NUVIptables: SEND VEK NDC COMMAND - FAIL  bad cmd \n"}},  // cannot start
    };
    pipe.setOutput("out\n");
    pipe.failWhenContains("bad");
    for (const auto& c : cases) {
        gDebugLogEnabled = c.verbose;
        log.clear();
        EXPECT_EQ(execnetd(c.command), c.result) << c.command;
        EXPECT_EQ(log.lines(), c.log) << c.verbose << c.command;
    }
    pipe.clear();
    for (const char* cmd : {"a;b", "a|b", "a&b", "a$b", "a`b`", "a<b", "a>b", "a(b)", "a\\b", "a'b", "a\"b",
                            "a\nb", "a\tb", "a\vb", "a\fb", "a\rb"}) EXPECT_EQ(execnetd(cmd), -1) << cmd;
    EXPECT_TRUE(pipe.commands().empty());
    EXPECT_EQ(log.count("refusing command with shell syntax: a"), 16u);
    EXPECT_FALSE(commandHasShellSyntax("/system/bin/iptables-wrapper-1.0 -w -t nat -A POSTROUTING -p udp "
                                       "-m multiport ! --ports 32000:36999,4500 -j kwop_nat_POSTROUTING_NUV"));
}

// Output is logged in pieces of at most 1023 characters; the log library caps
// a record at 1023 bytes, so the second piece shows where the runner split.
TEST(CommandRunnerShell, RealShellRunsTheWrapperUnderTheRootIgnoresItsExitStatusAndSplitsLongLines) {
    vekd::test::LogCapture log;
    vekd::test::TempRoot root;
    root.writeFile("/system/bin/ip-wrapper-1.0", "#!/bin/sh\necho \"args: $*\"\nprintf '%1500s\\nshort\\n' | tr ' ' a\nexit 3\n", true);
    gDebugLogEnabled = 1;
    EXPECT_EQ(execnetd("/system/bin/ip-wrapper-1.0 -4 rule add fwmark 0x5A table wlan0 prio 25000"), 0);
    gDebugLogEnabled = 0;
    const Lines lines = log.linesOf("NUVIptables");
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[1], "I  VEK EXECNETD RESP args: -4 rule add fwmark 0x5A table wlan0 prio 25000\n");
    EXPECT_EQ(lines[3], "I  VEK EXECNETD RESP " + std::string(477, 'a') + "\n");
    EXPECT_EQ(lines[4], "I  VEK EXECNETD RESP short\n");
}

}  // namespace
