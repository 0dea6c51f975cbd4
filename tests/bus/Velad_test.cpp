// velad as a real process under bad input: raw sockets send garbage,
// truncated, oversized and deeply nested frames, or stop reading, while
// well-behaved peers (the vela client) check that nothing of theirs is lost.
#include "BusTestSupport.h"
#include "Frame.h"
#include "JsonText.h"
#include "Protocol.h"
#include "Socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

using bustest::RawClient;
using bustest::runVela;
using testsupport::ChildProcess;
using testsupport::LocalVelad;
using namespace std::chrono_literals;
namespace p = vela::protocol;

namespace {

std::string addRequest(int id, const std::string& path, const std::string& valueJson, bool settable = false)
{
    return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) +
           ",\"method\":\"add\",\"params\":{\"path\":\"" + path + "\",\"value\":" + valueJson +
           ",\"settable\":" + (settable ? "true" : "false") + "}}";
}

class VeladTest : public ::testing::Test
{
protected:
    LocalVelad velad{{"--quiet"}};

    // A well-behaved owner whose state must survive everything else.
    void addKept(RawClient& owner)
    {
        ASSERT_TRUE(owner.ok());
        ASSERT_TRUE(owner.hello());
        ASSERT_TRUE(owner.sendFrame(addRequest(1, "kept/value", "{\"n\":1}")));
        Json::Value r;
        ASSERT_TRUE(owner.readFrame(r));
        ASSERT_EQ(r["result"], true);
    }

    void expectKept()
    {
        std::string out;
        EXPECT_EQ(runVela(velad.port(), {"get", "kept/value"}, &out), 0);
        EXPECT_EQ(out, "{\"n\":1}\n");
        EXPECT_TRUE(velad.process().running());
    }
};

}  // namespace

TEST_F(VeladTest, GarbageBytesGetAnErrorAndTheConnectionIsClosed)
{
    RawClient owner(velad.port());
    addKept(owner);
    RawClient bad(velad.port());
    ASSERT_TRUE(bad.sendRaw("GET / HTTP/1.1\r\nHost: x\r\n\r\n"));
    Json::Value r;
    ASSERT_TRUE(bad.readFrame(r));
    EXPECT_EQ(r["error"]["code"], p::kFrameTooLarge);
    EXPECT_TRUE(bad.closedByPeer());
    expectKept();
}

TEST_F(VeladTest, OversizedFrameIsRefusedBeforeItsBodyIsRead)
{
    RawClient owner(velad.port());
    addKept(owner);
    RawClient bad(velad.port());
    ASSERT_TRUE(bad.hello());
    std::string header;
    vela::appendFrameHeader(header, vela::kMaxFrameSize + 1);
    ASSERT_TRUE(bad.sendRaw(header));
    Json::Value r;
    ASSERT_TRUE(bad.readFrame(r));
    EXPECT_EQ(r["error"]["code"], p::kFrameTooLarge);
    EXPECT_TRUE(bad.closedByPeer());
    expectKept();
}

TEST_F(VeladTest, FrameOfTheMaximumSizeIsAccepted)
{
    RawClient owner(velad.port());
    ASSERT_TRUE(owner.hello());
    std::string payload =
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"add\",\"params\":{\"path\":\"big\",\"value\":\"";
    const std::string tail = "\"}}";
    const std::size_t body = vela::kMaxFrameSize - payload.size() - tail.size();
    payload += std::string(body, 'x');
    payload += tail;
    ASSERT_EQ(payload.size(), vela::kMaxFrameSize);
    ASSERT_TRUE(owner.sendFrame(payload));
    Json::Value r;
    ASSERT_TRUE(owner.readFrame(r));
    EXPECT_EQ(r["result"], true);
    std::string out;
    EXPECT_EQ(runVela(velad.port(), {"get", "big"}, &out), 0);
    EXPECT_EQ(out, "\"" + std::string(body, 'x') + "\"\n");
}

TEST_F(VeladTest, TruncatedFrameThenDisconnectLosesNothingElse)
{
    RawClient owner(velad.port());
    addKept(owner);
    {
        RawClient bad(velad.port());
        ASSERT_TRUE(bad.hello());
        ASSERT_TRUE(bad.sendFrame(addRequest(1, "bad/own", "1")));
        Json::Value r;
        ASSERT_TRUE(bad.readFrame(r));
        std::string half;
        vela::appendFrame(half, addRequest(2, "bad/half", "2"));
        ASSERT_TRUE(bad.sendRaw(half.substr(0, half.size() / 2)));
    }
    // The truncated peer's own state goes with it; the half frame never
    // counted.
    std::string out;
    ASSERT_TRUE([&] {
        for (int i = 0; i < 100; ++i) {
            if (runVela(velad.port(), {"get", "bad/own"}) == 1) {
                return true;
            }
            std::this_thread::sleep_for(20ms);
        }
        return false;
    }());
    EXPECT_EQ(runVela(velad.port(), {"get", "bad/half"}), 1);
    expectKept();
}

