// Who may own, set and fetch what, with a real velad and clients that run as
// an unprivileged user: the shipped policy, a policy of the test's own,
// peers on the Unix socket, and a peer the broker cannot identify.
#include "BusTestSupport.h"
#include "Protocol.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "../platform/Sandbox.h"

using bustest::kNobody;
using bustest::kNogroup;
using bustest::RawClient;
using bustest::runVela;
using bustest::runVelaAs;
using bustest::TempFile;
using testsupport::ChildProcess;
using testsupport::LocalVelad;
using namespace std::chrono_literals;
namespace p = vela::protocol;

using bustest::readFile;

namespace {

const std::string kSource = TSD_SOURCE_DIR;
constexpr uid_t kStranger = 4711;  // a uid without an entry in the user database

// vela own as uid/gid (root when uid is 0), kept running; lines() writes
// input and reads the matching answers.
class Owner
{
public:
    // port 0: address is the path of the broker's Unix socket.
    Owner(std::uint16_t port, uid_t uid = 0, gid_t gid = 0, const std::string& address = "127.0.0.1")
        : m_process(argv(port, uid, gid, address))
    {
    }
    // One answer line per input line.
    std::string line(const std::string& input)
    {
        m_process.write(input + "\n");
        std::string answer;
        m_process.readLine(answer);
        return answer;
    }
    ChildProcess& process() { return m_process; }

private:
    static std::vector<std::string> argv(std::uint16_t port, uid_t uid, gid_t gid, const std::string& address)
    {
        std::vector<std::string> a;
        if (uid != 0) {
            a = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid), "--regid=" + std::to_string(gid),
                 "--clear-groups", "--"};
        }
        a.insert(a.end(), {bustest::velaPath(), "--address", address});
        if (port != 0) {
            a.insert(a.end(), {"--port", std::to_string(port)});
        }
        a.push_back("own");
        return a;
    }
    ChildProcess m_process;
};

}  // namespace

TEST(Access, ShippedPolicyLetsOthersReadButNotOwnOrSet)
{
    TempFile acl("acl.conf", readFile(kSource + "/packaging/config/vela-acl.conf"));
    LocalVelad velad({"--quiet", "--acl", acl.path()});
    const std::uint16_t port = velad.port();
    Owner root(port);
    ASSERT_EQ(root.line("add sync/param {\"source\":\"ptp\"}"), "ok");
    ASSERT_EQ(root.line("add sync/app 1"), "ok");

    std::string out;
    std::string err;
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"get", "sync/param"}, &out, &err), 0) << err;
    EXPECT_EQ(out, "{\"source\":\"ptp\"}\n");
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"list"}, &out), 0);
    EXPECT_EQ(out, "sync/app\t1\nsync/param\t{\"source\":\"ptp\"}\n");

    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"own"}, &out, &err,
                        "add sync/squat 1\nadd sync/param 2\nchange sync/app 3\n"),
              0)
        << err;
    EXPECT_EQ(out,
              "error: not permitted to own 'sync/squat'\n"
              "error: not permitted to own 'sync/param'\n"
              "error: state 'sync/app' belongs to another peer\n");

    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"set", "sync/param", "{\"source\":\"ntp\"}"}, &out,
                        &err),
              1);
    EXPECT_EQ(err, "vela: not permitted to set 'sync/param'\n");

    // Root may: the owner is asked.
    EXPECT_EQ(runVela(port, {"set", "sync/param", "{\"source\":\"ntp\"}"}, &out, &err), 0) << err;
    std::string seen;
    ASSERT_TRUE(root.process().readLine(seen));
    EXPECT_EQ(seen, "{\"set\":\"sync/param\",\"value\":{\"source\":\"ntp\"}}");
    EXPECT_EQ(runVela(port, {"get", "sync/param"}, &out), 0);
    EXPECT_EQ(out, "{\"source\":\"ptp\"}\n") << "the owner decides; vela own keeps its value";
}

