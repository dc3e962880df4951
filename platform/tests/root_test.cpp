#include <gtest/gtest.h>

#include "platform/Root.h"
#include "tests/support/TempRoot.h"

using vekd::platform::rootedCommand;
using vekd::platform::rootedPath;

TEST(Root, SystemPathsAndWrapperCommandsResolveUnderTheRoot) {
    vekd::test::TempRoot root;
    EXPECT_EQ(rootedPath("/proc/vek/config"), root.path() + "/proc/vek/config");
    EXPECT_EQ(rootedCommand("/system/bin/ip-wrapper-1.0 rule"), root.path() + "/system/bin/ip-wrapper-1.0 rule");
    // Only the first word, and only under /system/bin/.
    EXPECT_EQ(rootedCommand("echo /system/bin/x"), "echo /system/bin/x");
    EXPECT_EQ(rootedCommand("/system/binary"), "/system/binary");
    // An empty root is "/".
    setenv("VEKD_ROOT", "", 1);
    vekd::platform::reloadRootDir();
    EXPECT_EQ(rootedPath("/data/vendor/vek/vekd.conf"), "/data/vendor/vek/vekd.conf");
}
