#include "Acl.h"
#include "BrokerCore.h"
#include "JsonText.h"
#include "Matcher.h"
#include "Protocol.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <vector>

using vela::BrokerCore;
using vela::ConnId;
namespace p = vela::protocol;

namespace {

class RecordingSink : public vela::BrokerSink
{
public:
    std::map<ConnId, std::vector<Json::Value>> sent;
    std::vector<ConnId> closed;
    std::vector<std::string> logs;
    std::map<ConnId, std::size_t> backlogs;  // what backlog() reports
    std::vector<std::pair<ConnId, std::size_t>> drainWanted;
    // Runs after each recorded frame, e.g. to let a backlog grow.
    std::function<void(ConnId)> onSend;

    void send(ConnId conn, std::string payload) override
    {
        Json::Value v;
        std::string error;
        ASSERT_TRUE(vela::parseJson(payload, &v, &error)) << payload << ": " << error;
        sent[conn].push_back(v);
        if (onSend) {
            onSend(conn);
        }
    }
    void closeAfterFlush(ConnId conn) override { closed.push_back(conn); }
    void log(const std::string& line) override { logs.push_back(line); }
    std::size_t backlog(ConnId conn) const override
    {
        auto it = backlogs.find(conn);
        return it == backlogs.end() ? 0 : it->second;
    }
    void wantDrain(ConnId conn, std::size_t mark) override { drainWanted.emplace_back(conn, mark); }

    std::vector<Json::Value> take(ConnId conn)
    {
        std::vector<Json::Value> out = std::move(sent[conn]);
        sent[conn].clear();
        return out;
    }
};

class BrokerCoreTest : public ::testing::Test
{
protected:
    RecordingSink sink;
    // Small quotas, so that the tests reach them; the rest as shipped.
    static vela::Limits testLimits()
    {
        vela::Limits l;
        l.maxStatesPerConnection = 16;
        l.maxFetchesPerConnection = 5;
        l.maxPendingSetsPerConnection = 3;
        l.maxPathLength = 64;
        l.maxStoredBytes = 4096;
        l.maxBacklogBytes = 2 * 1024 * 1024;
        l.helloTimeout = std::chrono::milliseconds(1000);
        return l;
    }
    BrokerCore core{sink, testLimits()};
    int nextId = 1;

    // What root may do under the shipped policy: everything.
    static vela::Grants everything() { return vela::Acl::shipped().grantsFor(vela::identityOfUser(0)); }
    // What the rules of text give a user with uid 4711 and no name.
    static vela::Grants granted(const std::string& text)
    {
        vela::Acl acl;
        std::string error;
        EXPECT_TRUE(vela::Acl::parse(text, acl, error)) << error;
        vela::PeerIdentity id;
        id.known = true;
        id.uid = 4711;
        return acl.grantsFor(id);
    }

    void connect(ConnId conn, const vela::Grants& grants = everything())
    {
        core.connected(conn, "test", grants);
        Json::Value params(Json::objectValue);
        params["protocol"] = p::kVersion;
        core.frame(conn, p::request(0, p::kHello, params));
        auto r = sink.take(conn);
        ASSERT_EQ(r.size(), 1u);
        ASSERT_TRUE(r[0].isMember("result"));
    }

    // Sends a request and returns everything conn got back.
    std::vector<Json::Value> call(ConnId conn, const std::string& method, const Json::Value& params)
    {
        core.frame(conn, p::request(nextId++, method, params));
        return sink.take(conn);
    }

    Json::Value pathValue(const std::string& path, const Json::Value& value)
    {
        Json::Value params(Json::objectValue);
        params["path"] = path;
        params["value"] = value;
        return params;
    }

    std::vector<Json::Value> add(ConnId conn, const std::string& path, const Json::Value& value,
                                 bool settable = false)
    {
        Json::Value params = pathValue(path, value);
        params["settable"] = settable;
        return call(conn, p::kAdd, params);
    }

