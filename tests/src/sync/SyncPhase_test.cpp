// The election driver's transition table, row by row.
#include "sync/SyncPhase.h"

#include <gtest/gtest.h>

using namespace orv::tsd;

namespace {

PhaseEvent event(enTsdPhase phase, interface_t side, interface_t expected, bool flag, bool gateway)
{
    PhaseEvent e;
    e.phase = phase;
    e.side = side;
    e.expected = expected;
    e.changeFlag = flag;
    e.gateway = gateway;
    return e;
}

void expectStep(const PhaseEvent& e, PhaseAction action, enTsdPhase next)
{
    const PhaseStep step = nextPhase(e);
    EXPECT_EQ(step.action, action) << toString(step.action);
    EXPECT_EQ(step.next, next);
}

}  // namespace

TEST(SyncPhase, InitializedIgnoresResultOfUnexpectedSide)
{
    expectStep(event(INITIALIZED_PHASE, FRONT_FW, REAR_FW, true, true), PhaseAction::None, INITIALIZED_PHASE);
    expectStep(event(INITIALIZED_PHASE, FRONT_FW, REAR_FW, true, false), PhaseAction::None,
               INITIALIZED_PHASE);
}

TEST(SyncPhase, InitializedWaitsForAChangedResult)
{
    expectStep(event(INITIALIZED_PHASE, REAR_FW, REAR_FW, false, true), PhaseAction::None, INITIALIZED_PHASE);
    expectStep(event(INITIALIZED_PHASE, REAR_FW, REAR_FW, false, false), PhaseAction::None,
               INITIALIZED_PHASE);
}

TEST(SyncPhase, NonGatewayGoesStraightToSynchronized)
{
    expectStep(event(INITIALIZED_PHASE, REAR_FW, REAR_FW, true, false), PhaseAction::None,
               SYNCHRONIZED_PHASE);
}

TEST(SyncPhase, GatewayPropagatesRearResultAndStartsFront)
{
    expectStep(event(INITIALIZED_PHASE, REAR_FW, REAR_FW, true, true), PhaseAction::PropagateAndStartFront,
               PROPAGATION_PHASE);
}

TEST(SyncPhase, PropagationDoesNothingOnNonGateway)
{
    expectStep(event(PROPAGATION_PHASE, REAR_FW, REAR_FW, true, false), PhaseAction::None, PROPAGATION_PHASE);
}

TEST(SyncPhase, PropagationIgnoresUnexpectedSide)
{
    expectStep(event(PROPAGATION_PHASE, REAR_FW, FRONT_FW, true, true), PhaseAction::None, PROPAGATION_PHASE);
}

TEST(SyncPhase, PropagationEndsOnExpectedResultWithoutChange)
{
    expectStep(event(PROPAGATION_PHASE, FRONT_FW, FRONT_FW, false, true), PhaseAction::None,
               SYNCHRONIZED_PHASE);
    expectStep(event(PROPAGATION_PHASE, REAR_FW, REAR_FW, false, true), PhaseAction::None,
               SYNCHRONIZED_PHASE);
}

TEST(SyncPhase, PropagationFrontResultWithForeignMasterResyncsRear)
{
    PhaseEvent e = event(PROPAGATION_PHASE, FRONT_FW, FRONT_FW, true, true);
    e.frontMasterIsOwn = false;
    expectStep(e, PhaseAction::ExpectRearAndResyncRear, PROPAGATION_PHASE);
    e.frontMasterIsOwn = true;
    e.frontChanged = true;
    expectStep(e, PhaseAction::ExpectRearAndResyncRear, PROPAGATION_PHASE);
}

TEST(SyncPhase, PropagationFrontResultOwnMasterNothingNewSynchronizes)
{
    PhaseEvent e = event(PROPAGATION_PHASE, FRONT_FW, FRONT_FW, true, true);
    e.frontMasterIsOwn = true;
    e.rearChanged = true;  // the other side's change does not count here
    expectStep(e, PhaseAction::None, SYNCHRONIZED_PHASE);
}

TEST(SyncPhase, PropagationRearResultWithForeignMasterResyncsFront)
{
    PhaseEvent e = event(PROPAGATION_PHASE, REAR_FW, REAR_FW, true, true);
    expectStep(e, PhaseAction::ExpectFrontAndResyncFront, PROPAGATION_PHASE);
    e.rearMasterIsOwn = true;
    e.rearChanged = true;
    expectStep(e, PhaseAction::ExpectFrontAndResyncFront, PROPAGATION_PHASE);
    e.rearChanged = false;
    e.frontChanged = true;
    expectStep(e, PhaseAction::None, SYNCHRONIZED_PHASE);
}

TEST(SyncPhase, PropagationTreatsAnyOtherSideValueAsRear)
{
    PhaseEvent e =
        event(PROPAGATION_PHASE, static_cast<interface_t>(2), static_cast<interface_t>(2), true, true);
    expectStep(e, PhaseAction::ExpectFrontAndResyncFront, PROPAGATION_PHASE);
}

TEST(SyncPhase, SynchronizedCarriesChangedResultToOtherSideOnGateway)
{
    expectStep(event(SYNCHRONIZED_PHASE, REAR_FW, FRONT_FW, true, true), PhaseAction::ResyncFront,
               SYNCHRONIZED_PHASE);
    expectStep(event(SYNCHRONIZED_PHASE, FRONT_FW, REAR_FW, true, true), PhaseAction::ResyncRear,
               SYNCHRONIZED_PHASE);
    expectStep(event(SYNCHRONIZED_PHASE, static_cast<interface_t>(2), REAR_FW, true, true),
               PhaseAction::ResyncRear, SYNCHRONIZED_PHASE);
}

TEST(SyncPhase, SynchronizedIsQuietWithoutChangeOrOnNonGateway)
{
    expectStep(event(SYNCHRONIZED_PHASE, REAR_FW, REAR_FW, false, true), PhaseAction::None,
               SYNCHRONIZED_PHASE);
    expectStep(event(SYNCHRONIZED_PHASE, REAR_FW, REAR_FW, true, false), PhaseAction::None,
               SYNCHRONIZED_PHASE);
}

TEST(SyncPhase, UnknownPhaseDoesNothing)
{
    expectStep(event(static_cast<enTsdPhase>(7), REAR_FW, REAR_FW, true, true), PhaseAction::None,
               static_cast<enTsdPhase>(7));
    expectStep(event(static_cast<enTsdPhase>(-1), REAR_FW, REAR_FW, true, true), PhaseAction::None,
               static_cast<enTsdPhase>(-1));
}
