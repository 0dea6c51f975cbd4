#include "ModuleState.h"

#include <JsonText.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace tsdctl {

namespace {

const char kAppPath[] = "sync/app";
const char kMasterPath[] = "sync/master";
const char kErrorPrefix[] = "sync/errors/";
// The width of the name column, as chronyc tracking lines up its values.
constexpr int kNameWidth = 16;
// Words for the verdicts 0 to 3.
const char* const kVerdicts[] = {"ok", "warning", "critical", "unknown"};

SideState sideFrom(const Json::Value& app, const char* suffix)
{
    SideState side;
    const Json::Value& mode = app["mode_" + std::string(suffix)];
    const Json::Value& uuid = app["master_uuid_" + std::string(suffix)];
    const Json::Value& threshold = app["master_threshold_" + std::string(suffix)];
    if (!mode.isInt() || !uuid.isUInt() || !threshold.isNumeric()) {
        return side;
    }
    side.valid = true;
    side.mode = mode.asInt();
    side.masterUuid = uuid.asUInt();
    side.threshold = threshold.asDouble();
    return side;
}

// A code from a path suffix for ordering: numbers in numeric order, anything
// else after them in text order.
bool codeLess(const ActiveError& a, const ActiveError& b)
{
    char* endA = nullptr;
    char* endB = nullptr;
    errno = 0;
    const long long x = std::strtoll(a.code.c_str(), &endA, 10);
    const long long y = std::strtoll(b.code.c_str(), &endB, 10);
    const bool numA = !a.code.empty() && *endA == '\0';
    const bool numB = !b.code.empty() && *endB == '\0';
    if (numA != numB) {
        return numA;
    }
    return numA ? x < y : a.code < b.code;
}

std::string stringMember(const Json::Value& value, const char* name)
{
    if (!value.isObject()) {
        return {};
    }
    const Json::Value& member = value[name];
    return member.isString() ? member.asString() : std::string();
}

void line(std::string& out, const std::string& name, const std::string& value)
{
    char head[64];
    std::snprintf(head, sizeof head, "%-*s: ", kNameWidth, name.c_str());
    out += head;
    out += value;
    out += '\n';
}

std::string thresholdText(double threshold)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", threshold);
    return text;
}

std::string duration(long long seconds)
{
    if (seconds < 0) {
        seconds = 0;
    }
    char text[64];
    if (seconds < 60) {
        std::snprintf(text, sizeof text, "%llds", seconds);
    } else if (seconds < 3600) {
        std::snprintf(text, sizeof text, "%lldm%02llds", seconds / 60, seconds % 60);
    } else if (seconds < 86400) {
        std::snprintf(text, sizeof text, "%lldh%02lldm", seconds / 3600, seconds % 3600 / 60);
    } else {
        std::snprintf(text, sizeof text, "%lldd%02lldh", seconds / 86400, seconds % 86400 / 3600);
    }
    return text;
}

std::string sideWords(const SideState& side)
{
    if (!side.valid) {
        return "not readable";
    }
    if (side.mode == 0) {
        return "unknown (no election result yet)";
    }
    return modeName(side.mode) + ", master " + labelOf(side.masterUuid) + ", threshold " +
           thresholdText(side.threshold);
}

std::string serviceWords(const TimeService& service)
{
    std::string text = service.name;
    if (!service.role.empty()) {
        text += " (" + service.role + ")";
    }
    return text + ", pid " + std::to_string(service.pid);
}

Json::Value sideJson(const SideState& side)
{
    Json::Value out(Json::objectValue);
    if (!side.valid) {
        out["mode"] = Json::Value();
        return out;
    }
    out["mode"] = modeName(side.mode);
    out["modeCode"] = side.mode;
    out["master"] = side.mode == 0 ? Json::Value() : Json::Value(labelOf(side.masterUuid));
    out["threshold"] = side.threshold;
    return out;
}

Json::Value errorJson(const ActiveError& error)
{
    Json::Value out(Json::objectValue);
    out["code"] = error.code;
    out["text"] = error.text;
    out["info"] = error.info;
    return out;
}

Json::Value servicesJson(const std::vector<TimeService>& services)
{
    Json::Value out(Json::arrayValue);
    for (const TimeService& service : services) {
        Json::Value s(Json::objectValue);
        s["name"] = service.name;
        s["role"] = service.role.empty() ? Json::Value() : Json::Value(service.role);
        s["pid"] = static_cast<Json::Int64>(service.pid);
        s["since"] = isoTime(service.since);
        out.append(s);
    }
    return out;
}

bool sameSide(const SideState& a, const SideState& b)
{
    return a.valid == b.valid && a.mode == b.mode && a.masterUuid == b.masterUuid && a.threshold == b.threshold;
}

