// /bin/ptp4ladm.sh against the real ptp4l: the follower at boot, the serving
// ptp4l that replaces it, the way back, restarts, bounds and the lock. Every
// test runs in namespaces of its own (see ModuleSandbox); ptp4l uses software
// time stamps and --free_running 1 on a veth pair and never adjusts a clock.
// What ptp4l itself says about its role is read back with pmc over its own
// management socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include "ModuleSandbox.h"
#include "testsupport/ChildProcess.h"
#include "testsupport/SyslogCapture.h"

using namespace scripttest;
using namespace std::chrono_literals;
using orvtest::runIsolated;

namespace {

const char kFollowerDefaults[] = "UUID=000001\nPTP4L_FOLLOWER_OPTIONS=\"-4 -S -i firewire0 --free_running 1\"\n";
const char kServerOptions[] = "-4 -S -i firewire0 --free_running 1 --priority1 100";

std::vector<std::string> ptp4lArgs(const std::string& options)
{
    std::vector<std::string> args{"/usr/sbin/ptp4l"};
    for (const std::string& token : splitBlanks(options)) {
        args.push_back(token);
    }
    return args;
}

// "slaveOnly 1" / "priority1 100" as the running ptp4l reports them. A ptp4l
// just started may not answer its management socket yet.
std::string defaultDataSet()
{
    std::string answer;
    waitFor(
        [&] {
            answer = orvtest::capture("pmc -u -b 0 -t 0.2 'GET DEFAULT_DATA_SET' 2>&1");
            return answer.find("priority1") != std::string::npos;
        },
        3s);
    return answer;
}

bool reports(const std::string& dataSet, const std::string& field, const std::string& value)
{
    auto pos = dataSet.find(field + " ");
    if (pos == std::string::npos) {
        return false;
    }
    pos = dataSet.find_first_not_of(' ', pos + field.size());
    return dataSet.compare(pos, value.size(), value) == 0;
}

void writeConfig(const std::string& options)
{
    orvtest::writeFile(kRun + "/ptp4l.cfg", options + "\n");
}

}  // namespace

TEST(Ptp4ladm, StopAtBootStartsTheFollowerAndLeavesItRunning)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(kFollowerDefaults);
        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0);
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "follower\n");
        pid_t follower = pidFrom(kRun + "/ptp4l.pid");
        ASSERT_TRUE(alive(follower));
        auto expected = ptp4lArgs("-4 -S -i firewire0 --free_running 1 -s");
        EXPECT_EQ(commandLine(follower), expected);
        std::string dataSet = defaultDataSet();
        EXPECT_TRUE(reports(dataSet, "slaveOnly", "1")) << dataSet;

        // tsd stops a server that is not running: the follower stays as it is.
        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0);
        EXPECT_EQ(pidFrom(kRun + "/ptp4l.pid"), follower);
        EXPECT_EQ(module.processes(), std::vector<pid_t>{follower});
    });
}

TEST(Ptp4ladm, StartReplacesTheFollowerAndStopPutsItBack)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(kFollowerDefaults);
        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0);
        pid_t follower = pidFrom(kRun + "/ptp4l.pid");

        writeConfig(kServerOptions);
        ASSERT_EQ(module.run("ptp4ladm.sh start").status, 0);
        pid_t server = pidFrom(kRun + "/ptp4l.pid");
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "server\n");
        EXPECT_NE(server, follower);
        EXPECT_FALSE(alive(follower));
        EXPECT_EQ(commandLine(server), ptp4lArgs(kServerOptions));
        EXPECT_EQ(module.processes(), std::vector<pid_t>{server});
        std::string dataSet = defaultDataSet();
        EXPECT_TRUE(reports(dataSet, "slaveOnly", "0")) << dataSet;
        EXPECT_TRUE(reports(dataSet, "priority1", "100")) << dataSet;

        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0);
        EXPECT_FALSE(alive(server));
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "follower\n");
        pid_t again = pidFrom(kRun + "/ptp4l.pid");
        EXPECT_TRUE(alive(again));
        EXPECT_EQ(module.processes(), std::vector<pid_t>{again});
        dataSet = defaultDataSet();
        EXPECT_TRUE(reports(dataSet, "slaveOnly", "1")) << dataSet;
    });
}

TEST(Ptp4ladm, StartWhileServingRestartsWithTheFileAsItIsNow)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(kFollowerDefaults);
        writeConfig(kServerOptions);
        ASSERT_EQ(module.run("ptp4ladm.sh start").status, 0);
        pid_t first = pidFrom(kRun + "/ptp4l.pid");

        writeConfig("-4 -S -i firewire0 --free_running 1 --priority1 90");
        ASSERT_EQ(module.run("ptp4ladm.sh start").status, 0);
        pid_t second = pidFrom(kRun + "/ptp4l.pid");
        EXPECT_NE(second, first);
        EXPECT_FALSE(alive(first));
        EXPECT_TRUE(reports(defaultDataSet(), "priority1", "90"));

        writeConfig("-4 -S -i firewire0 --free_running 1 --priority1 80");
        ASSERT_EQ(module.run("ptp4ladm.sh restart").status, 0);
        pid_t third = pidFrom(kRun + "/ptp4l.pid");
        EXPECT_NE(third, second);
        EXPECT_FALSE(alive(second));
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "server\n");
        EXPECT_TRUE(reports(defaultDataSet(), "priority1", "80"));
        EXPECT_EQ(module.processes(), std::vector<pid_t>{third});
    });
}

