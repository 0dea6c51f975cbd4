#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tsdsim/SimClock.h"

namespace tsdsim {

class LineReader;
class LoopThread;

// What the daemon publishes on its module's bus, as a `vela watch sync/`
// client reports it: one JSON object per line, {"event", "path", "value"}.
// The observer keeps the states as they are now and every event in order,
// stamped with the world's time; lines that are not such an object are
// skipped.
//
// Threads: attach(), detach() and forgetStates() come from the world's
// thread; the client's output is read on the loop thread; the getters may be
// called from any thread and return copies.
class BusObserver
{
public:
    struct Event
    {
        double time = 0;    // seconds since the world began
        std::string event;  // "add", "change", "remove"
        std::string path;
        Json::Value value;
    };

    // onRecord runs on the loop thread after each batch of events, outside the
    // observer's lock (the world wakes its waiters with it).
    BusObserver(LoopThread& io, SimClock clock, std::function<void()> onRecord = {});
    ~BusObserver();
    BusObserver(const BusObserver&) = delete;
    BusObserver& operator=(const BusObserver&) = delete;

    // Reads a new watcher's stdout (fd stays the caller's) until detach() or
    // the end of its output.
    void attach(int fd);
    void detach();
    // The broker went away, and its states with it; the events stay.
    void forgetStates();

    Json::Value state(const std::string& path) const;  // null when absent
    std::map<std::string, Json::Value> states(const std::string& prefix) const;
    std::vector<Event> events() const;

private:
    // On the loop thread, for each batch of the watcher's lines.
    void record(const std::vector<std::string>& lines);
    // The part of record() under the lock.
    void store(const std::vector<std::string>& lines);

    SimClock m_clock;
    std::function<void()> m_onRecord;
    std::unique_ptr<LineReader> m_reader;
    mutable std::mutex m_mutex;  // guards the two below
    std::map<std::string, Json::Value> m_states;
    std::vector<Event> m_events;
};

}  // namespace tsdsim
