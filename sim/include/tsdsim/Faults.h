#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tsdsim/Chain.h"
#include "tsdsim/ModuleSetup.h"

namespace tsdsim {

class McastSocket;
class Module;
class World;

// The faults a module meets in the field, played into a running world as
// timeline events: a slow or hanging time-service script, a flapping cable,
// a cable moved to another bus, a full /var/run/timesync, a flood of "start"
// or malformed telegrams from a sender that is not a daemon, and crowds of
// bus clients that connect and leave. The events and their words are listed
// in docs/chain-files.md; checkFaultEvent() checks them for the chain parser.
//
// Faults that last (flap, flood, clients) run from tick(), which the world's
// controlling thread calls every few milliseconds (Scenario::run does), and
// end on their own when their time is up; the client crowd runs on a thread
// of its own, since its connections block. Threads: one controlling thread
// calls everything; stats() may be read from any thread.
class Faults
{
public:
    struct Stats
    {
        std::uint64_t flaps = 0;            // cable state changes made by "flap"
        std::uint64_t telegramsSent = 0;    // by "flood"
        std::uint64_t clientsAnswered = 0;  // connections whose hello the broker answered
        std::uint64_t clientsRefused = 0;   // connections refused or not answered in time
    };

    explicit Faults(World& world);
    // Ends every running fault (a flapping cable is left plugged) and joins
    // the client thread.
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    // Whether action is one of the fault events.
    static bool handles(const std::string& action);
    // Applies one (checked) fault event now; an error text, empty when done.
    std::string apply(const std::vector<std::string>& words);
    // Advances the faults that last; call often (every 20 ms or less).
    void tick();
    // Whether a fault that lasts is still running.
    bool active() const;
    // World time (seconds) at which the last lasting fault ended, -1 before.
    double lastEnd() const { return m_lastEnd; }
    // Ends every lasting fault now, leaving cables plugged.
    void endAll();
    Stats stats() const;

private:
    struct Flap;
    struct Flood;
    struct Crowd;

    void endFlap(Flap& flap);
    std::string fillRun(Module& module);
    std::string freeRun(Module& module);

    World& m_world;
    std::vector<std::unique_ptr<Flap>> m_flaps;
    std::vector<std::unique_ptr<Flood>> m_floods;
    std::vector<std::unique_ptr<Crowd>> m_crowds;
    double m_lastEnd = -1;
    std::uint64_t m_flapCount = 0;
    std::uint64_t m_telegrams = 0;
    std::atomic<std::uint64_t> m_answered{0};
    std::atomic<std::uint64_t> m_refused{0};
};

// Checks the words of a fault event against the chain; empty when fine.
std::string checkFaultEvent(const Chain& chain, const Chain::Event& event);

}  // namespace tsdsim
