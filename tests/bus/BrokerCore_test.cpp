#include "Acl.h"
#include "BrokerCore.h"
#include "JsonText.h"
#include "Matcher.h"
#include "Protocol.h"

#include <gtest/gtest.h>

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

    void send(ConnId conn, std::string payload) override
    {
        Json::Value v;
        std::string error;
        ASSERT_TRUE(vela::parseJson(payload, &v, &error)) << payload << ": " << error;
        sent[conn].push_back(v);
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
    BrokerCore core{sink};
    int nextId = 1;

    // What root may do under the shipped policy: everything.
    static vela::Grants everything() { return vela::Acl::shipped().grantsFor(vela::identityOfUser(0)); }

    void connect(ConnId conn)
    {
        core.connected(conn, "test", everything());
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
