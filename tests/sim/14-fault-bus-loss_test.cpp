// 30 % of the frames lost for 20 s while the chain keeps electing (a
// parameter change every 4 s). Telegrams only flow in elections, and each
// round of answers meets the loss afresh, so what a longer window adds is
// more rounds of the same kind: 20 s hold five elections and about six
// supervision periods of 3 s, enough to see every round that fails asked
// again; a chain file plays the full 60 s with the same events. Once the bus
// is clean, the chain agrees and every -1 is cleared.
#include "FaultTestUtil.h"

TEST(FaultBusLoss, ThirtyPercentLossThenTheChainAgrees)
{
    simtest::FaultRun run(R"(
duration 24.1
bus chain
module m1 uuid=014001 rear=chain
module m2 uuid=014002 rear=chain
module m3 uuid=014003 rear=chain
at 4  loss chain 0.3
at 5  param m1 threshold=1.5
at 9  param m2 threshold=1.5
at 13 param m3 threshold=1.5
at 17 param m1 threshold=2.5
at 21 param m3 threshold=2.5
at 24 loss chain 0
)");
    ASSERT_TRUE(run.run());
    EXPECT_GT(run.world().findBus("chain")->stats().dropped, 0u);
    // The last parameter change may have been settled under the loss or may
    // still be asked again; on a clean bus the chain agrees.
    const double recovered = run.recovery("30 % loss for 20 s", run.worldTime(24), 0x014003, {}, false);
    ASSERT_GE(recovered, 0) << run.dump();
    for (const char* name : {"m1", "m2", "m3"}) {
        EXPECT_DOUBLE_EQ(run[name].state("sync/app")["master_threshold_back"].asDouble(), 2.5) << run.dump();
    }
    run.expectBusesHoldState();
    run.expectCleanExit();
}
