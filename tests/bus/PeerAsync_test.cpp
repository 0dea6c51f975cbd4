// The peer library against an in-process broker on an ephemeral loopback
// port, everything on one event loop: the calls, their answers and
// notifications, queueing before the connection, set routing, owner
// disconnects and a broker restart.
#include "Broker.h"
#include "BusTestSupport.h"
#include "Frame.h"
#include "Protocol.h"
#include "Socket.h"

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "testsupport/SyslogCapture.h"

using testsupport::runFor;
using testsupport::runUntil;
using namespace std::chrono_literals;

namespace {

// A free loopback port: bound once by the kernel's choice, then released.
std::uint16_t freePort()
{
    int fd = vela::socket::listenTcp("127.0.0.1", 0);
    std::uint16_t port = vela::socket::localPort(fd);
    ::close(fd);
    return port;
}

struct Event
{
    std::string event;
    std::string path;
    Json::Value value;
    int fetchId;
};

// Collects what one fetch delivers.
struct Recorder
{
    std::vector<Event> events;
    std::vector<std::string> order;  // "event path" and "answer", in arrival order
    std::optional<Json::Value> answer;

    vela::FetchCallback callback()
    {
        return [this](const Json::Value& n, int id) {
            events.push_back(Event{n["event"].asString(), n["path"].asString(), n["value"], id});
            order.push_back(n["event"].asString() + " " + n["path"].asString());
        };
    }
    vela::ResponseCallback response()
    {
        return [this](const Json::Value& r) {
            answer = r;
            order.push_back("answer");
        };
    }
    std::size_t count(const std::string& event, const std::string& path = {}) const
    {
        std::size_t n = 0;
        for (const Event& e : events) {
            if (e.event == event && (path.empty() || e.path == path)) {
                ++n;
            }
        }
        return n;
    }
    const Event* last(const std::string& path) const
    {
        for (auto it = events.rbegin(); it != events.rend(); ++it) {
            if (it->path == path) {
                return &*it;
            }
        }
        return nullptr;
    }
};

class PeerAsyncTest : public ::testing::Test
{
protected:
    orv::sys::EventLoop loop;
    std::unique_ptr<vela::Broker> broker;
    std::uint16_t port = 0;
    // The quotas of the next startBroker().
    vela::Limits limits;

    void startBroker(std::uint16_t wanted = 0, std::chrono::milliseconds setTimeout = 5000ms)
    {
        vela::Broker::Options o;
        o.port = wanted;
        o.quiet = true;
        o.limits = limits;
        o.limits.setTimeout = setTimeout;
        broker = std::make_unique<vela::Broker>(loop, o);
        ASSERT_EQ(broker->start(), 0);
        port = broker->port();
    }

    std::unique_ptr<vela::PeerAsync> peer(const std::string& name = {})
    {
        return std::make_unique<vela::PeerAsync>(loop, "127.0.0.1", port, name);
    }

