#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "tsdsim/ModuleSetup.h"

namespace tsdsim {

// A chain as a chain file describes it: buses, modules with their cabling,
// and a timeline of events. The file format is documented in docs/tsdsim.md;
// in short, one statement per line, '#' starts a comment:
//
//   duration 20
//   levels module KP=20 RZ=10
//   levels source Ptp=2 Ntp=1
//   bus chain
//   module m1 uuid=000101 type=RZ timesource=Ptp threshold=1.0 rear=chain
//   at 8 unplug m1
//
// Values with blanks are quoted: ptp4l="-4 -E -H -i firewire0".
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

}  // namespace tsdsim
