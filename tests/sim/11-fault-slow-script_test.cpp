// A time-service script that hangs for 4 s: the daemon waits for it (it runs
// its scripts synchronously) and answers nobody meanwhile. An election that
// another module starts during the hang cannot complete: its supervision
// asks again and raises "sync/errors/-1". Once the script returns the hung
// daemon answers, the election completes and every error is cleared.
#include "FaultTestUtil.h"

TEST(FaultSlowScript, TheChainResumesWhenTheScriptReturns)
{
    simtest::FaultRun run(R"(
duration 7
bus chain
module m1 uuid=011001 rear=chain
module m2 uuid=011002 rear=chain
module m3 uuid=011003 rear=chain
at 5 slow-script m3 ptp4ladm.sh 4
at 5 param m3 threshold=2.5
at 5.5 param m1 threshold=1.5
)");
    ASSERT_TRUE(run.run());
    tsdsim::Module& m3 = run["m3"];
    // The master restarts its service with the new threshold: that call hangs.
    double called = -1;
    ASSERT_TRUE(run.world().waitFor(
        [&] {
            for (const auto& c : m3.scriptCalls()) {
                if (c.script == "ptp4ladm.sh" && c.args == "restart" && c.time > run.worldTime(5)) {
                    called = c.time;
                }
            }
            return called > 0;
        },
        std::chrono::seconds(20)))
        << run.dump();
    m3.setScriptDelay("ptp4ladm.sh", 0);
    // The stand-in reports its call before it sleeps.
    const double returned = called + 4.0;
    const double recovered = run.recovery("slow script (4 s)", returned, 0x011003);
    ASSERT_GE(recovered, 0) << run.dump();
    // Every module shows the master's new threshold. The master's own state
    // may follow its election result by a moment: it publishes when the
    // queued telegrams of the hang have been worked off.
    const auto thresholdShown = [&run](const char* name) {
        return run[name].state("sync/app")["master_threshold_back"].asDouble() == 2.5;
    };
    run.world().waitFor([&] { return thresholdShown("m1") && thresholdShown("m2") && thresholdShown("m3"); },
                        simtest::kSettle);
    for (const char* name : {"m1", "m2", "m3"}) {
        EXPECT_DOUBLE_EQ(run[name].state("sync/app")["master_threshold_back"].asDouble(), 2.5) << run.dump();
    }
    bool raised = false;
    for (const char* name : {"m1", "m2"}) {
        for (const auto& e : run[name].events()) {
            raised = raised || (e.path == "sync/errors/-1" && e.event == "add" && e.time > run.worldTime(5.5));
        }
    }
    EXPECT_TRUE(raised) << "the hang did not stall the election: the test proves nothing";
    // The daemon called nothing else while its script hung.
    for (const auto& c : m3.scriptCalls()) {
        EXPECT_FALSE(c.time > called && c.time < returned - 0.05)
            << c.script << " " << c.args << " at " << c.time << " while the call of " << called << " hung";
    }
    run.expectBusesHoldState();
    run.expectCleanExit();
}
