// Eight modules with scattered UUIDs and priorities agree on one master.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(Election8Modules, AllAgreeOnTheMasterTheOrderNames)
{
    std::vector<tsdsim::ModuleSetup> setups;
    const std::uint32_t uuids[] = {0x3a11c0, 0x00c001, 0x7fff01, 0x512345,
                                   0x0000c9, 0x6b0b0b, 0x2c2c2c, 0x7ffe00};
    for (int i = 0; i < 8; ++i) {
        // Two KP40 modules, one of them offering NTP only; the rest RZ.
        std::string type = (i == 3 || i == 5) ? "KP40" : "RZ";
        std::string source = (i == 5 || i == 2) ? "Ntp" : "Ptp";
        setups.push_back(module("m" + std::to_string(i + 1), uuids[i], type, source));
    }
    // m4 (KP40, PTP: 22) beats m6 (KP40, NTP: 21) and every RZ module.
    ASSERT_EQ(simtest::expectedMaster(setups).name, "m4");
    simtest::Chain chain(setups);
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(0x512345)) << chain.dump();
    chain.expectCleanExit();
}