TEST(Access, TestPolicyGrantsByUserGroupAndUid)
{
    TempFile acl("acl.conf",
                 "user root own,set,fetch *\n"
                 "user nobody own,fetch svc/*\n"
                 "group nogroup set sync/param\n"
                 "user 4711 fetch sync/*\n");
    LocalVelad velad({"--quiet", "--acl", acl.path()});
    const std::uint16_t port = velad.port();
    Owner root(port);
    ASSERT_EQ(root.line("add sync/param 1"), "ok");
    ASSERT_EQ(root.line("add sync/app 2"), "ok");
    ASSERT_EQ(root.line("add other/x 3"), "ok");

    // nobody owns its service paths and nothing else.
    Owner service(port, kNobody, kNogroup);
    EXPECT_EQ(service.line("add svc/a 1"), "ok");
    EXPECT_EQ(service.line("add sync/x 1"), "error: not permitted to own 'sync/x'");
    std::string out;
    std::string err;
    ASSERT_EQ(runVela(port, {"set", "svc/a", "5"}, &out, &err), 0) << err;
    std::string seen;
    ASSERT_TRUE(service.process().readLine(seen));
    EXPECT_EQ(seen, "{\"set\":\"svc/a\",\"value\":5}");

    // Through its group, nobody may set sync/param, and only that.
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"set", "sync/param", "7"}, &out, &err), 0) << err;
    ASSERT_TRUE(root.process().readLine(seen));
    EXPECT_EQ(seen, "{\"set\":\"sync/param\",\"value\":7}");
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"set", "sync/app", "7"}, &out, &err), 1);
    EXPECT_EQ(err, "vela: not permitted to set 'sync/app'\n");
    // Its fetch right covers svc/* only: a wide fetch shows just that.
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"list"}, &out), 0);
    EXPECT_EQ(out, "svc/a\t1\n");

    // A uid the user database does not know is matched by its number.
    EXPECT_EQ(runVelaAs(kStranger, kStranger, "127.0.0.1", port, {"list"}, &out, &err), 0) << err;
    EXPECT_EQ(out, "sync/app\t2\nsync/param\t1\n");
    EXPECT_EQ(runVelaAs(kStranger, kStranger, "127.0.0.1", port, {"get", "other/x"}, &out, &err), 1);
    EXPECT_EQ(err, "vela: not permitted to fetch 'other/x'\n");

    // A watcher with a wide fetch is told of changes of what it may read
    // only.
    ChildProcess watch({"/usr/bin/setpriv", "--reuid=4711", "--regid=4711", "--clear-groups", "--",
                        bustest::velaPath(), "--port", std::to_string(port), "watch", "--count", "3"});
    std::string line;
    ASSERT_TRUE(watch.readLine(line));
    ASSERT_TRUE(watch.readLine(line));  // the two initial adds
    EXPECT_EQ(root.line("change other/x 30"), "ok");
    EXPECT_EQ(service.line("change svc/a 40"), "ok");
    EXPECT_EQ(root.line("change sync/app 20"), "ok");
    ASSERT_TRUE(watch.readLine(line));
    EXPECT_EQ(line, "{\"event\":\"change\",\"path\":\"sync/app\",\"value\":20}");
    EXPECT_EQ(watch.wait(), 0);
}

TEST(Access, UnixSocketPeersAreKnownByTheirCredentials)
{
    const std::string socketPath = ::testing::TempDir() + "/vela-bus." + std::to_string(::getpid());
    TempFile acl("acl.conf", "user root own,set,fetch *\nall fetch *\n");
    LocalVelad velad({"--quiet", "--acl", acl.path(), "--unix", socketPath});
    ASSERT_NE(velad.port(), 0);
    std::string line;
    ASSERT_TRUE(velad.process().readLine(line));
    EXPECT_EQ(line, "velad listening on unix:" + socketPath);

    // Root through the Unix socket, with the peer library.
    Owner root(0, 0, 0, socketPath);
    EXPECT_EQ(root.line("add sync/app 1"), "ok");

    // nobody through the same socket: reads, may not own.
    std::string out;
    std::string err;
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, socketPath, 0, {"get", "sync/app"}, &out, &err), 0) << err;
    EXPECT_EQ(out, "1\n");
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, socketPath, 0, {"own"}, &out, &err, "add mine 1\n"), 0) << err;
    EXPECT_EQ(out, "error: not permitted to own 'mine'\n");

    // The same by hand, on a socket nobody connected.
    auto fds = bustest::socketsOf(kNobody, kNogroup, 0, 1, socketPath);
    ASSERT_EQ(fds.size(), 1u);
    RawClient raw = RawClient::adopt(fds[0]);
    ASSERT_TRUE(raw.hello());
    EXPECT_EQ(bustest::errorCode(raw.call(p::kAdd, bustest::params({{"path", "mine"}, {"value", 1}}))),
              p::kNotPermitted);

    // The socket file goes with the broker.
    EXPECT_EQ(velad.process().signalAndWait(SIGTERM), 0);
    EXPECT_NE(::access(socketPath.c_str(), F_OK), 0);
}