    std::vector<Json::Value> fetch(ConnId conn, int id, const vela::matcher_t& m)
    {
        Json::Value params(Json::objectValue);
        params["id"] = id;
        params["matcher"] = vela::matcherToJson(m);
        return call(conn, p::kFetch, params);
    }

    static int errorCode(const Json::Value& response) { return response["error"]["code"].asInt(); }
};

}  // namespace

TEST_F(BrokerCoreTest, RequestsBeforeHelloAreRefused)
{
    core.connected(1, "test", everything());
    core.frame(1, p::request(7, p::kAdd, pathValue("a", 1)));
    auto r = sink.take(1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kHelloRequired);
    EXPECT_EQ(core.stateCount(), 0u);
}

TEST_F(BrokerCoreTest, HelloWithAnotherVersionIsRefusedAndClosed)
{
    core.connected(1, "test", everything());
    Json::Value params(Json::objectValue);
    params["protocol"] = p::kVersion + 1;
    core.frame(1, p::request(1, p::kHello, params));
    auto r = sink.take(1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kHelloRequired);
    EXPECT_EQ(sink.closed, std::vector<ConnId>{1});
}

TEST_F(BrokerCoreTest, AddThenSecondAddOfSamePathIsRefused)
{
    connect(1);
    connect(2);
    auto r = add(1, "sync/app", 1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["result"], true);
    r = add(2, "sync/app", 2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kPathExists);
    r = add(1, "sync/app", 3);
    EXPECT_EQ(errorCode(r[0]), p::kPathExists);
    EXPECT_EQ(*core.valueText("sync/app"), "1");
}

TEST_F(BrokerCoreTest, ValueTextIsForwardedAsTheOwnerWroteIt)
{
    connect(1);
    core.frame(1,
               R"({"jsonrpc":"2.0","id":1,"method":"add","params":{"path":"a","value":{"b": [1, 2.50]}}})");
    EXPECT_EQ(*core.valueText("a"), R"({"b": [1, 2.50]})");
    core.frame(1, R"({"jsonrpc":"2.0","method":"change","params":{"value":"x y","path":"a"}})");
    EXPECT_EQ(*core.valueText("a"), R"("x y")");
}

TEST_F(BrokerCoreTest, FetchDeliversExistingStatesBeforeItsAnswerThenChangesAndRemoval)
{
    connect(1);
    connect(2);
    add(1, "reachableDevices/firewire0/0A7C31000001", Json::Value(Json::objectValue));
    add(1, "reachableDevices/firewire1/0A7C31000002", 5);
    add(1, "sync/app", 1);
    vela::matcher_t m;
    m.startsWith = "reachableDevices/firewire";
    auto r = fetch(2, 4, m);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0]["method"], "notify");
    EXPECT_EQ(r[0]["params"]["event"], "add");
    EXPECT_EQ(r[0]["params"]["path"], "reachableDevices/firewire0/0A7C31000001");
    EXPECT_EQ(r[0]["params"]["fetches"][0], 4);
    EXPECT_EQ(r[1]["params"]["value"], 5);
    EXPECT_EQ(r[2]["result"], true);

    core.frame(
        1, p::request(Json::Value(), p::kChange, pathValue("reachableDevices/firewire1/0A7C31000002", 6)));
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("sync/app", 2)));
    EXPECT_TRUE(sink.take(1).empty());  // no id: no answer
    r = sink.take(2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["params"]["event"], "change");
    EXPECT_EQ(r[0]["params"]["value"], 6);

    Json::Value params(Json::objectValue);
    params["path"] = "reachableDevices/firewire1/0A7C31000002";
    EXPECT_EQ(call(1, p::kRemove, params)[0]["result"], true);
    r = sink.take(2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["params"]["event"], "remove");
    EXPECT_EQ(r[0]["params"]["path"], "reachableDevices/firewire1/0A7C31000002");
}

