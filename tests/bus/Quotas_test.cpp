// Every quota of velad hit by a real client and answered with its error,
// while a legitimate client is still served within 100 ms: connections in
// total and per user, the hello deadline, owned states, fetches, waiting set
// requests, path length, the stored-value budget, the output backlog of one
// reader and of all of them, the fd limit, and the log.
#include "BusTestSupport.h"
#include "testsupport/TimeScale.h"
#include "Protocol.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using bustest::errorCode;
using bustest::kNobody;
using bustest::kNogroup;
using bustest::params;
using bustest::RawClient;
using bustest::TempFile;
using testsupport::ChildProcess;
using testsupport::LocalVelad;
using namespace std::chrono_literals;
namespace p = vela::protocol;

namespace {

using Clock = std::chrono::steady_clock;

// The unprivileged user may own and set under q/ and read everything.
const char kAcl[] =
    "user root own,set,fetch *\n"
    "user nobody own,set q/*\n"
    "all fetch *\n";

const char kQuotas[] =
    "max-connections 12\n"
    "max-connections-per-user 4\n"
    "hello-timeout-ms 500\n"
    "max-states-per-connection 5\n"
    "max-fetches-per-connection 3\n"
    "max-pending-sets-per-connection 2\n"
    "max-path-length 32\n"
    "max-stored-bytes 1M\n"
    "max-backlog-bytes 2M\n";

class Quotas : public ::testing::Test
{
protected:
    TempFile acl{"acl.conf", kAcl};
    std::unique_ptr<TempFile> quotas;
    std::unique_ptr<LocalVelad> velad;
    std::unique_ptr<RawClient> root;
    std::uint16_t port = 0;

    void SetUp() override { start(kQuotas); }

    // A broker with these quotas, and root connected to it owning "kept".
    void start(const std::string& config)
    {
        root.reset();
        velad.reset();
        quotas.reset();  // the same file name: the old one goes first
        quotas = std::make_unique<TempFile>("velad.conf", config);
        velad = std::make_unique<LocalVelad>(
            std::vector<std::string>{"--quiet", "--acl", acl.path(), "--config", quotas->path()});
        port = velad->port();
        ASSERT_NE(port, 0);
        root = std::make_unique<RawClient>(port);
        ASSERT_TRUE(root->hello("root"));
        ASSERT_EQ(root->call(p::kAdd, params({{"path", "kept"}, {"value", 1}}))["result"], true);
    }

    // Sockets of user uid (and its group), each with its hello said.
    std::vector<RawClient> connectAs(uid_t uid, int count, int receiveBuffer = 0)
    {
        std::vector<RawClient> out;
        for (int fd : bustest::socketsOf(uid, uid == kNobody ? kNogroup : uid, port, count, {}, receiveBuffer)) {
            out.push_back(RawClient::adopt(fd));
            EXPECT_TRUE(out.back().hello()) << "uid " << uid << " connection " << out.size();
        }
        return out;
    }

    // A new connection of root: connect, hello, read "kept"; how long it took.
    std::chrono::milliseconds freshClientServedIn()
    {
        const auto t0 = Clock::now();
        RawClient c(port);
        if (!c.hello()) {
            return std::chrono::hours(1);
        }
        Json::Value matcher(Json::objectValue);
        matcher["equals"] = "kept";
        const Json::Value r = c.call(p::kFetch, params({{"id", 1}, {"matcher", matcher}}));
        if (r["result"] != true) {
            return std::chrono::hours(1);
        }
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0);
    }

    // A request on root's open connection; how long its answer took.
    std::chrono::milliseconds rootServedIn()
    {
        static int n = 0;
        const auto t0 = Clock::now();
        const Json::Value r = root->call(p::kChange, params({{"path", "kept"}, {"value", ++n}}));
        if (r["result"] != true) {
            return std::chrono::hours(1);
        }
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0);
    }

    // What velad logged so far (it keeps running).
    std::string log()
    {
        m_log += velad->process().readAllStderr(300ms);
        return m_log;
    }
    // Waits until velad logged text.
    bool logged(const std::string& text, std::chrono::milliseconds timeout)
    {
        const auto deadline = Clock::now() + timeout;
        while (m_log.find(text) == std::string::npos) {
            if (Clock::now() >= deadline) {
                return false;
            }
            m_log += velad->process().readAllStderr(50ms);
        }
        return true;
    }

