// Sixteen modules on one bus: the largest chain the tests run. All agree on
// one master, and exactly one module runs a time service.
#include "ChainTestUtil.h"

using simtest::module;
using namespace std::chrono_literals;

TEST(Election16Modules, AllAgreeAndOnlyTheMasterServesTime)
{
    std::vector<tsdsim::ModuleSetup> setups;
    for (int i = 0; i < 16; ++i) {
        // UUIDs scattered so that neither the first nor the last module wins.
        auto uuid = static_cast<std::uint32_t>((0x10000 + i * 0x9e37) & 0xFFFFFF);
        setups.push_back(module("m" + std::to_string(i + 1), uuid, "RZ", i % 3 == 0 ? "Ntp" : "Ptp"));
    }
    const tsdsim::ModuleSetup& master = simtest::expectedMaster(setups);
    simtest::Chain chain(setups);
    ASSERT_TRUE(chain.started());
    ASSERT_TRUE(chain.waitAgree(master.uuid)) << chain.dump();

    // Once settled, the master's PTP stand-in is the only service left running.
    auto serving = [&](tsdsim::Module& m) {
        std::string running;
        for (const auto& c : m.scriptCalls()) {
            if (c.script == "ptp4ladm.sh") {
                running = c.args == "stop" ? "" : "ptp";
            } else if (c.script == "start_ntpd.sh") {
                running = "ntp";
            } else if (c.script == "stop_ntpd.sh") {
                running = "";
            }
        }
        return running;
    };
    ASSERT_TRUE(chain.world().waitFor(
        [&] {
            for (std::size_t i = 0; i < chain.size(); ++i) {
                bool isMaster = chain[i].name() == master.name;
                if (serving(chain[i]) != (isMaster ? "ptp" : "")) {
                    return false;
                }
            }
            return true;
        },
        20s));
    chain.expectCleanExit();
}
