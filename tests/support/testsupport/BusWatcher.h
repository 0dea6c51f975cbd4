#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include <vela/PeerAsync.h>

namespace testsupport {

// A second participant of a test's bus: it follows every state under a prefix
// ("" for all) and keeps the latest value of each and every notification in
// order. Runs on the test's loop; peer() lets a test publish as the platform
// would.
class BusWatcher
{
public:
    struct Event
    {
        std::string event;  // "add", "change" or "remove"
        std::string path;
        Json::Value value;
    };

    BusWatcher(orv::sys::EventLoop& loop, unsigned port, const std::string& prefix,
               const std::string& name = "watcher");
    BusWatcher(const BusWatcher&) = delete;
    BusWatcher& operator=(const BusWatcher&) = delete;

    vela::PeerAsync& peer() { return m_peer; }
    // True once the broker answered the fetch request.
    bool ready() const { return m_ready; }
    const std::map<std::string, Json::Value>& states() const { return m_states; }
    bool has(const std::string& path) const { return m_states.count(path) != 0; }
    // The state's latest value, null when there is none.
    Json::Value state(const std::string& path) const;
    const std::vector<Event>& events() const { return m_events; }
    std::vector<Event> eventsFor(const std::string& path) const;
    // Notifications seen for path ("add", "change" and "remove" alike).
    int notifications(const std::string& path) const;

private:
    vela::PeerAsync m_peer;
    bool m_ready = false;
    std::map<std::string, Json::Value> m_states;
    std::vector<Event> m_events;
};

}  // namespace testsupport
