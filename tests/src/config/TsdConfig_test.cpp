// The time-source parameters followed on "sync/param": checks against the
// configured levels, the conversion to tenths, and the restart callback, both
// by calling the fetch callback directly and through a real broker.
#include "config/TsdConfig.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <syslog.h>

#include <functional>
#include <limits>

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "config/ConfigParams.h"
#include "main/Debug.h"
#include "sync/SyncTestEnv.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

using namespace orv::tsd;
using namespace std::chrono_literals;

namespace {

// The configuration file must be in place before the first use of the
// configuration singleton.
class ConfigEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ASSERT_TRUE(testsupport::PrivateMounts::shadow("/etc"));
        ASSERT_TRUE(
            testsupport::PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml", synctest::configXml()));
        ASSERT_EQ(ConfigParams::instance().getPrioLevel("Ptp"), 2u);
    }
};
const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new ConfigEnvironment);

Json::Value notification(const std::string& event, const Json::Value& value)
{
    Json::Value n(Json::objectValue);
    n["path"] = "sync/param";
    n["event"] = event;
    n["value"] = value;
    return n;
}

Json::Value param(const std::string& source, double threshold, const std::string& ptp = "-4 -i fw",
                  const std::string& ntp = "10.0.0.1")
{
    return synctest::paramValue(source, threshold, ptp, ntp);
}

class TsdConfigTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setDebugModeFlag(false);
        ASSERT_NE(velad.port(), 0u);
    }
    void TearDown() override { setDebugModeFlag(false); }

    unsigned thresholdFor(double value)
    {
        TsdConfig config(peer, [] {});
        config.cbTsdParams(notification("change", param("Ptp", value)));
        return config.getThreshold();
    }

    testsupport::LocalVelad velad{{"--quiet"}};
    orv::sys::EventLoop loop;
    vela::PeerAsync peer{loop, "127.0.0.1", velad.port(), "tsd"};
    testsupport::SyslogCapture log;
    int calls = 0;
};

}  // namespace

TEST_F(TsdConfigTest, DefaultsBeforeAnyNotification)
{
    TsdConfig config(peer, [this] { ++calls; });
    EXPECT_EQ(config.getTimesourcePrio(), 0u);  // the empty name is not configured
    EXPECT_EQ(config.getThreshold(), 0u);
    EXPECT_EQ(config.getNtpCfg(), "127.0.0.1");
    EXPECT_EQ(config.getPtpCfg(), "-4 -E -H -i eth0");
    EXPECT_EQ(calls, 0);
}

TEST_F(TsdConfigTest, AcceptedChangeStoresAllValuesAndCallsBack)
{
    TsdConfig config(peer, [this] { ++calls; });
    config.cbTsdParams(notification("change", param("Ntp", 2.5, "-6 -i firewire0", "192.168.1.1")));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(config.getTimesourcePrio(), 1u);
    EXPECT_EQ(config.getThreshold(), 25u);
    EXPECT_EQ(config.getPtpCfg(), "-6 -i firewire0");
    EXPECT_EQ(config.getNtpCfg(), "192.168.1.1");
}

TEST_F(TsdConfigTest, AddIsHandledLikeChange)
{
    TsdConfig config(peer, [this] { ++calls; });
    config.cbTsdParams(notification("add", param("Ptp", 1.0)));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(config.getTimesourcePrio(), 2u);
    EXPECT_EQ(config.getThreshold(), 10u);
}

TEST_F(TsdConfigTest, ThresholdConvertsToTenthsInDoublePrecision)
{
    EXPECT_EQ(thresholdFor(1.25), 13u);
    EXPECT_EQ(thresholdFor(1.24), 12u);
    EXPECT_EQ(thresholdFor(-0.3), 0u);
    // 0.15 / 0.1 is just below 1.5 in double precision: 1, not 2.
    EXPECT_EQ(thresholdFor(0.15), 1u);
    EXPECT_EQ(thresholdFor(0.0), 0u);
    EXPECT_EQ(thresholdFor(10.0), 100u);
    EXPECT_EQ(thresholdFor(1e12), std::numeric_limits<unsigned>::max());
}

