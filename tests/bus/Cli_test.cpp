// The vela client and velad as real processes: the exact output forms that
// scripts rely on, exit statuses, and a broker restart under a running
// `vela own` and `vela watch`.
#include "BusTestSupport.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>

using bustest::runVela;
using testsupport::ChildProcess;
using testsupport::LocalVelad;
using namespace std::chrono_literals;

namespace {

std::vector<std::string> velaArgs(std::uint16_t port, std::vector<std::string> args)
{
    std::vector<std::string> argv{bustest::velaPath(), "--port", std::to_string(port)};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

// `vela own` with a pipe on stdin.
class Owner
{
public:
    explicit Owner(std::uint16_t port) : m_process(velaArgs(port, {"own"})) {}
    // Sends one line and returns the answer line.
    std::string line(const std::string& text)
    {
        m_process.write(text + "\n");
        std::string answer;
        if (!m_process.readLine(answer)) {
            return "(no answer)";
        }
        return answer;
    }
    ChildProcess& process() { return m_process; }

private:
    ChildProcess m_process;
};

// Waits until `vela get path` exits with status.
bool waitGetStatus(std::uint16_t port, const std::string& path, int status)
{
    for (int i = 0; i < 200; ++i) {
        if (runVela(port, {"get", path}) == status) {
            return true;
        }
        std::this_thread::sleep_for(25ms);
    }
    return false;
}

class CliTest : public ::testing::Test
{
protected:
    LocalVelad velad{{"--quiet", "--set-timeout", "1000"}};
};

}  // namespace

TEST_F(CliTest, OwnAnswersEachLineInOrderAfterTheBroker)
{
    Owner own(velad.port());
    EXPECT_EQ(own.line("add sync/param {\"timesource\": \"Ptp\", \"threshold\": 0.1}"), "ok");
    EXPECT_EQ(own.line("change sync/param {\"timesource\":\"Ntp\"}"), "ok");
    EXPECT_EQ(own.line("add sync/param 1"), "error: state 'sync/param' exists already (own)");
    EXPECT_EQ(own.line("frobnicate x"), "error: unknown operation 'frobnicate' (add, change, remove)");
    EXPECT_EQ(own.line("add x {").rfind("error: invalid JSON: ", 0), 0u);
    EXPECT_EQ(own.line("remove sync/param"), "ok");
    EXPECT_EQ(own.line("remove sync/param"), "error: no state 'sync/param'");
}

TEST_F(CliTest, GetPrintsCompactJsonAndFailsForUnknownPaths)
{
    Owner own(velad.port());
    ASSERT_EQ(own.line("add sync/param {\"timesource\": \"Ptp\", \"threshold\": 0.1, \"list\": [1, 2]}"),
              "ok");
    std::string out, err;
    EXPECT_EQ(runVela(velad.port(), {"get", "sync/param"}, &out, &err), 0);
    EXPECT_EQ(out, "{\"list\":[1,2],\"threshold\":0.1,\"timesource\":\"Ptp\"}\n");
    EXPECT_EQ(runVela(velad.port(), {"get", "sync/nothing"}, &out, &err), 1);
    EXPECT_EQ(out, "");
    EXPECT_NE(err.find("sync/nothing"), std::string::npos);
}

TEST_F(CliTest, ListPrintsSortedPathsWithTabAndValue)
{
    Owner own(velad.port());
    ASSERT_EQ(own.line("add sync/master \"0A7C31001234\""), "ok");
    ASSERT_EQ(own.line("add reachableDevices/firewire0/0A7C31000002 {}"), "ok");
    ASSERT_EQ(own.line("add reachableDevices/firewire0/0A7C31000001 {\"a\": null}"), "ok");
    std::string out;
    EXPECT_EQ(runVela(velad.port(), {"list", "reachableDevices/"}, &out), 0);
    EXPECT_EQ(out,
              "reachableDevices/firewire0/0A7C31000001\t{\"a\":null}\n"
              "reachableDevices/firewire0/0A7C31000002\t{}\n");
    EXPECT_EQ(runVela(velad.port(), {"list"}, &out), 0);
    EXPECT_EQ(out,
              "reachableDevices/firewire0/0A7C31000001\t{\"a\":null}\n"
              "reachableDevices/firewire0/0A7C31000002\t{}\n"
              "sync/master\t\"0A7C31001234\"\n");
    EXPECT_EQ(runVela(velad.port(), {"list", "none/"}, &out), 0);
    EXPECT_EQ(out, "");
}

TEST_F(CliTest, SetReachesTheOwnerWhichAnswersNull)
{
    Owner own(velad.port());
    ASSERT_EQ(own.line("add sync/app {\"x\": 1}"), "ok");
    std::string out, err;
    EXPECT_EQ(runVela(velad.port(), {"set", "sync/app", "{\"mode\": 3}"}, &out, &err), 0) << err;
    EXPECT_EQ(out, "null\n");
    std::string request;
    ASSERT_TRUE(own.process().readLine(request));
    EXPECT_EQ(request, "{\"set\":\"sync/app\",\"value\":{\"mode\":3}}");
}

TEST_F(CliTest, SetFailsWithStatusOneForUnknownPathsAndBadJson)
{
    std::string out, err;
    EXPECT_EQ(runVela(velad.port(), {"set", "no/such", "1"}, &out, &err), 1);
    EXPECT_NE(err.find("no/such"), std::string::npos);
    EXPECT_EQ(runVela(velad.port(), {"set", "no/such", "{bad"}, &out, &err), 1);
    EXPECT_NE(err.find("invalid JSON"), std::string::npos);
}

TEST_F(CliTest, WatchPrintsExistingStatesFirstThenEveryEvent)
{
    Owner own(velad.port());
    ASSERT_EQ(own.line("add sync/a 1"), "ok");
    ASSERT_EQ(own.line("add other/b 1"), "ok");
    ChildProcess watch(velaArgs(velad.port(), {"watch", "sync/", "--count", "4"}));
    std::string line;
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"add\",\"path\":\"sync/a\",\"value\":1}");
    ASSERT_EQ(own.line("change sync/a \"two\""), "ok");
    ASSERT_EQ(own.line("change other/b 2"), "ok");
    ASSERT_EQ(own.line("add sync/c [true]"), "ok");
    ASSERT_EQ(own.line("remove sync/a"), "ok");
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"change\",\"path\":\"sync/a\",\"value\":\"two\"}");
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"add\",\"path\":\"sync/c\",\"value\":[true]}");
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"remove\",\"path\":\"sync/a\",\"value\":\"two\"}");
    EXPECT_EQ(watch.wait(), 0);  // --count 4 reached
}

