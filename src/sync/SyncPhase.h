#pragma once

#include "config/InterfaceType.h"
#include "sync/SyncStatus.h"

namespace orv::tsd {

// The election driver's transition table as a pure function: given the phase,
// the side whose result was just applied and what changed, it names the one
// thing to do and the phase after. TimeSyncManagement::checkState carries the
// action out (telegrams, propagated values) and logs the transition.

enum class PhaseAction
{
    None,
    // Gateway, rear result known: copy the rear master's values towards the
    // front and send "start" on the front side.
    PropagateAndStartFront,
    // Expect the rear side again and send "resync" there.
    ExpectRearAndResyncRear,
    // Expect the front side again and send "resync" there.
    ExpectFrontAndResyncFront,
    // Steady state on a gateway: carry a changed result to the other side.
    ResyncFront,
    ResyncRear,
};

struct PhaseEvent
{
    enTsdPhase phase = INITIALIZED_PHASE;
    interface_t side = REAR_FW;
    interface_t expected = REAR_FW;
    bool changeFlag = false;  // the side's change flag as it stood on entry
    bool gateway = false;
    bool rearChanged = false;   // the rear master changed what goes to the front
    bool frontChanged = false;  // the front master changed what goes to the rear
    bool rearMasterIsOwn = false;
    bool frontMasterIsOwn = false;
};

struct PhaseStep
{
    PhaseAction action = PhaseAction::None;
    enTsdPhase next = INITIALIZED_PHASE;
};

PhaseStep nextPhase(const PhaseEvent& event);

const char* toString(PhaseAction action);

}  // namespace orv::tsd