    static vela::ResponseCallback store(std::optional<Json::Value>& into)
    {
        return [&into](const Json::Value& r) { into = r; };
    }
};

TEST_F(PeerAsyncTest, AddedStateIsVisibleAndAnswered)
{
    startBroker();
    auto owner = peer("owner");
    std::optional<Json::Value> answer;
    owner->addStateAsync("sync/app", Json::Value(3), store(answer));
    ASSERT_TRUE(runUntil(loop, [&] { return answer.has_value(); }));
    EXPECT_EQ((*answer)["result"], true);
    ASSERT_NE(broker->core().valueText("sync/app"), nullptr);
    EXPECT_EQ(*broker->core().valueText("sync/app"), "3");
    EXPECT_TRUE(owner->isConnected());
}

TEST_F(PeerAsyncTest, SecondAddOfExistingPathIsRefused)
{
    startBroker();
    auto a = peer();
    auto b = peer();
    std::optional<Json::Value> first, second, own;
    a->addStateAsync("x", 1, store(first));
    ASSERT_TRUE(runUntil(loop, [&] { return first.has_value(); }));
    b->addStateAsync("x", 2, store(second));
    a->addStateAsync("x", 3, store(own));
    ASSERT_TRUE(runUntil(loop, [&] { return second && own; }));
    EXPECT_EQ((*second)["error"]["code"], vela::protocol::kPathExists);
    EXPECT_EQ((*own)["error"]["code"], vela::protocol::kPathExists);
    EXPECT_EQ(*broker->core().valueText("x"), "1");
}

TEST_F(PeerAsyncTest, FetchIdComesAtOnceAndAnswerFollowsTheInitialAdds)
{
    startBroker();
    auto owner = peer();
    std::optional<Json::Value> done;
    owner->addStateAsync("reachableDevices/firewire0/0A7C31000001", Json::Value(Json::objectValue));
    owner->addStateAsync("reachableDevices/firewire1/0A7C31000002", Json::Value(Json::objectValue));
    owner->addStateAsync("sync/app", 1, store(done));
    ASSERT_TRUE(runUntil(loop, [&] { return done.has_value(); }));

    auto fetcher = peer();
    Recorder rec;
    vela::matcher_t m;
    m.startsWith = "reachableDevices/firewire";
    const int id = fetcher->addFetchAsync(m, rec.callback(), rec.response());
    EXPECT_GT(id, 0);
    EXPECT_TRUE(rec.events.empty());  // nothing runs inside the call
    ASSERT_TRUE(runUntil(loop, [&] { return rec.answer.has_value(); }));
    EXPECT_EQ(rec.order, (std::vector<std::string>{"add reachableDevices/firewire0/0A7C31000001",
                                                   "add reachableDevices/firewire1/0A7C31000002", "answer"}));
    EXPECT_EQ(rec.events[0].fetchId, id);

    const int id2 = fetcher->addFetchAsync(m, rec.callback());
    EXPECT_NE(id2, id);
}

TEST_F(PeerAsyncTest, EachMatcherCriterionSelectsItsPaths)
{
    startBroker();
    auto owner = peer();
    std::optional<Json::Value> done;
    for (const char* path : {"sync/param", "sync/params", "sync/app", "sync/errors/-1",
                             "reachableDevices/firewire0/0A7C31000001", "other/x"}) {
        owner->addStateAsync(path, 0, store(done));
    }
    ASSERT_TRUE(runUntil(loop, [&] { return done.has_value(); }));
    struct Case
    {
        vela::matcher_t m;
        std::vector<std::string> expected;  // "add" paths, in path order
    };
    std::vector<Case> cases(6);
    cases[0].m.equals = "sync/param";
    cases[0].expected = {"sync/param"};
    cases[1].m.startsWith = "reachableDevices/firewire";
    cases[1].expected = {"reachableDevices/firewire0/0A7C31000001"};
    cases[2].m.endsWith = "/x";
    cases[2].expected = {"other/x"};
    cases[3].m.contains = "errors";
    cases[3].expected = {"sync/errors/-1"};
    cases[4].m.equalsNot = "sync/app";
    cases[4].expected = {"other/x", "reachableDevices/firewire0/0A7C31000001", "sync/errors/-1", "sync/param",
                         "sync/params"};
    cases[5].m.startsWith = "sync/";
    cases[5].m.endsWith = "s";
    cases[5].m.equalsNot = "sync/params";
    cases[5].expected = {};
    auto fetcher = peer();
    std::vector<Recorder> recs(cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        fetcher->addFetchAsync(cases[i].m, recs[i].callback(), recs[i].response());
    }
    ASSERT_TRUE(runUntil(loop, [&] {
        return std::all_of(recs.begin(), recs.end(), [](const Recorder& r) { return r.answer.has_value(); });
    }));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        std::vector<std::string> got;
        for (const Event& e : recs[i].events) {
            got.push_back(e.path);
        }
        EXPECT_EQ(got, cases[i].expected) << "case " << i;
    }
    // Later additions are filtered the same way.
    owner->addStateAsync("sync/paramsx", 1);
    owner->addStateAsync("more/x", 1);
    ASSERT_TRUE(runUntil(loop, [&] { return recs[2].count("add", "more/x") == 1; }));
    ASSERT_TRUE(runUntil(loop, [&] { return recs[4].count("add", "more/x") == 1; }));
    EXPECT_EQ(recs[0].events.size(), 1u);
    EXPECT_EQ(recs[3].events.size(), 1u);
    EXPECT_EQ(recs[4].count("add", "sync/paramsx"), 1u);
}

