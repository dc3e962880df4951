// Each test starts from a fresh parameter store under its own root, with
// in-memory properties and a route check that succeeds unless told otherwise.
#pragma once

#include <gtest/gtest.h>

#include "config/Parameters.h"
#include "daemon/DebugFlag.h"
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
    void writeConf(const std::string& text) { root.writeFile(kVekdConfPath, text); }
    Parameters* load(const std::string& conf) {
        writeConf(conf);
        return Parameters::instance();
    }

    vekd::test::TempRoot root;
    vekd::test::FakeProperties props;
    vekd::test::FakeProcessLauncher launcher;
    vekd::test::LogCapture log;
};
