#include "LiveView.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "EventWriter.h"
#include "sync/TimeServicePlan.h"

namespace tsdmon {

using orv::tsd::labelUuid;

namespace {

// "23:00:01.534" of a local time stamp.
std::string clock(std::int64_t wallMs)
{
    const std::string full = localTime(wallMs);
    return full.substr(full.find(' ') + 1);
}

std::string seconds(std::int64_t ms)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(std::max<std::int64_t>(ms, 0)) / 1000.0);
    return text;
}

std::string requester(const Request& request)
{
    std::string text = request.command + " from " + escapeBytes(request.sender);
    if (request.uuid)
        text += " (" + labelUuid(*request.uuid) + ")";
    return text;
}

std::string moduleState(const ElectionTracker::SideView& view, unsigned uuid,
                        const ElectionTracker::ModuleView& module)
{
    std::vector<std::string> parts;
    if (view.lastElection && view.lastElection->winner && view.lastElection->winner->item.uuid == uuid)
        parts.emplace_back("master");
    if (view.roundOpen)
        parts.emplace_back(view.answers.count(uuid) != 0 ? "answered" : "not yet answered");
    if (module.stoppedAnswering)
        parts.emplace_back("stopped answering");
    if (module.item.isEmpty())
        parts.emplace_back("empty item");
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : ", ") + part;
    return text;
}

}  // namespace

void LiveView::setTarget(const std::string& group, unsigned port, const std::string& rearInterface,
                         const std::string& frontInterface, bool watchRear, bool watchFront)
{
    m_group = group;
    m_port = port;
    m_sides[0].interfaceName = rearInterface;
    m_sides[0].watched = watchRear;
    m_sides[1].interfaceName = frontInterface;
    m_sides[1].watched = watchFront;
}

void LiveView::record(const MonitorEvent& event)
{
    SideHeader& header = m_sides[event.side == orv::tsd::FRONT_FW ? 1 : 0];
    switch (event.type) {
        case EventType::Listening:
            header.state = "listening" +
                           (event.sender.empty() ? std::string() : " (" + escapeBytes(event.sender) + ")");
            break;
        case EventType::Waiting:
            header.state = "waiting for the interface";
            break;
        case EventType::InterfaceLost:
            header.state = "interface gone, waiting for it";
            break;
        default:
            break;
    }
    m_recent.push_back(toText(event));
    if (m_recent.size() > kRecentEvents)
        m_recent.pop_front();
}

std::string LiveView::render(const ElectionTracker& tracker, std::int64_t nowWallMs, unsigned width,
                             unsigned height) const
{
    std::vector<std::string> lines;
    lines.push_back("tsdmon " TSD_VERSION "   group " + escapeBytes(m_group) + "   ports " + std::to_string(m_port) +
                    " (rear) " + std::to_string(m_port + 1) + " (front)   " + localTime(nowWallMs).substr(0, 19));

    for (interface_t side : {orv::tsd::REAR_FW, orv::tsd::FRONT_FW}) {
        const SideHeader& header = m_sides[side == orv::tsd::FRONT_FW ? 1 : 0];
        const ElectionTracker::SideView& view = tracker.side(side);
        lines.emplace_back();
        const std::string title = side == orv::tsd::FRONT_FW ? "FRONT " : "REAR  ";
        if (!header.watched) {
            lines.push_back(title + "not watched");
            continue;
        }
        lines.push_back(title + escapeBytes(header.interfaceName) + ": " + header.state +
                        (view.malformed != 0 ? ", " + std::to_string(view.malformed) + " malformed" : ""));
        if (view.roundOpen) {
            std::string line = "      round " + std::to_string(view.round) + " open, window ends in " +
                               seconds(view.deadlineMs - nowWallMs) + ", " + std::to_string(view.answers.size()) +
                               " answered";
            if (!view.requests.empty())
                line += "; " + requester(view.requests.back());
            lines.push_back(line);
        }
        if (view.lastElection) {
            const ElectionResult& last = *view.lastElection;
            std::string line = "      last election round " + std::to_string(last.round) + " at " +
                               clock(last.closedMs) + ": ";
            if (last.winner)
                line += "master " + labelUuid(last.winner->item.uuid);
            else if (last.answered.empty())
                line += "no master, nobody answered";
            else
                line += "no master, empty item";
            line += ", " + std::to_string(last.answered.size()) + " answered";
            if (!last.stopped.empty())
                line += ", " + std::to_string(last.stopped.size()) + " stopped answering";
            lines.push_back(line);
        }
        if (view.modules.empty()) {
            lines.push_back("      no items heard yet");
            continue;
        }
        char row[256];
        std::snprintf(row, sizeof row, "  %-12s  %-15s %6s %4s %7s  %-12s  %s", "UUID", "ADDRESS", "MODULE", "TS",
                      "THRESH", "LAST ITEM", "STATE");
        lines.push_back(row);
        // Highest first under the election order, as the daemons rank them.
        std::vector<std::pair<unsigned, const ElectionTracker::ModuleView*>> modules;
        for (const auto& entry : view.modules)
            modules.emplace_back(entry.first, &entry.second);
        std::stable_sort(modules.begin(), modules.end(),
                         [](const auto& a, const auto& b) { return b.second->item < a.second->item; });
        for (const auto& entry : modules) {
            const ElectionTracker::ModuleView& module = *entry.second;
            std::snprintf(row, sizeof row, "  %-12s  %-15s %6u %4u %7s  %-12s  %s", labelUuid(entry.first).c_str(),
                          escapeBytes(module.sender).c_str(), module.item.module, module.item.prio,
                          tenths(module.item.threshold).c_str(), clock(module.lastItemMs).c_str(),
                          moduleState(view, entry.first, module).c_str());
            lines.push_back(row);
        }
    }

    lines.emplace_back();
    lines.emplace_back("RECENT");
    // The recent events get the rows that are left; the newest stay.
    std::size_t room = m_recent.size();
    if (height != 0)
        room = height > lines.size() ? std::min<std::size_t>(room, height - lines.size()) : 0;
    for (std::size_t i = m_recent.size() - room; i < m_recent.size(); ++i)
        lines.push_back("  " + m_recent[i]);
    if (height != 0 && lines.size() > height)
        lines.resize(height);

    std::string screen;
    for (std::string& line : lines) {
        if (width != 0 && line.size() > width)
            line.resize(width);
        screen += line;
        screen += '\n';
    }
    return screen;
}

}  // namespace tsdmon
