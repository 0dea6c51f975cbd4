// Four modules with the real time services: the reference scripts run ptp4l
// (software time stamps, free running) in every module, one follower each,
// and the serving ptp4l on the module the chain elects. Every module's ptp4l
// follows the elected master; when the master is unplugged, the remaining
// three follow the next one. No ptp4l or chronyd started here may set the
// host clock: the world gives up that right before anything starts.
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "ChainTestUtil.h"

using simtest::module;
using tsdsim::Module;
using tsdsim::Side;
using tsdsim::World;
using namespace std::chrono_literals;

namespace {

std::string followed(World& world, const Module& m)
{
    const Module* master = world.followed(m);
    return master ? master->name() : "-";
}

// Asks every ptp4l until each module of group follows master.
bool allFollow(World& world, const std::vector<Module*>& group, const Module& master,
               std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        world.pollFollowed();
        bool all = true;
        for (const Module* m : group) {
            all = all && world.followed(*m) == &master;
        }
        if (all) {
            return true;
        }
        std::this_thread::sleep_for(200ms);
    }
    return false;
}

std::string dump(World& world)
{
    std::string out;
    for (const auto& m : world.modules()) {
        out += m->name() + " follows " + followed(world, *m) + " (" + m->ptp().portState + "), sync/master " +
               m->state("sync/master").toStyledString();
        for (const auto& c : m->scriptCalls()) {
            out += "    " + c.script + " " + c.args + "\n";
        }
    }
    return out;
}

}  // namespace

TEST(RealServices, EveryModuleFollowsTheElectedMasterThenTheNextAfterAnUnplug)
{
    if (::access("/usr/sbin/ptp4l", X_OK) != 0 || ::access("/usr/sbin/pmc", X_OK) != 0) {
        GTEST_SKIP() << "linuxptp is not installed (scripts/install-deps installs it)";
    }
    World::Options options;
    options.services = tsdsim::Services::Real;
    World world(options);
    tsdsim::Bus& bus = world.addBus("chain");
    std::vector<Module*> all;
    for (std::uint32_t i = 1; i <= 4; ++i) {
        Module& m = world.addModule(module("m" + std::to_string(i), 0x00f100 + i));
        world.plug(m, Side::Rear, bus);
        all.push_back(&m);
    }
    Module& m3 = *all[2];
    Module& m4 = *all[3];
    // The shipped serving options ask for hardware time stamps; the
    // simulated links have software ones only.
    EXPECT_EQ(m4.param().ptp4l, world.real().serverOptions());

    ASSERT_TRUE(world.startAll({"-d"}));
    ASSERT_TRUE(allFollow(world, all, m4, simtest::kSettle)) << dump(world);
    EXPECT_TRUE(m4.ptp().serves());
    for (Module* m : {all[0], all[1], all[2]}) {
        EXPECT_TRUE(m->ptp().follows()) << m->name();
    }

    world.unplug(m4);
    const std::vector<Module*> rest{all[0], all[1], all[2]};
    ASSERT_TRUE(allFollow(world, rest, m3, simtest::kSettle)) << dump(world);
    // m3 became the server through the script, the others stayed followers.
    bool started = false;
    for (const auto& c : m3.scriptCalls()) {
        started = started || (c.script == "ptp4ladm.sh" && (c.args == "start" || c.args == "restart"));
    }
    EXPECT_TRUE(started);

    world.stopAll();
    // Nothing the scripts started outlives its module's stop.
    for (const auto& m : world.modules()) {
        EXPECT_EQ(m->timeServices()->kill(), 0) << m->name();
    }
}
