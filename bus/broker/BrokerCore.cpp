#include "BrokerCore.h"

#include "Frame.h"
#include "JsonText.h"
#include "Matcher.h"
#include "Protocol.h"

namespace vela {

namespace p = protocol;

namespace {

// A peer's name only serves to tell peers apart in log lines; a longer one
// is cut (bytes).
constexpr std::size_t kMaxNameLength = 64;
// Distinct refusals logged per connection; a peer that probes more paths
// than this is not given a log line for each.
constexpr std::size_t kMaxLoggedRefusals = 64;

// The value of a request as JSON text: the slice of the frame that holds it,
// so that it is forwarded exactly as its owner wrote it.
std::string valueTextOf(const Json::Value& params, std::string_view payload)
{
    constexpr std::string_view kKey = "value";
    const Json::Value* v = params.find(kKey.data(), kKey.data() + kKey.size());
    if (!v) {
        return "null";
    }
    const auto start = static_cast<std::size_t>(v->getOffsetStart());
    const auto limit = static_cast<std::size_t>(v->getOffsetLimit());
    if (limit > start && limit <= payload.size()) {
        return std::string(payload.substr(start, limit - start));
    }
    return toCompact(*v);
}

// A non-empty string member, or false.
bool stringParam(const Json::Value& params, const char* name, std::string& out)
{
    const Json::Value& v = params[name];
    if (!v.isString()) {
        return false;
    }
    out = v.asString();
    return !out.empty();
}

std::size_t stateCost(std::string_view path, std::string_view value)
{
    return path.size() + value.size() + kStateOverhead;
}

const char* rightVerb(Right right)
{
    switch (right) {
        case kRightOwn:
            return "own";
        case kRightSet:
            return "set";
        case kRightFetch:
            return "fetch";
    }
    return "use";
}

}  // namespace

BrokerCore::BrokerCore(BrokerSink& sink, const Limits& limits) : m_sink(sink), m_limits(limits) {}

const std::string* BrokerCore::valueText(std::string_view path) const
{
    auto it = m_states.find(path);
    return it == m_states.end() ? nullptr : &it->second.value;
}

std::string BrokerCore::who(ConnId conn) const
{
    auto it = m_conns.find(conn);
    if (it == m_conns.end()) {
        return "peer #" + std::to_string(conn);
    }
    std::string s = "peer #" + std::to_string(conn) + " (" + it->second.description;
    if (!it->second.name.empty()) {
        s += ", " + it->second.name;
    }
    return s + ")";
}

void BrokerCore::connected(ConnId conn, const std::string& description, const Grants& grants,
                           Clock::time_point now)
{
    auto [it, inserted] = m_conns.try_emplace(conn, m_limits);
    Conn& c = it->second;
    c.description = description;
    c.grants = grants;
    c.connectedAt = now;
    if (inserted) {
        ++m_awaitingHello;
    }
}

void BrokerCore::disconnected(ConnId conn)
{
    auto c = m_conns.find(conn);
    if (c == m_conns.end()) {
        return;
    }
    if (c->second.awaitingHello) {
        --m_awaitingHello;
    }
    // Forget the connection first: it must not be sent its own removals.
    m_conns.erase(c);

    for (auto it = m_pendingSets.begin(); it != m_pendingSets.end();) {
        if (it->second.requester == conn) {
            it = dropPending(it);
        } else if (it->second.owner == conn) {
            fail(it->second.requester, it->second.requestId, p::kOwnerGone,
                 "the owner of '" + it->second.path + "' disconnected before answering");
            it = dropPending(it);
        } else {
            ++it;
        }
    }

    for (auto it = m_states.begin(); it != m_states.end();) {
        if (it->second.owner == conn) {
            removeState(it++);
        } else {
            ++it;
        }
    }
}

void BrokerCore::badFrame(ConnId conn, std::uint32_t length)
{
    auto c = m_conns.find(conn);
    const std::string reason =
        "frame length " + std::to_string(length) + " outside 1.." + std::to_string(kMaxFrameSize);
    if (c != m_conns.end()) {
        peerLog(conn, c->second, reason + ", closing");
    }
    m_sink.send(conn, p::error(Json::Value(), p::kFrameTooLarge, reason));
    m_sink.closeAfterFlush(conn);
}

void BrokerCore::frame(ConnId conn, std::string_view payload, Clock::time_point now)
{
    auto cit = m_conns.find(conn);
    if (cit == m_conns.end() || cit->second.closing) {
        return;
    }
    Json::Value json;
    std::string reason;
    if (!parseJson(payload, &json, &reason)) {
        peerLog(conn, cit->second, "unreadable frame: " + reason);
        m_sink.send(conn, p::error(Json::Value(), p::kParseError, reason));
        return;
    }
    p::Message m = p::classify(std::move(json));
    switch (m.kind) {
        case p::Message::Kind::kInvalid:
            peerLog(conn, cit->second, "invalid message: " + m.error);
            m_sink.send(conn, p::error(m.id, p::kInvalidRequest, m.error));
            return;
        case p::Message::Kind::kResponse:
            response(conn, m.id, m.body);
            return;
        case p::Message::Kind::kRequest:
        case p::Message::Kind::kNotification:
            request(conn, cit->second, m.method, m.id, m.params, payload, now);
            return;
    }
}

void BrokerCore::request(ConnId conn, Conn& c, const std::string& method, const Json::Value& id,
                         const Json::Value& params, std::string_view payload, Clock::time_point now)
{
    if (c.debug) {
        peerLog(conn, c, payload);
    }
    if (method == p::kHello) {
        onHello(conn, c, id, params);
        return;
    }
    if (!c.hello) {
        fail(conn, id, p::kHelloRequired, "hello first");
        return;
    }
    if (method == p::kChange) {
        onChange(conn, id, params, payload);
    } else if (method == p::kAdd) {
        onAdd(conn, c, id, params, payload);
    } else if (method == p::kRemove) {
        onRemove(conn, c, id, params);
    } else if (method == p::kSet) {
        onSet(conn, c, id, params, payload, now);
    } else if (method == p::kFetch) {
        onFetch(conn, c, id, params);
    } else if (method == p::kUnfetch) {
        onUnfetch(conn, c, id, params);
    } else if (method == p::kConfig) {
        onConfig(conn, c, id, params);
    } else {
        fail(conn, id, p::kMethodNotFound, "unknown method '" + method + "'");
    }
}

void BrokerCore::onHello(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params)
{
    const Json::Value& version = params["protocol"];
    if (!version.isInt() || version.asInt() != p::kVersion) {
        peerLog(conn, c, "unsupported protocol " + toCompact(version) + ", closing");
        fail(conn, id, p::kHelloRequired,
             "unsupported protocol version " + toCompact(version) + "; this broker speaks " +
                 std::to_string(p::kVersion));
        m_sink.closeAfterFlush(conn);
        return;
    }
    c.hello = true;
    if (c.awaitingHello) {
        c.awaitingHello = false;
        --m_awaitingHello;
    }
    if (params["name"].isString()) {
        c.name = params["name"].asString().substr(0, kMaxNameLength);
    }
    Json::Value r(Json::objectValue);
    r["protocol"] = p::kVersion;
    reply(conn, id, r);
}

void BrokerCore::onConfig(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params)
{
    const Json::Value& name = params["name"];
    const Json::Value& debug = params["debug"];
    if ((!name.isNull() && !name.isString()) || (!debug.isNull() && !debug.isBool())) {
        fail(conn, id, p::kInvalidParams, "config takes a string name and a bool debug");
        return;
    }
    if (name.isString()) {
        c.name = name.asString().substr(0, kMaxNameLength);
    }
    c.debug = debug.asBool();
    reply(conn, id, true);
}

void BrokerCore::onAdd(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params,
                       std::string_view payload)
{
    std::string path;
    if (!stringParam(params, "path", path)) {
        fail(conn, id, p::kInvalidParams, "add needs a non-empty string path");
        return;
    }
    const Json::Value& settable = params["settable"];
    if (!settable.isNull() && !settable.isBool()) {
        fail(conn, id, p::kInvalidParams, "settable must be a bool");
        return;
    }
    if (path.size() > m_limits.maxPathLength) {
        limitReached(conn, id, "path longer than the broker allows", "max-path-length",
                     m_limits.maxPathLength);
        return;
    }
    if (!c.grants.may(kRightOwn, path)) {
        refuse(conn, c, id, kRightOwn, path);
        return;
    }
    auto found = m_states.find(path);
    if (found != m_states.end()) {
        fail(conn, id, p::kPathExists,
             "state '" + path + "' exists already" + (found->second.owner == conn ? " (own)" : ""));
        return;
    }
    if (c.ownedStates >= m_limits.maxStatesPerConnection) {
        limitReached(conn, id, "this connection owns as many states as it may", "max-states-per-connection",
                     m_limits.maxStatesPerConnection);
        return;
    }
    std::string value = valueTextOf(params, payload);
    const std::size_t cost = stateCost(path, value);
    if (m_storedBytes + cost > m_limits.maxStoredBytes) {
        limitReached(conn, id, "no room left for stored values", "max-stored-bytes", m_limits.maxStoredBytes);
        return;
    }
    auto it = m_states.emplace_hint(found, std::move(path), State{conn, settable.asBool(), std::move(value)});
    m_storedBytes += cost;
    ++c.ownedStates;
    notifyFetchers(p::kEventAdd, it->first, it->second.value);
    reply(conn, id, true);
}

BrokerCore::StateMap::iterator BrokerCore::ownedState(ConnId conn, const Json::Value& id,
                                                      const std::string& path)
{
    auto it = m_states.find(path);
    if (it == m_states.end()) {
        fail(conn, id, p::kUnknownPath, "no state '" + path + "'");
    } else if (it->second.owner != conn) {
        fail(conn, id, p::kNotOwner, "state '" + path + "' belongs to another peer");
        it = m_states.end();
    }
    return it;
}

void BrokerCore::removeState(StateMap::iterator it)
{
    m_storedBytes -= stateCost(it->first, it->second.value);
    auto node = m_states.extract(it);
    notifyFetchers(p::kEventRemove, node.key(), node.mapped().value);
}

void BrokerCore::onRemove(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params)
{
    std::string path;
    if (!stringParam(params, "path", path)) {
        fail(conn, id, p::kInvalidParams, "remove needs a non-empty string path");
        return;
    }
    auto it = ownedState(conn, id, path);
    if (it == m_states.end()) {
        return;
    }
    removeState(it);
    --c.ownedStates;
    reply(conn, id, true);
}

void BrokerCore::onChange(ConnId conn, const Json::Value& id, const Json::Value& params,
                          std::string_view payload)
{
    std::string path;
    if (!stringParam(params, "path", path)) {
        fail(conn, id, p::kInvalidParams, "change needs a non-empty string path");
        return;
    }
    auto it = ownedState(conn, id, path);
    if (it == m_states.end()) {
        return;
    }
    std::string value = valueTextOf(params, payload);
    const std::size_t before = stateCost(it->first, it->second.value);
    const std::size_t after = stateCost(it->first, value);
    if (after > before && m_storedBytes - before + after > m_limits.maxStoredBytes) {
        // The state keeps its value; fetchers see nothing.
        limitReached(conn, id, "no room left for the new value of '" + path + "'", "max-stored-bytes",
                     m_limits.maxStoredBytes);
        return;
    }
    m_storedBytes = m_storedBytes - before + after;
    it->second.value = std::move(value);
    notifyFetchers(p::kEventChange, it->first, it->second.value);
    reply(conn, id, true);
}

void BrokerCore::onFetch(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params)
{
    const Json::Value& fetchId = params["id"];
    Fetch f;
    std::string reason;
    if (!fetchId.isInt64() || !matcherFromJson(params["matcher"], f.matcher, &reason)) {
        fail(conn, id, p::kInvalidParams, reason.empty() ? "fetch needs an integer id" : reason);
        return;
    }
    f.id = fetchId.asInt64();
    for (const Fetch& other : c.fetches) {
        if (other.id == f.id) {
            fail(conn, id, p::kFetchExists, "fetch " + std::to_string(f.id) + " exists already");
            return;
        }
    }
    // A fetch is refused outright only where it could never deliver
    // anything; otherwise it is taken and delivers only the paths this peer
    // may read, so one wide matcher works for every user.
    if (!c.grants.mayAnywhere(kRightFetch)) {
        refuse(conn, c, id, kRightFetch, "*");
        return;
    }
    if (!f.matcher.equals.empty() && !c.grants.may(kRightFetch, f.matcher.equals)) {
        refuse(conn, c, id, kRightFetch, f.matcher.equals);
        return;
    }
    for (const std::string* criterion : {&f.matcher.equals, &f.matcher.startsWith, &f.matcher.endsWith,
                                         &f.matcher.contains, &f.matcher.equalsNot}) {
        if (criterion->size() > m_limits.maxPathLength) {
            limitReached(conn, id, "matcher text longer than a path may be", "max-path-length",
                         m_limits.maxPathLength);
            return;
        }
    }
    if (c.fetches.size() >= m_limits.maxFetchesPerConnection) {
        limitReached(conn, id, "this connection has as many fetches as it may", "max-fetches-per-connection",
                     m_limits.maxFetchesPerConnection);
        return;
    }
    f.scanning = true;
    f.requestId = id;
    c.fetches.push_back(std::move(f));
    continueScans(conn, c);
}

void BrokerCore::continueScans(ConnId conn, Conn& c)
{
    for (Fetch& f : c.fetches) {
        if (!f.scanning) {
            continue;
        }
        auto it = f.cursor.empty() ? m_states.begin() : m_states.upper_bound(f.cursor);
        const std::string ids = std::to_string(f.id);
        for (; it != m_states.end(); ++it) {
            if (m_sink.backlog(conn) >= kScanChunk) {
                // The rest waits until the fetcher has read this much.
                m_sink.wantDrain(conn, kScanChunk);
                return;
            }
            f.cursor = it->first;
            if (matches(f.matcher, it->first) && c.grants.may(kRightFetch, it->first)) {
                m_sink.send(conn, p::notification(p::kEventAdd, ids, it->first, it->second.value));
            }
        }
        f.scanning = false;
        f.cursor.clear();
        Json::Value requestId;
        requestId.swap(f.requestId);
        // The answer follows the initial notifications on the same stream,
        // so the peer knows it has seen every state present at this moment.
        reply(conn, requestId, true);
    }
}

void BrokerCore::drained(ConnId conn)
{
    auto c = m_conns.find(conn);
    if (c != m_conns.end()) {
        continueScans(conn, c->second);
    }
}

void BrokerCore::onUnfetch(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params)
{
    const Json::Value& fetchId = params["id"];
    if (!fetchId.isInt64()) {
        fail(conn, id, p::kInvalidParams, "unfetch needs an integer id");
        return;
    }
    for (auto it = c.fetches.begin(); it != c.fetches.end(); ++it) {
        if (it->id == fetchId.asInt64()) {
            // A fetch still delivering its states is answered now: it was
            // taken, and its delivery ends here.
            if (it->scanning) {
                reply(conn, it->requestId, true);
            }
            c.fetches.erase(it);
            reply(conn, id, true);
            return;
        }
    }
    fail(conn, id, p::kUnknownFetch, "no fetch " + toCompact(fetchId));
}

void BrokerCore::onSet(ConnId conn, Conn& c, const Json::Value& id, const Json::Value& params,
                       std::string_view payload, Clock::time_point now)
{
    std::string path;
    if (!stringParam(params, "path", path)) {
        fail(conn, id, p::kInvalidParams, "set needs a non-empty string path");
        return;
    }
    if (!c.grants.may(kRightSet, path)) {
        refuse(conn, c, id, kRightSet, path);
        return;
    }
    auto it = m_states.find(path);
    if (it == m_states.end()) {
        fail(conn, id, p::kUnknownPath, "no state '" + path + "'");
        return;
    }
    if (!it->second.settable) {
        fail(conn, id, p::kNotSettable, "state '" + path + "' accepts no set requests");
        return;
    }
    if (!id.isNull() && c.pendingSets >= m_limits.maxPendingSetsPerConnection) {
        limitReached(conn, id, "this connection has as many set requests waiting as it may",
                     "max-pending-sets-per-connection", m_limits.maxPendingSetsPerConnection);
        return;
    }
    const ConnId owner = it->second.owner;
    // An owner that does not read would be dropped for its backlog; a
    // requester must not be able to bring that about by piling requests on it.
    if (m_sink.backlog(owner) > m_limits.maxBacklogBytes / 2) {
        limitReached(conn, id, "the owner of '" + path + "' is not reading its requests", "max-backlog-bytes",
                     m_limits.maxBacklogBytes);
        return;
    }
    const std::int64_t token = m_nextSetToken++;
    // A set sent as a notification has nobody to answer to, but the owner
    // still gets it (its answer is then dropped).
    if (!id.isNull()) {
        m_pendingSets[token] = PendingSet{conn, id, owner, path, now + m_limits.setTimeout};
        ++c.pendingSets;
    }
    m_sink.send(owner, p::setRequest(token, path, valueTextOf(params, payload)));
}

BrokerCore::PendingMap::iterator BrokerCore::dropPending(PendingMap::iterator it)
{
    auto requester = m_conns.find(it->second.requester);
    if (requester != m_conns.end()) {
        --requester->second.pendingSets;
    }
    return m_pendingSets.erase(it);
}

void BrokerCore::response(ConnId conn, const Json::Value& id, const Json::Value& body)
{
    if (!id.isInt64()) {
        return;
    }
    auto it = m_pendingSets.find(id.asInt64());
    // Only the owner the request went to may answer it.
    if (it == m_pendingSets.end() || it->second.owner != conn) {
        return;
    }
    const PendingSet pending = std::move(it->second);
    dropPending(it);
    if (body.isMember("error")) {
        const Json::Value& e = body["error"];
        m_sink.send(pending.requester,
                    p::error(pending.requestId, e["code"].asInt(), e["message"].asString()));
    } else {
        m_sink.send(pending.requester, p::result(pending.requestId, body["result"]));
    }
}

void BrokerCore::expire(Clock::time_point now)
{
    for (auto it = m_pendingSets.begin(); it != m_pendingSets.end();) {
        if (it->second.deadline <= now) {
            fail(it->second.requester, it->second.requestId, p::kSetTimeout,
                 "the owner of '" + it->second.path + "' did not answer in time");
            it = dropPending(it);
        } else {
            ++it;
        }
    }
    if (m_awaitingHello == 0) {
        return;
    }
    for (auto& [conn, c] : m_conns) {
        if (!c.awaitingHello || now - c.connectedAt < m_limits.helloTimeout) {
            continue;
        }
        // Told once; it is closed as soon as the error is written.
        c.awaitingHello = false;
        c.closing = true;
        --m_awaitingHello;
        const std::string reason = "no hello within " + std::to_string(m_limits.helloTimeout.count()) + " ms";
        peerLog(conn, c, reason + ", closing");
        m_sink.send(conn, p::error(Json::Value(), p::kHelloRequired, reason + " (hello-timeout-ms)"));
        m_sink.closeAfterFlush(conn);
    }
}

void BrokerCore::notifyFetchers(std::string_view event, std::string_view path, std::string_view valueText)
{
    // Everything but the fetch ids is the same for every connection.
    std::string head;
    std::string tail;
    bool built = false;

    std::string ids;
    for (auto& [conn, c] : m_conns) {
        if (c.fetches.empty() || !c.grants.may(kRightFetch, path)) {
            continue;
        }
        ids.clear();
        for (const Fetch& f : c.fetches) {
            // A path the scan of a new fetch has not reached yet comes with
            // the scan, as "add" with its value of that moment.
            if (f.scanning && (f.cursor.empty() || path.compare(f.cursor) > 0)) {
                continue;
            }
            if (matches(f.matcher, path)) {
                if (!ids.empty()) {
                    ids += ',';
                }
                ids += std::to_string(f.id);
            }
        }
        if (!ids.empty()) {
            if (!built) {
                p::notificationParts(event, path, valueText, head, tail);
                built = true;
            }
            std::string out;
            out.reserve(head.size() + ids.size() + tail.size());
            out += head;
            out += ids;
            out += tail;
            m_sink.send(conn, std::move(out));
        }
    }
}

void BrokerCore::reply(ConnId conn, const Json::Value& id, const Json::Value& value)
{
    if (!id.isNull()) {
        m_sink.send(conn, p::result(id, value));
    }
}

void BrokerCore::fail(ConnId conn, const Json::Value& id, int code, const std::string& message)
{
    if (!id.isNull()) {
        m_sink.send(conn, p::error(id, code, message));
    } else {
        auto c = m_conns.find(conn);
        if (c != m_conns.end() && c->second.debug) {
            peerLog(conn, c->second, message);
        }
    }
}

void BrokerCore::refuse(ConnId conn, Conn& c, const Json::Value& id, Right right, const std::string& path)
{
    const std::string message = std::string("not permitted to ") + rightVerb(right) + " '" + path + "'";
    if (!id.isNull()) {
        m_sink.send(conn, p::error(id, p::kNotPermitted, message));
    }
    if (c.refusalsLogged.size() < kMaxLoggedRefusals &&
        c.refusalsLogged.insert(std::string(rightVerb(right)) + " " + path).second) {
        peerLog(conn, c, "refused: " + message);
    }
}

void BrokerCore::limitReached(ConnId conn, const Json::Value& id, const std::string& what, const char* knob,
                              std::size_t limit)
{
    const std::string message = "limit reached: " + what + " (" + knob + " " + std::to_string(limit) + ")";
    if (!id.isNull()) {
        m_sink.send(conn, p::error(id, p::kLimitReached, message));
    }
    auto c = m_conns.find(conn);
    if (c != m_conns.end()) {
        peerLog(conn, c->second, message);
    }
}

void BrokerCore::peerLog(ConnId conn, Conn& c, std::string_view text)
{
    if (!c.log.admit()) {
        return;
    }
    std::string line = who(conn) + ": ";
    if (const std::uint64_t dropped = c.log.takeSuppressed()) {
        line += "(" + std::to_string(dropped) + " earlier lines of this peer not logged) ";
    }
    // A frame quoted in debug mode may be a megabyte; the line takes its
    // start only, and the sink cuts the line to its length.
    line.append(text.substr(0, m_limits.logLineMax));
    if (text.size() > m_limits.logLineMax) {
        line += " ... (" + std::to_string(text.size()) + " bytes in all)";
    }
    m_sink.log(line);
}

}  // namespace vela