bool sameServices(const std::vector<TimeService>& a, const std::vector<TimeService>& b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const TimeService& x, const TimeService& y) {
        return x.name == y.name && x.role == y.role && x.pid == y.pid;
    });
}

const ActiveError* findError(const std::vector<ActiveError>& errors, const std::string& code)
{
    for (const ActiveError& error : errors) {
        if (error.code == code) {
            return &error;
        }
    }
    return nullptr;
}

}  // namespace

ModuleState fromBusStates(const std::map<std::string, Json::Value>& states)
{
    ModuleState state;
    state.busReachable = true;
    const auto app = states.find(kAppPath);
    if (app != states.end()) {
        state.daemonPresent = true;
        if (app->second.isObject()) {
            state.rear = sideFrom(app->second, "back");
            state.front = sideFrom(app->second, "front");
        }
    }
    const auto master = states.find(kMasterPath);
    if (master != states.end() && master->second.isString()) {
        state.chainMasterKnown = true;
        state.chainMaster = master->second.asString();
    }
    const std::string prefix = kErrorPrefix;
    for (auto it = states.lower_bound(prefix); it != states.end() && it->first.compare(0, prefix.size(), prefix) == 0;
         ++it) {
        ActiveError error;
        error.code = it->first.substr(prefix.size());
        error.text = stringMember(it->second, "txt");
        error.info = stringMember(it->second, "info");
        state.errors.push_back(error);
    }
    std::sort(state.errors.begin(), state.errors.end(), codeLess);
    return state;
}

int verdict(const ModuleState& state, std::string& reason)
{
    if (!state.busReachable) {
        reason = "bus not reachable";
        return 3;
    }
    if (!state.daemonPresent) {
        reason = "no tsd states on the bus";
        return 2;
    }
    if (!state.errors.empty()) {
        reason = state.errors.size() == 1 ? "1 active error" : std::to_string(state.errors.size()) + " active errors";
        return 1;
    }
    if (!state.rear.valid || state.rear.mode == 0 || !state.front.valid || state.front.mode == 0) {
        reason = "no election result yet";
        return 1;
    }
    reason = "ok";
    return 0;
}

std::string modeName(int mode)
{
    switch (mode) {
        case 0:
            return "unknown";
        case 1:
            return "alone";
        case 2:
            return "slave";
        case 3:
            return "master";
        default:
            return std::to_string(mode);
    }
}

std::string labelOf(unsigned uuid)
{
    char text[32];
    std::snprintf(text, sizeof text, "0A7C31%06X", uuid);
    return text;
}

std::string printable(const std::string& text)
{
    std::string out;
    const std::size_t length = std::min(text.size(), kMaxShownBytes);
    auto escape = [&out](unsigned char byte) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02X", byte);
        out += hex;
    };
    std::size_t i = 0;
    while (i < length) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x20 && byte < 0x7F) {
            out += static_cast<char>(byte);
            ++i;
            continue;
        }
        // A complete UTF-8 sequence of two to four bytes passes, except the
        // C1 controls (U+0080..U+009F) that some terminals obey.
        std::size_t size = byte >= 0xC2 && byte <= 0xDF ? 2 : byte >= 0xE0 && byte <= 0xEF ? 3
                                                           : byte >= 0xF0 && byte <= 0xF4 ? 4
                                                                                           : 0;
        bool complete = size != 0 && i + size <= length;
        for (std::size_t k = 1; complete && k < size; ++k) {
            complete = (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80;
        }
        if (complete && !(byte == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0)) {
            out.append(text, i, size);
            i += size;
            continue;
        }
        escape(byte);
        ++i;
    }
    if (text.size() > kMaxShownBytes) {
        out += "...";
    }
    return out;
}