private:
    std::string m_log;

protected:
};

// The first frame a turned-away connection gets, and whether it is closed.
void expectTurnedAway(RawClient& c, const std::string& message)
{
    Json::Value r;
    ASSERT_TRUE(c.readFrame(r));
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"], message);
    EXPECT_TRUE(c.closedByPeer());
}

}  // namespace

TEST_F(Quotas, ConnectionsPerUser)
{
    auto allowed = connectAs(kNobody, 4);
    ASSERT_EQ(allowed.size(), 4u);
    auto fds = bustest::socketsOf(kNobody, kNogroup, port, 1);
    ASSERT_EQ(fds.size(), 1u);
    RawClient fifth = RawClient::adopt(fds[0]);
    expectTurnedAway(fifth, "limit reached: too many connections of uid 65534 (nobody) (max-connections-per-user 4)");
    EXPECT_LT(freshClientServedIn(), 100ms);
    // A connection that goes frees its place.
    allowed.pop_back();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(connectAs(kNobody, 1).size(), 1u);
}

TEST_F(Quotas, ConnectionsInTotal)
{
    // root holds one; three users fill the other eleven.
    auto a = connectAs(kNobody, 4);
    auto b = connectAs(4711, 4);
    auto c = connectAs(4712, 3);
    auto fds = bustest::socketsOf(4713, 4713, port, 1);
    ASSERT_EQ(fds.size(), 1u);
    RawClient late = RawClient::adopt(fds[0]);
    expectTurnedAway(late, "limit reached: too many connections (max-connections 12)");
    EXPECT_LT(rootServedIn(), 100ms);
}

TEST_F(Quotas, HelloDeadline)
{
    auto fds = bustest::socketsOf(kNobody, kNogroup, port, 1);
    ASSERT_EQ(fds.size(), 1u);
    RawClient silent = RawClient::adopt(fds[0]);
    const auto t0 = Clock::now();
    EXPECT_LT(freshClientServedIn(), 100ms);
    Json::Value r;
    ASSERT_TRUE(silent.readFrame(r, 3s));
    const auto waited = Clock::now() - t0;
    EXPECT_EQ(errorCode(r), p::kHelloRequired);
    EXPECT_EQ(r["error"]["message"], "no hello within 500 ms (hello-timeout-ms)");
    EXPECT_TRUE(silent.closedByPeer());
    EXPECT_GE(waited, 450ms);
    EXPECT_LT(waited, 2000ms);
    EXPECT_LT(rootServedIn(), 100ms);
}

TEST_F(Quotas, OwnedStatesFetchesAndPathLength)
{
    auto c = connectAs(kNobody, 1);
    ASSERT_EQ(c.size(), 1u);
    RawClient& n = c[0];
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(n.call(p::kAdd, params({{"path", "q/" + std::to_string(i)}, {"value", i}}))["result"], true);
    }
    Json::Value r = n.call(p::kAdd, params({{"path", "q/5"}, {"value", 5}}));
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"],
              "limit reached: this connection owns as many states as it may (max-states-per-connection 5)");
    EXPECT_LT(freshClientServedIn(), 100ms);

    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(n.call(p::kFetch, params({{"id", i}}))["result"], true);
    }
    r = n.call(p::kFetch, params({{"id", 4}}));
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"],
              "limit reached: this connection has as many fetches as it may (max-fetches-per-connection 3)");
    EXPECT_LT(freshClientServedIn(), 100ms);

    auto other = connectAs(kNobody, 1);
    ASSERT_EQ(other.size(), 1u);
    r = other[0].call(p::kAdd, params({{"path", "q/" + std::string(31, 'x')}, {"value", 1}}));
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"], "limit reached: path longer than the broker allows (max-path-length 32)");
    EXPECT_EQ(other[0].call(p::kAdd, params({{"path", "q/" + std::string(30, 'x')}, {"value", 1}}))["result"],
              true);
    EXPECT_LT(freshClientServedIn(), 100ms);
}