TEST_F(PeerAsyncTest, ChangesAndRemovalReachFetchers)
{
    startBroker();
    auto owner = peer();
    auto fetcher = peer();
    Recorder rec;
    vela::matcher_t m;
    m.equals = "sync/master";
    fetcher->addFetchAsync(m, rec.callback(), rec.response());
    ASSERT_TRUE(runUntil(loop, [&] { return rec.answer.has_value(); }));
    owner->addStateAsync("sync/master", "0A7C31000000");
    owner->notifyState("sync/master", std::string("0A7C31001234"));
    owner->notifyState("sync/master", "0A7C31005678");
    Json::Value obj(Json::objectValue);
    obj["x"] = 1.5;
    owner->notifyState("sync/master", obj);
    owner->removeStateAsync("sync/master");
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("remove") == 1; }));
    ASSERT_EQ(rec.events.size(), 5u);
    EXPECT_EQ(rec.events[0].event, "add");
    EXPECT_EQ(rec.events[1].event, "change");
    EXPECT_EQ(rec.events[1].value, "0A7C31001234");
    EXPECT_EQ(rec.events[2].value, "0A7C31005678");
    EXPECT_EQ(rec.events[3].value["x"], 1.5);
    EXPECT_EQ(rec.events[4].event, "remove");
    EXPECT_EQ(broker->core().stateCount(), 0u);
}

TEST_F(PeerAsyncTest, RemovedFetchGetsNoMoreNotifications)
{
    startBroker();
    auto owner = peer();
    auto fetcher = peer();
    Recorder rec;
    const int id = fetcher->addFetchAsync(vela::matcher_t{}, rec.callback(), rec.response());
    std::optional<Json::Value> added, removed;
    owner->addStateAsync("a", 1, store(added));
    ASSERT_TRUE(runUntil(loop, [&] { return added && rec.count("add") == 1; }));
    fetcher->removeFetchAsync(id, store(removed));
    ASSERT_TRUE(runUntil(loop, [&] { return removed.has_value(); }));
    EXPECT_EQ((*removed)["result"], true);
    owner->notifyState("a", 2);
    std::optional<Json::Value> again;
    fetcher->removeFetchAsync(id, store(again));
    ASSERT_TRUE(runUntil(loop, [&] { return again.has_value(); }));
    EXPECT_EQ((*again)["error"]["code"], vela::protocol::kUnknownFetch);
    EXPECT_EQ(rec.count("change"), 0u);
}

TEST_F(PeerAsyncTest, SetIsAnsweredByTheOwnersCallback)
{
    startBroker();
    auto owner = peer();
    std::vector<std::pair<Json::Value, std::string>> seen;
    std::optional<Json::Value> added;
    owner->addStateAsync("sync/app", 0, store(added), [&](const Json::Value& value, const std::string& path) {
        seen.emplace_back(value, path);
        return value.isInt() ? Json::Value(value.asInt() + 1) : Json::Value();
    });
    ASSERT_TRUE(runUntil(loop, [&] { return added.has_value(); }));
    auto requester = peer();
    std::optional<Json::Value> r1, r2;
    requester->setAsync("sync/app", 41, store(r1));
    requester->setAsync("sync/app", "text", store(r2));
    ASSERT_TRUE(runUntil(loop, [&] { return r1 && r2; }));
    EXPECT_EQ((*r1)["result"], 42);
    ASSERT_TRUE(r2->isMember("result"));
    EXPECT_TRUE((*r2)["result"].isNull());
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].first, 41);
    EXPECT_EQ(seen[0].second, "sync/app");
}

TEST_F(PeerAsyncTest, SetCallbackThatThrowsGivesAnErrorAndThePeerLivesOn)
{
    startBroker();
    auto owner = peer();
    std::optional<Json::Value> added;
    owner->addStateAsync("a", 0, store(added), [](const Json::Value&, const std::string&) -> Json::Value {
        throw std::runtime_error("refused");
    });
    ASSERT_TRUE(runUntil(loop, [&] { return added.has_value(); }));
    auto requester = peer();
    std::optional<Json::Value> r;
    requester->setAsync("a", 1, store(r));
    ASSERT_TRUE(runUntil(loop, [&] { return r.has_value(); }));
    EXPECT_EQ((*r)["error"]["code"], vela::protocol::kSetFailed);
    EXPECT_TRUE(owner->isConnected());
}

