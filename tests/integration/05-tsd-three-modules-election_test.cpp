// Three real tsd processes, each in namespaces of its own with its own velad,
// on one simulated FireWire bus. Beside each daemon run what a module ships:
// fwdevd publishes the reachable devices of a sysfs tree that the simulator
// keeps in step with the cabling, tsdparamd keeps "sync/param". The modules
// elect one master once the devices have been quiet for 3000 ms; the master
// alone serves time; when it goes away the other two elect a new one.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>

#include <chrono>
#include <string>
#include <vector>

#include "PtpModuleSetup.h"
#include "tsdsim/Bus.h"
#include "tsdsim/Module.h"
#include "tsdsim/ModuleSetup.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using tsdsim::Module;
using tsdsim::Side;

namespace {

constexpr std::uint32_t kUuidA = 0x000b01;
constexpr std::uint32_t kUuidB = 0x000b02;
constexpr std::uint32_t kUuidC = 0x000b03;

tsdsim::ModuleSetup setupFor(const std::string& name, std::uint32_t uuid)
{
    tsdsim::ModuleSetup s = integration::ptpModuleSetup(name, uuid, "239.255.77.5", 14500, 1.5);
    // Options of each module's own, so that the serving module shows its own.
    s.param.ptp4l = "-4 -E -H -i firewire0 --priority2 " + std::to_string(uuid & 0xff);
    return s;
}

std::string label(std::uint32_t uuid)
{
    char text[16];
    std::snprintf(text, sizeof text, "0A7C31%06X", uuid);
    return text;
}

// The module shows uuid as rear master on "sync/app" and as chain master on
// "sync/master".
bool follows(const Module& m, std::uint32_t uuid)
{
    const Json::Value app = m.state("sync/app");
    const Json::Value master = m.state("sync/master");
    return app.isObject() && app["master_uuid_back"].asUInt() == uuid && master.isString() &&
           master.asString() == label(uuid);
}

// Every follower and the master itself show the master; the master with
// status 3, so not merely alone in the list it had at start-up ("sync/param"
// restarts the election before the devices are known).
bool agree(const std::vector<const Module*>& followers, const Module& master)
{
    const std::uint32_t uuid = master.setup().uuid;
    for (const Module* m : followers) {
        if (!follows(*m, uuid)) {
            return false;
        }
    }
    return follows(master, uuid) && master.state("sync/app")["mode_back"].asInt() == 3;
}

// Whether the module's last PTP command left the service started.
bool servesPtp(const Module& m)
{
    const auto calls = m.scriptCalls();
    for (auto it = calls.rbegin(); it != calls.rend(); ++it) {
        if (it->script == "ptp4ladm.sh") {
            return it->args == "start" || it->args == "restart";
        }
    }
    return false;
}

// When the module first published uuid as its rear master on "sync/app"
// after the given time; -1 when it never did.
double firstResult(const Module& m, std::uint32_t uuid, double after)
{
    for (const auto& e : m.events()) {
        if (e.time >= after && e.path == "sync/app" && e.value.isObject() &&
            e.value["master_uuid_back"].asUInt() == uuid) {
            return e.time;
        }
    }
    return -1;
}

std::string dump(tsdsim::World& world)
{
    std::string out;
    for (const auto& m : world.modules()) {
        out += m->name() + ": app=" + m->state("sync/app").toStyledString() +
               " master=" + m->state("sync/master").toStyledString() + " scripts:";
        for (const auto& c : m->scriptCalls()) {
            out += " [" + std::to_string(c.time) + " " + c.script + " " + c.args + "]";
        }
        out += "\n";
    }
    return out;
}

}  // namespace

// Modules a, b and c with their rear ports on one bus.
class ThreeModulesElection : public ::testing::Test
{
protected:
    ThreeModulesElection()
    {
        for (Module* m : {&a, &b, &c}) {
            world.plug(*m, Side::Rear, bus);
        }
    }

    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    Module& a = world.addModule(setupFor("a", kUuidA));
    Module& b = world.addModule(setupFor("b", kUuidB));
    Module& c = world.addModule(setupFor("c", kUuidC));
};