TEST_F(Quotas, WaitingSetRequests)
{
    auto c = connectAs(kNobody, 2);
    ASSERT_EQ(c.size(), 2u);
    RawClient& owner = c[0];  // never answers
    RawClient& requester = c[1];
    ASSERT_EQ(owner.call(p::kAdd, params({{"path", "q/slow"}, {"value", 0}, {"settable", true}}))["result"], true);
    requester.request(p::kSet, params({{"path", "q/slow"}, {"value", 1}}));
    requester.request(p::kSet, params({{"path", "q/slow"}, {"value", 2}}));
    const Json::Value r = requester.call(p::kSet, params({{"path", "q/slow"}, {"value", 3}}), 1s);
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"], "limit reached: this connection has as many set requests waiting as it may "
                                     "(max-pending-sets-per-connection 2)");
    EXPECT_LT(freshClientServedIn(), 100ms);
}

TEST_F(Quotas, StoredValueBudget)
{
    auto c = connectAs(kNobody, 1);
    ASSERT_EQ(c.size(), 1u);
    RawClient& n = c[0];
    const std::string big(600 * 1024, 'v');
    ASSERT_EQ(n.call(p::kAdd, params({{"path", "q/big"}, {"value", big}}))["result"], true);
    Json::Value r = n.call(p::kAdd, params({{"path", "q/big2"}, {"value", big}}));
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"], "limit reached: no room left for stored values (max-stored-bytes 1048576)");
    ASSERT_EQ(n.call(p::kAdd, params({{"path", "q/mid"}, {"value", std::string(300 * 1024, 'm')}}))["result"],
              true);
    // 600 + 500 KiB do not fit: the change is refused and the value stays.
    r = n.call(p::kChange, params({{"path", "q/mid"}, {"value", std::string(500 * 1024, 'w')}}));
    EXPECT_EQ(errorCode(r), p::kLimitReached);
    EXPECT_EQ(r["error"]["message"],
              "limit reached: no room left for the new value of 'q/mid' (max-stored-bytes 1048576)");
    std::string out;
    ASSERT_EQ(bustest::runVela(port, {"get", "q/mid"}, &out), 0);
    EXPECT_EQ(out, "\"" + std::string(300 * 1024, 'm') + "\"\n");
    // Room comes back with a removal.
    ASSERT_EQ(n.call(p::kRemove, params({{"path", "q/big"}}))["result"], true);
    EXPECT_EQ(n.call(p::kChange, params({{"path", "q/mid"}, {"value", std::string(500 * 1024, 'w')}}))["result"],
              true);
    EXPECT_LT(freshClientServedIn(), 100ms);
}

