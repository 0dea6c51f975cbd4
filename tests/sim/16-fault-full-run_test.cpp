// /var/run/timesync on a full file system: the daemon's configuration file
// for the time service cannot be written, yet it goes on electing and runs
// its scripts; once there is room again, the next election writes the file.
#include "FaultTestUtil.h"

namespace {

std::string ptpConfig(simtest::FaultRun& run, tsdsim::Module& m)
{
    std::string out;
    m.run({"/bin/cat", "/run/timesync/ptp4l.cfg"}, &out);
    (void)run;
    return out;
}

}  // namespace

TEST(FaultFullRun, TheDaemonGoesOnAndWritesItsFileOnceThereIsRoom)
{
    simtest::FaultRun run(R"(
duration 5
bus chain
module m1 uuid=016001 rear=chain
module m2 uuid=016002 rear=chain
module m3 uuid=016003 rear=chain
at 4 fill-run m3
at 4.2 param m3 ptp4l="-4 -E -S -i firewire0"
)");
    ASSERT_TRUE(run.run());
    tsdsim::Module& m3 = run["m3"];
    // The restart with the new options runs although its file could not be
    // written.
    ASSERT_TRUE(run.world().waitFor(
        [&] {
            for (const auto& c : m3.scriptCalls()) {
                if (c.args == "restart" && c.time > run.worldTime(4.2)) {
                    return true;
                }
            }
            return false;
        },
        simtest::kSettle))
        << run.dump();
    const std::string whileFull = ptpConfig(run, m3);
    EXPECT_EQ(whileFull.find("-S"), std::string::npos) << "the full file system took the new options: " << whileFull;
    ASSERT_GE(run.recovery("election on a full /var/run/timesync", run.worldTime(4.2), 0x016003), 0)
        << run.dump();
    std::printf("ptp4l.cfg while full: \"%s\" (%zu bytes)\n", whileFull.c_str(), whileFull.size());

    ASSERT_EQ(run.faults().apply({"free-run", "m3"}), "");
    const double freed = run.world().now();
    tsdsim::SyncParam p = m3.param();
    p.ptp4l = "-4 -E -S -i firewire0 -m";
    m3.setParam(p);
    ASSERT_TRUE(run.world().waitFor([&] { return ptpConfig(run, m3) == "-4 -E -S -i firewire0 -m\n"; },
                                    simtest::kSettle))
        << ptpConfig(run, m3) << run.dump();
    ASSERT_GE(run.recovery("full /var/run/timesync freed", freed, 0x016003), 0) << run.dump();
    run.expectBusesHoldState();
    run.expectCleanExit();
}
