// A foreign sender floods the bus with 100 "start" telegrams a second for
// 10 s. Every start restarts the receiving side and is answered after a
// back-off, so the side's election cannot complete while the flood lasts;
// after the last one the answers complete every list and the chain agrees.
// What the daemons still hold in their receive queues when the flood stops
// is answered first, each with its back-off: that backlog, not the flood's
// length, sets the recovery time (about 17 s on a 2-core machine), so the
// wait for it is generous.
#include "FaultTestUtil.h"

TEST(FaultStartFlood, TheChainAgreesAfterTheFloodStops)
{
    simtest::FaultRun run(R"(
duration 14
bus chain
module m1 uuid=017001 rear=chain
module m2 uuid=017002 rear=chain
module m3 uuid=017003 rear=chain
at 4 flood m1.rear start 100 10
)");
    ASSERT_TRUE(run.run());
    run.finishFaults();
    EXPECT_GE(run.faults().stats().telegramsSent, 1000u);
    const double recovered = run.recovery("100 start telegrams/s for 10 s", run.faults().lastEnd(), 0x017003, {},
                                          true, std::chrono::seconds(120));
    ASSERT_GE(recovered, 0) << run.dump();
    run.expectBusesHoldState();
    run.expectCleanExit();
}
