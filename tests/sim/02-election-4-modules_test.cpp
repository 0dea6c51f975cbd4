// Four modules with mixed module types and time sources agree on the one
// master the election order names.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(Election4Modules, MixedPrioritiesAgreeOnTheHighestSum)
{
    // Sums: a 20+1=21, b 10+2=12, c 20+2=22, d 10+2=12 (largest UUID): c wins.
    std::vector<tsdsim::ModuleSetup> setups{module("a", 0x00b001, "KP40", "Ntp"), module("b", 0x00b002),
                                            module("c", 0x00b003, "KP40", "Ptp"), module("d", 0x00b0ff)};
    ASSERT_EQ(simtest::expectedMaster(setups).name, "c");
    simtest::Chain chain(setups);
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00b003)) << chain.dump();
    // Every module published the master's threshold with its result.
    for (std::size_t i = 0; i < chain.size(); ++i) {
        EXPECT_DOUBLE_EQ(chain[i].state("sync/app")["master_threshold_back"].asDouble(), 1.0)
            << chain[i].name();
    }
    chain.expectCleanExit();
}

TEST(Election4Modules, ThresholdDoesNotTakePartInTheOrder)
{
    // Same sums everywhere; a large threshold on a does not make it win.
    std::vector<tsdsim::ModuleSetup> setups{module("a", 0x00b101, "RZ", "Ptp", 9.5), module("b", 0x00b102),
                                            module("c", 0x00b103), module("d", 0x00b104, "RZ", "Ptp", 0.2)};
    simtest::Chain chain(setups);
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x00b104)) << chain.dump();
    EXPECT_DOUBLE_EQ(chain[0].state("sync/app")["master_threshold_back"].asDouble(), 0.2);
    chain.expectCleanExit();
}