TEST_F(BrokerCoreTest, EachCriterionSelectsItsPaths)
{
    connect(1);
    connect(2);
    for (const char* path : {"sync/param", "sync/params", "sync/app", "sync/errors/-1", "other/x"}) {
        add(1, path, 0);
    }
    struct Case
    {
        vela::matcher_t m;
        std::vector<std::string> paths;
    };
    std::vector<Case> cases(5);
    cases[0].m.equals = "sync/param";
    cases[0].paths = {"sync/param"};
    cases[1].m.startsWith = "sync/";
    cases[1].paths = {"sync/app", "sync/errors/-1", "sync/param", "sync/params"};
    cases[2].m.endsWith = "/x";
    cases[2].paths = {"other/x"};
    cases[3].m.contains = "err";
    cases[3].paths = {"sync/errors/-1"};
    cases[4].m.equalsNot = "sync/app";
    cases[4].paths = {"other/x", "sync/errors/-1", "sync/param", "sync/params"};
    int id = 1;
    for (const Case& c : cases) {
        auto r = fetch(2, id++, c.m);
        std::vector<std::string> got;
        for (std::size_t i = 0; i + 1 < r.size(); ++i) {
            got.push_back(r[i]["params"]["path"].asString());
        }
        EXPECT_EQ(got, c.paths);
        EXPECT_EQ(r.back()["result"], true);
    }
}

TEST_F(BrokerCoreTest, OnePeerWithTwoMatchingFetchesGetsOneFrameNamingBoth)
{
    connect(1);
    connect(2);
    vela::matcher_t all;
    vela::matcher_t sync;
    sync.startsWith = "sync/";
    fetch(2, 1, all);
    fetch(2, 2, sync);
    add(1, "sync/app", 1);
    auto r = sink.take(2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["params"]["fetches"].size(), 2u);
}

TEST_F(BrokerCoreTest, UnfetchStopsNotificationsAndUnknownIdIsAnError)
{
    connect(1);
    connect(2);
    fetch(2, 1, vela::matcher_t{});
    Json::Value params(Json::objectValue);
    params["id"] = 1;
    EXPECT_EQ(call(2, p::kUnfetch, params)[0]["result"], true);
    add(1, "a", 1);
    EXPECT_TRUE(sink.take(2).empty());
    EXPECT_EQ(errorCode(call(2, p::kUnfetch, params)[0]), p::kUnknownFetch);
}

TEST_F(BrokerCoreTest, DuplicateFetchIdIsRefused)
{
    connect(1);
    fetch(1, 3, vela::matcher_t{});
    auto r = fetch(1, 3, vela::matcher_t{});
    EXPECT_EQ(errorCode(r.back()), p::kFetchExists);
}

TEST_F(BrokerCoreTest, ChangeOrRemoveOfAnotherPeersStateIsRefused)
{
    connect(1);
    connect(2);
    add(1, "a", 1);
    EXPECT_EQ(errorCode(call(2, p::kChange, pathValue("a", 2))[0]), p::kNotOwner);
    Json::Value params(Json::objectValue);
    params["path"] = "a";
    EXPECT_EQ(errorCode(call(2, p::kRemove, params)[0]), p::kNotOwner);
    params["path"] = "nope";
    EXPECT_EQ(errorCode(call(2, p::kRemove, params)[0]), p::kUnknownPath);
    EXPECT_EQ(*core.valueText("a"), "1");
}

TEST_F(BrokerCoreTest, OwnerDisconnectRemovesItsStatesAndFetchersSeeRemove)
{
    connect(1);
    connect(2);
    connect(3);
    add(1, "a", 1);
    add(1, "b", 2);
    add(3, "c", 3);
    fetch(2, 1, vela::matcher_t{});
    core.disconnected(1);
    auto r = sink.take(2);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0]["params"]["event"], "remove");
    EXPECT_EQ(r[0]["params"]["path"], "a");
    EXPECT_EQ(r[1]["params"]["path"], "b");
    EXPECT_EQ(core.stateCount(), 1u);
    EXPECT_TRUE(sink.take(1).empty());
}