TEST(Ptp4ladm, WithoutAFollowerStopEndsTheServerAndLeavesNothing)
{
    runIsolated([] {
        ModuleSandbox module;
        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0) << "nothing runs: no failure";
        EXPECT_TRUE(module.processes().empty());

        writeConfig(kServerOptions);
        ASSERT_EQ(module.run("ptp4ladm.sh start").status, 0);
        pid_t server = pidFrom(kRun + "/ptp4l.pid");
        ASSERT_TRUE(alive(server));
        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0);
        EXPECT_FALSE(alive(server));
        EXPECT_TRUE(module.processes().empty());
        for (const char* state : {"/ptp4l.pid", "/ptp4l.role", "/ptp4l.id"}) {
            EXPECT_NE(::access((kRun + state).c_str(), F_OK), 0) << state;
        }
    });
}

TEST(Ptp4ladm, AnEmptyConfigStartsNothingAndLeavesTheServerServing)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults(kFollowerDefaults);
        writeConfig(kServerOptions);
        ASSERT_EQ(module.run("ptp4ladm.sh start").status, 0);
        pid_t server = pidFrom(kRun + "/ptp4l.pid");
        ASSERT_TRUE(alive(server));
        // What tsd's write leaves on a full /var/run: the file, truncated.
        orvtest::writeFile(kRun + "/ptp4l.cfg", "");
        for (const char* call : {"ptp4ladm.sh restart", "ptp4ladm.sh start"}) {
            SCOPED_TRACE(call);
            EXPECT_EQ(module.run(call).status, 1);
            EXPECT_EQ(pidFrom(kRun + "/ptp4l.pid"), server);
            EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "server\n");
            EXPECT_EQ(module.processes(), std::vector<pid_t>{server});
        }
        EXPECT_TRUE(syslog.contains(LOG_ERR, "/var/run/timesync/ptp4l.cfg is empty (was /var/run full when tsd "
                                             "wrote it?); nothing started"))
            << syslog.dump();
    });
}

TEST(Ptp4ladm, AServerThatDoesNotStartLeavesTheModuleFollowing)
{
    runIsolated([] {
        testsupport::SyslogCapture syslog;
        ModuleSandbox module;
        module.setDefaults(kFollowerDefaults);
        ASSERT_EQ(module.run("ptp4ladm.sh stop").status, 0);

        writeConfig("-4 -S -i nosuch0 --free_running 1");
        EXPECT_EQ(module.run("ptp4ladm.sh start").status, 1);
        EXPECT_EQ(readFile(kRun + "/ptp4l.role"), "follower\n");
        pid_t follower = pidFrom(kRun + "/ptp4l.pid");
        EXPECT_TRUE(alive(follower));
        EXPECT_EQ(module.processes(), std::vector<pid_t>{follower});
        EXPECT_TRUE(syslog.contains(LOG_ERR, "ptp4l -4 -S -i nosuch0 --free_running 1 did not start; see ptp4l's "
                                             "own messages. Following instead"))
            << syslog.dump();
    });
}

TEST(Ptp4ladm, APtp4lThatIgnoresSigtermIsKilledWithinTheBound)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults("PTP4L=" + module.stubborn("ptp4l") + "\n");
        writeConfig("-4 -S -i firewire0");
        ASSERT_EQ(module.run("ptp4ladm.sh start").status, 0);
        module.expectStopKillsWithinTheBound("ptp4ladm.sh stop", pidFrom(kRun + "/ptp4l.pid"));
    });
}

TEST(Ptp4ladm, AStaleStateNeverSignalsAnotherProcess)
{
    runIsolated([] {
        ModuleSandbox module;
        // A process that now holds the pid the state names, started at
        // another time than the recorded ptp4l.
        testsupport::ChildProcess bystander({"/bin/sleep", "30"});
        std::string pid = std::to_string(bystander.pid());
        orvtest::writeFile(kRun + "/ptp4l.id", pid + " 1\n");
        orvtest::writeFile(kRun + "/ptp4l.pid", pid + "\n");
        orvtest::writeFile(kRun + "/ptp4l.role", "server\n");
        EXPECT_EQ(module.run("ptp4ladm.sh stop").status, 0);
        EXPECT_TRUE(bystander.running());
        EXPECT_NE(::access((kRun + "/ptp4l.pid").c_str(), F_OK), 0);
    });
}

TEST(Ptp4ladm, ConcurrentCallsLeaveExactlyOnePtp4lThatMatchesTheState)
{
    runIsolated([] {
        ModuleSandbox module;
        module.setDefaults(kFollowerDefaults);
        writeConfig(kServerOptions);
        // tsd never overlaps two calls, but an operator or the boot-time stop
        // may run beside it; the lock makes them take turns.
        std::string calls;
        for (const char* action : {"start", "stop", "restart", "stop", "start", "stop"}) {
            calls += kScripts + "/ptp4ladm.sh " + action + " & ";
        }
        ASSERT_EQ(std::system(("cd " + module.dir() + " && export TSD_DEFAULTS=" + module.dir() +
                               "/tsd.default && { " + calls + "wait; } 2>/dev/null")
                                  .c_str()),
                  0);
        std::vector<pid_t> running = module.processes();
        ASSERT_EQ(running.size(), 1u);
        EXPECT_EQ(pidFrom(kRun + "/ptp4l.pid"), running[0]);
        std::vector<std::string> args = commandLine(running[0]);
        std::string role = readFile(kRun + "/ptp4l.role");
        EXPECT_EQ(role == "follower\n", !args.empty() && args.back() == "-s") << role;
    });
}
