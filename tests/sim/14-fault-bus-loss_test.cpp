// 30 % of the frames lost for 20 s while the chain keeps electing (a
// parameter change every 4 s). Telegrams only flow in elections, and each
// round of answers meets the loss afresh, so what a longer window adds is
// more rounds of the same kind: 20 s hold five elections and about six
// supervision periods of 3 s, enough to see every round that fails asked
// again; a chain file plays the full 60 s with the same events
// (sim/chains/faults.chain). Once the bus is clean, the next election
// completes on every module without an error.
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
    // A module whose copy of a "start" was lost never learns that an election
    // ran, and nobody asks it again: it may still show an older master
    // threshold, without an error. The next election after the loss sets
    // every module right.
    int stale = 0;
    for (const char* name : {"m1", "m2", "m3"}) {
        stale += run[name].state("sync/app")["master_threshold_back"].asDouble() != 2.5 ? 1 : 0;
    }
    std::printf("modules showing an older master threshold when the bus is clean again: %d\n", stale);
    const double changed = run.changeThreshold("m3", 3.5);
    ASSERT_GE(changed, 0) << run.dump();
    const double recovered = run.recovery("30 % loss for 20 s (next election)", changed, 0x014003);
    ASSERT_GE(recovered, 0) << run.dump();
    std::printf("from the clean bus until every module agreed again: %.2f s\n",
                run.world().now() - run.worldTime(24));
    run.expectBusesHoldState();
    run.expectCleanExit();
}