TEST_F(PeerAsyncTest, SetCallbackThatRefusesAnswersItsReasonAndKeepsTheValue)
{
    startBroker();
    auto owner = peer();
    std::optional<Json::Value> added;
    owner->addStateAsync("a", 0, store(added), [](const Json::Value&, const std::string&) -> Json::Value {
        throw vela::SetRefused("\"threshold\": must be a finite number");
    });
    ASSERT_TRUE(runUntil(loop, [&] { return added.has_value(); }));
    auto requester = peer();
    std::optional<Json::Value> r, got;
    requester->setAsync("a", 1, store(r));
    ASSERT_TRUE(runUntil(loop, [&] { return r.has_value(); }));
    EXPECT_EQ((*r)["error"]["code"], vela::protocol::kSetRefused);
    EXPECT_EQ((*r)["error"]["message"], "\"threshold\": must be a finite number");
    EXPECT_TRUE(owner->isConnected());
}

TEST_F(PeerAsyncTest, SetOnStateWithoutSetCallbackIsRefused)
{
    startBroker();
    auto owner = peer();
    std::optional<Json::Value> added, r, unknown;
    owner->addStateAsync("sync/errors/-1", "text", store(added));
    ASSERT_TRUE(runUntil(loop, [&] { return added.has_value(); }));
    auto requester = peer();
    requester->setAsync("sync/errors/-1", 1, store(r));
    requester->setAsync("no/such", 1, store(unknown));
    ASSERT_TRUE(runUntil(loop, [&] { return r && unknown; }));
    EXPECT_EQ((*r)["error"]["code"], vela::protocol::kNotSettable);
    EXPECT_EQ((*unknown)["error"]["code"], vela::protocol::kUnknownPath);
}

TEST_F(PeerAsyncTest, SilentOwnerMakesTheSetTimeOut)
{
    startBroker(0, 300ms);
    // An owner that adds a settable state and then never reads: a raw
    // socket written from the test, never serviced.
    bool inProgress = false;
    int fd = vela::socket::connectTcp("127.0.0.1", port, &inProgress);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(runUntil(
        loop, [&] { return vela::socket::connectResult(fd) == 0 && broker->core().connectionCount() == 1; }));
    std::string out;
    vela::appendFrame(out, R"({"jsonrpc":"2.0","id":1,"method":"hello","params":{"protocol":1}})");
    vela::appendFrame(
        out, R"({"jsonrpc":"2.0","id":2,"method":"add","params":{"path":"mute","value":1,"settable":true}})");
    ASSERT_EQ(::send(fd, out.data(), out.size(), MSG_NOSIGNAL), static_cast<ssize_t>(out.size()));
    ASSERT_TRUE(runUntil(loop, [&] { return broker->core().stateCount() == 1; }));

    auto requester = peer();
    std::optional<Json::Value> r;
    const auto t0 = std::chrono::steady_clock::now();
    requester->setAsync("mute", 1, store(r));
    ASSERT_TRUE(runUntil(loop, [&] { return r.has_value(); }));
    EXPECT_EQ((*r)["error"]["code"], vela::protocol::kSetTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 250ms);
    ::close(fd);
}