TEST_F(Quotas, ReaderThatDoesNotReadIsDroppedAndTheBrokerStaysSmall)
{
    // Three fetchers that never read, with the smallest receive buffers.
    auto stuck = connectAs(kNobody, 3, 4096);
    ASSERT_EQ(stuck.size(), 3u);
    for (RawClient& s : stuck) {
        ASSERT_EQ(s.call(p::kFetch, params({{"id", 1}}))["result"], true);
    }
    ASSERT_EQ(root->call(p::kAdd, params({{"path", "big"}, {"value", "x"}}))["result"], true);
    // 40 changes of a 1 MiB value: 40 MiB for every reader.
    const std::string value(1000 * 1024, 'v');
    std::string burst;
    for (int i = 0; i < 40; ++i) {
        vela::appendFrame(burst, p::request(Json::Value(), p::kChange,
                                            params({{"path", "big"}, {"value", value + std::to_string(i)}})));
    }
    ASSERT_TRUE(root->sendRaw(burst));
    EXPECT_LT(rootServedIn(), 1000ms) << "the burst has been handled";
    for (RawClient& s : stuck) {
        EXPECT_TRUE(s.closedByPeer(10s));
    }
    const std::string text = log();
    std::size_t dropped = 0;
    for (std::size_t at = text.find("reads too slowly"); at != std::string::npos;
         at = text.find("reads too slowly", at + 1)) {
        ++dropped;
    }
    EXPECT_EQ(dropped, 3u) << text;
    EXPECT_NE(text.find("max-backlog-bytes 2097152"), std::string::npos) << text;
    const long peak = bustest::peakRssKiB(velad->process().pid());
    EXPECT_GT(peak, 0);
    if (!testsupport::sanitizedBuild()) {
        EXPECT_LT(peak, 48 * 1024) << "KiB at the peak";
    }
    RecordProperty("velad_peak_rss_kib", std::to_string(peak));
    std::printf("velad peak RSS with three stuck readers of 40 x 1 MiB: %ld KiB\n", peak);
    EXPECT_LT(freshClientServedIn(), 100ms);
}

TEST_F(Quotas, BacklogOfAllReadersTogether)
{
    start("max-backlog-bytes 4M\nmax-total-backlog-bytes 5M\n");
    auto stuck = connectAs(kNobody, 2, 4096);
    ASSERT_EQ(stuck.size(), 2u);
    Json::Value onlyA(Json::objectValue);
    onlyA["equals"] = "a";
    Json::Value onlyB(Json::objectValue);
    onlyB["equals"] = "b";
    ASSERT_EQ(stuck[0].call(p::kFetch, params({{"id", 1}, {"matcher", onlyA}}))["result"], true);
    ASSERT_EQ(stuck[1].call(p::kFetch, params({{"id", 1}, {"matcher", onlyB}}))["result"], true);
    ASSERT_EQ(root->call(p::kAdd, params({{"path", "a"}, {"value", 0}}))["result"], true);
    ASSERT_EQ(root->call(p::kAdd, params({{"path", "b"}, {"value", 0}}))["result"], true);
    const std::string value(256 * 1024, 'v');
    // A gets 3.5 MiB: with the 512 KiB the kernel takes (send-buffer-bytes,
    // doubled), below its own limit.
    for (int i = 0; i < 14; ++i) {
        root->call(p::kChange, params({{"path", "a"}, {"value", value}}));
    }
    // B's grow until both together pass 5 MiB: A, the larger, goes. (The
    // log tells; looking at A's socket would mean reading it.)
    const std::string dropped = "(max-total-backlog-bytes 5242880); disconnecting peer #2, the slowest reader";
    int changesOfB = 0;
    while (changesOfB < 14 && !logged(dropped, 100ms)) {
        root->call(p::kChange, params({{"path", "b"}, {"value", value}}));
        ++changesOfB;
    }
    EXPECT_TRUE(logged(dropped, 1s)) << log();
    EXPECT_LT(changesOfB, 14);
    EXPECT_TRUE(stuck[0].closedByPeer(5s));
    // B stays and gets all of its own.
    int got = 0;
    Json::Value frame;
    while (got < changesOfB && stuck[1].readFrame(frame, 5s)) {
        got += frame["params"]["event"] == "change" ? 1 : 0;
    }
    EXPECT_EQ(got, changesOfB);
    EXPECT_LT(freshClientServedIn(), 100ms);
}