TEST_F(VeladTest, FrameSplitAcrossWritesIsReassembled)
{
    RawClient owner(velad.port());
    ASSERT_TRUE(owner.hello());
    std::string frame;
    vela::appendFrame(frame, addRequest(1, "split", "[1,2,3]"));
    for (char c : frame) {
        ASSERT_TRUE(owner.sendRaw(std::string(1, c)));
    }
    Json::Value r;
    ASSERT_TRUE(owner.readFrame(r));
    EXPECT_EQ(r["result"], true);
    std::string out;
    EXPECT_EQ(runVela(velad.port(), {"get", "split"}, &out), 0);
    EXPECT_EQ(out, "[1,2,3]\n");
}

TEST_F(VeladTest, DeepOrMalformedJsonGetsAnErrorAndTheConnectionStays)
{
    RawClient owner(velad.port());
    addKept(owner);
    RawClient bad(velad.port());
    ASSERT_TRUE(bad.hello());
    const std::string frames[] = {
        std::string(500000, '['),
        "{\"jsonrpc\":\"2.0\",\"id\":5,\"method\":\"add\",\"params\":{\"path\":\"deep\",\"value\":" +
            std::string(1000, '[') + std::string(1000, ']') + "}}",
        "{\"jsonrpc\":",
        "\xff\xfe\x00garbage",
        "[]",
        "{\"jsonrpc\":\"2.0\",\"id\":6,\"method\":7}",
        "{\"jsonrpc\":\"2.0\",\"id\":7,\"method\":\"add\",\"params\":{\"path\":\"\"}}",
        "{\"jsonrpc\":\"2.0\",\"id\":8,\"method\":\"fetch\",\"params\":{\"id\":1,\"matcher\":{\"prefix\":"
        "\"a\"}}}",
    };
    for (const std::string& f : frames) {
        ASSERT_TRUE(bad.sendFrame(f));
        Json::Value r;
        ASSERT_TRUE(bad.readFrame(r)) << f.substr(0, 30);
        EXPECT_TRUE(r.isMember("error")) << f.substr(0, 30);
    }
    // Still usable.
    ASSERT_TRUE(bad.sendFrame(addRequest(9, "after/bad", "true")));
    Json::Value r;
    ASSERT_TRUE(bad.readFrame(r));
    EXPECT_EQ(r["result"], true);
    EXPECT_EQ(runVela(velad.port(), {"get", "deep"}), 1);
    expectKept();
}

TEST_F(VeladTest, PeerThatStopsReadingDoesNotStallTheOthers)
{
    RawClient owner(velad.port());
    ASSERT_TRUE(owner.hello());
    ASSERT_TRUE(owner.sendFrame(addRequest(1, "load/x", "0")));
    Json::Value r;
    ASSERT_TRUE(owner.readFrame(r));

    RawClient stuck(velad.port());
    ASSERT_TRUE(stuck.hello());
    ASSERT_TRUE(stuck.sendFrame(
        "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"fetch\",\"params\":{\"id\":1,\"matcher\":{}}}"));
    // stuck never reads again.

    constexpr int kChanges = 3000;
    ChildProcess watcher({bustest::velaPath(), "--port", std::to_string(velad.port()), "watch", "load/",
                          "--count", std::to_string(kChanges + 1)});
    std::string line;
    ASSERT_TRUE(watcher.readLine(line));  // the initial add: the fetch is in place
    const std::string value = "\"" + std::string(1000, 'v') + "\"";
    std::string burst;
    for (int i = 0; i < kChanges; ++i) {
        vela::appendFrame(
            burst, "{\"jsonrpc\":\"2.0\",\"method\":\"change\",\"params\":{\"path\":\"load/x\",\"value\":" +
                       value + "}}");
    }
    ASSERT_TRUE(owner.sendRaw(burst));
    int lines = 1;
    while (lines < kChanges + 1 && watcher.readLine(line, 10s)) {
        ++lines;
    }
    EXPECT_EQ(lines, kChanges + 1);
    EXPECT_EQ(watcher.wait(), 0);
    EXPECT_TRUE(velad.process().running());
}

namespace {

// CPU time (user + system) a process has used, in clock ticks.
long cpuTicks(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string f;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14) {
            utime = std::stol(f);
        } else if (i == 15) {
            stime = std::stol(f);
        }
    }
    return utime + stime;
}

}  // namespace

