// A module's table of programs: start inside the module, readiness, hooks,
// stop signals and time-outs, and keeping programs alive while what they
// need runs. Plain shell programs stand in for the module's daemons.
#include "tsdsim/ModuleProcesses.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tsdsim/World.h"

using namespace std::chrono_literals;
using tsdsim::ModuleProcesses;

namespace {

tsdsim::ModuleSetup setup(const std::string& name, std::uint32_t uuid)
{
    tsdsim::ModuleSetup s;
    s.name = name;
    s.uuid = uuid;
    return s;
}

ModuleProcesses::Program shell(const std::string& name, const std::string& script)
{
    ModuleProcesses::Program p;
    p.name = name;
    p.argv = {"/bin/sh", "-c", script};
    return p;
}

}  // namespace

TEST(ModuleProcesses, StartsInsideTheModuleWaitsUntilReadyAndCallsTheHooksInOrder)
{
    tsdsim::World world;
    tsdsim::Module& m = world.addModule(setup("a", 0x000101));
    ModuleProcesses& table = m.processes();
    std::vector<std::string> calls;
    const std::string flag = m.dir() + "/run/ready";
    // Ready once it has written a file into the module's /run, a while after its start.
    ModuleProcesses::Program p = shell("probe", "sleep 0.3; echo up > /run/ready; exec sleep 60");
    p.ready = [&] { return std::filesystem::exists(flag); };
    p.started = [&](tsdsim::ChildProcess&) { calls.push_back("started"); };
    p.stopping = [&](tsdsim::ChildProcess&) { calls.push_back("stopping"); };
    table.declare(p);

    ASSERT_TRUE(table.start("probe")) << table.error("probe");
    EXPECT_TRUE(std::filesystem::exists(flag));
    EXPECT_TRUE(table.running("probe"));
    EXPECT_TRUE(table.wanted("probe"));
    EXPECT_EQ(calls, (std::vector<std::string>{"started"}));
    // A second start of a running program changes nothing.
    const pid_t pid = table.pid("probe");
    EXPECT_TRUE(table.start("probe"));
    EXPECT_EQ(table.pid("probe"), pid);

    const int status = table.stop("probe", SIGTERM, 5s);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_FALSE(table.wanted("probe"));
    EXPECT_EQ(calls, (std::vector<std::string>{"started", "stopping"}));
    EXPECT_THROW(table.declare(p), std::logic_error);
}

TEST(ModuleProcesses, AProgramThatIgnoresItsStopSignalIsKilledAfterTheTimeOut)
{
    tsdsim::World world;
    tsdsim::Module& m = world.addModule(setup("a", 0x000101));
    ModuleProcesses& table = m.processes();
    table.declare(shell("stubborn", "trap '' TERM; echo armed; while :; do sleep 0.05; done"));
    ASSERT_TRUE(table.start("stubborn"));
    ASSERT_TRUE(world.waitFor([&] { return m.output("stubborn") == "armed\n"; }, 5s));
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(table.stop("stubborn", SIGTERM, 300ms), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 300ms);
    EXPECT_FALSE(table.running("stubborn"));
}

TEST(ModuleProcesses, FailuresToStartAreReportedWithTheirReason)
{
    tsdsim::World world;
    tsdsim::Module& m = world.addModule(setup("a", 0x000101));
    ModuleProcesses& table = m.processes();
    ModuleProcesses::Program missing;
    missing.name = "missing";
    missing.argv = {"/nonexistent/program"};
    table.declare(missing);
    EXPECT_FALSE(table.start("missing"));
    EXPECT_NE(table.error("missing").find("/nonexistent/program"), std::string::npos);

    ModuleProcesses::Program quitter = shell("quitter", "exit 3");
    quitter.ready = [] { return false; };
    table.declare(quitter);
    EXPECT_FALSE(table.start("quitter"));
    EXPECT_EQ(table.error("quitter"), "ended before it was ready");
    const int status = table.stop("quitter");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_THROW(table.start("undeclared"), std::logic_error);
}

TEST(ModuleProcesses, KeptAliveProgramsRestartOnlyWhileWhatTheyNeedRuns)
{
    tsdsim::World world;
    tsdsim::Module& m = world.addModule(setup("a", 0x000101));
    ModuleProcesses& table = m.processes();
    table.declare(shell("base", "exec sleep 60"));
    ModuleProcesses::Program client = shell("client", "echo run >> /run/client.log; exec sleep 60");
    client.keepAlive = true;
    client.needs = "base";
    table.declare(client);
    ASSERT_TRUE(table.start("base"));
    ASSERT_TRUE(table.start("client"));
    auto starts = [&] {
        std::string log = m.runFile("client.log");
        return std::count(log.begin(), log.end(), '\n');
    };
    ASSERT_TRUE(world.waitFor([&] { return starts() == 1; }, 5s));

    // The client dies while its base runs: maintain() brings it back.
    ASSERT_TRUE(table.signal("client", SIGKILL));
    ASSERT_TRUE(world.waitFor([&] { return starts() == 2; }, 5s));
    EXPECT_TRUE(table.running("client"));

    // Without its base it stays down until the base is back.
    table.stop("base");
    ASSERT_TRUE(table.signal("client", SIGKILL));
    std::this_thread::sleep_for(300ms);
    m.maintain();
    EXPECT_FALSE(table.running("client"));
    EXPECT_EQ(starts(), 2);
    ASSERT_TRUE(table.start("base"));
    m.maintain();
    EXPECT_TRUE(table.running("client"));
    EXPECT_TRUE(world.waitFor([&] { return starts() == 3; }, 5s));

    // Stopped on purpose, it is not brought back.
    table.stop("client");
    m.maintain();
    EXPECT_FALSE(table.running("client"));
}