TEST_F(BrokerCoreTest, SetIsRoutedToTheOwnerAndItsAnswerBack)
{
    connect(1);
    connect(2);
    add(1, "sync/app", 1, true);
    core.frame(2, p::request(77, p::kSet, pathValue("sync/app", "x")));
    EXPECT_TRUE(sink.take(2).empty());
    auto r = sink.take(1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["method"], "set");
    EXPECT_EQ(r[0]["params"]["path"], "sync/app");
    EXPECT_EQ(r[0]["params"]["value"], "x");
    EXPECT_TRUE(core.hasPendingSets());

    // An answer from someone else is ignored.
    core.frame(2, p::result(r[0]["id"], 5));
    EXPECT_TRUE(sink.take(2).empty());

    core.frame(1, p::result(r[0]["id"], Json::Value()));
    auto answer = sink.take(2);
    ASSERT_EQ(answer.size(), 1u);
    EXPECT_EQ(answer[0]["id"], 77);
    ASSERT_TRUE(answer[0].isMember("result"));
    EXPECT_TRUE(answer[0]["result"].isNull());
    EXPECT_FALSE(core.hasPendingSets());
}

TEST_F(BrokerCoreTest, OwnersErrorIsForwarded)
{
    connect(1);
    connect(2);
    add(1, "a", 1, true);
    core.frame(2, p::request(5, p::kSet, pathValue("a", 2)));
    auto r = sink.take(1);
    core.frame(1, p::error(r[0]["id"], p::kSetFailed, "no"));
    auto answer = sink.take(2);
    ASSERT_EQ(answer.size(), 1u);
    EXPECT_EQ(errorCode(answer[0]), p::kSetFailed);
    EXPECT_EQ(answer[0]["error"]["message"], "no");
}

TEST_F(BrokerCoreTest, SetOnStateWithoutSetCallbackOrUnknownPathIsRefused)
{
    connect(1);
    connect(2);
    add(1, "a", 1, false);
    EXPECT_EQ(errorCode(call(2, p::kSet, pathValue("a", 2))[0]), p::kNotSettable);
    EXPECT_EQ(errorCode(call(2, p::kSet, pathValue("b", 2))[0]), p::kUnknownPath);
    EXPECT_TRUE(sink.take(1).empty());
}

TEST_F(BrokerCoreTest, SilentOwnerTimesOut)
{
    connect(1);
    connect(2);
    add(1, "a", 1, true);
    const auto t0 = BrokerCore::Clock::now();
    core.frame(2, p::request(9, p::kSet, pathValue("a", 2)), t0);
    core.expire(t0 + std::chrono::milliseconds(4999));
    EXPECT_TRUE(sink.take(2).empty());
    core.expire(t0 + std::chrono::milliseconds(5000));
    auto r = sink.take(2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["id"], 9);
    EXPECT_EQ(errorCode(r[0]), p::kSetTimeout);
    EXPECT_FALSE(core.hasPendingSets());
}

TEST_F(BrokerCoreTest, OwnerGoneBeforeAnsweringFailsTheSet)
{
    connect(1);
    connect(2);
    add(1, "a", 1, true);
    core.frame(2, p::request(9, p::kSet, pathValue("a", 2)));
    core.disconnected(1);
    auto r = sink.take(2);
    ASSERT_GE(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kOwnerGone);
}

TEST_F(BrokerCoreTest, BadInputGetsAnErrorAndTheConnectionStaysUsable)
{
    connect(1);
    connect(2);
    add(2, "kept", 1);
    const std::string bad[] = {"not json",
                               "{\"jsonrpc\":\"2.0\",\"id\":1",
                               "[1,2]",
                               "{\"id\":1,\"method\":\"add\"}",
                               "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"add\",\"params\":[1]}",
                               std::string(10000, '[') + std::string(10000, ']')};
    for (const std::string& frame : bad) {
        core.frame(1, frame);
        auto r = sink.take(1);
        ASSERT_EQ(r.size(), 1u) << frame.substr(0, 40);
        EXPECT_TRUE(r[0].isMember("error")) << frame.substr(0, 40);
    }
    EXPECT_EQ(errorCode(call(1, "bogus", Json::Value(Json::objectValue))[0]), p::kMethodNotFound);
    EXPECT_EQ(errorCode(call(1, p::kAdd, Json::Value(Json::objectValue))[0]), p::kInvalidParams);
    EXPECT_EQ(add(1, "fine", 2)[0]["result"], true);
    EXPECT_EQ(*core.valueText("kept"), "1");
    EXPECT_TRUE(sink.closed.empty());
}

