// The race for a path after a broker restart. The owners are peer libraries
// used as tsd and the parameter service use them (fire-and-forget adds, a
// fetch of "sync/param"); they reconnect with a back-off, and a quicker client
// may try to take their paths first. Under the shipped policy such a client
// is refused outright. Under a policy that lets it own those paths it holds
// them while it stays, and every owner gets its path back, with its own
// current value, as soon as it leaves.
#include "BusTestSupport.h"
#include "Protocol.h"

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "testsupport/BusWatcher.h"
#include "testsupport/SyslogCapture.h"

using bustest::errorCode;
using bustest::kNobody;
using bustest::kNogroup;
using bustest::params;
using bustest::RawClient;
using bustest::TempFile;
using testsupport::BusWatcher;
using testsupport::LocalVelad;
using testsupport::runFor;
using testsupport::runUntil;
using namespace std::chrono_literals;
namespace p = vela::protocol;

using bustest::readFile;

namespace {

const std::string kSource = TSD_SOURCE_DIR;

Json::Value object(const std::string& key, const Json::Value& value)
{
    Json::Value v(Json::objectValue);
    v[key] = value;
    return v;
}

const std::vector<std::string> kTsdPaths = {"sync/app", "sync/master", "sync/errors/-1"};

class Squat : public ::testing::Test
{
protected:
    orv::sys::EventLoop loop;
    std::unique_ptr<TempFile> acl;
    std::unique_ptr<LocalVelad> velad;
    std::uint16_t port = 0;
    std::unique_ptr<vela::PeerAsync> tsd;
    std::unique_ptr<vela::PeerAsync> paramd;
    std::vector<Json::Value> paramSeen;  // what tsd's fetch of sync/param delivered, in order
    std::vector<std::string> paramEvents;

    void startBroker(std::uint16_t wanted)
    {
        velad = std::make_unique<LocalVelad>(std::vector<std::string>{"--quiet", "--acl", acl->path()}, wanted);
        port = velad->port();
    }

    // The module as it runs: tsd with its states and its fetch of the
    // parameters, the parameter service owning them.
    void startModule(const std::string& policy)
    {
        acl = std::make_unique<TempFile>("acl.conf", policy);
        startBroker(0);
        ASSERT_NE(port, 0);
        tsd = std::make_unique<vela::PeerAsync>(loop, "127.0.0.1", port, "tsd");
        tsd->addStateAsync("sync/app", object("status", 1), {},
                           [](const Json::Value&, const std::string&) { return Json::Value(); });
        tsd->addStateAsync("sync/master", Json::Value("0A7C31000001"), {}, {});
        tsd->addStateAsync("sync/errors/-1", object("error", -1), {}, {});
        vela::matcher_t m;
        m.equals = "sync/param";
        tsd->addFetchAsync(m, [this](const Json::Value& n, int) {
            paramEvents.push_back(n["event"].asString());
            paramSeen.push_back(n["value"]);
        });
        paramd = std::make_unique<vela::PeerAsync>(loop, "127.0.0.1", port, "tsdparamd");
        paramd->addStateAsync("sync/param", owned(), {}, {});
        BusWatcher watcher(loop, port, "sync/");
        ASSERT_TRUE(runUntil(loop, [&] { return watcher.states().size() == 4 && !paramSeen.empty(); }));
    }

    static Json::Value owned() { return object("source", "ptp"); }
    static Json::Value squatted() { return object("source", "squatter"); }

    // Stops the broker and starts a new one on the same port; the loop does
    // not run meanwhile, so the owners have not come back yet.
    void restartBroker()
    {
        velad.reset();
        ASSERT_TRUE(runUntil(loop, [&] { return !tsd->isConnected() && !paramd->isConnected(); }));
        startBroker(port);
        ASSERT_NE(port, 0);
    }

    // The unprivileged client that tries to take the paths first.
    RawClient squatter()
    {
        auto fds = bustest::socketsOf(kNobody, kNogroup, port, 1);
        EXPECT_EQ(fds.size(), 1u);
        RawClient c = RawClient::adopt(fds.empty() ? -1 : fds[0]);
        EXPECT_TRUE(c.hello("squatter"));
        return c;
    }
};

}  // namespace

TEST_F(Squat, UnderTheShippedPolicyTheSquatterIsRefusedAndNothingOfItIsSeen)
{
    startModule(readFile(kSource + "/packaging/config/vela-acl.conf"));
    restartBroker();
    RawClient s = squatter();
    EXPECT_EQ(errorCode(s.call(p::kAdd, params({{"path", "sync/param"}, {"value", squatted()}}))),
              p::kNotPermitted);
    for (const std::string& path : kTsdPaths) {
        EXPECT_EQ(errorCode(s.call(p::kAdd, params({{"path", path}, {"value", "squat"}}))), p::kNotPermitted)
            << path;
    }
    BusWatcher watcher(loop, port, "sync/");
    ASSERT_TRUE(runUntil(loop, [&] { return watcher.states().size() == 4; }, 10s));
    EXPECT_EQ(watcher.state("sync/param"), owned());
    EXPECT_EQ(watcher.state("sync/master"), "0A7C31000001");
    for (const Json::Value& v : paramSeen) {
        EXPECT_NE(v, squatted());
    }
    // The restart itself is hidden from tsd's fetch: one add, nothing else.
    EXPECT_EQ(paramEvents, std::vector<std::string>{"add"});
}

