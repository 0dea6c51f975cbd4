// A module's broker is killed with SIGKILL while an election runs and comes
// back a second later. The election itself goes on over the FireWire bus;
// the daemon reconnects and restores its states, the publisher brings back
// "sync/param" and the reachable devices (the same as before, so nothing
// needs electing), and the next election completes on every module.
#include "FaultTestUtil.h"

TEST(FaultVeladKill, TheChainElectsAgainAfterTheBrokerReturns)
{
    simtest::FaultRun run(R"(
duration 6
bus chain
module m1 uuid=012001 rear=chain
module m2 uuid=012002 rear=chain
module m3 uuid=012003 rear=chain
at 4.5 param m3 threshold=3.5
at 4.6 kill-velad m2
at 5.6 start-velad m2
)");
    ASSERT_TRUE(run.run());
    const double recovered = run.recovery("velad killed in an election (states back)", run.worldTime(5.6), 0x012003,
                                          {}, false);
    ASSERT_GE(recovered, 0) << run.dump();
    // A later election completes on every module: the daemon's lists did not
    // keep a stale device from before the broker's death.
    const double changed = run.changeThreshold("m3", 4.5);
    ASSERT_GE(changed, 0) << run.dump();
    ASSERT_GE(run.recovery("election after the broker's return", changed, 0x012003), 0) << run.dump();
    run.expectBusesHoldState();
    run.expectCleanExit();
}
