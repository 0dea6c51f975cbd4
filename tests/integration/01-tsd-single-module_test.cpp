// One real tsd in namespaces of its own, with its own velad, wired on both
// sides to simulated FireWire buses. The other end of both cables belongs to
// a module without a daemon: the test plays it with plain UDP sockets in that
// module's network namespace, so that every telegram is the test's own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tsdsim/Bus.h"
#include "tsdsim/Module.h"
#include "tsdsim/ModuleSpec.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using tsdsim::Module;
using tsdsim::Side;

namespace {

constexpr std::uint32_t kDaemonUuid = 0x000c01;
constexpr std::uint32_t kTesterUuid = 0x000c02;
const char kGroup[] = "239.255.77.9";
constexpr unsigned kPort = 14900;

tsdsim::ModuleSpec spec(const std::string& name, std::uint32_t uuid)
{
    tsdsim::ModuleSpec s;
    s.name = name;
    s.uuid = uuid;
    s.type = "RZ";
    s.param.timesource = "Ptp";
    s.param.threshold = 1.0;
    s.group = kGroup;
    s.port = kPort;
    return s;
}

// A UDP socket at the tester's end of one cable, on one port of the group.
class TesterPort
{
public:
    TesterPort(const Module& tester, Side side, unsigned port) : m_port(port)
    {
        m_fd = tester.openSocket(SOCK_DGRAM);
        EXPECT_GE(m_fd, 0);
        const std::string own = tester.address(side);
        in_addr ownAddress{};
        inet_pton(AF_INET, own.c_str(), &ownAddress);
        inet_pton(AF_INET, kGroup, &m_group);

        sockaddr_in bindAddress{};
        bindAddress.sin_family = AF_INET;
        bindAddress.sin_port = htons(static_cast<std::uint16_t>(port));
        bindAddress.sin_addr = m_group;
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<sockaddr*>(&bindAddress), sizeof bindAddress), 0);
        ip_mreq membership{};
        membership.imr_multiaddr = m_group;
        membership.imr_interface = ownAddress;
        EXPECT_EQ(::setsockopt(m_fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership), 0);
        EXPECT_EQ(::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_IF, &ownAddress, sizeof ownAddress), 0);
        const unsigned char off = 0;
        ::setsockopt(m_fd, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off);
    }
    ~TesterPort()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    TesterPort(const TesterPort&) = delete;
    TesterPort& operator=(const TesterPort&) = delete;

    void send(const std::string& text)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(static_cast<std::uint16_t>(m_port));
        to.sin_addr = m_group;
        EXPECT_EQ(::sendto(m_fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(text.size()));
    }

    // Waits for a telegram equal to text; the seconds it took, or -1.
    double waitFor(const std::string& text, std::chrono::milliseconds timeout)
    {
        const auto start = std::chrono::steady_clock::now();
        const auto deadline = start + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd p{m_fd, POLLIN, 0};
            if (::poll(&p, 1, 20) <= 0)
                continue;
            char buffer[2048];
            const ssize_t n = ::recv(m_fd, buffer, sizeof buffer, 0);
            if (n <= 0)
                continue;
            const std::string received(buffer, static_cast<std::size_t>(n));
            m_heard.push_back(received);
            if (received == text)
                return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        return -1;
    }

    const std::vector<std::string>& heard() const { return m_heard; }

private:
    int m_fd = -1;
    unsigned m_port;
    in_addr m_group{};
    std::vector<std::string> m_heard;
};

std::string joined(const std::vector<std::string>& lines)
{
    std::string out;
    for (const auto& l : lines)
        out += "  " + l + "\n";
    return out;
}

bool hasState(const Module& m, const std::string& path)
{
    return !m.state(path).isNull();
}

}  // namespace

TEST(SingleModule, AnswersStartsRaisesErrorsAndStopsCleanly)
{
    tsdsim::World world;
    tsdsim::Bus& rearBus = world.addBus("rear");
    tsdsim::Bus& frontBus = world.addBus("front");
    tsdsim::ModuleSpec tester = spec("tester", kTesterUuid);
    tester.publishParam = false;
    Module& daemon = world.addModule(spec("daemon", kDaemonUuid));
    Module& peer = world.addModule(tester);
    world.plug(daemon, Side::Rear, rearBus);
    world.plug(peer, Side::Rear, rearBus);
    world.plug(daemon, Side::Front, frontBus);
    world.plug(peer, Side::Front, frontBus);

    TesterPort rear(peer, Side::Rear, kPort);
    // The tester's front end listens on the daemon's front port.
    TesterPort front(peer, Side::Front, kPort + 1);

    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(daemon.waitPublished(10s)) << daemon.lastPublishError();
    ASSERT_TRUE(
        world.waitFor([&] { return hasState(daemon, "sync/app") && hasState(daemon, "sync/master"); }, 10s));

    // Module priority RZ = 10, time source Ptp = 2, threshold 1.0 = 10 tenths.
    char item[64];
    std::snprintf(item, sizeof item, "<sync>:item:%x:a:2:a:<sync>", kDaemonUuid);

    // A start from the tester is answered within the random back-off.
    rear.send("<sync>:start:<sync>");
    const double answeredAfter = rear.waitFor(item, 3s);
    ASSERT_GE(answeredAfter, 0) << "heard:\n" << joined(rear.heard());
    EXPECT_LT(answeredAfter, 1.0) << "back-off is below 200 ms; allow for a loaded machine";
    const double startSent = world.now() - answeredAfter;

    // The tester never answers with an item of its own: after 3000 ms the
    // daemon asks the rear side again and raises -1.
    ASSERT_GE(rear.waitFor("<sync>:resync:<sync>", 10s), 0) << "heard:\n" << joined(rear.heard());
    EXPECT_GE(world.now() - startSent, 2.9);
    ASSERT_TRUE(world.waitFor([&] { return hasState(daemon, "sync/errors/-1"); }, 5s));
    const Json::Value missing = daemon.state("sync/errors/-1");
    EXPECT_EQ(missing["error"].asInt(), -1);
    EXPECT_EQ(missing["txt"].asString(), "Did not receive sync notification from all modules on back");
    EXPECT_EQ(missing["info"].asString(), "");

    // A rear start that arrives on the front side is the wrong interface.
    front.send("<sync>:start:<sync>");
    ASSERT_TRUE(world.waitFor([&] { return hasState(daemon, "sync/errors/-3"); }, 5s));
    const Json::Value wrong = daemon.state("sync/errors/-3");
    EXPECT_EQ(wrong["error"].asInt(), -3);
    EXPECT_EQ(wrong["txt"].asString(), "Wrong interface");
    EXPECT_EQ(wrong["info"].asString(), "Wrong interface during START seq");

    // SIGTERM: status 0, and the daemon's states leave the bus.
    const int status = daemon.stopTsd(SIGTERM, 10s);
    EXPECT_TRUE(status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
    ASSERT_TRUE(world.waitFor(
        [&] {
            for (const auto& state : daemon.states("sync/")) {
                if (state.first != "sync/param")
                    return false;
            }
            return true;
        },
        5s));
    EXPECT_FALSE(hasState(daemon, "sync/errors/-3"));
    EXPECT_FALSE(hasState(daemon, "sync/app"));
    EXPECT_TRUE(hasState(daemon, "sync/param")) << "the platform's own state stays";
}
