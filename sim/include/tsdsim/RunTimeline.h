#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

namespace tsdsim {

// What one simulated run looked like over time: per module and side the mode
// its daemon showed (from its "sync/app") and the master it followed, the
// errors it had active, its time-service script calls and the service they
// left running, the elections with their settle times, and the chain file's
// timeline events. A plain value, built once the run is over from the end
// summary (Scenario::summary()) and each module's "sync/app" changes; the
// report draws it (ReportWriter).
//
// Times are seconds since the modules were started.
struct RunTimeline
{
    // A side's mode as "sync/app" shows it; None while the daemon publishes no
    // "sync/app" (not started yet, stopped, its broker gone).
    enum class Mode
    {
        None,
        Unknown,
        Alone,
        Slave,
        Master
    };

    struct Span
    {
        double from = 0;
        double to = 0;
        Mode mode = Mode::None;
        std::string master;  // label of the side's master ("0A7C31..."), empty without one
    };
    struct Lane
    {
        std::string module;
        std::string side;  // "rear" or "front"
        std::vector<Span> spans;
    };
    struct ErrorBand
    {
        std::string module;
        std::string code;  // as in the state's path, e.g. "-1"
        std::string text;
        double from = 0;
        double to = 0;
        bool stillActive = false;  // not cleared before the end
    };
    struct ScriptCall
    {
        std::string module;
        double time = 0;
        std::string script;
        std::string args;
    };
    // The time service the module's scripts left running from time on.
    struct ServiceChange
    {
        std::string module;
        double time = 0;
        std::string service;  // "ptp", "ntp" or "-"
    };
    struct Election
    {
        std::string trigger;
        double opened = 0;
        double settled = -1;  // the last result's time; -1 when no module changed
        std::string master;   // label when every result names it, else empty
        std::size_t results = 0;
    };
    struct Event
    {
        double time = 0;
        std::string text;
    };
    struct ModuleInfo
    {
        std::string name;
        std::string uuid;   // six hex digits
        std::string label;  // "0A7C31" + uuid
    };

    // One module's "sync/app" as it changed, and which ports it has: what
    // the summary does not hold.
    struct AppChange
    {
        double time = 0;
        bool removed = false;
        Json::Value value;
    };
    struct ModuleHistory
    {
        bool rear = false;
        bool front = false;
        std::vector<AppChange> app;
    };

    double duration = 0;
    bool interrupted = false;
    std::vector<ModuleInfo> modules;
    std::vector<Lane> lanes;  // module by module, rear before front
    std::vector<ErrorBand> errors;
    std::vector<ScriptCall> scriptCalls;
    std::vector<ServiceChange> services;
    std::vector<Election> elections;
    std::vector<Event> events;

    // summary: Scenario::summary(); history by module name.
    static RunTimeline build(const Json::Value& summary, const std::map<std::string, ModuleHistory>& history);

    // The module's name for a label, or the label itself for a module outside
    // the run.
    std::string nameOf(const std::string& label) const;
};

// The time service ("ptp", "ntp" or "-") running after a script call, given
// the one running before it: a PTP start or restart runs PTP, an NTP start
// runs NTP, and each service's stop ends only that service.
std::string timeServiceAfter(const std::string& running, const std::string& script, const std::string& args);

}  // namespace tsdsim