TEST_F(PeerAsyncTest, PeerThatStopsReadingIsDroppedAndOthersGetEverything)
{
    vela::Broker::Options o;
    o.port = 0;
    o.quiet = true;
    // Above what one read burst (16 x 64 KiB) fans out to a peer, well below
    // what the stuck peer is sent.
    o.limits.maxBacklogBytes = 2 * 1024 * 1024;
    broker = std::make_unique<vela::Broker>(loop, o);
    ASSERT_EQ(broker->start(), 0);
    port = broker->port();

    // A fetcher that never reads: a raw socket nobody services, with a
    // receive buffer too small to hide much in the kernel.
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    int small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    sockaddr_in addr;
    vela::socket::makeAddress("127.0.0.1", port, addr);
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_TRUE(runUntil(loop, [&] { return broker->core().connectionCount() == 1; }));
    std::string out;
    vela::appendFrame(out, R"({"jsonrpc":"2.0","id":1,"method":"hello","params":{"protocol":1}})");
    vela::appendFrame(out, R"({"jsonrpc":"2.0","id":2,"method":"fetch","params":{"id":1,"matcher":{}}})");
    ASSERT_EQ(::send(fd, out.data(), out.size(), MSG_NOSIGNAL), static_cast<ssize_t>(out.size()));

    auto owner = peer();
    auto fetcher = peer();
    Recorder rec;
    fetcher->addFetchAsync(vela::matcher_t{}, rec.callback(), rec.response());
    std::optional<Json::Value> added;
    owner->addStateAsync("load", 0, store(added));
    ASSERT_TRUE(runUntil(loop, [&] { return added && rec.answer; }));
    ASSERT_EQ(broker->core().connectionCount(), 3u);

    // 8 MB: more than the kernel buffers of the stuck connection and the
    // broker's limit together. Sent in steps below one read burst, each taken
    // by the fetcher before the next: the broker does not hold back a fast
    // writer for its slower readers, so in one unpaced burst a reader that
    // does read can fall behind by the limit too when the loop happens to
    // serve the writer first (as it does in the slower sanitizer build).
    constexpr int kChanges = 2000;
    constexpr int kStep = 200;
    const std::string pad(4000, 'x');
    for (int i = 1; i <= kChanges; ++i) {
        Json::Value v(Json::objectValue);
        v["i"] = i;
        v["pad"] = pad;
        owner->notifyState("load", v);
        if (i % kStep == 0) {
            ASSERT_TRUE(runUntil(loop, [&] { return rec.count("change") == static_cast<std::size_t>(i); }))
                << rec.count("change") << " changes";
        }
    }
    ASSERT_TRUE(runUntil(
        loop, [&] { return rec.count("change") == kChanges; }, 60s))
        << rec.count("change") << " changes, " << broker->core().connectionCount() << " connections";
    EXPECT_EQ(rec.last("load")->value["i"], kChanges);
    EXPECT_EQ(rec.count("add"), 1u);  // never dropped and re-fetched
    // The reader that takes nothing was cut off; the others stay.
    ASSERT_TRUE(runUntil(loop, [&] { return broker->core().connectionCount() == 2; }));
    EXPECT_TRUE(owner->isConnected());
    EXPECT_TRUE(fetcher->isConnected());
    ::close(fd);
}

TEST_F(PeerAsyncTest, OwnerDisconnectRemovesItsStatesAndFetchersSeeRemove)
{
    startBroker();
    auto owner = peer();
    auto fetcher = peer();
    Recorder rec;
    fetcher->addFetchAsync(vela::matcher_t{}, rec.callback(), rec.response());
    owner->addStateAsync("a", 1);
    owner->addStateAsync("b", 2);
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("add") == 2; }));
    owner.reset();
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("remove") == 2; }));
    EXPECT_EQ(broker->core().stateCount(), 0u);
}

TEST_F(PeerAsyncTest, CallsMadeBeforeTheBrokerIsUpAreQueued)
{
    port = freePort();
    auto owner = peer("early");
    auto fetcher = peer();
    std::optional<Json::Value> added, configured, removed;
    Recorder rec;
    owner->configAsync("early-owner", false, store(configured));
    owner->addStateAsync("sync/param", 1, store(added));
    owner->addStateAsync("gone", 1, store(removed));
    owner->removeStateAsync("gone");
    owner->notifyState("sync/param", 2);
    vela::matcher_t m;
    m.equals = "sync/param";
    fetcher->addFetchAsync(m, rec.callback(), rec.response());
    runFor(loop, 300ms);
    EXPECT_FALSE(owner->isConnected());
    EXPECT_FALSE(added.has_value());

    startBroker(port);
    ASSERT_TRUE(runUntil(loop, [&] { return added && configured && removed && rec.count("add") == 1; }));
    EXPECT_EQ((*added)["result"], true);
    EXPECT_EQ((*configured)["result"], true);
    EXPECT_EQ((*removed)["result"], true);
    EXPECT_EQ(*broker->core().valueText("sync/param"), "2");
    EXPECT_EQ(broker->core().valueText("gone"), nullptr);
    EXPECT_EQ(rec.events[0].value, 2);
}