TEST_F(BrokerCoreTest, BadFrameLengthIsAnsweredThenClosed)
{
    connect(1);
    core.badFrame(1, 0xffffffffu);
    auto r = sink.take(1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kFrameTooLarge);
    EXPECT_EQ(sink.closed, std::vector<ConnId>{1});
}

// ---- access policy ----

TEST_F(BrokerCoreTest, OwnSetAndFetchAreCheckedAgainstThePeersRights)
{
    connect(1);
    connect(2, granted("user 4711 own svc/*\nuser 4711 set sync/param\nall fetch sync/*\n"));
    add(1, "sync/param", 1, true);
    add(1, "sync/app", 2, true);

    auto r = add(2, "sync/app2", 1);
    EXPECT_EQ(errorCode(r[0]), p::kNotPermitted);
    EXPECT_EQ(r[0]["error"]["message"], "not permitted to own 'sync/app2'");
    EXPECT_EQ(add(2, "svc/x", 1)[0]["result"], true);

    EXPECT_EQ(errorCode(call(2, p::kSet, pathValue("sync/app", 3))[0]), p::kNotPermitted);
    EXPECT_TRUE(sink.take(1).empty()) << "a refused set never reaches the owner";
    core.frame(2, p::request(50, p::kSet, pathValue("sync/param", 3)));
    ASSERT_EQ(sink.take(1).size(), 1u);

    // Refused before anything else is looked at: an unknown path says
    // nothing about what exists.
    EXPECT_EQ(errorCode(call(2, p::kSet, pathValue("nothing/here", 3))[0]), p::kNotPermitted);
    EXPECT_EQ(core.stateCount(), 3u);
}

TEST_F(BrokerCoreTest, FetchDeliversOnlyThePathsThePeerMayRead)
{
    connect(1);
    connect(2, granted("all fetch sync/* reachableDevices/*\n"));
    for (const char* path : {"hidden/a", "sync/app", "sync/param", "zz/b"}) {
        add(1, path, 0);
    }
    auto r = fetch(2, 1, vela::matcher_t{});
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0]["params"]["path"], "sync/app");
    EXPECT_EQ(r[1]["params"]["path"], "sync/param");
    EXPECT_EQ(r[2]["result"], true);

    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("hidden/a", 1)));
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("sync/app", 1)));
    add(1, "reachableDevices/firewire0/0A7C31000001", 0);
    add(1, "hidden/b", 0);
    r = sink.take(2);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0]["params"]["path"], "sync/app");
    EXPECT_EQ(r[1]["params"]["path"], "reachableDevices/firewire0/0A7C31000001");
}

TEST_F(BrokerCoreTest, FetchThatCouldNeverDeliverIsRefused)
{
    connect(1);
    connect(2, granted("user 0 own,set,fetch *\n"));  // nothing for 4711
    connect(3, granted("all fetch sync/*\n"));
    EXPECT_EQ(errorCode(fetch(2, 1, vela::matcher_t{}).back()), p::kNotPermitted);
    vela::matcher_t secret;
    secret.equals = "hidden/a";
    EXPECT_EQ(errorCode(fetch(3, 1, secret).back()), p::kNotPermitted);
    vela::matcher_t param;
    param.equals = "sync/param";
    EXPECT_EQ(fetch(3, 2, param).back()["result"], true);
}

