#pragma once

#include <json/value.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tsdsim/Chain.h"
#include "tsdsim/Faults.h"
#include "tsdsim/RunTimeline.h"
#include "tsdsim/World.h"

namespace tsdsim {

// Runs a Chain: builds its world, starts every module, plays the timeline
// and keeps the record from which the live table and the end summary are
// made. Times are seconds since the modules were started.
//
// Elections: every event that makes the daemons elect again (the start, a
// plug, cut, unplug or replug, a parameter change, a daemon start) opens a
// new election; a module's result in it is the last "sync/app" or
// "sync/master" it published before the next one opened.
class Scenario
{
public:
    Scenario(const Chain& chain, const World::Options& options = {});
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    // Builds buses and modules with their cabling. Throws std::runtime_error.
    void build();
    // Starts the modules and plays the timeline until the chain's duration has
    // passed or World::stopRequested(); onTick runs every tick meanwhile and
    // onEvent after each timeline event. False when a module could not start
    // (startError() says which and why).
    bool run(const std::function<void()>& onTick, std::chrono::milliseconds tick,
             const std::function<void(const std::string&)>& onEvent = {});
    // Applies one timeline event now. Returns an error text, empty when done.
    std::string apply(const Chain::Event& event);
    // Stops every daemon with SIGTERM and records their exit statuses; then
    // the rest of each module.
    void finish();

    World& world() { return *m_world; }
    // The faults played into the world (built with it).
    Faults& faults() { return *m_faults; }
    const Chain& chain() const { return m_chain; }
    // Seconds since the modules were started (0 before).
    double now() const;
    bool interrupted() const { return m_interrupted; }
    const std::string& startError() const { return m_startError; }

    // The live table, one line per module, with a header line.
    std::string table() const;
    Json::Value summary() const;
    // The summary in plain words for a newcomer.
    std::string summaryText() const;
    // The run over time, for the report; after finish().
    RunTimeline timeline() const;

private:
    struct Happening
    {
        double time;
        std::string what;
        bool election;
        std::string refused;  // a parameter change tsdparamd refused: why
    };
    struct Election
    {
        double opened;
        std::string trigger;
    };

    void note(const std::string& what, bool election, const std::string& refused = {});
    // Real services: asks every ptp4l what it follows, and keeps it.
    void pollFollowed();
    // The name of the module whose time m follows, empty for none.
    std::string followedName(const Module& m) const;
    // The first look between from and to at which every module of an
    // election's results followed the module it elected; null when none.
    Json::Value followedAt(const Json::Value& results, double from, double to) const;
    std::string service(const Module& m) const;
    std::vector<Election> elections() const;

    // What each module showed on its bus just before the daemons were
    // stopped (their states vanish with them).
    struct Final
    {
        Json::Value app;
        Json::Value master;
        std::map<std::string, Json::Value> errors;
    };

    Chain m_chain;
    std::map<std::string, Final> m_final;
    World::Options m_options;
    std::unique_ptr<World> m_world;
    std::unique_ptr<Faults> m_faults;  // goes before the world it acts on
    double m_startOffset = -1;  // world time at which the modules were started
    std::vector<Happening> m_happenings;
    // Real services: what every module followed at each look, by name.
    struct Following
    {
        double time;
        std::map<std::string, std::string> followed;
    };
    std::vector<Following> m_following;
    std::map<std::string, int> m_tsdExit;
    bool m_interrupted = false;
    std::string m_startError;
    bool m_finished = false;
};

}  // namespace tsdsim