TEST(Access, APeerTheBrokerCannotIdentifyMayOnlyFetchWhatEveryoneMay)
{
    // velad in a network namespace of its own, the client in a second one
    // behind a veth pair: the client's socket is not in the broker's socket
    // table, so the broker cannot tell its user.
    orvtest::runIsolated([] {
        ASSERT_TRUE(orvtest::run("ip netns add far"));
        ASSERT_TRUE(orvtest::run("ip link add v-near type veth peer name v-far netns far"));
        ASSERT_TRUE(orvtest::run("ip addr add 10.77.0.1/24 dev v-near && ip link set v-near up"));
        ASSERT_TRUE(orvtest::run("ip -n far addr add 10.77.0.2/24 dev v-far && ip -n far link set v-far up"
                                 " && ip -n far link set lo up"));
        TempFile acl("acl.conf",
                     "user root own,set,fetch *\n"
                     "all own,fetch public/*\n");
        ChildProcess velad({bustest::veladPath(), "--address", "10.77.0.1", "--port", "0", "--acl", acl.path()});
        std::string line;
        ASSERT_TRUE(velad.readLine(line));
        const std::string port = line.substr(line.rfind(':') + 1);
        ChildProcess owner({bustest::velaPath(), "--address", "10.77.0.1", "--port", port, "own"});
        owner.write("add public/a 1\nadd secret/b 2\n");
        ASSERT_TRUE(owner.readLine(line));
        ASSERT_TRUE(owner.readLine(line));

        auto far = [&](const std::string& args, const std::string& input, std::string& out) {
            ChildProcess p({"/bin/sh", "-c",
                            "ip netns exec far " + bustest::velaPath() + " --address 10.77.0.1 --port " + port +
                                " " + args});
            p.write(input);
            p.closeStdin();
            out = p.readAll();
            return p.wait();
        };
        std::string out;
        EXPECT_EQ(far("list", "", out), 0);
        EXPECT_EQ(out, "public/a\t1\n");
        EXPECT_EQ(far("own", "add public/c 3\n", out), 0);
        EXPECT_EQ(out, "error: not permitted to own 'public/c'\n") << "an unknown peer gets fetch only";
        EXPECT_EQ(far("get secret/b", "", out), 1);

        velad.signalAndWait(SIGTERM);
        const std::string log = velad.readAllStderr();
        EXPECT_NE(log.find("unknown user (not a socket of this host)"), std::string::npos) << log;
        EXPECT_NE(log.find("its user is not known"), std::string::npos) << log;
    });
}

TEST(Access, BrokerRunningAsAnUnprivilegedUserStillKnowsItsPeers)
{
    // The broker asks the kernel's socket table, which any user may: run as
    // nobody, it still tells root from nobody.
    TempFile acl("acl.conf", "user root own,set,fetch *\nall fetch *\n");
    ChildProcess velad({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--",
                        bustest::veladPath(), "--port", "0", "--acl", acl.path()});
    std::string line;
    ASSERT_TRUE(velad.readLine(line)) << velad.readAllStderr(500ms);
    const auto port = static_cast<std::uint16_t>(std::stoul(line.substr(line.rfind(':') + 1)));
    Owner root(port);
    EXPECT_EQ(root.line("add sync/app 1"), "ok");
    std::string out;
    std::string err;
    EXPECT_EQ(runVelaAs(kNobody, kNogroup, "127.0.0.1", port, {"own"}, &out, &err, "add mine 1\n"), 0) << err;
    EXPECT_EQ(out, "error: not permitted to own 'mine'\n");
    EXPECT_EQ(velad.signalAndWait(SIGTERM), 0);
    const std::string log = velad.readAllStderr();
    EXPECT_NE(log.find("uid 0 (root)) connected"), std::string::npos) << log;
    EXPECT_NE(log.find("uid 65534 (nobody)) connected"), std::string::npos) << log;
}
