#include "main/Daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "config/Config.h"
#include "main/Debug.h"

#include <orv/sys/Timer.h>
#include "protocol/SideNetwork.h"
#include "testsupport/LoopRun.h"
#include "testsupport/NotifySocket.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/StreamCapture.h"
#include "testsupport/SyslogCapture.h"

// The process-wide handlers against the process-wide objects. Each test runs
// in a forked child with its own network (orvtest::runIsolated), where the
// shared adapter list is re-read and the two receivers are started; whether
// a receiver is a member on an interface is seen by whether it hears what
// the peer module sends over that cable.

namespace orv::tsd {
class ConfigTestAccess
{
public:
    static void setGateway(Config& config, bool on) { config.m_isKPModule = on; }
};
}  // namespace orv::tsd

using namespace std::chrono_literals;
using orv::communication::Netlink;
using orv::tsd::adapterList;
using orv::tsd::netLinkEventHandler;
using orv::tsd::receiverFront;
using orv::tsd::receiverRear;
using orvtest::runIsolated;
using testsupport::runFor;
using testsupport::runUntil;
using testsupport::StreamCapture;
using testsupport::SyslogCapture;

namespace {

// The shared objects brought up in the child's network.
struct Receivers
{
    tsdtest::SideNetwork net;
    unsigned heard[2] = {0, 0};

    explicit Receivers(bool withEthernet = false, const char* uuid = nullptr)
    {
        if (uuid != nullptr)
            ::setenv("UUID", uuid, 1);
        // Identity first, so that its start-up lines are not among the
        // lines a test looks at.
        orv::tsd::Config::instance();
        if (withEthernet) {
            EXPECT_TRUE(orvtest::run("ip link add eth0 type veth peer name eth0p"));
            EXPECT_TRUE(orvtest::run("ip addr add 10.9.9.1/24 dev eth0"));
        }
        EXPECT_EQ(adapterList.refresh(), 0);
        for (int side = 0; side < 2; ++side) {
            auto& receiver = side == 0 ? receiverRear : receiverFront;
            EXPECT_EQ(receiver.start(tsdtest::kGroup, tsdtest::kPort + static_cast<unsigned>(side),
                                     [this, side](orv::communication::MulticastServer& server) {
                                         char buffer[1024];
                                         orv::communication::Netadapter from;
                                         int index = 0;
                                         const int n =
                                             server.receiveTelegram(buffer, sizeof buffer, from, index);
                                         if (n > 0)
                                             ++heard[side];
                                         return n;
                                     }),
                      0);
        }
    }

    ~Receivers()
    {
        receiverRear.stop();
        receiverFront.stop();
    }

    // Whether the side's receiver hears a telegram sent over its cable.
    bool hears(int side)
    {
        // The global receivers run on the global loop; the peer on the
        // network's own. Both are driven alternately until the count moves.
        const unsigned before = heard[side];
        net.peer->send(side, "probe");
        const auto deadline = std::chrono::steady_clock::now() + 400ms;
        while (std::chrono::steady_clock::now() < deadline) {
            runFor(orv::tsd::eventloop, 20ms);
            if (heard[side] > before)
                return true;
        }
        return false;
    }
};

// Whether some socket is a member of the test group on the interface, as the
// kernel lists it in /proc/net/igmp (group in hex, network order read as a
// little-endian word).
bool groupJoinedOn(const std::string& device)
{
    std::ifstream in("/proc/net/igmp");
    std::string line;
    bool inDevice = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] != '\t') {
            std::istringstream fields(line);
            std::string index, name;
            fields >> index >> name;
            inDevice = name == device;
        } else if (inDevice && line.find("014DFFEF") != std::string::npos) {
            return true;
        }
    }
    return false;
}

unsigned indexOf(const std::string& name)
{
    return orvtest::interfaceIndex(name);
}

}  // namespace

TEST(NetLinkEventHandler, AddressAddedOnFrontPortJoinsFrontReceiver)
{
    runIsolated([] {
        Receivers r;
        EXPECT_FALSE(r.hears(1)) << "nobody joined the front receiver yet";
        SyslogCapture capture;
        netLinkEventHandler(Netlink::ADDRESS_ADDED, indexOf("firewire1"), "169.254.2.1");
        ASSERT_EQ(capture.lines().size(), 2u) << capture.dump();
        EXPECT_EQ(capture.lines()[0].text, "PRONT_INTERFACE firewire1 ip: 169.254.2.1 ");
        EXPECT_EQ(capture.lines()[0].priority, LOG_DEBUG);
        EXPECT_EQ(capture.lines()[1].text, "ADDRESS_ADDED ");
        EXPECT_EQ(capture.lines()[1].priority, LOG_DEBUG);
        EXPECT_TRUE(r.hears(1));
        EXPECT_FALSE(r.hears(0)) << "the rear receiver is untouched";
    });
}

