// A change of "sync/param" restarts the election with the new values.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(ParamChange, NewTimeSourceMovesTheMasterAndItsService)
{
    // Sums: m1 10+1, m2 10+2, m3 10+2 (larger UUID): m3 is master.
    simtest::Chain chain(
        {module("m1", 0x00e001, "RZ", "Ntp"), module("m2", 0x00e002), module("m3", 0x00e003)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00e003)) << chain.dump();
    double changedAt = chain.world().now();

    // m3 falls back to NTP (10+1): m2 is now the only one with 12.
    tsdsim::SyncParam p = chain[2].param();
    p.timesource = "Ntp";
    chain[2].setParam(p);
    ASSERT_TRUE(chain.waitAgree(0x00e002)) << chain.dump();

    // m2 took over PTP with its own options; m3 stopped its PTP.
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            bool m2Started = false;
            bool m3Stopped = false;
            for (const auto& c : chain[1].scriptCalls()) {
                m2Started =
                    m2Started || (c.time > changedAt && c.script == "ptp4ladm.sh" && c.args == "start");
            }
            for (const auto& c : chain[2].scriptCalls()) {
                m3Stopped =
                    m3Stopped || (c.time > changedAt && c.script == "ptp4ladm.sh" && c.args == "stop");
            }
            return m2Started && m3Stopped;
        },
        15s));
    EXPECT_EQ(chain[1].runFile("timesync/ptp4l.cfg"), chain[1].param().ptp4l + "\n");
    chain.expectCleanExit();
}

TEST(ParamChange, NewThresholdOfTheMasterReachesEveryModule)
{
    simtest::Chain chain({module("m1", 0x00e101), module("m2", 0x00e102)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00e102)) << chain.dump();

    tsdsim::SyncParam p = chain[1].param();
    p.threshold = 2.5;
    p.ptp4l = "-4 -E -H -i firewire0 -m";
    chain[1].setParam(p);
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            return chain[0].state("sync/app")["master_threshold_back"].asDouble() == 2.5 &&
                   chain[1].state("sync/app")["master_threshold_back"].asDouble() == 2.5;
        },
        simtest::kSettle))
        << chain.dump();
    // The master restarted PTP with the new options.
    ASSERT_TRUE(chain.world().waitFor(
        [&] { return chain[1].runFile("timesync/ptp4l.cfg") == "-4 -E -H -i firewire0 -m\n"; }, 10s));
    chain.expectCleanExit();
}

TEST(ParamChange, UnknownTimeSourceIsRefusedAndChangesNothing)
{
    simtest::Chain chain({module("m1", 0x00e201), module("m2", 0x00e202)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00e202)) << chain.dump();
    const Json::Value before = chain[1].state("sync/param");
    tsdsim::SyncParam p = chain[1].param();
    p.timesource = "Sundial";
    const tsdsim::Module::ParamAnswer answer = chain[1].setParam(p);
    // The module's keeper refuses a time source its configuration does not
    // know, so the daemon never sees it.
    EXPECT_FALSE(answer.accepted);
    EXPECT_NE(answer.message.find("timesource"), std::string::npos) << answer.message;
    EXPECT_EQ(chain[1].param().timesource, "Ptp");
    EXPECT_EQ(chain[1].state("sync/param"), before);
    EXPECT_TRUE(chain.waitAgree(0x00e202, {}, 2s)) << chain.dump();
    for (const auto& l : chain[1].syslog()) {
        EXPECT_FALSE(l.ident == "tsd" && l.text == " wrong timesource") << "the daemon saw the value";
    }
    chain.expectCleanExit();
}
