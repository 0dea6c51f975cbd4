#include "BrokerCore.h"

#include "Frame.h"
#include "JsonText.h"
#include "Matcher.h"
#include "Protocol.h"

namespace vela {

namespace p = protocol;

namespace {

// The value of a request as JSON text: the slice of the frame that holds it,
// so that it is forwarded exactly as its owner wrote it.
std::string valueTextOf(const Json::Value& params, std::string_view payload)
{
    const Json::Value* v = params.find("value", "value" + 5);
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

}  // namespace

BrokerCore::BrokerCore(BrokerSink& sink, std::chrono::milliseconds setTimeout)
    : m_sink(sink), m_setTimeout(setTimeout)
{
}

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

void BrokerCore::connected(ConnId conn, const std::string& description)
{
    m_conns[conn].description = description;
}

void BrokerCore::disconnected(ConnId conn)
{
    auto c = m_conns.find(conn);
    if (c == m_conns.end()) {
        return;
    }
    // Forget the connection first: it must not be sent its own removals.
    m_conns.erase(c);

    for (auto it = m_pendingSets.begin(); it != m_pendingSets.end();) {
        if (it->second.requester == conn) {
            it = m_pendingSets.erase(it);
        } else if (it->second.owner == conn) {
            fail(it->second.requester, it->second.requestId, p::kOwnerGone,
                 "the owner of '" + it->second.path + "' disconnected before answering");
            it = m_pendingSets.erase(it);
        } else {
            ++it;
        }
    }

    for (auto it = m_states.begin(); it != m_states.end();) {
        if (it->second.owner == conn) {
            auto node = m_states.extract(it++);
            notifyFetchers(p::kEventRemove, node.key(), node.mapped().value);
        } else {
            ++it;
        }
    }
}

void BrokerCore::badFrame(ConnId conn, std::uint32_t length)
{
    m_sink.log(who(conn) + ": frame length " + std::to_string(length) + " outside 1.." +
               std::to_string(kMaxFrameSize) + ", closing");
    m_sink.send(conn, p::error(Json::Value(), p::kFrameTooLarge,
                               "frame length " + std::to_string(length) + " outside 1.." +
                                   std::to_string(kMaxFrameSize)));
    m_sink.closeAfterFlush(conn);
}

void BrokerCore::frame(ConnId conn, std::string_view payload, Clock::time_point now)
{
    auto cit = m_conns.find(conn);
    if (cit == m_conns.end()) {
        return;
    }
    Json::Value json;
    std::string reason;
    if (!parseJson(payload, &json, &reason)) {
        m_sink.log(who(conn) + ": unreadable frame: " + reason);
        m_sink.send(conn, p::error(Json::Value(), p::kParseError, reason));
        return;
    }
    p::Message m = p::classify(std::move(json));
    switch (m.kind) {
        case p::Message::Kind::kInvalid:
            m_sink.log(who(conn) + ": invalid message: " + m.error);
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
        m_sink.log(who(conn) + ": " + std::string(payload));
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
        onAdd(conn, id, params, payload);
    } else if (method == p::kRemove) {
        onRemove(conn, id, params);
    } else if (method == p::kSet) {
        onSet(conn, id, params, payload, now);
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
        m_sink.log(who(conn) + ": unsupported protocol " + toCompact(version) + ", closing");
        fail(conn, id, p::kHelloRequired,
             "unsupported protocol version " + toCompact(version) + "; this broker speaks " +
                 std::to_string(p::kVersion));
        m_sink.closeAfterFlush(conn);
        return;
    }
    c.hello = true;
    if (params["name"].isString()) {
        c.name = params["name"].asString();
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
        c.name = name.asString();
    }
    c.debug = debug.asBool();
    reply(conn, id, true);
}

void BrokerCore::onAdd(ConnId conn, const Json::Value& id, const Json::Value& params,
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
    auto [it, inserted] = m_states.try_emplace(std::move(path));
    if (!inserted) {
        fail(conn, id, p::kPathExists,
             "state '" + it->first + "' exists already" + (it->second.owner == conn ? " (own)" : ""));
        return;
    }
    it->second.owner = conn;
    it->second.settable = settable.asBool();
    it->second.value = valueTextOf(params, payload);
    notifyFetchers(p::kEventAdd, it->first, it->second.value);
    reply(conn, id, true);
}

std::map<std::string, BrokerCore::State, std::less<>>::iterator BrokerCore::ownedState(
    ConnId conn, const Json::Value& id, const std::string& path)
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

void BrokerCore::onRemove(ConnId conn, const Json::Value& id, const Json::Value& params)
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
    auto node = m_states.extract(it);
    notifyFetchers(p::kEventRemove, node.key(), node.mapped().value);
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
    it->second.value = valueTextOf(params, payload);
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
    const std::string ids = std::to_string(f.id);
    for (const auto& [path, state] : m_states) {
        if (matches(f.matcher, path)) {
            m_sink.send(conn, p::notification(p::kEventAdd, ids, path, state.value));
        }
    }
    c.fetches.push_back(std::move(f));
    // The answer follows the initial notifications on the same stream, so
    // the peer knows it has seen every state present at this moment.
    reply(conn, id, true);
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
            c.fetches.erase(it);
            reply(conn, id, true);
            return;
        }
    }
    fail(conn, id, p::kUnknownFetch, "no fetch " + toCompact(fetchId));
}

void BrokerCore::onSet(ConnId conn, const Json::Value& id, const Json::Value& params,
                       std::string_view payload, Clock::time_point now)
{
    std::string path;
    if (!stringParam(params, "path", path)) {
        fail(conn, id, p::kInvalidParams, "set needs a non-empty string path");
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
    const std::int64_t token = m_nextSetToken++;
    const ConnId owner = it->second.owner;
    // A set sent as a notification has nobody to answer to, but the owner
    // still gets it (its answer is then dropped).
    if (!id.isNull()) {
        m_pendingSets[token] = PendingSet{conn, id, owner, path, now + m_setTimeout};
    }
    m_sink.send(owner, p::setRequest(token, path, valueTextOf(params, payload)));
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
    m_pendingSets.erase(it);
    if (body.isMember("error")) {
        const Json::Value& e = body["error"];
        m_sink.send(pending.requester,
                    p::error(pending.requestId, e["code"].asInt(), e["message"].asString()));
    } else {
        m_sink.send(pending.requester, p::result(pending.requestId, body["result"]));
    }
}

void BrokerCore::expireSets(Clock::time_point now)
{
    for (auto it = m_pendingSets.begin(); it != m_pendingSets.end();) {
        if (it->second.deadline <= now) {
            fail(it->second.requester, it->second.requestId, p::kSetTimeout,
                 "the owner of '" + it->second.path + "' did not answer in time");
            it = m_pendingSets.erase(it);
        } else {
            ++it;
        }
    }
}

void BrokerCore::notifyFetchers(std::string_view event, std::string_view path, std::string_view valueText)
{
    // Everything but the fetch ids is the same for every connection.
    std::string head;
    std::string tail;
    p::notificationParts(event, path, valueText, head, tail);

    std::string ids;
    for (auto& [conn, c] : m_conns) {
        if (c.fetches.empty()) {
            continue;
        }
        ids.clear();
        for (const Fetch& f : c.fetches) {
            if (matches(f.matcher, path)) {
                if (!ids.empty()) {
                    ids += ',';
                }
                ids += std::to_string(f.id);
            }
        }
        if (!ids.empty()) {
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
            m_sink.log(who(conn) + ": " + message);
        }
    }
}

}  // namespace vela
