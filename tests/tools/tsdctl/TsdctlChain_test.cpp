// tsdctl against real daemons: simulated modules (tsdsim_world) with their
// own velad and an unmodified tsd, and tsdctl run inside a module, where
// 127.0.0.1:11122 is that module's bus and /run its own. Every state an
// operator can meet: slave, master, alone, an active error, no daemon states,
// no bus; the time service from the scripts' pid files; and watch following
// an election and an error as they happen.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>

#include "testsupport/ChildProcess.h"
#include "testsupport/LocalVelad.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using testsupport::ChildProcess;

namespace {

constexpr std::uint32_t kLowUuid = 0x00c101;
constexpr std::uint32_t kHighUuid = 0x00c102;
constexpr std::uint32_t kLoneUuid = 0x00c1a0;

struct CtlRun
{
    int status = -1;  // exit status, -1 when it did not exit
    std::string out;
};

std::string tsdctlPath(const tsdsim::World& world)
{
    return world.binDir() + "/tsdctl";
}

// tsdctl inside a module: its bus, its /run.
CtlRun tsdctl(const tsdsim::World& world, const tsdsim::Module& module, std::vector<std::string> args)
{
    args.insert(args.begin(), tsdctlPath(world));
    CtlRun run;
    const int status = module.run(args, &run.out, 15s);
    run.status = status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

Json::Value parse(const std::string& text)
{
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors << text;
    return value;
}

bool has(const std::string& text, const std::string& piece)
{
    return text.find(piece) != std::string::npos;
}

// Two modules on one bus (the higher UUID serves time) and a third alone on
// a bus of its own, all running.
class Modules : public ::testing::Test
{
protected:
    void SetUp() override
    {
        tsdsim::Bus& chain = world.addBus("chain");
        tsdsim::Bus& lone = world.addBus("lone");
        low = &world.addModule(setup("low", kLowUuid));
        high = &world.addModule(setup("high", kHighUuid));
        single = &world.addModule(setup("single", kLoneUuid));
        world.plug(*low, tsdsim::Side::Rear, chain);
        world.plug(*high, tsdsim::Side::Rear, chain);
        world.plug(*single, tsdsim::Side::Rear, lone);
        ASSERT_TRUE(world.startAll());
        const std::string master = "0A7C3100C102";
        ASSERT_TRUE(world.waitFor(
            [&] {
                return low->state("sync/master").asString() == master &&
                       high->state("sync/master").asString() == master &&
                       low->state("sync/app")["mode_back"].asInt() == 2 &&
                       high->state("sync/app")["mode_back"].asInt() == 3 &&
                       single->state("sync/app")["mode_back"].asInt() == 1;
            },
            30s));
    }

    static tsdsim::ModuleSetup setup(const std::string& name, std::uint32_t uuid)
    {
        tsdsim::ModuleSetup s;
        s.name = name;
        s.uuid = uuid;
        return s;
    }

    tsdsim::World world;
    tsdsim::Module* low = nullptr;
    tsdsim::Module* high = nullptr;
    tsdsim::Module* single = nullptr;
};

}  // namespace

TEST_F(Modules, StatusOfASlaveNamesItsMasterAndIsOk)
{
    const CtlRun run = tsdctl(world, *low, {"status"});
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_TRUE(has(run.out, "Bus             : 127.0.0.1:11122\n")) << run.out;
    EXPECT_TRUE(has(run.out, "Rear mode       : slave\n"
                             "Rear master     : 0A7C3100C102\n"
                             "Rear threshold  : 1.0\n"))
        << run.out;
    EXPECT_TRUE(has(run.out, "Chain master    : 0A7C3100C102\n")) << run.out;
    EXPECT_TRUE(has(run.out, "Errors          : none\n")) << run.out;
    EXPECT_TRUE(has(run.out, "Time service    : none\n")) << run.out;
    EXPECT_TRUE(has(run.out, "Status          : ok\n")) << run.out;
}

TEST_F(Modules, StatusOfTheMasterAndOfAModuleAlone)
{
    const CtlRun master = tsdctl(world, *high, {"status"});
    EXPECT_EQ(master.status, 0) << master.out;
    EXPECT_TRUE(has(master.out, "Rear mode       : master\nRear master     : 0A7C3100C102\n")) << master.out;

    const CtlRun alone = tsdctl(world, *single, {"status"});
    EXPECT_EQ(alone.status, 0) << alone.out;
    EXPECT_TRUE(has(alone.out, "Rear mode       : alone\n")) << alone.out;
    EXPECT_TRUE(has(alone.out, "Chain master    : 0A7C3100C1A0\n")) << alone.out;
}

TEST_F(Modules, JsonStatusCarriesTheSameAsOneObject)
{
    const CtlRun run = tsdctl(world, *low, {"status", "--json"});
    EXPECT_EQ(run.status, 0) << run.out;
    ASSERT_EQ(run.out.find('\n'), run.out.size() - 1) << "one line: " << run.out;
    const Json::Value status = parse(run.out);
    EXPECT_EQ(status["rear"]["mode"].asString(), "slave");
    EXPECT_EQ(status["rear"]["modeCode"].asInt(), 2);
    EXPECT_EQ(status["rear"]["master"].asString(), "0A7C3100C102");
    EXPECT_DOUBLE_EQ(status["rear"]["threshold"].asDouble(), 1.0);
    EXPECT_EQ(status["chainMaster"].asString(), "0A7C3100C102");
    EXPECT_TRUE(status["errors"].isArray() && status["errors"].empty());
    EXPECT_TRUE(status["bus"]["reachable"].asBool());
    EXPECT_EQ(status["status"].asString(), "ok");
    EXPECT_EQ(status["exitStatus"].asInt(), 0);
}

TEST_F(Modules, AnActiveErrorIsAWarningWithItsCodeAndText)
{
    // Every frame lost, and a parameter change that makes "low" elect again:
    // nobody answers, and after 3 s the rear side's error is raised.
    world.findBus("chain")->setLoss(1.0);
    tsdsim::SyncParam p = low->param();
    p.threshold = 1.5;
    low->setParam(p);
    ASSERT_TRUE(world.waitFor([&] { return !low->state("sync/errors/-1").isNull(); }, 20s));

    const CtlRun run = tsdctl(world, *low, {"status"});
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_TRUE(has(run.out, "Error -1        : Did not receive sync notification from all modules on back\n"))
        << run.out;
    EXPECT_TRUE(has(run.out, "Status          : warning (1 active error)\n")) << run.out;
    const Json::Value status = parse(tsdctl(world, *low, {"--json", "status"}).out);
    ASSERT_EQ(status["errors"].size(), 1u);
    EXPECT_EQ(status["errors"][0]["code"].asString(), "-1");
    EXPECT_EQ(status["errors"][0]["text"].asString(), "Did not receive sync notification from all modules on back");
    EXPECT_EQ(status["exitStatus"].asInt(), 1);
    world.findBus("chain")->setLoss(0.0);
}

TEST_F(Modules, WithoutDaemonStatesItIsCriticalAndWithoutBusUnknown)
{
    ASSERT_EQ(low->stopTsd(SIGTERM), 0);
    ASSERT_TRUE(world.waitFor([&] { return low->state("sync/app").isNull(); }, 10s));
    const CtlRun noDaemon = tsdctl(world, *low, {"status"});
    EXPECT_EQ(noDaemon.status, 2) << noDaemon.out;
    EXPECT_TRUE(has(noDaemon.out, "Daemon          : no states on the bus (tsd not running?)\n")) << noDaemon.out;
    EXPECT_TRUE(has(noDaemon.out, "Status          : critical (no tsd states on the bus)\n")) << noDaemon.out;

    low->stopVelad(SIGTERM);
    const CtlRun noBus = tsdctl(world, *low, {"status", "--timeout", "1"});
    EXPECT_EQ(noBus.status, 3) << noBus.out;
    EXPECT_TRUE(has(noBus.out, "Bus             : 127.0.0.1:11122 not reachable\n")) << noBus.out;
    EXPECT_TRUE(has(noBus.out, "Status          : unknown (bus not reachable)\n")) << noBus.out;
    const Json::Value status = parse(tsdctl(world, *low, {"status", "--json", "--timeout", "1"}).out);
    EXPECT_FALSE(status["bus"]["reachable"].asBool());
    EXPECT_EQ(status["status"].asString(), "unknown");
}

TEST_F(Modules, TheTimeServiceComesFromThePidFilesOfTheScripts)
{
    // A stand-in ptp4l: any live process will do, its pid file says what it is.
    ChildProcess ptp4l({"/bin/sleep", "60"});
    const std::string dir = high->dir() + "/run/timesync";
    ::mkdir(dir.c_str(), 0755);
    std::ofstream(dir + "/ptp4l.pid") << ptp4l.pid() << "\n";
    std::ofstream(dir + "/ptp4l.role") << "server\n";
    const CtlRun running = tsdctl(world, *high, {"status"});
    EXPECT_TRUE(has(running.out, "Time service    : ptp4l (server), pid " + std::to_string(ptp4l.pid()) + ", since "))
        << running.out;
    const Json::Value status = parse(tsdctl(world, *high, {"status", "--json"}).out);
    ASSERT_EQ(status["timeServices"].size(), 1u);
    EXPECT_EQ(status["timeServices"][0]["name"].asString(), "ptp4l");
    EXPECT_EQ(status["timeServices"][0]["role"].asString(), "server");
    EXPECT_EQ(status["timeServices"][0]["pid"].asInt(), ptp4l.pid());

    // A pid file whose process is gone means: not running.
    ptp4l.signalAndWait(SIGKILL);
    const CtlRun gone = tsdctl(world, *high, {"status"});
    EXPECT_TRUE(has(gone.out, "Time service    : none\n")) << gone.out;
    // Neither is a pid file that holds no pid.
    std::ofstream(dir + "/chronyd.pid") << "not a pid\n";
    EXPECT_TRUE(has(tsdctl(world, *high, {"status"}).out, "Time service    : none\n"));
}

TEST_F(Modules, WatchPrintsEachChangeWithATimestamp)
{
    // watch runs beside the test, inside the module's network namespace.
    ChildProcess watch({"/usr/bin/nsenter", "--net=/proc/" + std::to_string(low->holderPid()) + "/ns/net", "--",
                        tsdctlPath(world), "watch", "--json", "--for", "40"});
    std::string line;
    ASSERT_TRUE(watch.readLine(line, 10s));
    EXPECT_EQ(parse(line)["change"].asString(), "bus") << line;
    ASSERT_TRUE(watch.readLine(line, 10s));
    Json::Value first = parse(line);
    EXPECT_EQ(first["change"].asString(), "sides") << line;
    EXPECT_EQ(first["rear"]["mode"].asString(), "slave") << line;
    EXPECT_EQ(first["time"].asString().size(), std::string("2026-11-22T23:10:01.123Z").size()) << line;

    // The master goes away: "low" is alone and its own chain master.
    world.unplug(*high);
    bool alone = false;
    bool ownMaster = false;
    while (!(alone && ownMaster) && watch.readLine(line, 20s)) {
        const Json::Value change = parse(line);
        alone = alone || (change["change"] == "sides" && change["rear"]["mode"] == "alone");
        ownMaster = ownMaster || (change["change"] == "chainMaster" && change["chainMaster"] == "0A7C3100C101");
    }
    EXPECT_TRUE(alone && ownMaster) << line;
    EXPECT_EQ(watch.signalAndWait(SIGTERM), 0);
}

TEST(TsdctlCommandLine, UsageErrorsAreUnknownAndVersionIsTheProjects)
{
    const std::string tsdctl = testsupport::binDir() + "/tsdctl";
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{}, {"stats"}, {"status", "--port", "0"}, {"status", "--count", "2"},
                                               {"status", "watch"}, {"--bogus", "status"}}) {
        std::vector<std::string> argv{tsdctl};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess child(argv);
        EXPECT_NE(child.readAllStderr().find("usage: tsdctl"), std::string::npos);
        EXPECT_EQ(child.wait(), 3);
    }
    ChildProcess version({tsdctl, "--version"});
    EXPECT_EQ(version.readAll(), std::string("tsdctl ") + TSD_VERSION + "\n");
    EXPECT_EQ(version.wait(), 0);
}