TEST_F(PeerAsyncTest, BrokerRestartRestoresStatesAndFetches)
{
    testsupport::SyslogCapture syslogLines;
    startBroker();
    const std::uint16_t fixed = port;
    auto owner = peer("owner");
    auto fetcher = peer("fetcher");
    std::optional<Json::Value> added;
    std::vector<std::pair<Json::Value, std::string>> sets;
    owner->addStateAsync("sync/app", 1, store(added), [&](const Json::Value& v, const std::string& path) {
        sets.emplace_back(v, path);
        return Json::Value("ok");
    });
    owner->addStateAsync("sync/master", "A");
    Recorder rec;
    vela::matcher_t m;
    m.startsWith = "sync/";
    fetcher->addFetchAsync(m, rec.callback(), rec.response());
    ASSERT_TRUE(runUntil(loop, [&] { return added && rec.count("add") == 2; }));

    // A state of a participant that will not come back after the restart.
    auto transient = peer("transient");
    transient->addStateAsync("sync/errors/-1", "x");
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("add") == 3; }));
    transient.reset();
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("remove", "sync/errors/-1") == 1; }));
    auto ghost = peer("ghost");
    ghost->addStateAsync("sync/ghost", 0);
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("add", "sync/ghost") == 1; }));

    broker.reset();
    ASSERT_TRUE(runUntil(loop, [&] { return !owner->isConnected() && !fetcher->isConnected(); }));
    ghost.reset();  // gone while the broker is down: its state must vanish for the fetcher
    owner->notifyState("sync/master", "B");
    runFor(loop, 400ms);  // several retries while the broker is away

    rec.events.clear();
    rec.answer.reset();
    startBroker(fixed);
    ASSERT_TRUE(runUntil(loop, [&] {
        return owner->isConnected() && fetcher->isConnected() && rec.count("change", "sync/master") == 1 &&
               rec.count("remove", "sync/ghost") == 1;
    })) << rec.events.size();
    // The fetch callback sees only what changed across the break: the value
    // changed while the broker was away comes as "change", the unchanged
    // state is not reported again, and nothing is reported removed in between.
    EXPECT_EQ(rec.count("add"), 0u);
    EXPECT_EQ(rec.count("change", "sync/app"), 0u);
    EXPECT_EQ(rec.count("remove", "sync/master"), 0u);
    EXPECT_EQ(rec.count("remove", "sync/app"), 0u);
    EXPECT_EQ(rec.last("sync/master")->value, "B");
    // The peer keeps digests, not values: a state it reports vanished
    // carries no value.
    EXPECT_TRUE(rec.last("sync/ghost")->value.isNull());
    ASSERT_EQ(rec.events.size(), 2u);
    EXPECT_EQ(*broker->core().valueText("sync/master"), "\"B\"");
    EXPECT_EQ(broker->core().stateCount(), 2u);

    // The restored state still routes set requests to its callback.
    auto requester = peer();
    std::optional<Json::Value> r;
    requester->setAsync("sync/app", 7, store(r));
    ASSERT_TRUE(runUntil(loop, [&] { return r.has_value(); }));
    EXPECT_EQ((*r)["result"], "ok");
    ASSERT_EQ(sets.size(), 1u);

    // Changes after the restore flow as before, and a new state is an "add".
    owner->notifyState("sync/master", "C");
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("change", "sync/master") == 2; }));
    owner->addStateAsync("sync/errors/-2", "y");
    ASSERT_TRUE(runUntil(loop, [&] { return rec.count("add", "sync/errors/-2") == 1; }));

    // The connection loss and its restoration are logged once each per peer,
    // not once per retry.
    runUntil(
        loop,
        [&] {
            std::size_t restored = 0;
            for (const auto& l : syslogLines.lines()) {
                restored += l.text.find("restored") != std::string::npos;
            }
            return restored >= 2;
        },
        2000ms);
    std::size_t lost = 0, restored = 0;
    for (const auto& l : syslogLines.lines()) {
        if (l.text.find("vela: connection to broker") == std::string::npos) {
            continue;
        }
        EXPECT_EQ(l.priority, LOG_NOTICE) << l.text;
        lost += l.text.find(" lost ") != std::string::npos;
        restored += l.text.find("restored") != std::string::npos;
    }
    // owner, fetcher and ghost lost the broker; owner and fetcher came back.
    EXPECT_EQ(lost, 3u) << syslogLines.dump();
    EXPECT_EQ(restored, 2u) << syslogLines.dump();
}

