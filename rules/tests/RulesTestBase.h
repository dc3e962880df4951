// A fresh parameter store and rule manager for each test, with a fake
// netlink so that no real socket of the machine is ever destroyed.
#pragma once

#include "config/tests/ParametersTestBase.h"
#include "platform/LogSink.h"
#include "rules/IptablesManager.h"
#include "tests/support/FakeNetlink.h"

class RulesTestBase : public ParametersTestBase {
  protected:
    void SetUp() override {
        vekd::platform::installHostLogger();
        IptablesManager::resetForTesting();
        ParametersTestBase::SetUp();
        params = Parameters::instance();
        log.clear();
    }
    void TearDown() override {
        IptablesManager::resetForTesting();
        ParametersTestBase::TearDown();
    }

    vekd::test::FakeNetlink netlink;
    Parameters* params = nullptr;
};