// Whatever another bus participant publishes under "sync/" reaches the
// operator's terminal only in safe form: control bytes escaped, long text cut,
// values of the wrong shape reported as not readable.
TEST(TsdctlHostileStates, AreShownEscapedCutAndWithoutCrash)
{
    testsupport::LocalVelad velad({"--quiet"});
    ASSERT_NE(velad.port(), 0);
    const std::string port = std::to_string(velad.port());
    ChildProcess owner({testsupport::binDir() + "/vela", "--port", port, "own"});
    const std::string longText(1000, 'x');
    ASSERT_TRUE(owner.write("add sync/app {\"mode_back\":\"slave\",\"mode_front\":7,\"master_uuid_front\":1,"
                            "\"master_threshold_front\":0.5}\n"
                            "add sync/master \"0A7C31\\u001b]0;owned\\u0007\"\n"
                            "add sync/errors/-9 {\"txt\":\"red \\u001b[31m\\u009b2J " +
                            longText +
                            "\",\"info\":[1]}\n"
                            "add sync/errors/not-a-number 17\n"));
    std::string line;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(owner.readLine(line));
        ASSERT_EQ(line, "ok");
    }

    ChildProcess status({testsupport::binDir() + "/tsdctl", "--port", port, "status"});
    const std::string out = status.readAll();
    EXPECT_EQ(status.wait(), 1) << out;
    EXPECT_EQ(out.find('\x1b'), std::string::npos) << out;
    EXPECT_EQ(out.find("\xc2\x9b"), std::string::npos) << out;
    EXPECT_EQ(out.find('\x07'), std::string::npos) << out;
    EXPECT_TRUE(has(out, "Rear mode       : not readable\n")) << out;
    EXPECT_TRUE(has(out, "Front mode      : 7\nFront master    : 0A7C31000001\n")) << out;
    EXPECT_TRUE(has(out, "Chain master    : 0A7C31\\x1B]0;owned\\x07\n")) << out;
    EXPECT_TRUE(has(out, "Error -9        : red \\x1B[31m\\xC2\\x9B2J xxx")) << out;
    EXPECT_TRUE(has(out, "xxx...\n")) << out;
    EXPECT_LT(out.size(), 2000u) << "the long text is cut";
    EXPECT_TRUE(has(out, "Error not-a-number: \n") || has(out, "Error not-a-number : \n")) << out;
    EXPECT_TRUE(has(out, "Status          : warning (2 active errors)\n")) << out;

    ChildProcess json({testsupport::binDir() + "/tsdctl", "--port", port, "status", "--json"});
    const Json::Value parsed = parse(json.readAll());
    EXPECT_EQ(json.wait(), 1);
    EXPECT_TRUE(parsed["rear"]["mode"].isNull());
    EXPECT_EQ(parsed["errors"].size(), 2u);
    EXPECT_EQ(parsed["errors"][0]["code"].asString(), "-9") << "numbers first";
}

