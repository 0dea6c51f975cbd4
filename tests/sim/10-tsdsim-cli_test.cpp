// The tsdsim program as a user runs it: built-in chain with --json, chain
// files with mistakes, and Ctrl-C in the middle of a run.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <thread>

#include "TsdsimRun.h"
#include "testsupport/ChildProcess.h"
#include "tsdsim/ChildProcess.h"

using namespace std::chrono_literals;
using testsupport::binDir;

using simtest::readAll;
using simtest::runTsdsim;
using simtest::worldDirs;
using TempFile = simtest::TempPath;

TEST(TsdsimCli, BuiltInChainPrintsAJsonSummaryAndCleansUp)
{
    TempFile err("err1");
    std::string out;
    pid_t pid = -1;
    int st = runTsdsim({"--modules", "3", "--for", "9", "--json"}, &out, err.path(), &pid);
    ASSERT_TRUE(WIFEXITED(st)) << st;
    ASSERT_EQ(WEXITSTATUS(st), 0) << readAll(err.path());

    Json::Value s;
    std::string errors;
    ASSERT_TRUE(simtest::parseJson(out, s, errors)) << errors << out;
    ASSERT_EQ(s["modules"].size(), 3u);
    EXPECT_FALSE(s["interrupted"].asBool());
    for (const auto& m : s["modules"]) {
        EXPECT_EQ(m["syncMaster"].asString(), "0A7C31000103") << m["name"].asString();
        EXPECT_EQ(m["tsdExit"].asInt(), 0) << m["name"].asString();
        EXPECT_TRUE(m["syncApp"].isObject());
    }
    // The master's PTP start was recorded with its time.
    bool started = false;
    for (const auto& c : s["modules"][2]["scriptCalls"]) {
        started =
            started || (c["script"] == "ptp4ladm.sh" && c["args"] != "stop" && c["time"].asDouble() >= 0);
    }
    EXPECT_TRUE(started);
    ASSERT_GE(s["elections"].size(), 1u);
    EXPECT_EQ(s["elections"][0]["trigger"].asString(), "start");
    EXPECT_EQ(s["elections"][0]["master"].asString(), "0A7C31000103");
    EXPECT_EQ(s["elections"][0]["results"].size(), 3u);
    // The live view went to stderr, one table at least.
    EXPECT_NE(readAll(err.path()).find("MODULE"), std::string::npos);
    EXPECT_TRUE(worldDirs(pid).empty());
}

TEST(TsdsimCli, ChainFileMistakeNamesTheLineAndExitsTwo)
{
    TempFile chain("bad.chain");
    {
        std::ofstream f(chain.path());
        f << "bus chain\nmodule a uuid=1 rear=chain\nat 3 unplug b\n";
    }
    TempFile err("err2");
    std::string out;
    int st = runTsdsim({chain.path()}, &out, err.path());
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 2);
    EXPECT_NE(readAll(err.path()).find("line 3: unplug: unknown module 'b'"), std::string::npos)
        << readAll(err.path());

    st = runTsdsim({"--modules", "0"}, &out, err.path());
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 2);
}

TEST(TsdsimCli, CtrlCStopsEarlyWithSummaryAndLeavesNothingBehind)
{
    TempFile err("err3");
    tsdsim::ChildProcess::Options o;
    o.argv = {binDir() + "/tsdsim", "--modules", "2", "--for", "120"};
    o.outputFile = err.path();
    o.pipeStdout = true;
    tsdsim::ChildProcess sim;
    ASSERT_TRUE(sim.start(o));
    // Wait until the modules run (their world directory exists), then interrupt.
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (worldDirs(sim.pid()).empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(50ms);
    }
    std::this_thread::sleep_for(2s);
    ASSERT_TRUE(sim.signal(SIGINT));
    std::string out;
    char buf[4096];
    int st = -1;
    deadline = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < deadline) {
        ssize_t n;
        while ((n = ::read(sim.stdoutFd(), buf, sizeof buf)) > 0) {
            out.append(buf, static_cast<std::size_t>(n));
        }
        if (!sim.running()) {
            st = sim.status();
            break;
        }
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_TRUE(WIFEXITED(st)) << st;
    EXPECT_EQ(WEXITSTATUS(st), 130);
    EXPECT_NE(out.find("stopped early by Ctrl-C"), std::string::npos) << out;
    EXPECT_TRUE(worldDirs(sim.pid()).empty());
}
