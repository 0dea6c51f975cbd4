// A cable that flaps 10 times a second for 10 s: every change of the
// reachable devices restarts the daemons' 3 s wait, so the chain elects once
// the flapping stops, and nothing is left cut or counted twice.
#include "FaultTestUtil.h"

TEST(FaultLinkFlap, TheChainElectsOnceTheFlappingStops)
{
    simtest::FaultRun run(R"(
duration 14
bus chain
module m1 uuid=013001 rear=chain
module m2 uuid=013002 rear=chain
module m3 uuid=013003 rear=chain
module m4 uuid=013004 rear=chain
at 4 flap m4.rear 10 10
)");
    ASSERT_TRUE(run.run());
    run.finishFaults();
    // 10 flaps a second are 20 changes (a cut and a plug each).
    EXPECT_GE(run.faults().stats().flaps, 150u);
    EXPECT_FALSE(run.world().isCut(run["m4"], tsdsim::Side::Rear));
    const double recovered = run.recovery("link flapping 10/s for 10 s", run.faults().lastEnd(), 0x013004);
    ASSERT_GE(recovered, 0) << run.dump();
    run.expectBusesHoldState();
    run.expectCleanExit();
}