TEST_F(PeerAsyncTest, AbsentBrokerIsLoggedOnceWhileRetrying)
{
    testsupport::SyslogCapture syslogLines;
    port = freePort();
    auto p = peer();
    runFor(loop, 1500ms);  // 100 + 200 + 400 + 800 ms of back-off: several attempts
    std::size_t unreachable = 0;
    for (const auto& l : syslogLines.lines()) {
        unreachable += l.text.find("not reachable") != std::string::npos;
    }
    EXPECT_EQ(unreachable, 1u) << syslogLines.dump();
    EXPECT_FALSE(p->isConnected());
}

TEST_F(PeerAsyncTest, DestroyingThePeerInsideItsCallbackIsSafe)
{
    startBroker();
    auto owner = peer();
    owner->addStateAsync("a", 1);
    auto fetcher = peer();
    bool called = false;
    fetcher->addFetchAsync(vela::matcher_t{}, [&](const Json::Value&, int) {
        called = true;
        fetcher.reset();
    });
    ASSERT_TRUE(runUntil(loop, [&] { return called; }));
    owner->notifyState("a", 2);
    runFor(loop, 100ms);
    EXPECT_EQ(fetcher, nullptr);
}

TEST_F(PeerAsyncTest, HundredPeersWithTenThousandStates)
{
    constexpr int kPeers = 100;
    constexpr int kStatesPerPeer = 100;
    constexpr int kWatchAll = 10;  // the first ten fetch every state
    constexpr std::size_t kStates = kPeers * kStatesPerPeer;
    // All of them are this test's, so all of them are root.
    limits.maxConnectionsPerUser = kPeers;
    startBroker();
    std::vector<std::unique_ptr<vela::PeerAsync>> peers;
    std::vector<std::size_t> present(kPeers, 0);
    std::vector<std::size_t> changes(kPeers, 0);
    auto prefix = [](int owner) { return "bulk/" + std::to_string(owner) + "/"; };
    for (int i = 0; i < kPeers; ++i) {
        peers.push_back(peer("p" + std::to_string(i)));
        // The others fetch the states of their neighbour.
        vela::matcher_t m;
        if (i >= kWatchAll) {
            m.startsWith = prefix((i + 1) % kPeers);
        }
        const auto slot = static_cast<std::size_t>(i);
        peers.back()->addFetchAsync(m, [&, slot](const Json::Value& n, int) {
            const std::string event = n["event"].asString();
            if (event == "add") {
                ++present[slot];
            } else if (event == "remove") {
                --present[slot];
            } else {
                ++changes[slot];
            }
        });
        for (int s = 0; s < kStatesPerPeer; ++s) {
            Json::Value v(Json::objectValue);
            v["peer"] = i;
            v["state"] = s;
            peers.back()->addStateAsync(prefix(i) + std::to_string(s), v);
        }
    }
    // What peer i should see while the owners 0..owners-1 are connected.
    auto expected = [&](int i, int owners, std::size_t all, std::size_t neighbour) {
        if (i < kWatchAll) {
            return all;
        }
        return (i + 1) % kPeers < owners ? neighbour : 0;
    };
    auto reached = [&](const std::vector<std::size_t>& counts, int alive, std::size_t all,
                       std::size_t neighbour) {
        for (int i = 0; i < alive; ++i) {
            if (counts[static_cast<std::size_t>(i)] != expected(i, alive, all, neighbour)) {
                return false;
            }
        }
        return true;
    };
    ASSERT_TRUE(runUntil(
        loop, [&] { return reached(present, kPeers, kStates, kStatesPerPeer); }, 60s));
    EXPECT_EQ(broker->core().stateCount(), kStates);

    for (int i = 0; i < kPeers; ++i) {
        peers[static_cast<std::size_t>(i)]->notifyState(prefix(i) + "0", "changed");
    }
    ASSERT_TRUE(runUntil(
        loop, [&] { return reached(changes, kPeers, kPeers, 1); }, 30s));

    // Half of them leave: the watchers see 5 000 removals, the neighbour of
    // the last one remaining sees all of its states go.
    peers.resize(kPeers / 2);
    ASSERT_TRUE(runUntil(
        loop, [&] { return reached(present, kPeers / 2, kStates / 2, kStatesPerPeer); }, 30s));
    EXPECT_EQ(broker->core().stateCount(), kStates / 2);
    EXPECT_EQ(present[kPeers / 2 - 1], 0u);
}

}  // namespace
