// 1,000 bus clients connect, say hello and leave, over and over, on one
// module's broker while the chain elects: every client is answered, the
// daemon's connection and states stay, and the election completes.
#include "FaultTestUtil.h"

TEST(FaultClientCrowd, ElectionsCompleteWhileClientsComeAndGo)
{
    simtest::FaultRun run(R"(
duration 5
bus chain
module m1 uuid=019001 rear=chain
module m2 uuid=019002 rear=chain
module m3 uuid=019003 rear=chain
at 3.5 clients m3 1000 12
at 4.5 param m3 threshold=2.5
)");
    ASSERT_TRUE(run.run());
    // The crowd is still at it: the election must complete meanwhile.
    ASSERT_TRUE(run.world().waitFor(
        [&] {
            for (const char* name : {"m1", "m2", "m3"}) {
                if (run[name].state("sync/app")["master_threshold_back"].asDouble() != 2.5 ||
                    !simtest::FaultRun::settled(run[name], 0x019003)) {
                    return false;
                }
            }
            return true;
        },
        simtest::kSettle))
        << run.dump();
    const double elected = run.world().now() - run.worldTime(4.5);
    std::printf("election under the crowd took %.2f s\n", elected);
    EXPECT_TRUE(run.faults().active()) << "the crowd ended before the election: the test proves nothing";
    run.finishFaults();
    const auto stats = run.faults().stats();
    std::printf("clients answered %llu, refused or unanswered %llu\n",
                static_cast<unsigned long long>(stats.clientsAnswered),
                static_cast<unsigned long long>(stats.clientsRefused));
    EXPECT_GE(stats.clientsAnswered, 1000u);
    EXPECT_EQ(stats.clientsRefused, 0u);
    ASSERT_GE(run.recovery("1000 bus clients coming and going", run.faults().lastEnd(), 0x019003, {}, false), 0)
        << run.dump();
    run.expectBusesHoldState();
    run.expectCleanExit();
}
