#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "tsdsim/ModuleSetup.h"
#include "tsdsim/ModuleTimeServices.h"

namespace tsdsim {

// A chain as a chain file describes it: buses, modules with their cabling,
// and a timeline of events. The format, every statement, key and event with
// its checks, is documented in one place, docs/chain-files.md; parseChain()
// and checkEvent() follow it, so a change here is a change there.
struct Chain
{
    struct ModuleEntry
    {
        ModuleSetup setup;
        std::string rearBus;   // empty: no rear port (the daemon then exits 255)
        std::string frontBus;  // empty: no front port
        std::vector<std::string> tsdArgs{"-d"};
        int line = 0;
    };
    struct Event
    {
        double time = 0;                 // seconds after the start
        std::vector<std::string> words;  // e.g. {"unplug", "m1"}
        int line = 0;
        std::string text() const;  // the words joined by blanks
    };

    double duration = 15;
    // What answers the modules' time-service scripts ("services real").
    Services services = Services::Recording;
    std::vector<std::string> buses;
    std::vector<ModuleEntry> modules;
    std::vector<Event> events;  // sorted by time, stable for equal times
};

// A chain file error with its line number (0: the file as a whole).
class ChainError : public std::runtime_error
{
public:
    ChainError(int line, const std::string& message);
    int line() const { return m_line; }

private:
    int m_line;
};

// Parses chain file text. Throws ChainError on the first problem: unknown
// statement or key, bad number, reference to an undeclared bus or module,
// duplicate name, UUID beyond 24 bits, event after the duration.
Chain parseChain(const std::string& text);

// Reads and parses a file; ChainError also for an unreadable file.
Chain loadChain(const std::string& path);

// The built-in chain: n modules m1..mn on one bus "chain", UUIDs 0x000101 up,
// all RZ offering PTP with threshold 1.0, no events.
Chain defaultChain(int n, double duration);

// Checks one event's words (known action, known module/bus/port, numbers);
// returns an empty string when fine, else the reason.
std::string checkEvent(const Chain& chain, const Chain::Event& event);

// Checks a port word, MODULE.rear or MODULE.front, of an event named
// action: the module must be declared and have that port. Empty when fine.
std::string checkPort(const Chain& chain, const std::string& action, const std::string& port);

// Whether a (checked) event makes the daemons elect again.
bool opensElection(const Chain::Event& event);

// Applies the KEY=VALUE words of a module line or a "param" event that
// belong to "sync/param" (timesource, threshold, ptp4l, ntpserver) to param.
// False for another key; throws ChainError (with line) for a bad value.
bool applyParamKey(SyncParam& param, const std::string& key, const std::string& value, int line = 0);

}  // namespace tsdsim
