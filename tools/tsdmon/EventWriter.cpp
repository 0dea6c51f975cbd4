#include "EventWriter.h"

#include <json/value.h>
#include <json/writer.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <sstream>

#include "sync/TimeServicePlan.h"

namespace tsdmon {

using orv::tsd::labelUuid;

namespace {

std::string formatTime(std::int64_t wallMs, bool utc)
{
    const std::time_t seconds = static_cast<std::time_t>(wallMs / 1000);
    const int millis = static_cast<int>(wallMs % 1000);
    std::tm parts{};
    if (utc)
        ::gmtime_r(&seconds, &parts);
    else
        ::localtime_r(&seconds, &parts);
    char text[64];
    const char* format = utc ? "%Y-%m-%dT%H:%M:%S" : "%Y-%m-%d %H:%M:%S";
    const std::size_t length = std::strftime(text, sizeof text, format, &parts);
    std::snprintf(text + length, sizeof text - length, ".%03d%s", millis, utc ? "Z" : "");
    return text;
}

// "169.254.1.2 (0A7C31000102)", or without the uuid when none is known yet.
std::string who(const std::string& sender, const std::optional<unsigned>& uuid)
{
    std::string text = escapeBytes(sender.empty() ? std::string("?") : sender);
    if (uuid)
        text += " (" + labelUuid(*uuid) + ")";
    return text;
}

std::string onInterface(const std::string& name)
{
    return name.empty() ? std::string() : " on " + escapeBytes(name);
}

std::string itemText(const ModuleItem& item)
{
    return labelUuid(item.uuid) + " module " + std::to_string(item.module) + " time-source " +
           std::to_string(item.prio) + " threshold " + tenths(item.threshold);
}

std::string labels(const std::vector<unsigned>& uuids)
{
    std::string text;
    for (unsigned uuid : uuids)
        text += (text.empty() ? "" : " ") + labelUuid(uuid);
    return text;
}

std::string electionText(const ElectionResult& result)
{
    std::ostringstream text;
    text << "election round " << result.round << " (" << result.trigger << ", " << result.requests.size()
         << (result.requests.size() == 1 ? " request" : " requests") << "): ";
    if (result.winner)
        text << "master " << itemText(result.winner->item);
    else if (result.answered.empty())
        text << "no master: nobody answered";
    else
        text << "no master: empty item from " << labels(result.empty);
    text << "; " << result.answered.size() << " answered";
    if (!result.answered.empty()) {
        text << ":";
        for (const Answer& answer : result.answered)
            text << ' ' << labelUuid(answer.item.uuid);
    }
    if (!result.stopped.empty())
        text << "; stopped answering: " << labels(result.stopped);
    if (!result.joined.empty())
        text << "; new: " << labels(result.joined);
    if (result.interrupted)
        text << " (cut short: tsdmon ended before the window did)";
    return text.str();
}

Json::Value jsonUuid(const std::optional<unsigned>& uuid)
{
    return uuid ? Json::Value(labelUuid(*uuid)) : Json::Value(Json::nullValue);
}

Json::Value jsonLabels(const std::vector<unsigned>& uuids)
{
    Json::Value list(Json::arrayValue);
    for (unsigned uuid : uuids)
        list.append(labelUuid(uuid));
    return list;
}

Json::Value jsonNotes(const std::vector<std::string>& notes)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& note : notes)
        list.append(note);
    return list;
}

Json::Value jsonAnswer(const Answer& answer)
{
    Json::Value value(Json::objectValue);
    value["time"] = utcTime(answer.wallMs);
    value["uuid"] = labelUuid(answer.item.uuid);
    value["module"] = answer.item.module;
    value["prio"] = answer.item.prio;
    value["threshold"] = answer.item.threshold;
    value["sender"] = escapeBytes(answer.sender);
    return value;
}

}  // namespace

std::string escapeBytes(const std::string& bytes)
{
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '\\') {
            text += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7f) {
            text += c;
        } else {
            text += "\\x";
            text += kHex[byte >> 4];
            text += kHex[byte & 0xf];
        }
    }
    return text;
}

std::string localTime(std::int64_t wallMs)
{
    return formatTime(wallMs, false);
}

std::string utcTime(std::int64_t wallMs)
{
    return formatTime(wallMs, true);
}

std::string tenths(unsigned value)
{
    return std::to_string(value / 10) + "." + std::to_string(value % 10);
}