// watch keeps going when the broker goes away and says so, and says so again
// when it is back.
TEST(TsdctlWatch, ReportsTheBusLostAndBack)
{
    auto velad = std::make_unique<testsupport::LocalVelad>(std::vector<std::string>{"--quiet"});
    const std::uint16_t port = velad->port();
    ASSERT_NE(port, 0);
    ChildProcess watch({testsupport::binDir() + "/tsdctl", "--port", std::to_string(port), "watch", "--json"});
    std::string line;
    ASSERT_TRUE(watch.readLine(line, 10s));
    EXPECT_EQ(parse(line)["change"].asString(), "bus") << line;
    EXPECT_TRUE(parse(line)["reachable"].asBool()) << line;
    ASSERT_TRUE(watch.readLine(line, 10s));
    EXPECT_EQ(parse(line)["change"].asString(), "daemonGone") << "no daemon states yet: " << line;
    ASSERT_TRUE(watch.readLine(line, 10s));
    EXPECT_EQ(parse(line)["change"].asString(), "timeService") << line;

    velad.reset();
    ASSERT_TRUE(watch.readLine(line, 10s));
    EXPECT_EQ(line.find("{\"change\":\"bus\",\"reachable\":false,\"time\":"), 0u) << line;

    velad = std::make_unique<testsupport::LocalVelad>(std::vector<std::string>{"--quiet"}, port);
    ASSERT_TRUE(watch.readLine(line, 15s));
    EXPECT_EQ(line.find("{\"change\":\"bus\",\"reachable\":true,\"time\":"), 0u) << line;
    EXPECT_EQ(watch.signalAndWait(SIGINT), 0);
}
