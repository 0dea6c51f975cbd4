// Frames lost on the bus leave an election incomplete: the module that asked
// raises "sync/errors/-1" after 3 s and clears it once a later round
// completes on a clean bus.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(BusLossErrors, LossRaisesMinusOneAndACleanBusClearsIt)
{
    simtest::Chain chain({module("m1", 0x00f001), module("m2", 0x00f002), module("m3", 0x00f003)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00f003)) << chain.dump();
    ASSERT_TRUE(chain[0].states("sync/errors/").empty());

    // Every frame is lost; a parameter change makes m1 start an election
    // that nobody else hears.
    chain.bus().setLoss(1.0);
    tsdsim::SyncParam p = chain[0].param();
    p.threshold = 1.5;
    chain[0].setParam(p);
    ASSERT_TRUE(chain.world().waitFor([&] { return !chain[0].state("sync/errors/-1").isNull(); }, 20s))
        << chain.dump();
    Json::Value err = chain[0].state("sync/errors/-1");
    EXPECT_EQ(err["error"].asInt(), -1);
    EXPECT_EQ(err["txt"].asString(), "Did not receive sync notification from all modules on back");
    EXPECT_EQ(err["info"].asString(), "");
    EXPECT_GE(chain.bus().stats().dropped, 1u);

    // The supervisor keeps asking; on a clean bus the next round completes.
    chain.bus().setLoss(0.0);
    ASSERT_TRUE(chain.world().waitFor([&] { return chain[0].state("sync/errors/-1").isNull(); }, 30s))
        << chain.dump();
    bool raised = false;
    bool cleared = false;
    for (const auto& e : chain[0].events()) {
        raised = raised || (e.path == "sync/errors/-1" && e.event == "add");
        cleared = cleared || (raised && e.path == "sync/errors/-1" && e.event == "remove");
    }
    EXPECT_TRUE(raised && cleared);
    EXPECT_TRUE(chain.waitAgree(0x00f003)) << chain.dump();
    chain.expectCleanExit();
}

TEST(BusLossErrors, PartialLossStillReachesAgreement)
{
    // A lossy but usable bus: supervision resends until every answer arrived.
    simtest::Chain chain({module("m1", 0x00f101), module("m2", 0x00f102), module("m3", 0x00f103)});
    chain.bus().setLoss(0.2);
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00f103, {}, 60s)) << chain.dump();
    chain.bus().setLoss(0.0);
    chain.expectCleanExit();
}