TEST_F(CliTest, WatchForSecondsEndsWithStatusZero)
{
    Owner own(velad.port());
    ASSERT_EQ(own.line("add w/a 1"), "ok");
    const auto t0 = std::chrono::steady_clock::now();
    ChildProcess watch(velaArgs(velad.port(), {"watch", "--for", "0.5"}));
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 450ms);
    EXPECT_EQ(watch.readAll(), "{\"event\":\"add\",\"path\":\"w/a\",\"value\":1}\n");
}

TEST_F(CliTest, WatchEndsWithStatusZeroOnSigterm)
{
    ChildProcess watch(velaArgs(velad.port(), {"watch"}));
    ASSERT_TRUE(watch.waitForHandler(SIGTERM));
    EXPECT_EQ(watch.signalAndWait(SIGTERM), 0);
}

TEST_F(CliTest, OwnExitsWhenStdinClosesAndItsStatesVanish)
{
    Owner own(velad.port());
    ASSERT_EQ(own.line("add own/x 1"), "ok");
    std::string out;
    EXPECT_EQ(runVela(velad.port(), {"get", "own/x"}, &out), 0);
    own.process().closeStdin();
    EXPECT_EQ(own.process().wait(), 0);
    EXPECT_TRUE(waitGetStatus(velad.port(), "own/x", 1));
}

TEST_F(CliTest, OwnAnswersLinesWrittenAtOnceInInputOrder)
{
    ChildProcess own(velaArgs(velad.port(), {"own"}));
    own.write("add a 1\nbogus\nadd b 2\nchange a 3\nremove b\nremove b\n");
    own.closeStdin();
    EXPECT_EQ(
        own.readAll(),
        "ok\nerror: unknown operation 'bogus' (add, change, remove)\nok\nok\nok\nerror: no state 'b'\n");
    EXPECT_EQ(own.wait(), 0);
}

TEST_F(CliTest, KilledOwnersStatesVanishForWatchers)
{
    auto own = std::make_unique<Owner>(velad.port());
    ASSERT_EQ(own->line("add gone/x 1"), "ok");
    ChildProcess watch(velaArgs(velad.port(), {"watch", "gone/", "--count", "2"}));
    std::string line;
    ASSERT_TRUE(watch.readLine(line));
    own->process().signalAndWait(SIGKILL);
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"remove\",\"path\":\"gone/x\",\"value\":1}");
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(CliTest, BrokerRestartUnderRunningOwnAndWatch)
{
    const std::uint16_t port = velad.port();
    Owner own(port);
    ASSERT_EQ(own.line("add sync/param {\"timesource\":\"Ptp\"}"), "ok");
    ChildProcess watch(velaArgs(port, {"watch", "sync/"}));
    std::string line;
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"add\",\"path\":\"sync/param\",\"value\":{\"timesource\":\"Ptp\"}}");

    ASSERT_EQ(velad.process().signalAndWait(SIGKILL), 128 + SIGKILL);
    // While the broker is away the owner's change is kept for the replay;
    // its acknowledgement comes with the new connection.
    ASSERT_TRUE(own.process().write("change sync/param {\"timesource\":\"Ntp\"}\n"));
    std::this_thread::sleep_for(300ms);

    LocalVelad again({"--quiet"}, port);
    ASSERT_TRUE(own.process().readLine(line, 10s));
    EXPECT_EQ(line, "ok");
    // The watcher's own peer hides the break: the value changed meanwhile
    // comes as a change, not as a second appearance.
    ASSERT_TRUE(watch.readLine(line, 10s));
    EXPECT_EQ(line, "{\"event\":\"change\",\"path\":\"sync/param\",\"value\":{\"timesource\":\"Ntp\"}}");
    std::string out;
    EXPECT_EQ(runVela(port, {"get", "sync/param"}, &out), 0);
    EXPECT_EQ(out, "{\"timesource\":\"Ntp\"}\n");
    EXPECT_EQ(own.line("change sync/param 5"), "ok");
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"change\",\"path\":\"sync/param\",\"value\":5}");
}

TEST(CliNoBroker, GetGivesUpWithStatusOne)
{
    // A port nobody listens on: velad started and stopped again.
    std::uint16_t port = 0;
    {
        LocalVelad velad;
        port = velad.port();
    }
    std::string out, err;
    EXPECT_EQ(runVela(port, {"--timeout", "1", "get", "a"}, &out, &err), 1);
    EXPECT_NE(err.find("broker"), std::string::npos);
}

TEST(CliUsage, WrongUsageExitsTwo)
{
    EXPECT_EQ(runVela(1, {"frobnicate"}), 2);
    EXPECT_EQ(runVela(1, {"get"}), 2);
}
