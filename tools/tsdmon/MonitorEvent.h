#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/InterfaceType.h"
#include "protocol/ModuleItem.h"

// What tsdmon reports: one value per event, written out as a line, a JSON
// object or a change of the live view. Times are wall-clock milliseconds since
// the epoch; threshold values stay in tenths as they travel in the telegrams.
namespace tsdmon {

using orv::tsd::interface_t;

// One datagram as heard on the telegram group.
struct Observation
{
    std::int64_t monotonicMs = 0;  // steady clock: round windows run on it
    std::int64_t wallMs = 0;       // what the outputs show
    interface_t side = orv::tsd::REAR_FW;  // from the port it arrived on: base port rear, base + 1 front
    std::string interfaceName;  // where it came in; empty when the interface is unknown
    std::string sender;         // dotted IPv4 source address
    std::string bytes;          // the datagram as received
};

enum class EventType
{
    Listening,      // a side joined the group on its interface
    InterfaceLost,  // the interface went away or down; the side hears nothing until it returns
    Waiting,        // the side's interface is not there (yet)
    Request,        // a start or resync telegram
    Item,           // an item telegram
    Malformed,      // a datagram the daemons drop or refuse on that side
    Election,       // a round's window ended
};

// Why a datagram counts as malformed, in the daemons' own terms.
enum class Malformation
{
    Empty,      // zero bytes; the daemons ignore it
    BadFrame,   // fewer than 3 fields or not framed by "<sync>" on both ends
    Unknown,    // framed, but no command and field count the protocol knows
    WrongSide,  // a valid telegram of the other side's form (the daemons raise error -3)
};

struct Request
{
    std::string command;  // "start" or "resync"
    std::string sender;
    std::string interfaceName;
    std::optional<unsigned> uuid;  // of the module that sent an item from the same address
    std::int64_t wallMs = 0;
};

struct Answer
{
    ModuleItem item;
    std::string sender;
    std::string interfaceName;
    std::int64_t wallMs = 0;
};

struct ElectionResult
{
    unsigned round = 0;
    std::int64_t openedMs = 0;
    std::int64_t closedMs = 0;
    std::string trigger;  // "start", "resync", or "item" when the round's request was not heard
    std::vector<Request> requests;
    // The latest item of each module since the round's latest start, in
    // descending election order (the greatest first).
    std::vector<Answer> answered;
    // The greatest answer under the election order; none when nobody answered
    // or some answer is empty (the daemons then never complete their lists).
    std::optional<Answer> winner;
    std::vector<unsigned> empty;    // uuids whose item has module or time-source priority 0
    std::vector<unsigned> stopped;  // answered the side's previous round, not this one
    std::vector<unsigned> joined;   // answered this round, not the previous one
    bool interrupted = false;       // tsdmon ended before the window did
};

struct MonitorEvent
{
    EventType type = EventType::Request;
    std::int64_t wallMs = 0;
    interface_t side = orv::tsd::REAR_FW;
    std::string interfaceName;
    std::string sender;  // Request, Item, Malformed: source address; Listening: the interface's own address

    // Listening: the group and port the side listens on.
    std::string group;
    unsigned port = 0;

    // Request
    std::string command;
    std::optional<unsigned> uuid;
    bool opensRound = false;
    // Request and Item: the round the telegram belongs to.
    unsigned round = 0;

    // Item
    ModuleItem item;
    // Request and Item: what about the telegram a daemon would not have sent
    // that way, and what it means for the election.
    std::vector<std::string> notes;

    // Malformed: the reason and the raw bytes (escaped only when written out).
    Malformation malformation = Malformation::BadFrame;
    std::string bytes;

    // Election
    ElectionResult election;
};

const char* sideName(interface_t side);
const char* toString(Malformation malformation);
// What the daemons do with such a datagram.
const char* explain(Malformation malformation);

}  // namespace tsdmon
