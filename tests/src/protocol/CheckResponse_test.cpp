#include "protocol/CheckResponse.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <functional>

#include <orv/communication/MulticastServer.h>
#include <vela/PeerAsync.h>

#include "errors/TsdErrors.h"
#include "protocol/SupervisedSides.h"
#include "testsupport/LoopRun.h"
#include "testsupport/SyslogCapture.h"

// Real 3000 ms timers: the suite runs on its own (RUN_SERIAL) and checks lower
// bounds exactly and upper bounds generously.

using namespace std::chrono_literals;
using orv::tsd::CheckResponse;
using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
using orv::tsd::TsdErrors;
using orvtest::runIsolated;
using testsupport::runFor;
using testsupport::runUntil;
using testsupport::SyslogCapture;

namespace {

using Clock = std::chrono::steady_clock;

const char kBackText[] = "Did not receive sync notification from all modules on back";

// The module's supervised side servers, draining what reaches them.
struct Supervised : tsdtest::SupervisedSides
{
    Supervised()
    {
        const auto drain = [](orv::communication::MulticastServer& server) {
            char buffer[65536];
            orv::communication::Netadapter from;
            int index = 0;
            return server.receiveTelegram(buffer, sizeof buffer, from, index);
        };
        EXPECT_EQ(rear.start(tsdtest::kGroup, tsdtest::kPort, drain), 0);
        EXPECT_EQ(front.start(tsdtest::kGroup, tsdtest::kPort + 1, drain), 0);
        EXPECT_TRUE(watching());
    }

    double secondsSince(Clock::time_point start) const
    {
        return std::chrono::duration<double>(Clock::now() - start).count();
    }
};

}  // namespace

TEST(CheckResponse, RearTimeoutSendsResyncThenRaisesMinusOne)
{
    runIsolated([] {
        Supervised s;
        SyslogCapture capture;
        const auto start = Clock::now();
        s.rearCheck.startWaitPeriod();
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.net.peer->heard(0).empty(); }, 10s));
        const double resyncAfter = s.secondsSince(start);
        EXPECT_GE(resyncAfter, 3.0);
        EXPECT_LT(resyncAfter, 6.0);
        EXPECT_EQ(s.net.peer->heard(0), (std::vector<std::string>{"<sync>:resync:<sync>"}));
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return s.watcher.has("sync/errors/-1"); }, 5s));
        const Json::Value error = s.watcher.state("sync/errors/-1");
        EXPECT_EQ(error["error"].asInt(), -1);
        EXPECT_EQ(error["txt"].asString(), kBackText);
        EXPECT_EQ(error["info"].asString(), "");
        EXPECT_EQ(capture.count(LOG_NOTICE, std::string("ADD ERROR : ") + kBackText), 1u) << capture.dump();
        EXPECT_TRUE(s.net.peer->heard(1).empty()) << "the front side is not asked";
        EXPECT_FALSE(s.watcher.has("sync/errors/-2"));
    });
}

TEST(CheckResponse, FrontTimeoutSendsFrontResyncThenRaisesMinusTwo)
{
    runIsolated([] {
        Supervised s;
        const auto start = Clock::now();
        s.frontCheck.startWaitPeriod();
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return s.watcher.has("sync/errors/-2"); }, 10s));
        EXPECT_GE(s.secondsSince(start), 3.0);
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.net.peer->heard(1).empty(); }, 5s));
        EXPECT_EQ(s.net.peer->heard(1), (std::vector<std::string>{"<sync>:resync:1:<sync>"}));
        EXPECT_EQ(s.watcher.state("sync/errors/-2")["txt"].asString(),
                  "Did not receive sync notification from all modules on front");
        EXPECT_FALSE(s.watcher.has("sync/errors/-1"));
    });
}

TEST(CheckResponse, CompletionWithinThePeriodSeesNoError)
{
    runIsolated([] {
        Supervised s;
        SyslogCapture capture;
        s.rearCheck.startWaitPeriod();
        runFor(s.net.loop, 500ms);
        s.rearCheck.notify();
        runFor(s.net.loop, 3500ms);
        EXPECT_TRUE(s.net.peer->heard(0).empty());
        EXPECT_TRUE(s.watcher.events().empty());
        // Removing an error that is not active is silent.
        EXPECT_EQ(capture.lines().size(), 0u) << capture.dump();
    });
}

TEST(CheckResponse, CancelRemovesErrorPendingFromEarlierExpiry)
{
    runIsolated([] {
        Supervised s;
        SyslogCapture capture;
        s.rearCheck.startWaitPeriod();
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return s.watcher.has("sync/errors/-1"); }, 10s));
        // The resync makes the side answer again; this time all answers come.
        s.rearCheck.startWaitPeriod();
        runFor(s.net.loop, 200ms);
        s.rearCheck.notify();
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return !s.watcher.has("sync/errors/-1"); }, 5s));
        EXPECT_EQ(capture.count(LOG_NOTICE, std::string("REMOVE ERROR : ") + kBackText), 1u)
            << capture.dump();
        runFor(s.net.loop, 3200ms);
        EXPECT_FALSE(s.watcher.has("sync/errors/-1")) << "the cancelled period must not expire";
        EXPECT_EQ(s.net.peer->heard(0).size(), 1u);
    });
}

TEST(CheckResponse, EveryStartGivesAFreshPeriod)
{
    runIsolated([] {
        Supervised s;
        const auto start = Clock::now();
        s.frontCheck.startWaitPeriod();
        runFor(s.net.loop, 2000ms);
        s.frontCheck.startWaitPeriod();
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return s.watcher.has("sync/errors/-2"); }, 10s));
        EXPECT_GE(s.secondsSince(start), 5.0);
        EXPECT_EQ(s.net.peer->heard(1).size(), 1u) << "one expiry, one resync";
    });
}

TEST(CheckResponse, SetErrorOnlyForwardsToTheErrorState)
{
    runIsolated([] {
        Supervised s;
        s.frontCheck.setError(-3, "Wrong interface during START seq");
        s.frontCheck.setError(-3, "Wrong interface during RESYNC seq");
        ASSERT_TRUE(runUntil(
            s.net.loop, [&] { return s.watcher.has("sync/errors/-3"); }, 5s));
        EXPECT_EQ(s.watcher.state("sync/errors/-3")["info"].asString(), "Wrong interface during START seq");
        runFor(s.net.loop, 200ms);
        EXPECT_TRUE(s.net.peer->heard(1).empty());
        EXPECT_EQ(s.errors.active().size(), 1u);
    });
}
