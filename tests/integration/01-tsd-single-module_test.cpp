// One real tsd in namespaces of its own, with its own velad, wired on both
// sides to simulated FireWire buses. The other end of both cables belongs to
// a module without a daemon: the test plays it with raw multicast sockets in that
// module's network namespace, so that every telegram is the test's own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "PtpModuleSetup.h"
#include "tsdsim/Bus.h"
#include "tsdsim/McastSocket.h"
#include "tsdsim/Module.h"
#include "tsdsim/ModuleSetup.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using tsdsim::Module;
using tsdsim::Side;

namespace {

constexpr std::uint32_t kDaemonUuid = 0x000c01;
constexpr std::uint32_t kTesterUuid = 0x000c02;
const char kGroup[] = "239.255.77.9";
constexpr unsigned kPort = 14900;

tsdsim::ModuleSetup setupFor(const std::string& name, std::uint32_t uuid)
{
    return integration::ptpModuleSetup(name, uuid, kGroup, kPort, 1.0);
}

// The tester's end of one cable: the simulator's raw multicast socket, and
// everything it heard.
class TesterPort
{
public:
    TesterPort(const Module& tester, Side side, unsigned port) : m_socket(tester, kGroup, port, side)
    {
        EXPECT_TRUE(m_socket.ok());
    }

    void send(const std::string& text) { EXPECT_TRUE(m_socket.send(text)) << text; }

    // Waits for a telegram equal to text; the seconds it took, or -1.
    double waitFor(const std::string& text, std::chrono::milliseconds timeout)
    {
        const auto start = std::chrono::steady_clock::now();
        const auto deadline = start + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string received = m_socket.receive(20ms);
            if (received.empty())
                continue;
            m_heard.push_back(received);
            if (received == text)
                return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        return -1;
    }

    const std::vector<std::string>& heard() const { return m_heard; }

private:
    tsdsim::McastSocket m_socket;
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
    tsdsim::ModuleSetup tester = setupFor("tester", kTesterUuid);
    tester.publishParam = false;
    Module& daemon = world.addModule(setupFor("daemon", kDaemonUuid));
    Module& peer = world.addModule(tester);
    world.plug(daemon, Side::Rear, rearBus);
    world.plug(peer, Side::Rear, rearBus);
    world.plug(daemon, Side::Front, frontBus);
    world.plug(peer, Side::Front, frontBus);

    TesterPort rear(peer, Side::Rear, kPort);
    // The tester's front end listens on the daemon's front port.
    TesterPort front(peer, Side::Front, kPort + 1);

    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(daemon.waitPublished(10s)) << daemon.unpublished();
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
