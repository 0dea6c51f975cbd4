#pragma once

#include <json/value.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

// What tsdctl shows: the daemon's states as read from the bus, put into
// words, and the time service its scripts run. Everything here is pure (no
// bus, no files, no clock besides the "now" it is given), so the rendering
// and the verdict are the same for status and watch.
namespace tsdctl {

// One side as published in "sync/app".
struct SideState
{
    int mode = 0;             // 0 unknown, 1 alone, 2 slave, 3 master; other values are shown as numbers
    bool valid = false;       // the side's members were there with the right types
    unsigned masterUuid = 0;  // low bits of the master's UUID (as on the label after 0A7C31)
    double threshold = 0;     // the master's threshold, as published (one decimal)
};

// One "sync/errors/<code>" state.
struct ActiveError
{
    std::string code;  // as in the path, e.g. "-1"
    std::string text;
    std::string info;
};

// A time service found running from the scripts' pid files.
struct TimeService
{
    std::string name;  // "ptp4l", "chronyd", "ntpd"
    std::string role;  // ptp4l: "server" or "follower"; empty when not known
    long pid = 0;
    std::time_t since = 0;  // when the pid file was written: the start
};

struct ModuleState
{
    bool busReachable = false;
    bool daemonPresent = false;  // "sync/app" is on the bus
    SideState rear;
    SideState front;
    bool chainMasterKnown = false;
    std::string chainMaster;           // "sync/master", the chain master's label
    std::vector<ActiveError> errors;   // in ascending code order
    std::vector<TimeService> services; // running ones only
};

// Builds the state from the daemon's bus states (path -> value, as fetched
// under "sync/"). Values of the wrong shape leave the affected part unknown
// instead of failing: whoever wrote them, the operator still gets the rest.
ModuleState fromBusStates(const std::map<std::string, Json::Value>& states);

// The monitoring-plugin verdict: 0 ok, 1 warning (an active error, a side
// without an election result), 2 critical (no daemon states on the bus),
// 3 unknown (no bus). reason says why in a few words.
int verdict(const ModuleState& state, std::string& reason);

// "alone", "slave", "master", "unknown", or the number for anything else.
std::string modeName(int mode);
// A UUID as on a module's label: "0A7C31" and six upper-case hex digits.
std::string labelOf(unsigned uuid);
// Text from the bus or a file made safe for a terminal: control bytes,
// C1 controls and bytes that are not UTF-8 become \xNN, and more than
// kMaxShownBytes of input are cut with "...".
constexpr std::size_t kMaxShownBytes = 256;
std::string printable(const std::string& text);
// Seconds since the epoch as "2026-11-22T23:10:01Z".
std::string isoTime(std::time_t t);

// status: aligned "Name : value" lines, as chronyc tracking prints them.
std::string renderText(const ModuleState& state, const std::string& bus, std::time_t now);
// status --json: the same as one object.
Json::Value renderJson(const ModuleState& state, const std::string& address, unsigned port);

// watch: one line per difference between two states, in words or as JSON
// objects (compact, one per line). time is the moment's text, put in front.
// first: the opening picture, which also says what is absent (no daemon
// states, no time service).
std::vector<std::string> describeChanges(const ModuleState& before, const ModuleState& after, const std::string& time,
                                         bool json, bool first = false);

}  // namespace tsdctl
