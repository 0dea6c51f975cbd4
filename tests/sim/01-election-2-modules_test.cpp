// Two modules on one bus elect one master, in the election order: the larger
// sum of module and time-source priority wins, ties go to the larger UUID.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(Election2Modules, EqualPrioritiesGoToTheLargerUuid)
{
    simtest::Chain chain({module("a", 0x000a01), module("b", 0x000a02)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x000a02)) << chain.dump();
    // The master runs the PTP stand-in, the slave runs nothing.
    EXPECT_TRUE(chain.world().waitFor(
        [&] { return chain[1].runFile("timesync/ptp4l.cfg") == chain[1].param().ptp4l + "\n"; }, 10s));
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            auto calls = chain[1].scriptCalls();
            return !calls.empty() && calls.back().script == "ptp4ladm.sh" && calls.back().args != "stop";
        },
        10s));
    chain.expectCleanExit();
}

TEST(Election2Modules, TimeSourcePriorityBeatsTheUuid)
{
    // a offers PTP (level 2), b only NTP (level 1): a wins despite its smaller UUID.
    simtest::Chain chain({module("a", 0x000a01, "RZ", "Ptp"), module("b", 0x000a02, "RZ", "Ntp")});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x000a01)) << chain.dump();
    EXPECT_EQ(simtest::expectedMaster(chain.setups()).uuid, 0x000a01u);
    chain.expectCleanExit();
}

TEST(Election2Modules, ModuleTypePriorityBeatsTheUuid)
{
    // KP40 modules take the KP level (20) instead of RZ (10).
    simtest::Chain chain({module("a", 0x000a01, "KP40", "Ntp"), module("b", 0x000a02, "RZ", "Ptp")});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x000a01)) << chain.dump();
    // The NTP master writes the server file and starts the NTP stand-in.
    ASSERT_TRUE(chain.world().waitFor(
        [&] { return chain[0].runFile("timesync/ntpserver.ip") == "127.0.0.1\n"; }, 10s));
    bool ntpStarted = false;
    for (const auto& c : chain[0].scriptCalls()) {
        ntpStarted = ntpStarted || c.script == "start_ntpd.sh";
    }
    EXPECT_TRUE(ntpStarted);
    chain.expectCleanExit();
}
