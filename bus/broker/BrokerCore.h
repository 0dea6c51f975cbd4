#pragma once

#include "BrokerSink.h"

#include <vela/PeerAsync.h>

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vela {

// The broker's tables and the handling of every message, without any I/O:
// states (path -> owner, settable flag, value as JSON text), each connection's
// fetches, and the set requests waiting for their owner's answer. Output goes
// to a BrokerSink. Single-threaded; times are steady_clock.
//
// Values are kept as the JSON text their owner sent, so a change costs one
// parse and no re-serialisation however many fetchers see it.
class BrokerCore
{
public:
    using Clock = std::chrono::steady_clock;

    explicit BrokerCore(BrokerSink& sink, std::chrono::milliseconds setTimeout = std::chrono::seconds(5));
    BrokerCore(const BrokerCore&) = delete;
    BrokerCore& operator=(const BrokerCore&) = delete;

    // description: how the connection shows in log lines (e.g. its address).
    void connected(ConnId conn, const std::string& description);
    // Drops conn's fetches, removes its states (fetchers see "remove") and
    // fails the set requests waiting for it.
    void disconnected(ConnId conn);
    // One frame payload received from conn.
    void frame(ConnId conn, std::string_view payload, Clock::time_point now = Clock::now());
    // conn announced a frame length outside 1..limit: the stream cannot be
    // resynchronised, so it gets an error and is closed.
    void badFrame(ConnId conn, std::uint32_t length);
    // Answers every set request whose owner has been silent past the timeout.
    void expireSets(Clock::time_point now);

    bool hasPendingSets() const { return !m_pendingSets.empty(); }
    std::size_t stateCount() const { return m_states.size(); }
    std::size_t connectionCount() const { return m_conns.size(); }
    // The JSON text of a state's value, or null when the path is unknown.
    const std::string* valueText(std::string_view path) const;

private:
    struct State
    {
        ConnId owner = 0;
        bool settable = false;
        std::string value;  // JSON text
    };
    struct Fetch
    {
        std::int64_t id = 0;
        matcher_t matcher;
    };
    struct Conn
    {
        std::string description;
        std::string name;
        bool hello = false;
        bool debug = false;
        std::vector<Fetch> fetches;
    };
    struct PendingSet
    {
        ConnId requester = 0;
        Json::Value requestId;
        ConnId owner = 0;
        std::string path;
        Clock::time_point deadline;
    };

    BrokerSink& m_sink;
    std::chrono::milliseconds m_setTimeout;
    std::map<std::string, State, std::less<>> m_states;
    std::unordered_map<ConnId, Conn> m_conns;
    std::unordered_map<std::int64_t, PendingSet> m_pendingSets;
    std::int64_t m_nextSetToken = 1;

    void request(ConnId conn, Conn& c, const std::string& method, const Json::Value& id,
                 const Json::Value& params, std::string_view payload, Clock::time_point now);
    void response(ConnId conn, const Json::Value& id, const Json::Value& body);

    // Each handler answers the request itself (id null: a notification, no
    // answer).
    void onHello(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onConfig(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onAdd(ConnId conn, const Json::Value& id, const Json::Value& params, std::string_view payload);
    void onRemove(ConnId conn, const Json::Value& id, const Json::Value& params);
    void onChange(ConnId conn, const Json::Value& id, const Json::Value& params, std::string_view payload);
    void onFetch(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onUnfetch(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onSet(ConnId conn, const Json::Value& id, const Json::Value& params, std::string_view payload,
               Clock::time_point now);

    // Looks up an owned state for change/remove; answers the error itself and
    // returns end() when conn may not touch path.
    std::map<std::string, State, std::less<>>::iterator ownedState(ConnId conn, const Json::Value& id,
                                                                   const std::string& path);
    // Sends event to every fetch that matches path (one frame per connection).
    void notifyFetchers(std::string_view event, std::string_view path, std::string_view valueText);

    void reply(ConnId conn, const Json::Value& id, const Json::Value& value);
    void fail(ConnId conn, const Json::Value& id, int code, const std::string& message);
    std::string who(ConnId conn) const;
};

}  // namespace vela
