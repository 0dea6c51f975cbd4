// A cable moved from one bus to another: the moved module leaves its
// neighbour alone on the left and becomes the master of the right.
#include "FaultTestUtil.h"

TEST(FaultCableMove, BothBusesElectAgain)
{
    simtest::FaultRun run(R"(
duration 4.1
bus left
bus right
module a uuid=015001 rear=left
module b uuid=015009 rear=left
module c uuid=015002 rear=right
module d uuid=015003 rear=right
at 4 move b.rear right
)");
    ASSERT_TRUE(run.run());
    const double recovered = run.recovery("cable moved to another bus", run.worldTime(4), 0x015009, {"a"});
    ASSERT_GE(recovered, 0) << run.dump();
    EXPECT_EQ(run["b"].bus(tsdsim::Side::Rear), run.world().findBus("right"));
    run.expectBusesHoldState();
    run.expectCleanExit();
}
