// The daemon's singletons in the test process against fakes of all they touch, fresh at the start and the end.
#pragma once

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "manager/NuvManager.h"
#include "rules/IptablesManager.h"
#include "stats/VekStatsImpl.h"
#include "tests/support/FakeNetlink.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

namespace vekd::test {

inline void resetDaemonSingletons() {
    NuvManager::resetForTesting();
    VekStatsImpl::resetForTesting();
    IptablesManager::resetForTesting();
    Parameters::resetForTesting();
}

struct InProcessDaemon {
    InProcessDaemon() { resetDaemonSingletons(); }
    // The singletons go first, while the fakes they use are still installed.
    ~InProcessDaemon() {
        resetDaemonSingletons();
        gDebugLogEnabled = 0;
    }

    TempRoot root;
    FakeProperties props;
    RecordingCommandPipe pipe;
    FakeProcessLauncher launcher;
    FakeClock clock;
    FakeChangeWaiter waiter;
    FakeNetlink netlink;
    LogCapture log;
};

}  // namespace vekd::test