TEST(NetLinkEventHandler, LinkAddedOnRearPortJoinsRearReceiverAndRemovalDropsIt)
{
    runIsolated([] {
        Receivers r;
        SyslogCapture capture;
        netLinkEventHandler(Netlink::LINK_ADDED, indexOf("firewire0"), "");
        EXPECT_EQ(capture.count(LOG_DEBUG, "REAR_INTERFACE firewire0 ip:  "), 1u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_DEBUG, "LINK_ADDED "), 1u);
        EXPECT_TRUE(r.hears(0));
        netLinkEventHandler(Netlink::LINK_REMOVED, indexOf("firewire0"), "");
        EXPECT_EQ(capture.count(LOG_DEBUG, "LINK_REMOVED"), 1u) << capture.dump();
        EXPECT_FALSE(r.hears(0));
        netLinkEventHandler(Netlink::ADDRESS_ADDED, indexOf("firewire0"), "169.254.1.1");
        EXPECT_EQ(capture.count(LOG_DEBUG, "REAR_INTERFACE firewire0 ip: 169.254.1.1 "), 1u);
        EXPECT_TRUE(r.hears(0));
        netLinkEventHandler(Netlink::ADDRESS_REMOVED, indexOf("firewire0"), "169.254.1.1");
        EXPECT_EQ(capture.count(LOG_DEBUG, "ADDRESS_REMOVED"), 1u) << capture.dump();
        EXPECT_FALSE(r.hears(0));
    });
}

TEST(NetLinkEventHandler, AddressOnEthernetChangesNothingAndLogsNothing)
{
    runIsolated([] {
        Receivers r(true);
        SyslogCapture capture;
        netLinkEventHandler(Netlink::ADDRESS_ADDED, indexOf("eth0"), "10.9.9.1");
        netLinkEventHandler(Netlink::LINK_ADDED, indexOf("lo"), "");
        EXPECT_EQ(capture.lines().size(), 0u) << capture.dump();
        EXPECT_FALSE(r.hears(0));
        EXPECT_FALSE(r.hears(1));
    });
}

TEST(NetLinkEventHandler, UnknownInterfaceIndexIsCaughtAndChangesNothing)
{
    runIsolated([] {
        Receivers r;
        SyslogCapture capture;
        netLinkEventHandler(Netlink::ADDRESS_ADDED, 4242, "169.254.9.9");
        netLinkEventHandler(Netlink::LINK_REMOVED, 4243, "");
        ASSERT_EQ(capture.lines().size(), 2u) << capture.dump();
        EXPECT_EQ(capture.lines()[0].text, "error in netLinkEventHandler event = 2");
        EXPECT_EQ(capture.lines()[0].priority, LOG_WARNING);
        EXPECT_EQ(capture.lines()[1].text, "error in netLinkEventHandler event = 1");
        EXPECT_FALSE(r.hears(0));
        EXPECT_FALSE(r.hears(1));
    });
}

TEST(NetLinkEventHandler, CompleteLogsAfterClassificationAndChangesNoMembership)
{
    runIsolated([] {
        Receivers r;
        SyslogCapture capture;
        netLinkEventHandler(Netlink::COMPLETE, indexOf("firewire1"), "");
        ASSERT_EQ(capture.lines().size(), 2u) << capture.dump();
        EXPECT_EQ(capture.lines()[0].text, "PRONT_INTERFACE firewire1 ip:  ");
        EXPECT_EQ(capture.lines()[1].text, "COMPLETE");
        EXPECT_EQ(capture.lines()[1].priority, LOG_DEBUG);
        EXPECT_FALSE(r.hears(1));
    });
}

TEST(NetLinkEventHandler, OtherEventValueOnlyLogsTheClassification)
{
    runIsolated([] {
        Receivers r;
        SyslogCapture capture;
        netLinkEventHandler(static_cast<Netlink::event_t>(7), indexOf("firewire0"), "x");
        ASSERT_EQ(capture.lines().size(), 1u) << capture.dump();
        EXPECT_EQ(capture.lines()[0].text, "REAR_INTERFACE firewire0 ip: x ");
        EXPECT_FALSE(r.hears(0));
    });
}

TEST(NetLinkEventHandler, WithoutRearPortEveryFirewireInterfaceIsFront)
{
    runIsolated([] {
        // A module whose UUID matches neither port found no rear port at start.
        Receivers r(false, "abcdef");
        EXPECT_FALSE(groupJoinedOn("firewire0"));
        ASSERT_EQ(orv::tsd::Config::instance().getRearInterfaceName(), "");
        SyslogCapture capture;
        netLinkEventHandler(Netlink::ADDRESS_ADDED, indexOf("firewire0"), "169.254.1.1");
        EXPECT_EQ(capture.count(LOG_DEBUG, "PRONT_INTERFACE firewire0 ip: 169.254.1.1 "), 1u)
            << capture.dump();
        // The membership went to the front receiver, not to the rear one.
        EXPECT_TRUE(groupJoinedOn("firewire0"));
        EXPECT_FALSE(r.hears(0));
    });
}

