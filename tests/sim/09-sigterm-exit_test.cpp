// SIGTERM ends tsd with exit status 0 in every module, and its states leave
// the module's bus with it.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(SigtermExit, EveryDaemonExitsZeroAndWithdrawsItsStates)
{
    simtest::Chain chain(
        {module("m1", 0x011001), module("m2", 0x011002), module("m3", 0x011003), module("m4", 0x011004)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x011004)) << chain.dump();

    for (std::size_t i = 0; i < chain.size(); ++i) {
        int st = chain[i].stopTsd(SIGTERM, 10s);
        ASSERT_GE(st, 0) << chain[i].name() << " did not end";
        EXPECT_TRUE(WIFEXITED(st)) << chain[i].name();
        EXPECT_EQ(WEXITSTATUS(st), 0) << chain[i].name();
        EXPECT_NE(chain[i].output("tsd").find("SIGNAL NR. : 15"), std::string::npos) << chain[i].name();
        EXPECT_TRUE(chain.world().waitFor(
            [&] { return chain[i].state("sync/app").isNull() && chain[i].state("sync/master").isNull(); },
            10s))
            << chain[i].name();
        // Its broker and the simulator's clients are still there.
        EXPECT_TRUE(chain[i].veladRunning());
        EXPECT_FALSE(chain[i].state("sync/param").isNull());
    }
}

TEST(SigtermExit, DaemonRestartedAfterSigtermJoinsAgain)
{
    simtest::Chain chain({module("m1", 0x011101), module("m2", 0x011102)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x011102)) << chain.dump();
    int st = chain[1].stopTsd(SIGTERM, 10s);
    ASSERT_TRUE(st >= 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0);
    // The restarted daemon runs a fresh election with the others.
    ASSERT_TRUE(chain[1].startTsd({"-d"}));
    ASSERT_TRUE(chain.waitAgree(0x011102)) << chain.dump();
    chain.expectCleanExit();
}
