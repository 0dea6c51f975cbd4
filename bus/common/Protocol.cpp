#include "Protocol.h"

#include "JsonText.h"

namespace vela::protocol {

namespace {

constexpr std::string_view kPrefix = "{\"jsonrpc\":\"2.0\"";

}  // namespace

std::string request(const Json::Value& id, std::string_view method, const Json::Value& params)
{
    std::string out(kPrefix);
    if (!id.isNull()) {
        out += ",\"id\":";
        appendCompact(out, id);
    }
    out += ",\"method\":";
    appendQuoted(out, method);
    if (!params.isNull()) {
        out += ",\"params\":";
        appendCompact(out, params);
    }
    out += '}';
    return out;
}

std::string result(const Json::Value& id, const Json::Value& value)
{
    std::string out(kPrefix);
    out += ",\"id\":";
    appendCompact(out, id);
    out += ",\"result\":";
    appendCompact(out, value);
    out += '}';
    return out;
}

std::string error(const Json::Value& id, int code, std::string_view message)
{
    std::string out(kPrefix);
    out += ",\"id\":";
    appendCompact(out, id);
    out += ",\"error\":{\"code\":";
    out += std::to_string(code);
    out += ",\"message\":";
    appendQuoted(out, message);
    out += "}}";
    return out;
}

void notificationParts(std::string_view event, std::string_view path, std::string_view valueText,
                       std::string& head, std::string& tail)
{
    head = kPrefix;
    head += ",\"method\":\"notify\",\"params\":{\"event\":\"";
    head += event;
    head += "\",\"fetches\":[";
    tail = "],\"path\":";
    appendQuoted(tail, path);
    tail += ",\"value\":";
    tail += valueText;
    tail += "}}";
}

std::string notification(std::string_view event, std::string_view fetchIds, std::string_view path,
                         std::string_view valueText)
{
    std::string head;
    std::string tail;
    notificationParts(event, path, valueText, head, tail);
    return head.append(fetchIds).append(tail);
}

std::string setRequest(std::int64_t id, std::string_view path, std::string_view valueText)
{
    std::string out(kPrefix);
    out += ",\"id\":";
    out += std::to_string(id);
    out += ",\"method\":\"set\",\"params\":{\"path\":";
    appendQuoted(out, path);
    out += ",\"value\":";
    out += valueText;
    out += "}}";
    return out;
}

Message classify(Json::Value&& frame)
{
    Message m;
    if (!frame.isObject()) {
        m.error = "a message must be a JSON object";
        return m;
    }
    static constexpr char kVersionKey[] = "jsonrpc";
    const Json::Value* version = frame.find(kVersionKey, kVersionKey + sizeof(kVersionKey) - 1);
    if (!version || !version->isString() || version->asString() != "2.0") {
        m.error = "\"jsonrpc\" must be \"2.0\"";
        return m;
    }
    const bool hasId = frame.isMember("id");
    if (hasId) {
        const Json::Value& id = frame["id"];
        if (!id.isNumeric() && !id.isString() && !id.isNull()) {
            m.error = "\"id\" must be a number or a string";
            return m;
        }
        m.id = id;
    }
    if (frame.isMember("method")) {
        const Json::Value& method = frame["method"];
        if (!method.isString()) {
            m.error = "\"method\" must be a string";
            return m;
        }
        m.method = method.asString();
        if (frame.isMember("params")) {
            m.params = std::move(frame["params"]);
            if (!m.params.isObject()) {
                m.error = "\"params\" must be an object";
                m.params = Json::Value();
                return m;
            }
        }
        m.kind = (hasId && !m.id.isNull()) ? Message::Kind::kRequest : Message::Kind::kNotification;
        return m;
    }
    if (hasId && (frame.isMember("result") || frame.isMember("error"))) {
        m.body = Json::Value(Json::objectValue);
        if (frame.isMember("error")) {
            const Json::Value& e = frame["error"];
            if (!e.isObject() || !e["code"].isInt() || !e["message"].isString()) {
                m.error = "\"error\" must be an object with an int \"code\" and a string \"message\"";
                return m;
            }
            m.body["error"] = std::move(frame["error"]);
        } else {
            m.body["result"] = std::move(frame["result"]);
        }
        m.kind = Message::Kind::kResponse;
        return m;
    }
    m.error = "neither a request nor a response";
    return m;
}

}  // namespace vela::protocol
