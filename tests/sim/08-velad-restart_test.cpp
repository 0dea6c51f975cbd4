// A module's bus broker dies and comes back: the daemon's peer reconnects and
// restores its states, so every module shows its result again, and the chain
// goes on electing as before.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(VeladRestart, EveryModuleRestoresItsStates)
{
    simtest::Chain chain({module("m1", 0x010001), module("m2", 0x010002), module("m3", 0x010003)});
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x010003)) << chain.dump();
    std::vector<Json::Value> before;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        before.push_back(chain[i].state("sync/app"));
    }

    for (std::size_t i = 0; i < chain.size(); ++i) {
        chain[i].stopVelad(SIGKILL);
        EXPECT_TRUE(chain[i].state("sync/app").isNull());
        EXPECT_TRUE(chain[i].tsdRunning()) << chain[i].name() << ": the daemon must outlive its broker";
    }
    for (std::size_t i = 0; i < chain.size(); ++i) {
        ASSERT_TRUE(chain[i].startVelad());
    }
    // The watchers come back with the broker and see the restored states.
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            for (std::size_t i = 0; i < chain.size(); ++i) {
                if (chain[i].state("sync/app") != before[i] ||
                    chain[i].state("sync/master").asString() != "0A7C31010003") {
                    return false;
                }
            }
            return true;
        },
        30s))
        << chain.dump();
    for (std::size_t i = 0; i < chain.size(); ++i) {
        EXPECT_TRUE(chain[i].tsdRunning());
    }

    // The restart must leave the daemons' device lists as they were: a new
    // election after it completes on every module (a device counted twice
    // would keep every list incomplete and raise "sync/errors/-1").
    tsdsim::SyncParam p = chain[2].param();
    p.threshold = 3.5;
    chain[2].setParam(p);
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            for (std::size_t i = 0; i < chain.size(); ++i) {
                if (chain[i].state("sync/app")["master_threshold_back"].asDouble() != 3.5) {
                    return false;
                }
            }
            return true;
        },
        simtest::kSettle))
        << chain.dump();
    for (std::size_t i = 0; i < chain.size(); ++i) {
        EXPECT_TRUE(chain[i].state("sync/errors/-1").isNull()) << chain[i].name() << "\n" << chain.dump();
    }
    chain.expectCleanExit();
}