TEST(VeladProcess, RunningOutOfFdsNeitherSpinsNorStopsServing)
{
    ChildProcess velad(
        {"/bin/sh", "-c", "ulimit -n 24 && exec " + bustest::veladPath() + " --quiet --port 0"});
    std::string line;
    ASSERT_TRUE(velad.readLine(line));
    const auto port = static_cast<std::uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
    std::vector<std::unique_ptr<RawClient>> flood;
    for (int i = 0; i < 40; ++i) {
        flood.push_back(std::make_unique<RawClient>(port));
    }
    const long before = cpuTicks(velad.pid());
    std::this_thread::sleep_for(1500ms);
    const long used = cpuTicks(velad.pid()) - before;
    EXPECT_LT(used, 50) << "ticks of CPU in 1.5 s with the fd table full";
    flood.clear();
    std::this_thread::sleep_for(1200ms);  // the pause after a failed accept
    std::string out;
    EXPECT_EQ(runVela(port, {"list"}, &out), 0);
    EXPECT_TRUE(velad.running());
}

TEST(VeladProcess, SigtermAndSigintEndWithStatusZero)
{
    for (int sig : {SIGTERM, SIGINT}) {
        LocalVelad velad;
        EXPECT_EQ(velad.process().signalAndWait(sig), 0) << sig;
    }
}

TEST(VeladProcess, PortInUseIsAnErrorExit)
{
    LocalVelad first{{"--quiet"}};
    ChildProcess second({bustest::veladPath(), "--port", std::to_string(first.port())});
    EXPECT_EQ(second.wait(), 1);
    EXPECT_NE(second.readAllStderr().find("cannot listen"), std::string::npos);
}

TEST(VeladProcess, BadOptionsAreRefused)
{
    ChildProcess bad({bustest::veladPath(), "--port", "99999"});
    EXPECT_EQ(bad.wait(), 2);
    ChildProcess unknown({bustest::veladPath(), "--frobnicate"});
    EXPECT_EQ(unknown.wait(), 2);
}

TEST(VeladProcess, VersionIsTheProjects)
{
    ChildProcess velad({bustest::veladPath(), "--version"});
    std::string line;
    ASSERT_TRUE(velad.readLine(line));
    EXPECT_EQ(line, std::string("velad ") + TSD_VERSION);
    EXPECT_EQ(velad.wait(), 0);
    ChildProcess vela({bustest::velaPath(), "--version"});
    ASSERT_TRUE(vela.readLine(line));
    EXPECT_EQ(line, std::string("vela ") + TSD_VERSION);
    EXPECT_EQ(vela.wait(), 0);
}

TEST(VeladProcess, MalformedPolicyOrQuotasRefuseToStartNamingTheLine)
{
    bustest::TempFile acl("bad-acl.conf", "user root own,set,fetch *\nall read *\n");
    ChildProcess badAcl({bustest::veladPath(), "--port", "0", "--acl", acl.path()});
    EXPECT_EQ(badAcl.wait(), 1);
    EXPECT_EQ(badAcl.readAllStderr(),
              "velad: " + acl.path() + ": line 2: unknown right 'read' (own, set, fetch, separated by commas)\n");

    bustest::TempFile conf("bad-velad.conf", "# quotas\nmax-connections 10\nmax-conections 5\n");
    ChildProcess badConf({bustest::veladPath(), "--port", "0", "--config", conf.path()});
    EXPECT_EQ(badConf.wait(), 1);
    EXPECT_EQ(badConf.readAllStderr(), "velad: " + conf.path() + ": line 3: unknown setting 'max-conections'\n");

    ChildProcess missing({bustest::veladPath(), "--port", "0", "--acl", "/nonexistent/acl.conf"});
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_EQ(missing.readAllStderr(), "velad: /nonexistent/acl.conf: No such file or directory\n");
}

TEST(VeladProcess, SetTimeoutOptionOverridesTheQuotaFile)
{
    bustest::TempFile conf("velad.conf", "set-timeout-ms 60000\n");
    LocalVelad velad{{"--quiet", "--config", conf.path(), "--set-timeout", "200"}};
    RawClient owner(velad.port());
    ASSERT_TRUE(owner.hello());
    ASSERT_EQ(owner.call(p::kAdd, bustest::params({{"path", "s"}, {"value", 0}, {"settable", true}}))["result"],
              true);
    RawClient requester(velad.port());
    ASSERT_TRUE(requester.hello());
    const auto t0 = std::chrono::steady_clock::now();
    const Json::Value r = requester.call(p::kSet, bustest::params({{"path", "s"}, {"value", 1}}), 5s);
    EXPECT_EQ(bustest::errorCode(r), p::kSetTimeout);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
}
