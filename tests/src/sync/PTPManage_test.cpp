// The PTP sequences: exact commands, the configuration file without any
// directory creation, and a flag that changes before its script runs.
// Commands run for real against recording stand-ins in a private /usr/bin.
#include "sync/PTPManage.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "main/Debug.h"
#include "sync/NtpManage.h"
#include "sync/TimeServiceFixture.h"

using namespace orv::tsd;
using synctest::readFile;
using Commands = std::vector<std::string>;

namespace {

const char* const kConfigFile = "/var/run/timesync/ptp4l.cfg";

class PTPManageTest : public synctest::TimeServiceTest
{
protected:
    void makeTimesyncDir() { ASSERT_EQ(synctest::sh("mkdir -p /run/timesync"), 0); }

    PTPManage ptp;
    NtpManage ntp;
};

}  // namespace

TEST_F(PTPManageTest, StartWritesConfigurationAndRunsStart)
{
    makeTimesyncDir();
    ptp.start(runner, "-4 -E -H -i eth0", ntp);
    EXPECT_EQ(runner.commands(), (Commands{"/bin/ptp4ladm.sh start"}));
    EXPECT_EQ(readFile(kConfigFile), "-4 -E -H -i eth0\n");
    EXPECT_TRUE(ptp.isRunning());
    EXPECT_EQ(scripts.calls(), (Commands{"ptp4ladm.sh start"}));
}

TEST_F(PTPManageTest, StartCreatesNoDirectorySoAMissingOneIsLoggedAndPtpStartedAnyway)
{
    ptp.start(runner, "-4", ntp);
    EXPECT_EQ(runner.commands(), (Commands{"/bin/ptp4ladm.sh start"}));
    EXPECT_EQ(log.count(LOG_ERR, "(PTP) error creating PTP4L_CFG"), 1u) << log.dump();
    EXPECT_FALSE(synctest::fileExists("/run/timesync"));
    EXPECT_TRUE(ptp.isRunning());
}

TEST_F(PTPManageTest, FailedStartStillLeavesFlagSet)
{
    makeTimesyncDir();
    scripts.setStatus("ptp4ladm.sh", 1);
    ptp.start(runner, "-4", ntp);
    EXPECT_TRUE(ptp.isRunning());
    EXPECT_EQ(log.count(LOG_ERR, "error starting ptpd"), 1u) << log.dump();
}

TEST_F(PTPManageTest, StopRunsOnlyWhenRunningAndClearsFlagEvenWhenTheScriptFails)
{
    ptp.stop(runner);
    EXPECT_TRUE(runner.commands().empty());

    makeTimesyncDir();
    ptp.start(runner, "-4", ntp);
    runner.clear();
    scripts.setStatus("ptp4ladm.sh", 2);
    ptp.stop(runner);
    EXPECT_EQ(runner.commands(), (Commands{"/bin/ptp4ladm.sh stop"}));
    EXPECT_FALSE(ptp.isRunning());
    EXPECT_EQ(log.count(LOG_ERR, "error stoping ptpd"), 1u) << log.dump();
}

TEST_F(PTPManageTest, StopLeavesTheConfigurationFileInPlace)
{
    makeTimesyncDir();
    ptp.start(runner, "-4 -i fw", ntp);
    ptp.stop(runner);
    EXPECT_EQ(readFile(kConfigFile), "-4 -i fw\n");
}

TEST_F(PTPManageTest, RestartRewritesFileAndRunsRestart)
{
    makeTimesyncDir();
    ptp.start(runner, "-4", ntp);
    runner.clear();
    ptp.restart(runner, "-6 -i firewire0");
    EXPECT_EQ(runner.commands(), (Commands{"/bin/ptp4ladm.sh restart"}));
    EXPECT_EQ(readFile(kConfigFile), "-6 -i firewire0\n");
    EXPECT_TRUE(ptp.isRunning());

    scripts.setStatus("ptp4ladm.sh", 1);
    ptp.restart(runner, "-6");
    EXPECT_EQ(log.count(LOG_ERR, "error restarting ptpd"), 1u) << log.dump();
    EXPECT_TRUE(ptp.isRunning());
}

TEST_F(PTPManageTest, StartStopsARunningNtpFirst)
{
    ntp.start(runner, "127.0.0.1", ptp);
    ASSERT_TRUE(ntp.isRunning());
    runner.clear();
    setDebugModeFlag(true);
    ptp.start(runner, "-4", ntp);
    EXPECT_EQ(runner.commands(), (Commands{"/bin/stop_ntpd.sh", "/bin/ptp4ladm.sh start"}));
    EXPECT_FALSE(ntp.isRunning());
    EXPECT_TRUE(ptp.isRunning());
    EXPECT_EQ(log.count(LOG_DEBUG, "****** start PTP *******"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "****** stop NTP *******"), 1u) << log.dump();
}

TEST_F(PTPManageTest, UnwritableTimesyncIsLoggedAndPtpStartedAnyway)
{
    ASSERT_TRUE(testsupport::PrivateMounts::writeFile("/run/timesync", "not a directory"));
    ptp.start(runner, "-4", ntp);
    EXPECT_EQ(log.count(LOG_ERR, "(PTP) error creating PTP4L_CFG"), 1u) << log.dump();
    EXPECT_EQ(runner.commands(), (Commands{"/bin/ptp4ladm.sh start"}));
}

TEST_F(PTPManageTest, BannersOnlyInDebugMode)
{
    makeTimesyncDir();
    ptp.start(runner, "-4", ntp);
    ptp.restart(runner, "-4");
    ptp.stop(runner);
    EXPECT_EQ(log.countText("****** start PTP *******"), 0u);
    EXPECT_EQ(log.countText("***** restart PTP ******"), 0u);
    EXPECT_EQ(log.countText("****** stop PTP *******"), 0u);

    setDebugModeFlag(true);
    ptp.start(runner, "-4", ntp);
    ptp.restart(runner, "-4");
    ptp.stop(runner);
    EXPECT_EQ(log.count(LOG_DEBUG, "****** start PTP *******"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "***** restart PTP ******"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "****** stop PTP *******"), 1u) << log.dump();
}