TEST_F(Quotas, LogLinesAreEscapedAndRateLimited)
{
    RawClient evil(port);
    ASSERT_TRUE(evil.hello("evil\nvelad: peer #99 (forged) connected"));
    ASSERT_EQ(evil.call(p::kConfig, params({{"name", "evil\nvelad: peer #99 (forged) connected"}, {"debug", true}}))
                  ["result"],
              true);
    std::string burst;
    for (int i = 0; i < 1000; ++i) {
        vela::appendFrame(burst, "not json " + std::to_string(i) + std::string(600, '\n'));
    }
    ASSERT_TRUE(evil.sendRaw(burst));
    int answered = 0;
    Json::Value r;
    while (answered < 1000 && evil.readFrame(r)) {
        answered += errorCode(r) == p::kParseError ? 1 : 0;
    }
    EXPECT_EQ(answered, 1000) << "every bad frame is answered";
    EXPECT_LT(freshClientServedIn(), 100ms);

    const std::string text = log();
    std::istringstream lines(text);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_EQ(line.rfind("velad: ", 0), 0u) << line;
        EXPECT_NE(line.rfind("velad: peer #99", 0), 0u) << "a forged line: " << line;
        EXPECT_LE(line.size(), 1024u + 64u) << line;
    }
    // The peer's burst of 10 and a line now and then; the 1000 frames and
    // their 600 newlines each would otherwise have written 600 KB.
    EXPECT_LE(count, 14) << text;
    EXPECT_LT(text.size(), 16u * 1024) << text;
}

TEST(QuotasFdLimit, IdleConnectionsCannotTakeEveryDescriptor)
{
    // The shipped quotas under a low fd limit: 64 descriptors leave room
    // for 48 connections, 12 of them per user.
    ChildProcess velad({"/bin/sh", "-c", "ulimit -n 64 && exec " + bustest::veladPath() + " --port 0"});
    std::string line;
    ASSERT_TRUE(velad.readLine(line));
    const auto port = static_cast<std::uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
    // 80 connections that never say hello.
    auto idle = bustest::socketsOf(kNobody, kNogroup, port, 80);
    ASSERT_EQ(idle.size(), 80u);
    std::vector<RawClient> held;
    for (int fd : idle) {
        held.push_back(RawClient::adopt(fd));
    }
    int turnedAway = 0;
    for (RawClient& c : held) {
        Json::Value r;
        if (c.readFrame(r, 100ms) && errorCode(r) == p::kLimitReached) {
            ++turnedAway;
        }
    }
    EXPECT_EQ(turnedAway, 80 - 12);
    const auto t0 = Clock::now();
    std::string out;
    EXPECT_EQ(bustest::runVela(port, {"list"}, &out), 0);
    EXPECT_LT(Clock::now() - t0, 1000ms) << "vela list, a process start included";
    RawClient c(port);
    const auto t1 = Clock::now();
    EXPECT_TRUE(c.hello());
    EXPECT_LT(Clock::now() - t1, 100ms);
    velad.signalAndWait(SIGTERM);
    const std::string log = velad.readAllStderr(500ms);
    EXPECT_NE(log.find("max-connections 256 lowered to 48 and max-connections-per-user to 12: the file "
                       "descriptor limit is 64"),
              std::string::npos)
        << log;
}

TEST_F(Quotas, TheWholeBrokersLogHasItsOwnRateAndLineLength)
{
    start("log-rate 1\nlog-burst 3\npeer-log-rate 1000\npeer-log-burst 1000\nlog-line-max 200\n");
    RawClient noisy(port);
    ASSERT_TRUE(noisy.hello());
    std::string burst;
    for (int i = 0; i < 100; ++i) {
        vela::appendFrame(burst, "not json " + std::string(400, 'x'));
    }
    ASSERT_TRUE(noisy.sendRaw(burst));
    Json::Value r;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(noisy.readFrame(r));
    }
    std::this_thread::sleep_for(1100ms);
    ASSERT_TRUE(noisy.sendFrame("not json at last"));
    ASSERT_TRUE(noisy.readFrame(r));
    EXPECT_LT(freshClientServedIn(), 100ms);

    ASSERT_TRUE(logged("log lines not written (log-rate)", 2s)) << log();
    std::istringstream lines(log());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_LE(line.size(), std::string("velad: ").size() + 200 + 32) << line;
    }
    // The burst of three, the count of what was dropped, the line after it.
    EXPECT_EQ(count, 5) << log();
    EXPECT_NE(log().find("velad: 97 log lines not written (log-rate)"), std::string::npos) << log();
}
