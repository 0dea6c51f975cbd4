#pragma once

// What the time-service managers' suites share: a private /run whose timesync
// directory starts absent, recording stand-ins of the scripts with a fresh
// log, a runner that records the commands, the syslog, and debug mode off.

#include <gtest/gtest.h>

#include "main/Debug.h"
#include "sync/SyncTestEnv.h"
#include "testsupport/SyslogCapture.h"

namespace synctest {

class TimeServiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(privateRun());
        scripts.clear();
        orv::tsd::setDebugModeFlag(false);
    }
    void TearDown() override { orv::tsd::setDebugModeFlag(false); }

    ScriptStandIns scripts;
    RecordingRunner runner;
    testsupport::SyslogCapture log;
};

}  // namespace synctest
