#include "sync/SyncPhase.h"

namespace orv::tsd {

namespace {

PhaseStep initialized(const PhaseEvent& e)
{
    // A result for the side we are not waiting for, or one that changed
    // nothing, does not move the election on.
    if (e.side != e.expected || !e.changeFlag) {
        return {PhaseAction::None, e.phase};
    }
    if (!e.gateway) {
        return {PhaseAction::None, SYNCHRONIZED_PHASE};
    }
    return {PhaseAction::PropagateAndStartFront, PROPAGATION_PHASE};
}

PhaseStep propagation(const PhaseEvent& e)
{
    if (!e.gateway || e.side != e.expected) {
        return {PhaseAction::None, e.phase};
    }
    // The exchange ends at the first result that changed nothing.
    if (!e.changeFlag) {
        return {PhaseAction::None, SYNCHRONIZED_PHASE};
    }
    if (e.side == FRONT_FW) {
        if (e.frontChanged || !e.frontMasterIsOwn) {
            return {PhaseAction::ExpectRearAndResyncRear, e.phase};
        }
        return {PhaseAction::None, SYNCHRONIZED_PHASE};
    }
    if (e.rearChanged || !e.rearMasterIsOwn) {
        return {PhaseAction::ExpectFrontAndResyncFront, e.phase};
    }
    return {PhaseAction::None, SYNCHRONIZED_PHASE};
}

PhaseStep synchronized(const PhaseEvent& e)
{
    if (!e.gateway || !e.changeFlag) {
        return {PhaseAction::None, e.phase};
    }
    // A changed result travels along the chain through the other side.
    if (e.side == REAR_FW) {
        return {PhaseAction::ResyncFront, e.phase};
    }
    return {PhaseAction::ResyncRear, e.phase};
}

}  // namespace

PhaseStep nextPhase(const PhaseEvent& event)
{
    switch (event.phase) {
        case INITIALIZED_PHASE:
            return initialized(event);
        case PROPAGATION_PHASE:
            return propagation(event);
        case SYNCHRONIZED_PHASE:
            return synchronized(event);
    }
    return {PhaseAction::None, event.phase};
}

const char* toString(PhaseAction action)
{
    switch (action) {
        case PhaseAction::None:
            return "none";
        case PhaseAction::PropagateAndStartFront:
            return "propagate to front and start front";
        case PhaseAction::ExpectRearAndResyncRear:
            return "expect rear and resync rear";
        case PhaseAction::ExpectFrontAndResyncFront:
            return "expect front and resync front";
        case PhaseAction::ResyncFront:
            return "resync front";
        case PhaseAction::ResyncRear:
            return "resync rear";
    }
    return "?";
}

}  // namespace orv::tsd