TEST_F(BrokerCoreTest, RefusalIsAnsweredEachTimeButLoggedOncePerPeerRightAndPath)
{
    connect(1, granted("all fetch *\n"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(errorCode(add(1, "sync/param", i)[0]), p::kNotPermitted);
    }
    add(1, "sync/app", 1);
    EXPECT_EQ(errorCode(call(1, p::kSet, pathValue("sync/param", 1))[0]), p::kNotPermitted);
    std::vector<std::string> refusals;
    for (const std::string& line : sink.logs) {
        if (line.find("refused: ") != std::string::npos) {
            refusals.push_back(line.substr(line.find("refused: ")));
        }
    }
    EXPECT_EQ(refusals, (std::vector<std::string>{"refused: not permitted to own 'sync/param'",
                                                  "refused: not permitted to own 'sync/app'",
                                                  "refused: not permitted to set 'sync/param'"}));
}

// ---- quotas ----

TEST_F(BrokerCoreTest, PathLongerThanTheLimitIsRefused)
{
    connect(1);
    auto r = add(1, std::string(65, 'p'), 1);
    EXPECT_EQ(errorCode(r[0]), p::kLimitReached);
    EXPECT_EQ(r[0]["error"]["message"],
              "limit reached: path longer than the broker allows (max-path-length 64)");
    EXPECT_EQ(add(1, std::string(64, 'p'), 1)[0]["result"], true);
    vela::matcher_t m;
    m.contains = std::string(65, 'p');
    EXPECT_EQ(errorCode(fetch(1, 1, m).back()), p::kLimitReached);
}

TEST_F(BrokerCoreTest, StatesPerConnectionAreCapped)
{
    connect(1);
    connect(2);
    for (int i = 0; i < 16; ++i) {
        ASSERT_EQ(add(1, "s/" + std::to_string(i), i)[0]["result"], true);
    }
    auto r = add(1, "s/16", 16);
    EXPECT_EQ(errorCode(r[0]), p::kLimitReached);
    EXPECT_NE(r[0]["error"]["message"].asString().find("max-states-per-connection 16"), std::string::npos);
    // Another connection has its own share; a removal frees one.
    EXPECT_EQ(add(2, "t/0", 0)[0]["result"], true);
    Json::Value params(Json::objectValue);
    params["path"] = "s/0";
    EXPECT_EQ(call(1, p::kRemove, params)[0]["result"], true);
    EXPECT_EQ(add(1, "s/16", 16)[0]["result"], true);
}

TEST_F(BrokerCoreTest, FetchesPerConnectionAreCapped)
{
    connect(1);
    for (int i = 1; i <= 5; ++i) {
        ASSERT_EQ(fetch(1, i, vela::matcher_t{}).back()["result"], true);
    }
    auto r = fetch(1, 6, vela::matcher_t{});
    EXPECT_EQ(errorCode(r.back()), p::kLimitReached);
    EXPECT_NE(r.back()["error"]["message"].asString().find("max-fetches-per-connection 5"), std::string::npos);
    Json::Value params(Json::objectValue);
    params["id"] = 2;
    call(1, p::kUnfetch, params);
    EXPECT_EQ(fetch(1, 6, vela::matcher_t{}).back()["result"], true);
}

TEST_F(BrokerCoreTest, PendingSetsPerConnectionAreCapped)
{
    connect(1);
    connect(2);
    add(1, "a", 1, true);
    for (int i = 0; i < 3; ++i) {
        core.frame(2, p::request(100 + i, p::kSet, pathValue("a", i)));
    }
    auto routed = sink.take(1);
    ASSERT_EQ(routed.size(), 3u);
    auto r = call(2, p::kSet, pathValue("a", 9));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kLimitReached);
    EXPECT_NE(r[0]["error"]["message"].asString().find("max-pending-sets-per-connection 3"), std::string::npos);
    EXPECT_TRUE(sink.take(1).empty());
    // An answer frees its slot.
    core.frame(1, p::result(routed[0]["id"], true));
    EXPECT_EQ(sink.take(2).size(), 1u);
    core.frame(2, p::request(200, p::kSet, pathValue("a", 5)));
    EXPECT_EQ(sink.take(1).size(), 1u);
}

