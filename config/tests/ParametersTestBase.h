// A fresh parameter store under its own root, in-memory properties and a
// route check that succeeds unless told otherwise.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "config/Parameters.h"
#include "foundation/DebugFlag.h"
#include "tests/support/Fakes.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempRoot.h"

class ParametersTestBase : public testing::Test {
  protected:
    void SetUp() override { Parameters::resetForTesting(); }
    void TearDown() override {
        Parameters::resetForTesting();
        gDebugLogEnabled = 0;
    }
    Parameters* load(const std::string& conf) {
        root.writeFile(kVekdConfPath, conf);
        return Parameters::instance();
    }
    // Enters a record into the store's interface map, which owns it.
    InterfaceInfo_t* addInterface(const std::string& name, bool metered, const std::string& table = "",
                                  const std::string& fwmark = "", const std::string& dns = "") {
        auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(info->name, sizeof(info->name), "%s", name.c_str());
        snprintf(info->routeTable, sizeof(info->routeTable), "%s", table.c_str());
        snprintf(info->fwmark, sizeof(info->fwmark), "%s", fwmark.c_str());
        snprintf(info->dnsServer, sizeof(info->dnsServer), "%s", dns.c_str());
        info->metered = metered;
        Parameters::instance()->m_interfaceMap[info->name] = info;
        return info;
    }

    vekd::test::TempRoot root;
    vekd::test::FakeProperties props;
    vekd::test::FakeProcessLauncher launcher;
    vekd::test::LogCapture log;
};