TEST_F(Squat, ASquatterThePolicyAllowsHoldsThePathsOnlyUntilItLeaves)
{
    testsupport::SyslogCapture syslogLines;
    startModule("user root own,set,fetch *\n"
                "user nobody own sync/*\n"
                "all fetch *\n");
    restartBroker();
    {
        RawClient s = squatter();
        ASSERT_EQ(s.call(p::kAdd, params({{"path", "sync/param"}, {"value", squatted()}}))["result"], true);
        for (const std::string& path : kTsdPaths) {
            ASSERT_EQ(s.call(p::kAdd, params({{"path", path}, {"value", "squat"}}))["result"], true) << path;
        }
        // The owners come back and find their paths taken: they keep trying.
        ASSERT_TRUE(runUntil(loop, [&] { return tsd->isConnected() && paramd->isConnected(); }));
        runFor(loop, 1000ms);
        // tsd changes a value meanwhile: it is kept for when the path is free.
        tsd->notifyState("sync/master", Json::Value("0A7C31000002"));
        runFor(loop, 300ms);
        BusWatcher during(loop, port, "sync/");
        ASSERT_TRUE(runUntil(loop, [&] { return during.ready(); }));
        EXPECT_EQ(during.state("sync/param"), squatted());
        EXPECT_EQ(during.state("sync/master"), "squat");
        ASSERT_FALSE(paramSeen.empty());
        EXPECT_EQ(paramSeen.back(), squatted()) << "the policy let it own the path, so tsd sees its value";
    }
    // The squatter has left: within the longest pause every owner has its
    // path back, with its own value of now.
    BusWatcher watcher(loop, port, "sync/");
    ASSERT_TRUE(runUntil(
        loop,
        [&] {
            return watcher.state("sync/param") == owned() && watcher.state("sync/master") == "0A7C31000002" &&
                   watcher.state("sync/app") == object("status", 1) &&
                   watcher.state("sync/errors/-1") == object("error", -1);
        },
        8s))
        << watcher.states().size();
    EXPECT_EQ(paramSeen.back(), owned());
    EXPECT_EQ(paramEvents.back(), "add");

    // Each owner said what happened: refused once, then added.
    runFor(loop, 100ms);
    for (const std::string& path : {std::string("sync/param"), std::string("sync/master")}) {
        std::size_t refused = 0;
        std::size_t added = 0;
        for (const auto& l : syslogLines.lines()) {
            if (l.text.find("'" + path + "'") == std::string::npos) {
                continue;
            }
            if (l.text.find("trying again until it is free") != std::string::npos) {
                EXPECT_EQ(l.priority, LOG_WARNING);
                ++refused;
            }
            if (l.text.find("added on broker") != std::string::npos) {
                EXPECT_EQ(l.priority, LOG_NOTICE);
                ++added;
            }
        }
        EXPECT_EQ(refused, 1u) << path << "\n" << syslogLines.dump();
        EXPECT_EQ(added, 1u) << path << "\n" << syslogLines.dump();
    }
}

TEST_F(Squat, TheOwnersResponseSaysItKeepsTrying)
{
    startModule("user root own,set,fetch *\nall fetch *\n");
    RawClient holder(port);
    ASSERT_TRUE(holder.hello("holder"));
    ASSERT_EQ(holder.call(p::kAdd, params({{"path", "held"}, {"value", 1}}))["result"], true);
    std::optional<Json::Value> answer;
    tsd->addStateAsync("held", Json::Value(2), [&](const Json::Value& r) { answer = r; });
    ASSERT_TRUE(runUntil(loop, [&] { return answer.has_value(); }));
    EXPECT_EQ((*answer)["error"]["code"], p::kPathExists);
    EXPECT_EQ((*answer)["error"]["message"], "state 'held' exists already; the peer keeps trying to add it");
    // Given up while it is still contested: no add follows the holder.
    std::optional<Json::Value> removed;
    tsd->removeStateAsync("held", [&](const Json::Value& r) { removed = r; });
    ASSERT_TRUE(runUntil(loop, [&] { return removed.has_value(); }));
    EXPECT_EQ((*removed)["result"], true);
    holder.call(p::kRemove, params({{"path", "held"}}));
    runFor(loop, 1500ms);
    std::string out;
    EXPECT_EQ(bustest::runVela(port, {"get", "held"}, &out), 1);
}
