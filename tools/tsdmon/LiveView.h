#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "ElectionTracker.h"
#include "MonitorEvent.h"

namespace tsdmon {

// The screen of the live view: per side the interface, the open round and its
// countdown, the last election and a table of the modules heard (label uuid,
// address, module priority, time-source priority, threshold, when its last
// item came, what it did in the rounds), then the most recent events. It only
// builds text; the caller puts it on the terminal. Every line is cut to the
// terminal's width, so that refreshing in place never wraps.
class LiveView
{
public:
    static constexpr std::size_t kRecentEvents = 200;

    void setTarget(const std::string& group, unsigned port, const std::string& rearInterface,
                   const std::string& frontInterface, bool watchRear, bool watchFront);
    // Keeps the listening state of the sides and the recent events.
    void record(const MonitorEvent& event);
    // width, height: the terminal's size (0: no limit).
    std::string render(const ElectionTracker& tracker, std::int64_t nowWallMs, unsigned width,
                       unsigned height) const;

private:
    struct SideHeader
    {
        std::string interfaceName;
        bool watched = true;
        std::string state = "starting";
    };

    std::string m_group;
    unsigned m_port = 0;
    SideHeader m_sides[2];
    std::deque<std::string> m_recent;  // newest last
};

}  // namespace tsdmon
