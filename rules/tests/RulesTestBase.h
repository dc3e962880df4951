// A fresh parameter store and rule manager for each test, under a temporary
// root, with in-memory properties and a fake netlink so that no real socket
// of the machine is ever destroyed.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "config/Parameters.h"
#include "daemon/DebugFlag.h"
#include "platform/LogSink.h"
#include "rules/IptablesManager.h"
#include "tests/support/FakeNetlink.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

class RulesTestBase : public testing::Test {
  protected:
    void SetUp() override {
        vekd::platform::installHostLogger();
        IptablesManager::resetForTesting();
        Parameters::resetForTesting();
        params = Parameters::instance();
        log.clear();
    }
    void TearDown() override {
        IptablesManager::resetForTesting();
        Parameters::resetForTesting();
        gDebugLogEnabled = 0;
    }

    // Enters a record into the store's interface map, which owns it.
    InterfaceInfo_t* addInterface(const std::string& name, bool metered, const std::string& table,
                                  const std::string& fwmark, const std::string& dns = "") {
        auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(info->name, sizeof(info->name), "%s", name.c_str());
        snprintf(info->routeTable, sizeof(info->routeTable), "%s", table.c_str());
        snprintf(info->fwmark, sizeof(info->fwmark), "%s", fwmark.c_str());
        snprintf(info->dnsServer, sizeof(info->dnsServer), "%s", dns.c_str());
        info->metered = metered;
        params->m_interfaceMap[info->name] = info;
        return info;
    }

    vekd::test::TempRoot root;
    vekd::test::FakeProperties props;
    vekd::test::FakeProcessLauncher launcher;
    vekd::test::LogCapture log;
    Parameters* params = nullptr;
};
