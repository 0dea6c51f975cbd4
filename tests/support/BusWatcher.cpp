#include "testsupport/BusWatcher.h"

namespace testsupport {

BusWatcher::BusWatcher(orv::sys::EventLoop& loop, unsigned port, const std::string& prefix,
                       const std::string& name)
    : m_peer(loop, "127.0.0.1", port, name)
{
    vela::matcher_t matcher;
    matcher.startsWith = prefix;
    m_peer.addFetchAsync(
        matcher,
        [this](const Json::Value& notification, int) {
            Event e{notification["event"].asString(), notification["path"].asString(), notification["value"]};
            if (e.event == "remove") {
                m_states.erase(e.path);
            } else {
                m_states[e.path] = e.value;
            }
            m_events.push_back(e);
        },
        [this](const Json::Value&) { m_ready = true; });
}

Json::Value BusWatcher::state(const std::string& path) const
{
    const auto it = m_states.find(path);
    return it == m_states.end() ? Json::Value() : it->second;
}

std::vector<BusWatcher::Event> BusWatcher::eventsFor(const std::string& path) const
{
    std::vector<Event> out;
    for (const Event& e : m_events) {
        if (e.path == path) {
            out.push_back(e);
        }
    }
    return out;
}

int BusWatcher::notifications(const std::string& path) const
{
    int count = 0;
    for (const Event& e : m_events) {
        if (e.path == path) {
            ++count;
        }
    }
    return count;
}

}  // namespace testsupport
