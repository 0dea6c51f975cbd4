#pragma once

#include "BrokerSink.h"
#include "Grants.h"
#include "Limits.h"
#include "LogLimiter.h"

#include <vela/PeerAsync.h>

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vela {

// The broker's tables and the handling of every message, without any I/O:
// states (path -> owner, settable flag, value as JSON text), each connection's
// rights and fetches, and the set requests waiting for their owner's answer.
// Output goes to a BrokerSink. Single-threaded; times are steady_clock.
//
// Values are kept as the JSON text their owner sent, so a change costs one
// parse and no re-serialisation however many fetchers see it.
//
// Every request is checked against the connection's rights (Grants) and the
// quotas (Limits) before it changes anything. A fetch delivers the states
// present in chunks paced by the fetcher's reading, so that a fetch of a
// large store never has to sit in memory at once.
class BrokerCore
{
public:
    using Clock = std::chrono::steady_clock;

    explicit BrokerCore(BrokerSink& sink, const Limits& limits = Limits());
    BrokerCore(const BrokerCore&) = delete;
    BrokerCore& operator=(const BrokerCore&) = delete;

    // description: how the connection shows in log lines (its address and
    // user). grants: what the access policy lets it do.
    void connected(ConnId conn, const std::string& description, const Grants& grants,
                   Clock::time_point now = Clock::now());
    // Drops conn's fetches, removes its states (fetchers see "remove") and
    // fails the set requests waiting for it.
    void disconnected(ConnId conn);
    // One frame payload received from conn.
    void frame(ConnId conn, std::string_view payload, Clock::time_point now = Clock::now());
    // conn announced a frame length outside 1..limit: the stream cannot be
    // resynchronised, so it gets an error and is closed.
    void badFrame(ConnId conn, std::uint32_t length);
    // conn's backlog went below the mark asked for: paused fetches go on.
    void drained(ConnId conn);
    // Answers every set request whose owner has been silent past the timeout
    // and closes every connection that has not said hello in time.
    void expire(Clock::time_point now);

    // True while something waits for expire(): set requests, or connections
    // that have not said hello.
    bool hasDeadlines() const { return !m_pendingSets.empty() || m_awaitingHello > 0; }
    bool hasPendingSets() const { return !m_pendingSets.empty(); }
    std::size_t stateCount() const { return m_states.size(); }
    std::size_t connectionCount() const { return m_conns.size(); }
    // Bytes of the stored-value budget in use (see Limits::maxStoredBytes).
    std::size_t storedBytes() const { return m_storedBytes; }
    // The JSON text of a state's value, or null when the path is unknown.
    const std::string* valueText(std::string_view path) const;

    // What a paused fetch waits for: conn's backlog below this (bytes).
    static constexpr std::size_t kScanChunk = 256 * 1024;

private:
    struct State
    {
        ConnId owner = 0;
        bool settable = false;
        std::string value;  // JSON text
    };
    using StateMap = std::map<std::string, State, std::less<>>;
    struct Fetch
    {
        std::int64_t id = 0;
        matcher_t matcher;
        // While the states present are still being delivered: the last path
        // looked at ("" before the first). Paths after it are left to the
        // scan, which sends their current value as "add".
        bool scanning = false;
        std::string cursor;
        Json::Value requestId;  // answered when the scan ends
    };
    struct Conn
    {
        std::string description;
        std::string name;
        Grants grants;
        Clock::time_point connectedAt;
        bool hello = false;
        // Counted in m_awaitingHello until it says hello or runs out of time.
        bool awaitingHello = true;
        // Told to go (no hello in time); whatever it still sends is ignored.
        bool closing = false;
        bool debug = false;
        std::vector<Fetch> fetches;
        std::size_t ownedStates = 0;
        std::size_t pendingSets = 0;
        LogLimiter log;
        // Refusals already logged ("right path"); each is logged once.
        std::set<std::string> refusalsLogged;

        explicit Conn(const Limits& limits) : log(limits.peerLogRate, limits.peerLogBurst) {}
    };
    struct PendingSet
    {
        ConnId requester = 0;
        Json::Value requestId;
        ConnId owner = 0;
        std::string path;
        Clock::time_point deadline;
    };
    using PendingMap = std::unordered_map<std::int64_t, PendingSet>;

    BrokerSink& m_sink;
    Limits m_limits;
    StateMap m_states;
    std::unordered_map<ConnId, Conn> m_conns;
    PendingMap m_pendingSets;
    std::int64_t m_nextSetToken = 1;
    std::size_t m_storedBytes = 0;
    std::size_t m_awaitingHello = 0;

    void request(ConnId conn, Conn& c, const std::string& method, const Json::Value& id,
                 const Json::Value& params, std::string_view payload, Clock::time_point now);
    void response(ConnId conn, const Json::Value& id, const Json::Value& body);

    // Each handler answers the request itself (id null: a notification, no
    // answer).
    void onHello(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onConfig(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onAdd(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params,
               std::string_view payload);
    void onRemove(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onChange(ConnId conn, const Json::Value& id, const Json::Value& params, std::string_view payload);
    void onFetch(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onUnfetch(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params);
    void onSet(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params,
               std::string_view payload, Clock::time_point now);

    // Looks up an owned state for change/remove; answers the error itself and
    // returns end() when conn may not touch path.
    StateMap::iterator ownedState(ConnId conn, const Json::Value& id, const std::string& path);
    // Takes a state out of the table and its cost off the budget; fetchers
    // see "remove".
    void removeState(StateMap::iterator it);
    // Sends event to every fetch that matches path and may see it (one frame
    // per connection).
    void notifyFetchers(std::string_view event, std::string_view path, std::string_view valueText);
    // Goes on with conn's paused fetches until they are done or the
    // connection's backlog says to wait.
    void continueScans(ConnId conn, Conn& c);
    // Forgets a waiting set request; returns the next one.
    PendingMap::iterator dropPending(PendingMap::iterator it);

    void reply(ConnId conn, const Json::Value& id, const Json::Value& value);
    void fail(ConnId conn, const Json::Value& id, int code, const std::string& message);
    // A refusal by the access policy: answered, and logged once per peer,
    // right and path.
    void refuse(ConnId conn, Conn& c, const Json::Value& id, Right right, const std::string& path);
    // A quota that is used up: answered with its name and number.
    void limitReached(ConnId conn, const Json::Value& id, const std::string& what, const char* knob,
                      std::size_t limit);
    // A log line caused by conn, within conn's own share of the log.
    void peerLog(ConnId conn, Conn& c, std::string_view text);
    std::string who(ConnId conn) const;
};

}  // namespace vela
