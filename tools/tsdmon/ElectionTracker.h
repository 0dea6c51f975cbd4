#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "MonitorEvent.h"

namespace tsdmon {

// Follows the elections of both sides from the telegrams alone, with the
// daemons' own decoder and election order. It never sees the daemons' lists
// of expected modules, so it cannot complete a round the way they do (when
// every expected module has answered). Instead a round's answers are the items
// heard within its window:
//   - a round opens with the first start or resync heard on a side while none
//     is open (or with an item, when its request was not heard);
//   - every further start or resync extends it: the round ends 3000 ms after
//     the latest one, the moment at which the daemons' own supervision would
//     ask again;
//   - a start discards the items heard so far in the round, as the daemons
//     reset the side's list on a start; a resync keeps them;
//   - when the window ends, the winner is the greatest answer under the
//     election order, and modules that answered the side's previous round but
//     not this one have stopped answering.
// Start and resync telegrams carry no uuid: the sender is named by its address,
// and by the uuid of the items that came from that address.
//
// Pure: time comes with each observation and with expire(); nothing is read
// or written. Owned and called by one thread.
class ElectionTracker
{
public:
    static constexpr std::int64_t kRoundWindowMs = 3000;

    struct ModuleView
    {
        ModuleItem item;  // as last announced
        std::string sender;
        std::string interfaceName;
        std::int64_t lastItemMs = 0;
        bool stoppedAnswering = false;  // missing from the last closed round after answering the one before
    };

    struct SideView
    {
        std::map<unsigned, ModuleView> modules;
        std::map<std::string, unsigned> uuidByAddress;
        bool roundOpen = false;
        unsigned round = 0;  // the open round, or the last one
        std::string trigger;
        std::int64_t roundOpenedMs = 0;    // wall clock
        std::int64_t deadlineMs = 0;       // wall clock: when the open round's window ends
        std::int64_t deadlineMonotonic = 0;
        std::vector<Request> requests;
        std::map<unsigned, Answer> answers;  // since the round's latest start
        std::set<unsigned> lastAnswered;     // of the last closed round
        bool hadRound = false;               // a round closed on this side before
        std::optional<ElectionResult> lastElection;
        unsigned malformed = 0;
    };

    // Decodes one datagram and reports what it was.
    std::vector<MonitorEvent> observe(const Observation& observation);
    // Closes the rounds whose window has ended by monotonicMs.
    std::vector<MonitorEvent> expire(std::int64_t monotonicMs);
    // Closes every open round as interrupted (tsdmon is ending).
    std::vector<MonitorEvent> finish(std::int64_t wallMs);
    // The monotonic time at which the next open round ends.
    std::optional<std::int64_t> nextDeadline() const;

    const SideView& side(interface_t side) const;

private:
    SideView m_sides[2];

    SideView& sideState(interface_t side);
    MonitorEvent onRequest(const Observation& observation, bool start);
    MonitorEvent onItem(const Observation& observation, const ModuleItem& item);
    void openRound(SideView& view, const Observation& observation, const std::string& trigger);
    MonitorEvent closeRound(interface_t side, std::int64_t closedMs, bool interrupted);
};

}  // namespace tsdmon
