#include "daemon/MainLoop.h"

#include <android/log.h>

#include <cstdint>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "manager/NuvManager.h"
#include "platform/ChangeWaiter.h"

namespace {
constexpr const char* kTag = "Vekd-v2";
// Only a safety net: property writes and the run-state change wake the loop.
constexpr int kIdleWaitMs = 1000;
}  // namespace

MainLoop::MainLoop(Parameters* params) : m_params(params) {}

bool MainLoop::turn() {
    const int32_t state = m_params->m_runState.load();
    if ((state == kRunStateReady || state == kRunStateConfigured) && m_manager == nullptr) {
        m_manager = NuvManager::instance();
    }
    if (state == kRunStateConfigured) {
        m_manager->adjustParameters();
        // Formed in 32-bit arithmetic, as the period always has been.
        const uint32_t micros = static_cast<uint32_t>(m_params->get(OPER_MINI_EST_INTERVAL)) * 1000u;
        m_manager->waitForNextTurn(micros);
    } else if (state == kRunStateReady) {
        m_manager = NuvManager::instance();
    }

    // The property is read a second time when it is not 1: only 1 and 0
    // change the flag, any other value leaves it as it was.
    if (m_params->getVEKDebugLogProp() == 1) {
        gDebugLogEnabled = 1;
    } else if (m_params->getVEKDebugLogProp() == 0) {
        gDebugLogEnabled = 0;
    }

    if (m_params->getVEKVendorProp() == 2) return false;

    // Outside evaluation nothing happens until a property or the run state
    // changes, so sleep until one does instead of spinning.
    if (state != kRunStateConfigured) {
        vekd::Seam<vekd::platform::ChangeWaiter>::get().waitForChange(kIdleWaitMs);
    }
    return true;
}

void MainLoop::run() {
    vekd::Seam<vekd::platform::ChangeWaiter>::get().arm();
    while (turn()) {
    }
}

void MainLoop::shutdown() {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "Nuv disabled, starting cleanup...\n");
    if (m_manager != nullptr) m_manager->cleanup();
    __android_log_print(ANDROID_LOG_INFO, kTag, "Vekd exiting");
}
