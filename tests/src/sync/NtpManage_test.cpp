// The NTP sequences: exact commands, the server file with its directory, and
// a flag that follows the scripts' exit statuses. Commands run for real
// against recording stand-ins of the scripts in a private /usr/bin; files go
// to a private /run.
#include "sync/NtpManage.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include "main/Debug.h"
#include "sync/PTPManage.h"
#include "sync/TimeServiceFixture.h"

using namespace orv::tsd;
using synctest::readFile;
using Commands = std::vector<std::string>;

namespace {

const char* const kServerFile = "/var/run/timesync/ntpserver.ip";

class NtpManageTest : public synctest::TimeServiceTest
{
protected:
    NtpManage ntp;
    PTPManage ptp;
};

}  // namespace

TEST_F(NtpManageTest, StartCreatesDirectoryWritesServerFileAndStartsInBackground)
{
    ntp.start(runner, "127.0.0.1", ptp);
    EXPECT_EQ(runner.commands(),
              (Commands{"mkdir -p /var/run", "mkdir -p /var/run/timesync", "/bin/start_ntpd.sh &"}));
    EXPECT_EQ(readFile(kServerFile), "127.0.0.1\n");
    EXPECT_TRUE(ntp.isRunning());
    ASSERT_TRUE(scripts.waitCalls(1));
    EXPECT_EQ(scripts.calls(), (Commands{"start_ntpd.sh "}));
}

TEST_F(NtpManageTest, ServerFileHoldsTheSettingVerbatim)
{
    ntp.start(runner, "pool \"a b\"; 10.0.0.1", ptp);
    EXPECT_EQ(readFile(kServerFile), "pool \"a b\"; 10.0.0.1\n");
}

TEST_F(NtpManageTest, FailedStartLeavesFlagClearSoTheNextStartRunsAgain)
{
    runner.force("/bin/start_ntpd.sh &", 1);
    ntp.start(runner, "127.0.0.1", ptp);
    EXPECT_FALSE(ntp.isRunning());
    EXPECT_EQ(log.count(LOG_ERR, "error starting ntpd"), 1u) << log.dump();

    runner.unforce("/bin/start_ntpd.sh &");
    runner.clear();
    ntp.start(runner, "127.0.0.1", ptp);
    EXPECT_EQ(runner.commands(),
              (Commands{"mkdir -p /var/run", "mkdir -p /var/run/timesync", "/bin/start_ntpd.sh &"}));
    EXPECT_TRUE(ntp.isRunning());
}

TEST_F(NtpManageTest, StopRunsTheStopScriptOnlyWhenRunning)
{
    ntp.stop(runner);
    EXPECT_TRUE(runner.commands().empty());

    ntp.start(runner, "127.0.0.1", ptp);
    runner.clear();
    ntp.stop(runner);
    EXPECT_EQ(runner.commands(), (Commands{"/bin/stop_ntpd.sh"}));
    EXPECT_FALSE(ntp.isRunning());
}

TEST_F(NtpManageTest, FailedStopKeepsFlagSetAndLogs)
{
    ntp.start(runner, "127.0.0.1", ptp);
    scripts.setStatus("stop_ntpd.sh", 3);
    ntp.stop(runner);
    EXPECT_TRUE(ntp.isRunning());
    EXPECT_EQ(log.count(LOG_ERR, "error stoping ntpd"), 1u) << log.dump();
    // Nothing is retried on its own; the next stop tries again.
    scripts.setStatus("stop_ntpd.sh", 0);
    ntp.stop(runner);
    EXPECT_FALSE(ntp.isRunning());
}

TEST_F(NtpManageTest, StopLeavesTheServerFileInPlace)
{
    ntp.start(runner, "10.1.1.1", ptp);
    ntp.stop(runner);
    EXPECT_EQ(readFile(kServerFile), "10.1.1.1\n");
}

TEST_F(NtpManageTest, RestartRewritesFileThenStopsAndStarts)
{
    ntp.start(runner, "127.0.0.1", ptp);
    runner.clear();
    ntp.restart(runner, "10.2.2.2");
    EXPECT_EQ(runner.commands(), (Commands{"mkdir -p /var/run", "mkdir -p /var/run/timesync",
                                           "/bin/stop_ntpd.sh", "/bin/start_ntpd.sh &"}));
    EXPECT_EQ(readFile(kServerFile), "10.2.2.2\n");
    EXPECT_TRUE(ntp.isRunning());
}

TEST_F(NtpManageTest, StartStopsARunningPtpFirst)
{
    ptp.start(runner, "-4", ntp);
    ASSERT_TRUE(ptp.isRunning());
    runner.clear();
    setDebugModeFlag(true);
    ntp.start(runner, "127.0.0.1", ptp);
    EXPECT_EQ(runner.commands(), (Commands{"/bin/ptp4ladm.sh stop", "mkdir -p /var/run",
                                           "mkdir -p /var/run/timesync", "/bin/start_ntpd.sh &"}));
    EXPECT_FALSE(ptp.isRunning());
    EXPECT_TRUE(ntp.isRunning());
    EXPECT_EQ(log.count(LOG_DEBUG, "****** start NTP *******"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "****** stop PTP *******"), 1u) << log.dump();
}

TEST_F(NtpManageTest, UnwritableTimesyncDirectoryIsLoggedAndNtpStartedAnyway)
{
    // A regular file where the directory should be: mkdir and open both fail.
    ASSERT_TRUE(testsupport::PrivateMounts::writeFile("/run/timesync", "not a directory"));
    ntp.start(runner, "127.0.0.1", ptp);
    EXPECT_EQ(log.count(LOG_ERR, " (NTP) error creating NTPSERVER_IP file"), 1u) << log.dump();
    EXPECT_EQ(runner.commands().back(), "/bin/start_ntpd.sh &");
    EXPECT_TRUE(ntp.isRunning());
    EXPECT_EQ(readFile("/run/timesync"), "not a directory");
}

TEST_F(NtpManageTest, BannersOnlyInDebugMode)
{
    ntp.start(runner, "127.0.0.1", ptp);
    ntp.restart(runner, "127.0.0.1");
    ntp.stop(runner);
    EXPECT_EQ(log.countText("****** start NTP *******"), 0u);
    EXPECT_EQ(log.countText("***** restart NTP ******"), 0u);
    EXPECT_EQ(log.countText("****** stop NTP *******"), 0u);

    setDebugModeFlag(true);
    ntp.start(runner, "127.0.0.1", ptp);
    ntp.restart(runner, "127.0.0.1");
    ntp.stop(runner);
    EXPECT_EQ(log.count(LOG_DEBUG, "****** start NTP *******"), 1u) << log.dump();
    // The restart stops without its own banner.
    EXPECT_EQ(log.count(LOG_DEBUG, "***** restart NTP ******"), 1u) << log.dump();
    EXPECT_EQ(log.count(LOG_DEBUG, "****** stop NTP *******"), 1u) << log.dump();
}

TEST_F(NtpManageTest, ProductionRunnerRunsTheScripts)
{
    NtpManage& shared = NtpManage::instance();
    EXPECT_EQ(&shared, &NtpManage::instance());
    ASSERT_FALSE(shared.isRunning());
    shared.start(systemRunner(), "127.0.0.1", ptp);
    EXPECT_TRUE(shared.isRunning());
    ASSERT_TRUE(scripts.waitCalls(1));
    shared.stop(systemRunner());
    EXPECT_FALSE(shared.isRunning());
    ASSERT_TRUE(scripts.waitCalls(2));
    EXPECT_EQ(scripts.calls(), (Commands{"start_ntpd.sh ", "stop_ntpd.sh "}));
}
