#include "errors/TsdErrors.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <memory>

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "testsupport/BusWatcher.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"
#include "testsupport/SyslogCapture.h"

using namespace std::chrono_literals;
using orv::tsd::TsdErrors;
using testsupport::BusWatcher;
using testsupport::LocalVelad;
using testsupport::runUntil;
using testsupport::SyslogCapture;

namespace {

const char kBackText[] = "Did not receive sync notification from all modules on back";

class TsdErrorsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(broker.port(), 0u);
        peer = std::make_unique<vela::PeerAsync>(loop, "127.0.0.1", broker.port());
        watcher = std::make_unique<BusWatcher>(loop, broker.port(), "sync/errors/");
        ASSERT_TRUE(runUntil(
            loop, [&] { return watcher->ready(); }, 5s));
        errors = std::make_unique<TsdErrors>(*peer);
    }

    void TearDown() override
    {
        errors.reset();
        watcher.reset();
        peer.reset();
    }

    // Bus traffic of one peer arrives in order: once the marker is seen,
    // everything sent before it has been handled too.
    bool flushWithMarker(int code)
    {
        errors->add(code, "marker");
        return runUntil(
            loop, [&] { return watcher->has("sync/errors/" + std::to_string(code)); }, 5s);
    }

    LocalVelad broker{{"--quiet"}};
    orv::sys::EventLoop loop;
    SyslogCapture capture;
    std::unique_ptr<vela::PeerAsync> peer;
    std::unique_ptr<BusWatcher> watcher;
    std::unique_ptr<TsdErrors> errors;
};

}  // namespace

TEST(TsdErrorTexts, TableHoldsTheSevenCodesBeforeAnyUse)
{
    const auto& texts = orv::tsd::errorTexts();
    EXPECT_EQ(texts.at(-1), kBackText);
    EXPECT_EQ(texts.at(-2), "Did not receive sync notification from all modules on front");
    EXPECT_EQ(texts.at(-3), "Wrong interface");
    EXPECT_EQ(texts.at(-4), "File open error");
    EXPECT_EQ(texts.at(5), "Configuration file error");
    EXPECT_EQ(texts.at(-6), "Exception");
    EXPECT_EQ(texts.at(-7), "File write error");
    EXPECT_EQ(texts.count(-5), 0u);
    EXPECT_EQ(texts.count(0), 0u);
}

TEST_F(TsdErrorsTest, AddingTwiceKeepsFirstInfoAndPublishesOnce)
{
    errors->add(-1, "first");
    errors->add(-1, "second");
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->has("sync/errors/-1"); }, 5s));
    ASSERT_TRUE(flushWithMarker(-7));
    const Json::Value value = watcher->state("sync/errors/-1");
    EXPECT_EQ(value["error"].asInt(), -1);
    EXPECT_EQ(value["txt"].asString(), kBackText);
    EXPECT_EQ(value["info"].asString(), "first");
    EXPECT_EQ(value.size(), 3u);
    EXPECT_EQ(watcher->eventsFor("sync/errors/-1").size(), 1u);
    EXPECT_EQ(capture.count(LOG_NOTICE, std::string("ADD ERROR : ") + kBackText), 1u) << capture.dump();
    EXPECT_EQ(errors->active().size(), 2u);
}

TEST_F(TsdErrorsTest, RemovingCodeNeverAddedLogsAndSendsNothing)
{
    errors->remove(-4);
    errors->remove(-1);
    ASSERT_TRUE(flushWithMarker(-7));
    ASSERT_EQ(watcher->events().size(), 1u);
    EXPECT_EQ(watcher->events()[0].path, "sync/errors/-7");
    EXPECT_EQ(capture.countText("REMOVE ERROR : File open error"), 0u);
    EXPECT_EQ(capture.lines().size(), 1u) << capture.dump();
}