TEST_F(BrokerCoreTest, SetToAnOwnerThatDoesNotReadIsRefused)
{
    connect(1);
    connect(2);
    add(1, "a", 1, true);
    sink.backlogs[1] = 1024 * 1024 + 1;  // above half of max-backlog-bytes
    auto r = call(2, p::kSet, pathValue("a", 2));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kLimitReached);
    EXPECT_EQ(r[0]["error"]["message"],
              "limit reached: the owner of 'a' is not reading its requests (max-backlog-bytes 2097152)");
    EXPECT_TRUE(sink.take(1).empty());
}

TEST_F(BrokerCoreTest, StoredValuesStayWithinTheBudget)
{
    connect(1);
    connect(2);
    fetch(2, 1, vela::matcher_t{});
    sink.take(2);
    // 4096 bytes: path + value + 128 per state.
    const std::string big(2000, 'x');
    ASSERT_EQ(add(1, "a", big)[0]["result"], true);  // 1 + 2002 + 128
    EXPECT_EQ(core.storedBytes(), 2131u);
    auto r = add(1, "b", big);
    EXPECT_EQ(errorCode(r[0]), p::kLimitReached);
    EXPECT_NE(r[0]["error"]["message"].asString().find("max-stored-bytes 4096"), std::string::npos);
    EXPECT_EQ(core.valueText("b"), nullptr);

    // A change that would not fit is refused and the old value stays, also
    // when it comes as a notification; one that fits goes through.
    ASSERT_EQ(add(1, "b", std::string(1500, 'y'))[0]["result"], true);
    sink.take(2);
    EXPECT_EQ(errorCode(call(1, p::kChange, pathValue("b", std::string(1900, 'z')))[0]), p::kLimitReached);
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("b", std::string(1900, 'z'))));
    EXPECT_EQ(core.valueText("b")->size(), 1502u);
    EXPECT_TRUE(sink.take(2).empty()) << "fetchers see no refused change";
    EXPECT_EQ(call(1, p::kChange, pathValue("a", 1))[0]["result"], true);
    EXPECT_EQ(call(1, p::kChange, pathValue("b", std::string(1900, 'z')))[0]["result"], true);

    // What leaves gives its room back.
    core.disconnected(1);
    EXPECT_EQ(core.storedBytes(), 0u);
}

TEST_F(BrokerCoreTest, ConnectionWithoutHelloIsClosedAfterTheTimeout)
{
    const auto t0 = BrokerCore::Clock::now();
    core.connected(1, "silent", everything(), t0);
    core.connected(2, "polite", everything(), t0);
    Json::Value hello(Json::objectValue);
    hello["protocol"] = p::kVersion;
    core.frame(2, p::request(1, p::kHello, hello));
    sink.take(2);
    EXPECT_TRUE(core.hasDeadlines());
    core.expire(t0 + std::chrono::milliseconds(999));
    EXPECT_TRUE(sink.closed.empty());
    core.expire(t0 + std::chrono::milliseconds(1000));
    auto r = sink.take(1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(errorCode(r[0]), p::kHelloRequired);
    EXPECT_EQ(r[0]["error"]["message"], "no hello within 1000 ms (hello-timeout-ms)");
    EXPECT_EQ(sink.closed, std::vector<ConnId>{1});
    EXPECT_FALSE(core.hasDeadlines());
    // Told once; what it sends meanwhile is ignored.
    core.frame(1, p::request(2, p::kHello, hello));
    core.expire(t0 + std::chrono::milliseconds(5000));
    EXPECT_TRUE(sink.take(1).empty());
    EXPECT_EQ(sink.closed.size(), 1u);
    core.disconnected(1);
    EXPECT_FALSE(core.hasDeadlines());
}

// ---- paced delivery of a new fetch ----

TEST_F(BrokerCoreTest, FetchOfAStoreLargerThanAChunkWaitsForTheReader)
{
    connect(1);
    connect(2);
    for (const char* path : {"a", "b", "c", "d"}) {
        add(1, path, 0);
    }
    // The fetcher's backlog is full from the start: nothing goes out until
    // it drains, and the answer comes last.
    sink.backlogs[2] = BrokerCore::kScanChunk;
    auto r = fetch(2, 7, vela::matcher_t{});
    EXPECT_TRUE(r.empty());
    ASSERT_EQ(sink.drainWanted.size(), 1u);
    EXPECT_EQ(sink.drainWanted[0], (std::pair<ConnId, std::size_t>{2, BrokerCore::kScanChunk}));

    // Changes meanwhile: one of a path the scan has not reached is left to
    // the scan (which sends the new value as "add"), a new path behind the
    // scan likewise.
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("b", 5)));
    add(1, "e", 0);
    EXPECT_TRUE(sink.take(2).empty());

    sink.backlogs[2] = 0;
    core.drained(2);
    r = sink.take(2);
    ASSERT_EQ(r.size(), 6u);
    EXPECT_EQ(r[1]["params"]["path"], "b");
    EXPECT_EQ(r[1]["params"]["event"], "add");
    EXPECT_EQ(r[1]["params"]["value"], 5);
    EXPECT_EQ(r[4]["params"]["path"], "e");
    EXPECT_EQ(r[5]["id"], nextId - 2) << "the fetch's own answer closes the delivery";
    EXPECT_EQ(r[5]["result"], true);

    // Delivery done: changes flow as usual.
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("a", 9)));
    r = sink.take(2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["params"]["event"], "change");
}

