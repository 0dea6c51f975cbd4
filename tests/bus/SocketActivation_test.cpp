// velad as systemd starts it: the listening socket handed over as fd 3 with
// LISTEN_FDS and LISTEN_PID, readiness told through NOTIFY_SOCKET. The test
// plays the service manager: it holds the socket across a restart of the
// broker, during which no other process can take the port and connecting
// peers wait instead of failing.
#include "BusTestSupport.h"
#include "Protocol.h"
#include "Socket.h"

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "testsupport/BusWatcher.h"
#include "testsupport/NotifySocket.h"

using bustest::RawClient;
using testsupport::ChildProcess;
using testsupport::runUntil;
using namespace std::chrono_literals;
namespace p = vela::protocol;

namespace {

// The service manager's side: the listening socket and the notification
// socket, both kept by the test.
class ServiceManager
{
public:
    ServiceManager()
    {
        // Not close-on-exec: the broker inherits it, as from systemd.
        m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr;
        vela::socket::makeAddress("127.0.0.1", 0, addr);
        if (::bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 || ::listen(m_listen, 64) < 0) {
            ADD_FAILURE() << "listen: " << std::strerror(errno);
        }
        m_port = vela::socket::localPort(m_listen);
    }
    ~ServiceManager() { ::close(m_listen); }
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    std::uint16_t port() const { return m_port; }

    // Starts velad with the socket as fd 3, the way systemd does: the
    // variables name the broker's own pid, which the shell keeps by exec.
    std::unique_ptr<ChildProcess> startBroker(const std::vector<std::string>& extra = {})
    {
        std::string command = "export LISTEN_PID=$$ LISTEN_FDS=1 NOTIFY_SOCKET=" + m_notify.path() + "; exec " +
                              bustest::veladPath() + " --quiet";
        for (const std::string& a : extra) {
            command += " " + a;
        }
        if (m_listen != 3) {
            command += " 3<&" + std::to_string(m_listen) + " " + std::to_string(m_listen) + "<&-";
        }
        return std::make_unique<ChildProcess>(std::vector<std::string>{"/bin/sh", "-c", command});
    }

    // The next readiness message, or "" after timeout.
    std::string notification(std::chrono::milliseconds timeout = 5s) { return m_notify.receive(timeout); }

private:
    int m_listen = -1;
    std::uint16_t m_port = 0;
    testsupport::NotifySocket m_notify;
};

}  // namespace

TEST(SocketActivation, BrokerServesTheInheritedSocketAndSaysItIsReady)
{
    ServiceManager manager;
    auto velad = manager.startBroker();
    std::string line;
    ASSERT_TRUE(velad->readLine(line)) << velad->readAllStderr(500ms);
    EXPECT_EQ(line, "velad listening on 127.0.0.1:" + std::to_string(manager.port()));
    EXPECT_EQ(manager.notification(), "READY=1");
    std::string out;
    ASSERT_EQ(bustest::runVela(manager.port(), {"list"}, &out), 0);
    EXPECT_EQ(velad->signalAndWait(SIGTERM), 0);
    EXPECT_EQ(manager.notification(), "STOPPING=1");
}

TEST(SocketActivation, PortStaysHeldAcrossARestartAndPeersComeBack)
{
    ServiceManager manager;
    const std::uint16_t port = manager.port();
    auto velad = manager.startBroker();
    ASSERT_EQ(manager.notification(), "READY=1");

    orv::sys::EventLoop loop;
    vela::PeerAsync owner(loop, "127.0.0.1", port, "owner");
    owner.addStateAsync("sync/app", Json::Value(1));
    testsupport::BusWatcher watcher(loop, port, "sync/");
    ASSERT_TRUE(runUntil(loop, [&] { return watcher.has("sync/app"); }));

    ASSERT_EQ(velad->signalAndWait(SIGKILL), 128 + SIGKILL);
    velad.reset();
    ASSERT_TRUE(runUntil(loop, [&] { return !owner.isConnected(); }));

    // Nobody else can have the port while the broker is down...
    const int squatter = vela::socket::listenTcp("127.0.0.1", port);
    EXPECT_EQ(squatter, -EADDRINUSE);
    if (squatter >= 0) {
        ::close(squatter);
    }
    // ... and a peer that connects meanwhile is not refused: it waits in
    // the socket's queue for the next broker.
    RawClient early(port);
    ASSERT_TRUE(early.ok());
    ASSERT_TRUE(early.sendFrame(p::request(1, p::kHello, bustest::params({{"protocol", p::kVersion}}))));
    owner.notifyState("sync/app", Json::Value(2));
    testsupport::runFor(loop, 300ms);

    velad = manager.startBroker();
    ASSERT_EQ(manager.notification(), "READY=1");
    Json::Value r;
    ASSERT_TRUE(early.readFrame(r));
    EXPECT_EQ(r["result"]["protocol"], p::kVersion);
    // The peers came back by themselves, with the value of the break.
    ASSERT_TRUE(runUntil(loop, [&] { return owner.isConnected() && watcher.state("sync/app") == 2; }));
    std::string out;
    EXPECT_EQ(bustest::runVela(port, {"get", "sync/app"}, &out), 0);
    EXPECT_EQ(out, "2\n");
}

TEST(SocketActivation, SomethingElseThanAListeningSocketIsRefused)
{
    ChildProcess velad({"/bin/sh", "-c",
                        "export LISTEN_PID=$$ LISTEN_FDS=1; exec " + bustest::veladPath() + " 3</dev/null"});
    EXPECT_EQ(velad.wait(), 1);
    EXPECT_NE(velad.readAllStderr().find("inherited fd 3 is not a listening stream socket"), std::string::npos);
}