TEST_F(TsdConfigTest, RemoveEventChangesNothingAndLogsNothing)
{
    TsdConfig config(peer, [this] { ++calls; });
    config.cbTsdParams(notification("change", param("Ntp", 1.0)));
    log.clear();
    config.cbTsdParams(notification("remove", param("Ptp", 5.0, "x", "y")));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(config.getTimesourcePrio(), 1u);
    EXPECT_EQ(config.getThreshold(), 10u);
    EXPECT_EQ(config.getPtpCfg(), "-4 -i fw");
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(TsdConfigTest, UnknownEventIsIgnored)
{
    TsdConfig config(peer, [this] { ++calls; });
    config.cbTsdParams(notification("update", param("Ntp", 1.0)));
    Json::Value noEvent(Json::objectValue);
    noEvent["value"] = param("Ntp", 1.0);
    config.cbTsdParams(noEvent);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(config.getNtpCfg(), "127.0.0.1");
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(TsdConfigTest, UnknownTimeSourceIsRejectedOnceAndOldValuesKept)
{
    TsdConfig config(peer, [this] { ++calls; });
    config.cbTsdParams(notification("change", param("Ptp", 1.5, "-4", "1.1.1.1")));
    ASSERT_EQ(calls, 1);
    log.clear();
    config.cbTsdParams(notification("change", param("Gnss", 9.0, "-6", "2.2.2.2")));
    EXPECT_EQ(log.count(LOG_WARNING, " wrong timesource"), 1u) << log.dump();
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(config.getTimesourcePrio(), 2u);
    EXPECT_EQ(config.getThreshold(), 15u);
    EXPECT_EQ(config.getPtpCfg(), "-4");
    EXPECT_EQ(config.getNtpCfg(), "1.1.1.1");
}

TEST_F(TsdConfigTest, SameAcceptedValueTwiceCallsBackTwice)
{
    TsdConfig config(peer, [this] { ++calls; });
    config.cbTsdParams(notification("change", param("Ptp", 1.0)));
    config.cbTsdParams(notification("change", param("Ptp", 1.0)));
    EXPECT_EQ(calls, 2);
}

TEST_F(TsdConfigTest, AcceptedValueWithoutStringsEmptiesThem)
{
    TsdConfig config(peer, [this] { ++calls; });
    Json::Value v(Json::objectValue);
    v["timesource"] = "Ntp";
    config.cbTsdParams(notification("change", v));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(config.getPtpCfg(), "");
    EXPECT_EQ(config.getNtpCfg(), "");
    EXPECT_EQ(config.getThreshold(), 0u);
}

TEST_F(TsdConfigTest, MissingTimeSourceIsRejected)
{
    TsdConfig config(peer, [this] { ++calls; });
    Json::Value v(Json::objectValue);
    v["threshold"] = 1.0;
    config.cbTsdParams(notification("change", v));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log.count(LOG_WARNING, " wrong timesource"), 1u) << log.dump();
}

TEST_F(TsdConfigTest, OtherJsonTypesFollowTheLibraryConversions)
{
    TsdConfig config(peer, [this] { ++calls; });
    Json::Value v(Json::objectValue);
    v["timesource"] = "Ntp";
    v["threshold"] = 3;     // an integer reads as 3.0
    v["ptp4l"] = 7;         // a number reads as its text
    v["ntpserver"] = true;  // a boolean as "true"
    config.cbTsdParams(notification("change", v));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(config.getThreshold(), 30u);
    EXPECT_EQ(config.getPtpCfg(), "7");
    EXPECT_EQ(config.getNtpCfg(), "true");

    // A number as the time source reads as its text, which is no configured name.
    v["timesource"] = 2;
    config.cbTsdParams(notification("change", v));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log.count(LOG_WARNING, " wrong timesource"), 1u) << log.dump();
}

TEST_F(TsdConfigTest, UnconvertibleThresholdThrowsAfterStoringTheStringsAndSkipsTheCallback)
{
    TsdConfig config(peer, [this] { ++calls; });
    Json::Value v = param("Ntp", 0.0, "-6", "9.9.9.9");
    v["threshold"] = "high";
    EXPECT_THROW(config.cbTsdParams(notification("change", v)), Json::Exception);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(config.getPtpCfg(), "-6");
    EXPECT_EQ(config.getNtpCfg(), "9.9.9.9");
    EXPECT_EQ(config.getTimesourcePrio(), 1u);
}

TEST_F(TsdConfigTest, EmptyCallbackThrowsAfterTheValuesAreStored)
{
    TsdConfig config(peer, std::function<void()>());
    EXPECT_THROW(config.cbTsdParams(notification("change", param("Ntp", 0.5))), std::bad_function_call);
    EXPECT_EQ(config.getTimesourcePrio(), 1u);
    EXPECT_EQ(config.getThreshold(), 5u);
}