TEST(SignalHandler, UserSignalsSwitchDebugAndEchoTheirNumbers)
{
    runIsolated([] {
        orv::tsd::installSignalHandler(SIGUSR1);
        orv::tsd::installSignalHandler(SIGUSR2);
        StreamCapture out(STDOUT_FILENO);
        ::raise(SIGUSR1);
        EXPECT_TRUE(orv::tsd::isDebugMode());
        ::raise(SIGUSR2);
        EXPECT_FALSE(orv::tsd::isDebugMode());
        EXPECT_EQ(out.text(), "SIGNAL NR. : 10\nSIGNAL NR. : 12\n");
    });
}

TEST(SignalHandler, TerminationSignalsStopTheLoopWithSaRestart)
{
    runIsolated([] {
        for (int sig : {SIGTERM, SIGINT}) {
            orv::tsd::installSignalHandler(sig);
            struct sigaction action = {};
            ::sigaction(sig, nullptr, &action);
            EXPECT_EQ(action.sa_handler, &orv::tsd::signalHandler);
            EXPECT_TRUE(action.sa_flags & SA_RESTART);
            StreamCapture out(STDOUT_FILENO);
            ::raise(sig);
            // The stop request waits in the loop: execute() returns at once.
            EXPECT_EQ(orv::tsd::eventloop.execute(), 0);
            EXPECT_EQ(out.text(), "SIGNAL NR. : " + std::to_string(sig) + "\n");
            EXPECT_FALSE(orv::tsd::isDebugMode());
        }
    });
}

TEST(Debug, SwitchIsOffAtStartAndLogLinesGoOutAtDebugPriority)
{
    runIsolated([] {
        EXPECT_FALSE(orv::tsd::isDebugMode());
        orv::tsd::setDebugModeFlag(true);
        EXPECT_TRUE(orv::tsd::isDebugMode());
        orv::tsd::setDebugModeFlag(false);
        EXPECT_FALSE(orv::tsd::isDebugMode());
        SyslogCapture capture;
        // debugLog does not look at the switch and passes percent signs through.
        orv::tsd::debugLog("100% sure %s ");
        EXPECT_EQ(capture.count(LOG_DEBUG, "100% sure %s "), 1u) << capture.dump();
    });
}

TEST(TsdMain, GatewayWithoutFrontAddressLogsTheMissingFront)
{
    runIsolated([] {
        tsdtest::SideNetwork net(false);
        orv::tsd::ConfigTestAccess::setGateway(orv::tsd::Config::instance(), true);
        SyslogCapture capture;
        // A stop that waits in the loop lets the body run once through and
        // tear down.
        orv::tsd::eventloop.stop();
        std::string program = "tsd";
        char* argv[] = {program.data(), nullptr};
        EXPECT_EQ(orv::tsd::tsdMain(1, argv), 0);
        EXPECT_EQ(capture.count(LOG_ERR, "front side interface not available!"), 1u) << capture.dump();
        EXPECT_FALSE(receiverFront.isStarted());
        EXPECT_TRUE(receiverRear.isStarted());
        receiverRear.stop();
    });
}

TEST(TsdMain, PlainModuleWithoutFrontAddressSaysNothingAboutTheFront)
{
    runIsolated([] {
        tsdtest::SideNetwork net(false);
        orv::tsd::Config::instance();
        SyslogCapture capture;
        orv::tsd::eventloop.stop();
        std::string program = "/usr/sbin/tsd";
        char* argv[] = {program.data(), nullptr};
        EXPECT_EQ(orv::tsd::tsdMain(1, argv), 0);
        EXPECT_EQ(capture.countText("front side interface not available!"), 0u) << capture.dump();
        EXPECT_FALSE(receiverFront.isStarted());
        receiverRear.stop();
    });
}

// Readiness for the service manager comes from the loop itself: armed before
// the loop runs, sent by its first round, once.
TEST(Readiness, IsSentByTheRunningLoopOnlyAndOnlyOnce)
{
    testsupport::NotifySocket notify;
    notify.exportPath();
    orv::sys::EventLoop loop;
    orv::sys::Timer readiness(loop);
    orv::tsd::notifyReadyFromLoop(readiness);
    EXPECT_EQ(notify.receive(300ms), "") << "nothing before the loop runs";

    std::string message;
    EXPECT_TRUE(runUntil(
        loop, [&] { return !(message = notify.receive()).empty(); }, 5s));
    EXPECT_EQ(message, "READY=1");
    // The scripts and the services they start do not inherit the socket.
    EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr);
    runFor(loop, 300ms);
    EXPECT_EQ(notify.receive(), "") << "sent once";
}

TEST(Readiness, WithoutNotifySocketNothingIsSentAndTheLoopRunsOn)
{
    testsupport::NotifySocket notify;
    ::unsetenv("NOTIFY_SOCKET");
    orv::sys::EventLoop loop;
    orv::sys::Timer readiness(loop);
    orv::tsd::notifyReadyFromLoop(readiness);
    bool later = false;
    orv::sys::Timer next(loop);
    next.set(50ms, false, [&](bool fired) { later = fired; });
    EXPECT_TRUE(runUntil(
        loop, [&] { return later; }, 5s));
    EXPECT_FALSE(readiness.isPending());
    EXPECT_EQ(notify.receive(200ms), "");
}