TEST_F(BrokerCoreTest, PausedFetchSeesChangesOfWhatItDeliveredAlready)
{
    connect(1);
    connect(2);
    for (const char* path : {"a", "b", "c"}) {
        add(1, path, 0);
    }
    // The fetcher's backlog fills with the first notification.
    sink.onSend = [this](ConnId conn) {
        if (conn == 2) {
            sink.backlogs[2] = BrokerCore::kScanChunk;
        }
    };
    auto r = fetch(2, 1, vela::matcher_t{});
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["params"]["path"], "a");
    sink.onSend = nullptr;

    // "a" was delivered: its change and removal reach the fetch. "c" was
    // not: its change waits for the scan, which sends the new value.
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("a", 1)));
    core.frame(1, p::request(Json::Value(), p::kChange, pathValue("c", 3)));
    r = sink.take(2);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0]["params"]["path"], "a");
    EXPECT_EQ(r[0]["params"]["event"], "change");

    sink.backlogs[2] = 0;
    core.drained(2);
    r = sink.take(2);
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0]["params"]["path"], "b");
    EXPECT_EQ(r[1]["params"]["path"], "c");
    EXPECT_EQ(r[1]["params"]["value"], 3);
    EXPECT_EQ(r[2]["result"], true);
}

TEST_F(BrokerCoreTest, UnfetchDuringTheDeliveryAnswersBoth)
{
    connect(1);
    connect(2);
    add(1, "a", 0);
    sink.backlogs[2] = BrokerCore::kScanChunk;
    core.frame(2, p::request(60, p::kFetch, [] {
                   Json::Value params(Json::objectValue);
                   params["id"] = 3;
                   return params;
               }()));
    EXPECT_TRUE(sink.take(2).empty());
    Json::Value params(Json::objectValue);
    params["id"] = 3;
    auto r = call(2, p::kUnfetch, params);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0]["id"], 60);
    EXPECT_EQ(r[1]["result"], true);
    sink.backlogs[2] = 0;
    core.drained(2);
    EXPECT_TRUE(sink.take(2).empty());
}

// ---- log ----

TEST_F(BrokerCoreTest, APeersLinesAreRateLimited)
{
    connect(1);
    for (int i = 0; i < 1000; ++i) {
        core.frame(1, "not json " + std::to_string(i));
    }
    EXPECT_EQ(sink.take(1).size(), 1000u) << "every bad frame is answered";
    // The default burst of a peer is 10 lines; the rate earns no more within
    // the run of this loop.
    EXPECT_LE(sink.logs.size(), 11u);
    EXPECT_GE(sink.logs.size(), 10u);
}