TEST_F(TsdConfigTest, DebugModeLogsTheNotificationInStyledForm)
{
    TsdConfig config(peer, [this] { ++calls; });
    const Json::Value n = notification("remove", param("Ntp", 0.5));
    config.cbTsdParams(n);
    EXPECT_TRUE(log.lines().empty());
    setDebugModeFlag(true);
    config.cbTsdParams(n);
    EXPECT_EQ(log.count(LOG_DEBUG, "cbTsdParams: " + Json::StyledWriter().write(n)), 1u) << log.dump();
}

TEST_F(TsdConfigTest, FollowsTheBusStateSyncParam)
{
    vela::PeerAsync owner(loop, "127.0.0.1", velad.port(), "platform");
    TsdConfig config(peer, [this] { ++calls; });
    // Paths that only begin or end like it are not followed.
    owner.addStateAsync("sync/param2", param("Ntp", 7.0));
    owner.addStateAsync("x/sync/param", param("Ntp", 7.0));
    owner.addStateAsync("sync/param", param("Ptp", 0.8, "-4 -i firewire0", "127.0.0.2"));
    ASSERT_TRUE(synctest::runUntil(loop, [&] { return calls == 1; }));
    EXPECT_EQ(config.getTimesourcePrio(), 2u);
    EXPECT_EQ(config.getThreshold(), 8u);
    EXPECT_EQ(config.getPtpCfg(), "-4 -i firewire0");
    EXPECT_EQ(config.getNtpCfg(), "127.0.0.2");

    owner.notifyState("sync/param", param("Ntp", 1.25));
    ASSERT_TRUE(synctest::runUntil(loop, [&] { return calls == 2; }));
    EXPECT_EQ(config.getTimesourcePrio(), 1u);
    EXPECT_EQ(config.getThreshold(), 13u);

    // A removal keeps the last values and restarts nothing.
    owner.removeStateAsync("sync/param");
    owner.notifyState("sync/param2", param("Ntp", 3.0));
    synctest::runFor(loop, 300ms);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(config.getThreshold(), 13u);
}

TEST_F(TsdConfigTest, BadValueOnTheBusIsSurvivedAndLaterValuesStillApply)
{
    vela::PeerAsync owner(loop, "127.0.0.1", velad.port(), "platform");
    TsdConfig config(peer, [this] { ++calls; });
    Json::Value bad = param("Ptp", 0.0);
    bad["threshold"] = Json::Value(Json::arrayValue);
    owner.addStateAsync("sync/param", bad);
    synctest::runFor(loop, 300ms);
    EXPECT_EQ(calls, 0);

    owner.notifyState("sync/param", param("Ptp", 0.4));
    ASSERT_TRUE(synctest::runUntil(loop, [&] { return calls == 1; }));
    EXPECT_EQ(config.getThreshold(), 4u);
}

TEST_F(TsdConfigTest, DestructionEndsTheFetch)
{
    vela::PeerAsync owner(loop, "127.0.0.1", velad.port(), "platform");
    {
        TsdConfig config(peer, [this] { ++calls; });
        owner.addStateAsync("sync/param", param("Ptp", 0.8));
        ASSERT_TRUE(synctest::runUntil(loop, [&] { return calls == 1; }));
    }
    owner.notifyState("sync/param", param("Ntp", 0.9));
    synctest::runFor(loop, 300ms);
    EXPECT_EQ(calls, 1);
}

TEST_F(TsdConfigTest, DestructionAlsoTakesDownSyncParamOwnedByItsPeer)
{
    vela::PeerAsync watcher(loop, "127.0.0.1", velad.port(), "watcher");
    vela::matcher_t matcher;
    matcher.equals = "sync/param";
    std::string lastEvent;
    watcher.addFetchAsync(matcher, [&](const Json::Value& n, int) { lastEvent = n["event"].asString(); });
    {
        TsdConfig config(peer, [this] { ++calls; });
        peer.addStateAsync("sync/param", param("Ptp", 0.8));
        ASSERT_TRUE(synctest::runUntil(loop, [&] { return calls == 1 && lastEvent == "add"; }));
    }
    ASSERT_TRUE(synctest::runUntil(loop, [&] { return lastEvent == "remove"; }));
}
