#include "ElectionTracker.h"

#include <algorithm>

#include "protocol/Telegram.h"

namespace tsdmon {

namespace telegram = orv::tsd::telegram;

namespace {

MonitorEvent baseEvent(EventType type, const Observation& observation)
{
    MonitorEvent event;
    event.type = type;
    event.wallMs = observation.wallMs;
    event.side = observation.side;
    event.interfaceName = observation.interfaceName;
    event.sender = observation.sender;
    return event;
}

std::optional<unsigned> uuidOf(const ElectionTracker::SideView& view, const std::string& address)
{
    const auto found = view.uuidByAddress.find(address);
    if (found == view.uuidByAddress.end())
        return std::nullopt;
    return found->second;
}

}  // namespace

ElectionTracker::SideView& ElectionTracker::sideState(interface_t side)
{
    return m_sides[side == orv::tsd::FRONT_FW ? 1 : 0];
}

const ElectionTracker::SideView& ElectionTracker::side(interface_t side) const
{
    return m_sides[side == orv::tsd::FRONT_FW ? 1 : 0];
}

std::vector<MonitorEvent> ElectionTracker::observe(const Observation& observation)
{
    std::vector<MonitorEvent> events;
    const telegram::Decoded decoded = telegram::decode(observation.bytes.data(), observation.bytes.size());

    std::optional<Malformation> malformation;
    if (observation.bytes.empty())
        malformation = Malformation::Empty;
    else if (decoded.kind == telegram::Kind::BadFormat)
        malformation = Malformation::BadFrame;
    else if (decoded.kind == telegram::Kind::Unknown)
        malformation = Malformation::Unknown;
    else if (decoded.sentOver != observation.side)
        malformation = Malformation::WrongSide;

    if (malformation) {
        ++sideState(observation.side).malformed;
        MonitorEvent event = baseEvent(EventType::Malformed, observation);
        event.malformation = *malformation;
        event.bytes = observation.bytes;
        events.push_back(std::move(event));
        return events;
    }

    if (decoded.kind == telegram::Kind::Item) {
        const ModuleItem item(telegram::parseHex(decoded.uuid), telegram::parseHex(decoded.module),
                              telegram::parseHex(decoded.prio), telegram::parseHex(decoded.threshold));
        events.push_back(onItem(observation, item));
    } else {
        events.push_back(onRequest(observation, decoded.kind == telegram::Kind::Start));
    }
    return events;
}

void ElectionTracker::openRound(SideView& view, const Observation& observation, const std::string& trigger)
{
    view.roundOpen = true;
    ++view.round;
    view.trigger = trigger;
    view.roundOpenedMs = observation.wallMs;
    view.requests.clear();
    view.answers.clear();
    view.deadlineMonotonic = observation.monotonicMs + kRoundWindowMs;
    view.deadlineMs = observation.wallMs + kRoundWindowMs;
}

MonitorEvent ElectionTracker::onRequest(const Observation& observation, bool start)
{
    SideView& view = sideState(observation.side);
    MonitorEvent event = baseEvent(EventType::Request, observation);
    event.command = start ? "start" : "resync";
    event.uuid = uuidOf(view, observation.sender);

    if (!view.roundOpen) {
        openRound(view, observation, event.command);
        event.opensRound = true;
    }
    // The daemons reset the side's list on a start, so answers heard before it
    // no longer count; a resync only asks again.
    if (start)
        view.answers.clear();
    // Every request re-arms the daemons' supervision: the window runs anew.
    view.deadlineMonotonic = observation.monotonicMs + kRoundWindowMs;
    view.deadlineMs = observation.wallMs + kRoundWindowMs;
    view.requests.push_back({event.command, observation.sender, observation.interfaceName, event.uuid,
                             observation.wallMs});
    event.round = view.round;

    const std::string canonical =
        start ? telegram::encodeStart(observation.side) : telegram::encodeResync(observation.side);
    if (observation.bytes != canonical)
        event.notes.push_back("not in the form the daemons send (" + canonical + "); they accept it all the same");
    return event;
}

MonitorEvent ElectionTracker::onItem(const Observation& observation, const ModuleItem& item)
{
    SideView& view = sideState(observation.side);
    MonitorEvent event = baseEvent(EventType::Item, observation);
    event.item = item;
    event.uuid = item.uuid;

    // Start and resync carry no uuid: the address an item came from names
    // the module behind later requests from there.
    if (!observation.sender.empty())
        view.uuidByAddress[observation.sender] = item.uuid;
    if (!view.roundOpen)
        openRound(view, observation, "item");
    view.answers[item.uuid] = Answer{item, observation.sender, observation.interfaceName, observation.wallMs};

    ModuleView& module = view.modules[item.uuid];
    module.item = item;
    module.sender = observation.sender;
    module.interfaceName = observation.interfaceName;
    module.lastItemMs = observation.wallMs;
    module.stoppedAnswering = false;
    event.round = view.round;

    const std::string canonical = telegram::encodeItem(item, observation.side);
    if (observation.bytes != canonical)
        event.notes.push_back("fields not in the form the daemons send; they read it as " + canonical);
    if (item.isEmpty())
        event.notes.push_back(
            "module or time-source priority 0: the daemons keep the side's list incomplete and elect no master");
    return event;
}

MonitorEvent ElectionTracker::closeRound(interface_t sideId, std::int64_t closedMs, bool interrupted)
{
    SideView& view = sideState(sideId);
    ElectionResult result;
    result.round = view.round;
    result.openedMs = view.roundOpenedMs;
    result.closedMs = closedMs;
    result.trigger = view.trigger;
    result.interrupted = interrupted;
    result.requests = view.requests;
    // An item heard after a request may name its sender only now.
    for (Request& request : result.requests) {
        if (!request.uuid)
            request.uuid = uuidOf(view, request.sender);
    }

    std::set<unsigned> current;
    for (const auto& entry : view.answers) {
        result.answered.push_back(entry.second);
        current.insert(entry.first);
    }
    std::stable_sort(result.answered.begin(), result.answered.end(),
                     [](const Answer& a, const Answer& b) { return b.item < a.item; });
    for (const Answer& answer : result.answered) {
        if (answer.item.isEmpty())
            result.empty.push_back(answer.item.uuid);
    }
    if (!result.answered.empty() && result.empty.empty())
        result.winner = result.answered.front();

    // A round cut short says nothing about who would still have answered.
    if (!interrupted) {
        if (view.hadRound) {
            std::set_difference(view.lastAnswered.begin(), view.lastAnswered.end(), current.begin(),
                                current.end(), std::back_inserter(result.stopped));
            std::set_difference(current.begin(), current.end(), view.lastAnswered.begin(),
                                view.lastAnswered.end(), std::back_inserter(result.joined));
        }
        for (unsigned uuid : result.stopped)
            view.modules[uuid].stoppedAnswering = true;
        view.lastAnswered = current;
        view.hadRound = true;
    }
    view.roundOpen = false;
    view.lastElection = result;

    MonitorEvent event;
    event.type = EventType::Election;
    event.wallMs = closedMs;
    event.side = sideId;
    event.round = result.round;
    event.election = std::move(result);
    return event;
}

std::vector<MonitorEvent> ElectionTracker::expire(std::int64_t monotonicMs)
{
    std::vector<MonitorEvent> events;
    for (interface_t sideId : {orv::tsd::REAR_FW, orv::tsd::FRONT_FW}) {
        const SideView& view = side(sideId);
        if (view.roundOpen && view.deadlineMonotonic <= monotonicMs)
            events.push_back(closeRound(sideId, view.deadlineMs, false));
    }
    return events;
}

std::vector<MonitorEvent> ElectionTracker::finish(std::int64_t wallMs)
{
    std::vector<MonitorEvent> events;
    for (interface_t sideId : {orv::tsd::REAR_FW, orv::tsd::FRONT_FW}) {
        if (side(sideId).roundOpen)
            events.push_back(closeRound(sideId, wallMs, true));
    }
    return events;
}

std::optional<std::int64_t> ElectionTracker::nextDeadline() const
{
    std::optional<std::int64_t> next;
    for (const SideView& view : m_sides) {
        if (view.roundOpen && (!next || view.deadlineMonotonic < *next))
            next = view.deadlineMonotonic;
    }
    return next;
}

}  // namespace tsdmon
