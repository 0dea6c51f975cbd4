#include "tsdsim/RunTimeline.h"

#include <algorithm>
#include <cstdio>

namespace tsdsim {

namespace {

RunTimeline::Mode modeOf(const Json::Value& value)
{
    switch (value.isInt() ? value.asInt() : -1) {
        case 0:
            return RunTimeline::Mode::Unknown;
        case 1:
            return RunTimeline::Mode::Alone;
        case 2:
            return RunTimeline::Mode::Slave;
        case 3:
            return RunTimeline::Mode::Master;
        default:
            return RunTimeline::Mode::None;
    }
}

std::string labelOf(const Json::Value& uuid)
{
    if (!uuid.isIntegral() || uuid.asLargestUInt() == 0 || uuid.asLargestUInt() > 0xFFFFFFFFu) {
        return {};
    }
    char text[24];
    std::snprintf(text, sizeof text, "0A7C31%06X", static_cast<unsigned>(uuid.asLargestUInt()));
    return text;
}

// One side's spans from the module's "sync/app" changes.
std::vector<RunTimeline::Span> spansOf(const std::vector<RunTimeline::AppChange>& changes, const char* modeKey,
                                       const char* masterKey, double end)
{
    std::vector<RunTimeline::Span> spans;
    RunTimeline::Span current;
    auto close = [&](double at) {
        current.to = std::min(std::max(at, current.from), end);
        if (current.mode != RunTimeline::Mode::None && current.to > current.from) {
            spans.push_back(current);
        }
    };
    for (const auto& c : changes) {
        if (c.time > end) {
            break;
        }
        RunTimeline::Span next;
        next.from = std::max(c.time, 0.0);
        if (!c.removed && c.value.isObject()) {
            next.mode = modeOf(c.value[modeKey]);
            if (next.mode == RunTimeline::Mode::Slave || next.mode == RunTimeline::Mode::Master) {
                next.master = labelOf(c.value[masterKey]);
            }
        }
        if (next.mode == current.mode && next.master == current.master) {
            continue;
        }
        close(next.from);
        current = next;
    }
    close(end);
    return spans;
}

}  // namespace

std::string timeServiceAfter(const std::string& running, const std::string& script, const std::string& args)
{
    if (script == "ptp4ladm.sh") {
        if (args == "start" || args == "restart") {
            return "ptp";
        }
        if (args == "stop" && running == "ptp") {
            return "-";
        }
    } else if (script == "start_ntpd.sh") {
        return "ntp";
    } else if (script == "stop_ntpd.sh" && running == "ntp") {
        return "-";
    }
    return running;
}

RunTimeline RunTimeline::build(const Json::Value& summary, const std::map<std::string, ModuleHistory>& history)
{
    RunTimeline t;
    t.duration = std::max(summary["duration"].asDouble(), 0.0);
    t.interrupted = summary["interrupted"].asBool();
    for (const auto& e : summary["timeline"]) {
        t.events.push_back({e["time"].asDouble(), e["event"].asString()});
    }
    for (const auto& m : summary["modules"]) {
        const std::string name = m["name"].asString();
        t.modules.push_back({name, m["uuid"].asString(), m["label"].asString()});
        const auto h = history.find(name);
        if (h != history.end()) {
            if (h->second.rear) {
                t.lanes.push_back({name, "rear", spansOf(h->second.app, "mode_back", "master_uuid_back", t.duration)});
            }
            if (h->second.front) {
                t.lanes.push_back(
                    {name, "front", spansOf(h->second.app, "mode_front", "master_uuid_front", t.duration)});
            }
        }
        // Each raise opens a band that the next clearing of its code closes;
        // a raise while the band is open (the states read again after a
        // broker restart) changes nothing.
        std::map<std::string, std::size_t> open;
        for (const auto& e : m["errorsSeen"]) {
            const std::string code = e["code"].asString();
            const double time = std::min(std::max(e["time"].asDouble(), 0.0), t.duration);
            if (e["event"].asString() == "raised") {
                if (open.count(code) == 0) {
                    open[code] = t.errors.size();
                    t.errors.push_back({name, code, e["txt"].asString(), time, t.duration, true});
                }
            } else if (open.count(code) != 0) {
                ErrorBand& band = t.errors[open[code]];
                band.to = std::max(time, band.from);
                band.stillActive = false;
                open.erase(code);
            }
        }
        std::string running = "-";
        for (const auto& c : m["scriptCalls"]) {
            const ScriptCall call{name, c["time"].asDouble(), c["script"].asString(), c["args"].asString()};
            t.scriptCalls.push_back(call);
            const std::string after = timeServiceAfter(running, call.script, call.args);
            if (after != running) {
                t.services.push_back({name, call.time, after});
                running = after;
            }
        }
    }
    for (const auto& e : summary["elections"]) {
        Election election;
        election.trigger = e["trigger"].asString();
        election.opened = e["started"].asDouble();
        election.master = e["master"].isString() ? e["master"].asString() : std::string();
        election.results = e["results"].size();
        for (const auto& name : e["results"].getMemberNames()) {
            election.settled = std::max(election.settled, e["results"][name]["time"].asDouble());
        }
        t.elections.push_back(election);
    }
    return t;
}

std::string RunTimeline::nameOf(const std::string& label) const
{
    for (const auto& m : modules) {
        if (m.label == label) {
            return m.name;
        }
    }
    return label;
}

}  // namespace tsdsim
