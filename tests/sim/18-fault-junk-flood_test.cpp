// A flood of malformed telegrams, 100 a second for 5 s: each is dropped
// with one warning line, so the daemon's syslog output is bounded by one
// line of at most 200 bytes per telegram received and stops with the flood;
// the chain is not disturbed and elects as before.
#include "FaultTestUtil.h"

#include <syslog.h>

namespace {

// Warning lines of tsd on module m from world time from on, and the longest.
std::size_t warnings(tsdsim::Module& m, double from, std::size_t* longest = nullptr)
{
    std::size_t n = 0;
    for (const auto& l : m.syslog()) {
        if (l.ident == "tsd" && l.time >= from && l.priority <= LOG_WARNING) {
            ++n;
            if (longest) {
                *longest = std::max(*longest, l.text.size());
            }
        }
    }
    return n;
}

}  // namespace

TEST(FaultJunkFlood, SyslogStaysBoundedAndTheChainElects)
{
    simtest::FaultRun run(R"(
duration 9
bus chain
module m1 uuid=018001 rear=chain
module m2 uuid=018002 rear=chain
module m3 uuid=018003 rear=chain
at 4 flood m1.rear junk 100 5
)");
    ASSERT_TRUE(run.run());
    run.finishFaults();
    const double end = run.faults().lastEnd();
    const std::uint64_t sent = run.faults().stats().telegramsSent;
    EXPECT_GE(sent, 500u);
    // Lines still on their way from the flood's last telegrams.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (const char* name : {"m2", "m3"}) {
        std::size_t longest = 0;
        const std::size_t lines = warnings(run[name], run.worldTime(4), &longest);
        std::printf("%s: %zu warning lines for %llu malformed telegrams, the longest %zu bytes\n", name, lines,
                    static_cast<unsigned long long>(sent), longest);
        EXPECT_GE(lines, sent / 2) << name << ": the flood did not arrive";
        EXPECT_LE(lines, sent) << name << ": more than one line per telegram";
        EXPECT_LE(longest, 200u) << name;
        EXPECT_TRUE(run[name].states("sync/errors/").empty()) << run.dump();
    }
    const double afterFlood = run.world().now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(warnings(run["m2"], afterFlood), 0u) << "warnings went on after the flood";

    const double changed = run.changeThreshold("m3", 2.5);
    ASSERT_GE(changed, 0) << run.dump();
    ASSERT_GE(run.recovery("election after a malformed flood", changed, 0x018003), 0) << run.dump();
    (void)end;
    run.expectBusesHoldState();
    run.expectCleanExit();
}