std::string toText(const MonitorEvent& event)
{
    std::ostringstream line;
    line << localTime(event.wallMs) << ' ' << (event.side == orv::tsd::FRONT_FW ? "front" : "rear ") << ' ';
    switch (event.type) {
        case EventType::Listening:
            line << "listening on " << escapeBytes(event.interfaceName) << " ("
                 << escapeBytes(event.sender.empty() ? std::string("no IPv4 address") : event.sender)
                 << "), group " << escapeBytes(event.group) << " port " << event.port;
            break;
        case EventType::Waiting:
            line << "waiting for interface " << escapeBytes(event.interfaceName);
            break;
        case EventType::InterfaceLost:
            line << "interface " << escapeBytes(event.interfaceName) << " gone, waiting for it to return";
            break;
        case EventType::Request:
            line << event.command << " from " << who(event.sender, event.uuid) << onInterface(event.interfaceName)
                 << ": round " << event.round << (event.opensRound ? " opened" : " extended");
            break;
        case EventType::Item:
            line << "item " << itemText(event.item) << " from " << escapeBytes(event.sender)
                 << onInterface(event.interfaceName) << " (round " << event.round << ")";
            break;
        case EventType::Malformed:
            line << "MALFORMED " << toString(event.malformation) << " from " << escapeBytes(event.sender)
                 << onInterface(event.interfaceName) << ", " << event.bytes.size() << " bytes \""
                 << escapeBytes(event.bytes) << "\": " << explain(event.malformation);
            break;
        case EventType::Election:
            line << electionText(event.election);
            break;
    }
    for (const std::string& note : event.notes)
        line << "; note: " << note;
    return line.str();
}

std::string toJson(const MonitorEvent& event)
{
    Json::Value value(Json::objectValue);
    value["time"] = utcTime(event.wallMs);
    value["side"] = sideName(event.side);
    switch (event.type) {
        case EventType::Listening:
            value["event"] = "listening";
            value["interface"] = escapeBytes(event.interfaceName);
            value["address"] = escapeBytes(event.sender);
            value["group"] = escapeBytes(event.group);
            value["port"] = event.port;
            break;
        case EventType::Waiting:
            value["event"] = "waiting";
            value["interface"] = escapeBytes(event.interfaceName);
            break;
        case EventType::InterfaceLost:
            value["event"] = "interface-lost";
            value["interface"] = escapeBytes(event.interfaceName);
            break;
        case EventType::Request:
            value["event"] = "request";
            value["command"] = event.command;
            value["sender"] = escapeBytes(event.sender);
            value["interface"] = escapeBytes(event.interfaceName);
            value["uuid"] = jsonUuid(event.uuid);
            value["round"] = event.round;
            value["opensRound"] = event.opensRound;
            value["notes"] = jsonNotes(event.notes);
            break;
        case EventType::Item:
            value["event"] = "item";
            value["sender"] = escapeBytes(event.sender);
            value["interface"] = escapeBytes(event.interfaceName);
            value["uuid"] = labelUuid(event.item.uuid);
            value["module"] = event.item.module;
            value["prio"] = event.item.prio;
            value["threshold"] = event.item.threshold;
            value["empty"] = event.item.isEmpty();
            value["round"] = event.round;
            value["notes"] = jsonNotes(event.notes);
            break;
        case EventType::Malformed:
            value["event"] = "malformed";
            value["sender"] = escapeBytes(event.sender);
            value["interface"] = escapeBytes(event.interfaceName);
            value["reason"] = toString(event.malformation);
            value["explanation"] = explain(event.malformation);
            value["length"] = static_cast<Json::UInt64>(event.bytes.size());
            value["bytes"] = escapeBytes(event.bytes);
            break;
        case EventType::Election: {
            const ElectionResult& result = event.election;
            value["event"] = "election";
            value["round"] = result.round;
            value["opened"] = utcTime(result.openedMs);
            value["closed"] = utcTime(result.closedMs);
            value["trigger"] = result.trigger;
            value["interrupted"] = result.interrupted;
            Json::Value requests(Json::arrayValue);
            for (const Request& request : result.requests) {
                Json::Value entry(Json::objectValue);
                entry["time"] = utcTime(request.wallMs);
                entry["command"] = request.command;
                entry["sender"] = escapeBytes(request.sender);
                entry["uuid"] = jsonUuid(request.uuid);
                requests.append(entry);
            }
            value["requests"] = requests;
            Json::Value answered(Json::arrayValue);
            for (const Answer& answer : result.answered)
                answered.append(jsonAnswer(answer));
            value["answered"] = answered;
            value["winner"] = result.winner ? jsonAnswer(*result.winner) : Json::Value(Json::nullValue);
            value["empty"] = jsonLabels(result.empty);
            value["stopped"] = jsonLabels(result.stopped);
            value["joined"] = jsonLabels(result.joined);
            break;
        }
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace tsdmon