TEST_F(TsdErrorsTest, ErrorAddedRemovedAndAddedAgainIsPublishedAnew)
{
    errors->add(-2, "");
    errors->remove(-2);
    errors->add(-2, "");
    ASSERT_TRUE(flushWithMarker(-7));
    const auto events = watcher->eventsFor("sync/errors/-2");
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].event, "add");
    EXPECT_EQ(events[1].event, "remove");
    EXPECT_EQ(events[2].event, "add");
    EXPECT_EQ(watcher->state("sync/errors/-2")["info"].asString(), "");
    const std::string text = "Did not receive sync notification from all modules on front";
    EXPECT_EQ(capture.count(LOG_NOTICE, "ADD ERROR : " + text), 2u) << capture.dump();
    EXPECT_EQ(capture.count(LOG_NOTICE, "REMOVE ERROR : " + text), 1u);
}

TEST_F(TsdErrorsTest, PositiveCodeFiveHasItsTextAndUnknownCodeGetsEmptyText)
{
    errors->add(5, "x");
    errors->add(-5, "y");
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->has("sync/errors/5") && watcher->has("sync/errors/-5"); }, 5s));
    EXPECT_EQ(watcher->state("sync/errors/5")["txt"].asString(), "Configuration file error");
    EXPECT_EQ(watcher->state("sync/errors/5")["error"].asInt(), 5);
    const Json::Value unknown = watcher->state("sync/errors/-5");
    EXPECT_TRUE(unknown["txt"].isString());
    EXPECT_EQ(unknown["txt"].asString(), "");
    EXPECT_EQ(unknown["info"].asString(), "y");
    EXPECT_EQ(capture.count(LOG_NOTICE, "ADD ERROR : "), 1u) << capture.dump();
    EXPECT_EQ(capture.count(LOG_NOTICE, "ADD ERROR : Configuration file error"), 1u);
    // The lookup entered the unknown code into the table.
    ASSERT_EQ(orv::tsd::errorTexts().count(-5), 1u);
    EXPECT_EQ(orv::tsd::errorTexts().at(-5), "");
    errors->remove(-5);
    ASSERT_TRUE(runUntil(
        loop, [&] { return !watcher->has("sync/errors/-5"); }, 5s));
    EXPECT_EQ(capture.count(LOG_NOTICE, "REMOVE ERROR : "), 1u);
}

TEST_F(TsdErrorsTest, DestructionRemovesActiveErrorsInAscendingOrder)
{
    errors->add(-1, "");
    errors->add(-3, "Wrong interface during START seq");
    errors->add(5, "");
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->states().size() == 3; }, 5s));
    errors.reset();
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->states().empty(); }, 5s));
    std::vector<std::string> removed;
    for (const auto& e : watcher->events()) {
        if (e.event == "remove")
            removed.push_back(e.path);
    }
    EXPECT_EQ(removed, (std::vector<std::string>{"sync/errors/-3", "sync/errors/-1", "sync/errors/5"}));
    // Going away is not an error-state change of its own.
    EXPECT_EQ(capture.countText("REMOVE ERROR : Wrong interface"), 0u);
}

TEST_F(TsdErrorsTest, AddWithLocationComposesInfo)
{
    errors->add(-4, "cannot open", "Config", "load", 42);
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->has("sync/errors/-4"); }, 5s));
    EXPECT_EQ(watcher->state("sync/errors/-4")["info"].asString(), "[42]Config::load[cannot open]");
    EXPECT_EQ(watcher->state("sync/errors/-4")["txt"].asString(), "File open error");
    errors->add(-6, "boom", "S", "f", -3);
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->has("sync/errors/-6"); }, 5s));
    EXPECT_EQ(watcher->state("sync/errors/-6")["info"].asString(), "[-3]S::f[boom]");
}

TEST_F(TsdErrorsTest, PublishedStatesCannotBeSetByOthers)
{
    errors->add(-1, "");
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher->has("sync/errors/-1"); }, 5s));
    vela::PeerAsync other(loop, "127.0.0.1", broker.port());
    bool answered = false;
    Json::Value response;
    other.setAsync("sync/errors/-1", Json::Value(1), [&](const Json::Value& r) {
        response = r;
        answered = true;
    });
    ASSERT_TRUE(runUntil(
        loop, [&] { return answered; }, 7s));
    EXPECT_TRUE(response.isMember("error")) << response.toStyledString();
    EXPECT_EQ(watcher->state("sync/errors/-1")["error"].asInt(), -1);
}
