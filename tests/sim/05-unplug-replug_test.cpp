// Unplugging the master makes the rest of the chain elect a new one; the
// unplugged module is then alone. Plugging it back restores the old order.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

namespace {

bool runsPtp(const tsdsim::Module& m)
{
    bool running = false;
    for (const auto& c : m.scriptCalls()) {
        if (c.script == "ptp4ladm.sh") {
            running = c.args != "stop";
        }
    }
    return running;
}

}  // namespace

TEST(UnplugReplug, MasterUnpluggedThenReplugged)
{
    simtest::Chain chain(
        {module("m1", 0x00d001), module("m2", 0x00d002), module("m3", 0x00d003), module("m4", 0x00d004)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00d004)) << chain.dump();
    ASSERT_TRUE(chain.world().waitFor([&] { return runsPtp(chain[3]) && !runsPtp(chain[2]); }, 10s));

    chain.world().unplug(chain[3]);
    // The others no longer see m4 among their reachable devices ...
    EXPECT_EQ(chain[0].reachable().size(), 2u);
    EXPECT_TRUE(chain[3].reachable().empty());
    // ... and elect m3, which starts serving time; m4 is alone.
    ASSERT_TRUE(chain.waitAgree(0x00d003, {"m1", "m2", "m3"})) << chain.dump();
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            Json::Value app = chain[3].state("sync/app");
            return app["mode_back"].asInt() == 1 && runsPtp(chain[2]);
        },
        simtest::kSettle))
        << chain.dump();

    chain.world().replug(chain[3]);
    ASSERT_TRUE(chain.waitAgree(0x00d004)) << chain.dump();
    ASSERT_TRUE(chain.world().waitFor([&] { return !runsPtp(chain[2]) && runsPtp(chain[3]); }, 10s));
    chain.expectCleanExit();
}

TEST(UnplugReplug, CutCableOfASlaveLeavesTheMasterInPlace)
{
    simtest::Chain chain({module("m1", 0x00d101), module("m2", 0x00d102), module("m3", 0x00d103)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00d103)) << chain.dump();

    chain.world().setCut(chain[0], tsdsim::Side::Rear, true);
    // m1 ends up alone and serves itself; the others keep m3.
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            Json::Value app = chain[0].state("sync/app");
            return app["mode_back"].asInt() == 1 &&
                   chain[0].state("sync/master").asString() == "0A7C3100D101";
        },
        simtest::kSettle))
        << chain.dump();
    EXPECT_TRUE(chain.waitAgree(0x00d103, {"m2", "m3"})) << chain.dump();

    chain.world().setCut(chain[0], tsdsim::Side::Rear, false);
    ASSERT_TRUE(chain.waitAgree(0x00d103)) << chain.dump();
    chain.expectCleanExit();
}