std::string isoTime(std::time_t t)
{
    std::tm parts{};
    gmtime_r(&t, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

std::string renderText(const ModuleState& state, const std::string& bus, std::time_t now)
{
    std::string out;
    line(out, "Bus", state.busReachable ? bus : bus + " not reachable");
    if (state.busReachable && !state.daemonPresent) {
        line(out, "Daemon", "no states on the bus (tsd not running?)");
    }
    if (state.daemonPresent) {
        for (const auto& [name, side] : {std::pair<const char*, const SideState&>{"Rear", state.rear},
                                         std::pair<const char*, const SideState&>{"Front", state.front}}) {
            const std::string n = name;
            if (!side.valid) {
                line(out, n + " mode", "not readable");
                continue;
            }
            line(out, n + " mode", side.mode == 0 ? "unknown (no election result yet)" : modeName(side.mode));
            if (side.mode != 0) {
                line(out, n + " master", labelOf(side.masterUuid));
                line(out, n + " threshold", thresholdText(side.threshold));
            }
        }
    }
    if (state.chainMasterKnown) {
        line(out, "Chain master", printable(state.chainMaster));
    }
    if (state.busReachable && state.daemonPresent) {
        if (state.errors.empty()) {
            line(out, "Errors", "none");
        }
        for (const ActiveError& error : state.errors) {
            std::string text = printable(error.text);
            if (!error.info.empty()) {
                text += " [" + printable(error.info) + "]";
            }
            line(out, "Error " + printable(error.code), text);
        }
    }
    if (state.services.empty()) {
        line(out, "Time service", "none");
    }
    for (const TimeService& service : state.services) {
        line(out, "Time service",
             serviceWords(service) + ", since " + isoTime(service.since) + " (" +
                 duration(static_cast<long long>(now - service.since)) + " ago)");
    }
    std::string reason;
    const int code = verdict(state, reason);
    line(out, "Status", code == 0 ? std::string("ok") : std::string(kVerdicts[code]) + " (" + reason + ")");
    return out;
}

Json::Value renderJson(const ModuleState& state, const std::string& address, unsigned port)
{
    Json::Value out(Json::objectValue);
    Json::Value bus(Json::objectValue);
    bus["address"] = address;
    bus["port"] = port;
    bus["reachable"] = state.busReachable;
    out["bus"] = bus;
    out["daemon"] = state.daemonPresent;
    out["rear"] = state.daemonPresent ? sideJson(state.rear) : Json::Value();
    out["front"] = state.daemonPresent ? sideJson(state.front) : Json::Value();
    out["chainMaster"] = state.chainMasterKnown ? Json::Value(state.chainMaster) : Json::Value();
    Json::Value errors(Json::arrayValue);
    for (const ActiveError& error : state.errors) {
        errors.append(errorJson(error));
    }
    out["errors"] = errors;
    out["timeServices"] = servicesJson(state.services);
    std::string reason;
    const int code = verdict(state, reason);
    out["status"] = kVerdicts[code];
    out["reason"] = reason;
    out["exitStatus"] = code;
    return out;
}

std::vector<std::string> describeChanges(const ModuleState& before, const ModuleState& after, const std::string& time,
                                         bool json, bool first)
{
    std::vector<std::string> lines;
    auto emit = [&](const std::string& words, Json::Value object) {
        if (json) {
            object["time"] = time;
            lines.push_back(vela::toCompact(object));
        } else {
            lines.push_back(time + "  " + words);
        }
    };
    auto change = [](const char* what) {
        Json::Value object(Json::objectValue);
        object["change"] = what;
        return object;
    };

    if (before.busReachable != after.busReachable) {
        Json::Value object = change("bus");
        object["reachable"] = after.busReachable;
        emit(after.busReachable ? "bus reachable" : "bus lost", object);
    }
    if ((before.daemonPresent || first) && !after.daemonPresent && after.busReachable) {
        emit(first ? "no tsd states on the bus" : "tsd states gone from the bus", change("daemonGone"));
    }
    if (after.daemonPresent &&
        (!before.daemonPresent || !sameSide(before.rear, after.rear) || !sameSide(before.front, after.front))) {
        Json::Value object = change("sides");
        object["rear"] = sideJson(after.rear);
        object["front"] = sideJson(after.front);
        emit("rear " + sideWords(after.rear) + "; front " + sideWords(after.front), object);
    }
    if (after.chainMasterKnown && (!before.chainMasterKnown || before.chainMaster != after.chainMaster)) {
        Json::Value object = change("chainMaster");
        object["chainMaster"] = after.chainMaster;
        emit("chain master " + printable(after.chainMaster), object);
    }
    for (const ActiveError& error : after.errors) {
        if (findError(before.errors, error.code) == nullptr) {
            Json::Value object = change("errorRaised");
            object["error"] = errorJson(error);
            emit("error " + printable(error.code) + " raised: " + printable(error.text), object);
        }
    }
    // An error that went with the whole daemon was not cleared by it.
    if (after.daemonPresent) {
        for (const ActiveError& error : before.errors) {
            if (findError(after.errors, error.code) == nullptr) {
                Json::Value object = change("errorCleared");
                object["code"] = error.code;
                emit("error " + printable(error.code) + " cleared", object);
            }
        }
    }
    if (first || !sameServices(before.services, after.services)) {
        Json::Value object = change("timeService");
        object["timeServices"] = servicesJson(after.services);
        std::string words = "time service ";
        if (after.services.empty()) {
            words += "none";
        }
        for (std::size_t i = 0; i < after.services.size(); ++i) {
            words += (i == 0 ? "" : ", ") + serviceWords(after.services[i]);
        }
        emit(words, object);
    }
    return lines;
}

}  // namespace tsdctl