TEST_F(ThreeModulesElection, ElectTheLargestUuidThenFailOverWhenTheMasterGoes)
{
    const double started = world.now();
    ASSERT_TRUE(world.startAll({"-d"}));
    for (Module* m : {&a, &b, &c}) {
        ASSERT_TRUE(m->waitPublished(10s)) << m->name() << ": " << m->unpublished();
        EXPECT_EQ(m->reachable().size(), 2u) << m->name();
    }

    // Equal priorities everywhere: the largest uuid wins.
    ASSERT_TRUE(world.waitFor([&] { return agree({&a, &b}, c); }, 30s)) << dump(world);

    // The three-module result comes only after the devices have been quiet
    // for 3000 ms: no follower published it earlier. (Each module may elect
    // itself alone at once: "sync/param" restarts the election before the
    // devices are known.)
    for (Module* m : {&a, &b}) {
        const double first = firstResult(*m, kUuidC, started);
        EXPECT_GE(first, started + 2.9) << m->name() << "\n" << dump(world);
    }
    for (Module* m : {&a, &b}) {
        const Json::Value app = m->state("sync/app");
        EXPECT_EQ(app["mode_back"].asInt(), 2) << m->name();
        EXPECT_DOUBLE_EQ(app["master_threshold_back"].asDouble(), 1.5) << m->name();
    }
    EXPECT_EQ(c.state("sync/app")["mode_back"].asInt(), 3);

    // The master, and only the master, serves PTP with its own options.
    ASSERT_TRUE(world.waitFor([&] { return servesPtp(c) && !servesPtp(a) && !servesPtp(b); }, 10s))
        << dump(world);
    EXPECT_EQ(c.runFile("timesync/ptp4l.cfg"), c.param().ptp4l + "\n");
    // After the election no follower starts anything (before it, each may
    // have served itself while alone).
    for (Module* m : {&a, &b}) {
        const double elected = firstResult(*m, kUuidC, started);
        for (const auto& call : m->scriptCalls()) {
            if (call.time >= elected) {
                EXPECT_EQ(call.args, "stop") << m->name() << "\n" << dump(world);
            }
        }
    }
    for (Module* m : {&a, &b, &c}) {
        for (const auto& call : m->scriptCalls()) {
            EXPECT_EQ(call.script, "ptp4ladm.sh") << m->name() << "\n" << dump(world);
        }
    }

    // The master goes: its daemon stops and its device vanishes from the bus.
    const int status = c.stopTsd(SIGTERM, 10s);
    EXPECT_TRUE(status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
    const double unplugged = world.now();
    world.unplug(c);
    for (Module* m : {&a, &b}) {
        ASSERT_TRUE(m->waitPublished(10s)) << m->name() << ": " << m->unpublished();
        EXPECT_EQ(m->reachable().size(), 1u) << m->name();
    }
    ASSERT_TRUE(world.waitFor([&] { return agree({&a}, b); }, 30s)) << dump(world);
    // The new result, too, waits for the quiet time after the removal.
    for (Module* m : {&a, &b}) {
        EXPECT_GE(firstResult(*m, kUuidB, unplugged), unplugged + 2.9) << m->name() << "\n" << dump(world);
    }
    ASSERT_TRUE(world.waitFor([&] { return servesPtp(b) && !servesPtp(a); }, 10s)) << dump(world);
    EXPECT_EQ(b.runFile("timesync/ptp4l.cfg"), b.param().ptp4l + "\n");
    EXPECT_EQ(b.state("sync/app")["mode_back"].asInt(), 3);
    EXPECT_EQ(a.state("sync/app")["mode_back"].asInt(), 2);

    // Both survivors are still running and stop cleanly.
    for (Module* m : {&a, &b}) {
        ASSERT_TRUE(m->tsdRunning()) << m->name();
        const int st = m->stopTsd(SIGTERM, 10s);
        EXPECT_TRUE(st >= 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0) << m->name() << ": wait status " << st;
    }
}

TEST_F(ThreeModulesElection, FailingScriptsAreLoggedAndTheMasterStillElected)
{
    for (Module* m : {&a, &b, &c}) {
        m->setScriptStatus("ptp4ladm.sh", 3);
    }
    ASSERT_TRUE(world.startAll());
    ASSERT_TRUE(world.waitFor([&] { return agree({&a, &b}, c); }, 30s)) << dump(world);
    ASSERT_TRUE(world.waitFor(
        [&] {
            for (const auto& line : c.syslog()) {
                if (line.text == "error starting ptpd" && line.priority == LOG_ERR) {
                    return true;
                }
            }
            return false;
        },
        10s))
        << dump(world);
    for (Module* m : {&a, &b, &c}) {
        EXPECT_TRUE(m->tsdRunning()) << m->name();
    }
}

TEST(SingleModuleBadInput, ParameterValuesOfWrongTypesAreSurvived)
{
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    tsdsim::ModuleSetup s = setupFor("solo", kUuidA);
    s.publishParam = false;  // this test owns "sync/param" itself
    Module& solo = world.addModule(s);
    world.plug(solo, Side::Rear, bus);
    ASSERT_TRUE(world.startAll());

    // Wrong JSON types, then a good value, from a participant of the module's
    // own bus; the daemon's bus library reports what the daemon threw.
    const std::string script =
        "(echo 'add sync/param {\"timesource\": \"Ptp\", \"threshold\": \"high\"}'; sleep 0.5;"
        " echo 'change sync/param {\"timesource\": [1]}'; sleep 0.5;"
        " echo 'change sync/param {\"timesource\": \"Ptp\", \"threshold\": 2, \"ptp4l\": \"-4 -i firewire0\","
        " \"ntpserver\": \"127.0.0.1\"}'; sleep 2) | " +
        world.binDir() + "/vela --port 11122 own";
    std::string output;
    const int status = solo.run({"/bin/sh", "-c", script}, &output, 10s);
    EXPECT_TRUE(status >= 0 && WIFEXITED(status)) << status << " " << output;

    std::size_t thrown = 0;
    for (const auto& line : solo.syslog()) {
        if (line.text.find("fetch callback threw") != std::string::npos) {
            ++thrown;
        }
    }
    EXPECT_EQ(thrown, 2u) << dump(world);
    ASSERT_TRUE(solo.tsdRunning());

    // The good value restarted the election: alone, and serving PTP.
    ASSERT_TRUE(world.waitFor(
        [&] {
            const Json::Value app = solo.state("sync/app");
            return app.isObject() && app["mode_back"].asInt() == 1 &&
                   app["master_threshold_back"].asDouble() == 2.0 && follows(solo, kUuidA);
        },
        10s))
        << dump(world);
    ASSERT_TRUE(world.waitFor([&] { return servesPtp(solo); }, 10s)) << dump(world);
    EXPECT_EQ(solo.runFile("timesync/ptp4l.cfg"), "-4 -i firewire0\n");
    const int st = solo.stopTsd(SIGTERM, 10s);
    EXPECT_TRUE(st >= 0 && WIFEXITED(st) && WEXITSTATUS(st) == 0) << "wait status " << st;
}
