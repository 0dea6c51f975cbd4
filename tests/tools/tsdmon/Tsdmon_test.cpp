// tsdmon as a program, inside a network namespace of the test's own: two
// cables to a neighbour that the test plays (veth pairs firewire0/firewire1),
// recorded telegrams of every kind sent over them, and proof that tsdmon
// itself never sends a datagram.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <signal.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "MonitorTestUtil.h"
#include "platform/Sandbox.h"
#include "protocol/ModuleItem.h"
#include "protocol/Telegram.h"
#include "src/protocol/SideNetwork.h"
#include "testsupport/ChildProcess.h"
#include "testsupport/LoopRun.h"
#include "testsupport/PrivateMounts.h"

using orvtest::runIsolated;
using testsupport::ChildProcess;
using testsupport::PrivateMounts;
using namespace std::chrono_literals;
namespace telegram = orv::tsd::telegram;

namespace {

const std::string kTsdmon = testsupport::binDir() + "/tsdmon";

using tsdmontest::parseJson;

// Reads JSON events until one matches; every event read is kept.
bool readUntil(ChildProcess& monitor, std::vector<Json::Value>& seen,
               const std::function<bool(const Json::Value&)>& match, std::chrono::milliseconds timeout = 10s)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!monitor.readLine(line, left))
            return false;
        seen.push_back(parseJson(line));
        if (match(seen.back()))
            return true;
    }
    return false;
}

std::function<bool(const Json::Value&)> eventIs(const std::string& event, const std::string& side)
{
    return [event, side](const Json::Value& value) {
        return value["event"] == event && value["side"] == side;
    };
}

// UDP datagrams this network namespace has sent so far (the kernel's own count).
long long udpDatagramsSent()
{
    std::ifstream snmp("/proc/net/snmp");
    std::string header;
    std::string values;
    for (std::string line; std::getline(snmp, line);) {
        if (line.rfind("Udp: ", 0) != 0)
            continue;
        if (header.empty()) {
            header = line;
        } else {
            values = line;
            break;
        }
    }
    std::istringstream names(header);
    std::istringstream numbers(values);
    std::string name;
    std::string number;
    while (names >> name && numbers >> number) {
        if (name == "OutDatagrams")
            return std::stoll(number);
    }
    ADD_FAILURE() << "no UDP counters in /proc/net/snmp";
    return -1;
}

// The neighbour on both cables, as the daemon's tests set it up.
struct Chain
{
    orvtest::Netns peerNs{"peer"};
    orv::sys::EventLoop loop;
    std::unique_ptr<tsdtest::PeerModule> peer;

    explicit Chain(bool withFront = true)
    {
        tsdtest::addCable("firewire0", "peer0", "peer", 0x101, "169.254.1.1", "169.254.1.2");
        if (withFront)
            tsdtest::addCable("firewire1", "peer1", "peer", 0x901, "169.254.2.1", "169.254.2.2");
        peer = std::make_unique<tsdtest::PeerModule>(loop, peerNs, tsdtest::kPort);
    }
};

std::vector<std::string> monitorArgs(const std::vector<std::string>& extra)
{
    std::vector<std::string> args = {kTsdmon, "--json", "--group", tsdtest::kGroup, "--port",
                                     std::to_string(tsdtest::kPort)};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

std::string item(unsigned uuid, unsigned module, unsigned prio, unsigned threshold, orv::tsd::interface_t side)
{
    return telegram::encodeItem(ModuleItem(uuid, module, prio, threshold), side);
}

}  // namespace

TEST(Tsdmon, FollowsAnElectionOnBothSidesAndNeverSends)
{
    runIsolated([] {
        Chain chain;
        const long long sentBefore = udpDatagramsSent();
        ChildProcess monitor(monitorArgs({}));
        std::vector<Json::Value> seen;
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("listening", "rear")));
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("listening", "front")));
        for (const Json::Value& event : seen) {
            if (event["event"] == "listening" && event["side"] == "rear") {
                EXPECT_EQ(event["interface"], "firewire0");
                EXPECT_EQ(event["address"], "169.254.1.1");
                EXPECT_EQ(event["port"], 14000);
            }
            if (event["event"] == "listening" && event["side"] == "front") {
                EXPECT_EQ(event["port"], 14001);
            }
        }

        // A start on each side, answered by the neighbour twice over (it
        // stands for two modules behind the cable), and a start telegram that
        // a daemon would answer at once: tsdmon must not.
        tsdtest::PeerModule& peer = *chain.peer;
        peer.send(0, telegram::encodeStart(orv::tsd::REAR_FW));
        peer.send(0, item(0x102, 10, 1, 5, orv::tsd::REAR_FW));
        peer.send(0, item(0x103, 10, 2, 10, orv::tsd::REAR_FW));
        peer.send(1, telegram::encodeResync(orv::tsd::FRONT_FW));
        peer.send(1, item(0x902, 20, 1, 5, orv::tsd::FRONT_FW));

        seen.clear();
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("election", "rear")));
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("election", "front")));
        std::vector<Json::Value> items;
        for (const Json::Value& event : seen) {
            if (event["event"] == "item")
                items.push_back(event);
            if (event["event"] == "request" && event["side"] == "rear") {
                EXPECT_EQ(event["command"], "start");
                EXPECT_EQ(event["sender"], "169.254.1.2");
                EXPECT_EQ(event["interface"], "firewire0");
                EXPECT_EQ(event["opensRound"], true);
            }
            if (event["event"] == "election" && event["side"] == "rear") {
                EXPECT_EQ(event["winner"]["uuid"], "0A7C31000103");
                EXPECT_EQ(event["answered"].size(), 2u);
                EXPECT_EQ(event["trigger"], "start");
                // Both items came from the neighbour's address; the later one names it.
                EXPECT_EQ(event["requests"][0]["uuid"], "0A7C31000103");
            }
            if (event["event"] == "election" && event["side"] == "front") {
                EXPECT_EQ(event["winner"]["uuid"], "0A7C31000902");
                EXPECT_EQ(event["trigger"], "resync");
            }
        }
        ASSERT_EQ(items.size(), 3u);
        EXPECT_EQ(items[0]["module"], 10);
        EXPECT_EQ(items[0]["prio"], 1);
        EXPECT_EQ(items[0]["threshold"], 5);

        // Nothing came back over either cable, and the kernel counted no
        // datagram sent from tsdmon's namespace.
        testsupport::runFor(chain.loop, 500ms);
        EXPECT_TRUE(peer.heard(0).empty()) << peer.heard(0).front();
        EXPECT_TRUE(peer.heard(1).empty()) << peer.heard(1).front();
        EXPECT_EQ(udpDatagramsSent(), sentBefore);
        EXPECT_EQ(monitor.signalAndWait(SIGTERM), 0);
    });
}

TEST(Tsdmon, ShowsEveryKindOfMalformedTelegramEscaped)
{
    runIsolated([] {
        Chain chain;
        ChildProcess monitor(monitorArgs({"--side", "rear"}));
        std::vector<Json::Value> seen;
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("listening", "rear")));

        struct Case
        {
            std::string bytes;
            const char* reason;
        };
        const std::vector<Case> cases = {
            {"", "empty"},
            {"<sync>", "bad-frame"},
            {"<sync>:start", "bad-frame"},
            {"<sync>:item:1:2:3:4:<SYNC>", "bad-frame"},
            {"<sync>:start:<sync>\n", "bad-frame"},
            {std::string("\x1b[2J\x00\xff", 6), "bad-frame"},
            {"<sync>:hello:<sync>", "unknown"},
            {"<sync>:item:1:2:<sync>", "unknown"},
            {"<sync>:start:1:<sync>", "wrong-side"},
            {"<sync>:item:1:2:3:4:1:<sync>", "wrong-side"},
            {std::string(1400, 'x'), "bad-frame"},
        };
        for (const Case& c : cases)
            chain.peer->send(0, c.bytes);
        // Accepted by the daemons, but not as they write it.
        chain.peer->send(0, "<sync>:item:0x1F:A:2:zz:<sync>");

        seen.clear();
        for (const Case& c : cases) {
            ASSERT_TRUE(readUntil(monitor, seen, eventIs("malformed", "rear"))) << c.reason;
            const Json::Value& event = seen.back();
            EXPECT_EQ(event["reason"], c.reason) << event.toStyledString();
            EXPECT_EQ(event["length"].asUInt64(), c.bytes.size()) << event.toStyledString();
            EXPECT_EQ(event["sender"], "169.254.1.2");
        }
        EXPECT_EQ(seen[5]["bytes"], "\\x1b[2J\\x00\\xff");
        EXPECT_EQ(seen[4]["bytes"], "<sync>:start:<sync>\\x0a");
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("item", "rear")));
        EXPECT_EQ(seen.back()["uuid"], "0A7C3100001F");
        EXPECT_EQ(seen.back()["module"], 10);
        EXPECT_EQ(seen.back()["threshold"], 0);
        EXPECT_EQ(seen.back()["notes"].size(), 1u);
        // The item opened a round of its own; nothing malformed joined it.
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("election", "rear")));
        EXPECT_EQ(seen.back()["trigger"], "item");
        EXPECT_EQ(seen.back()["answered"].size(), 1u);
        EXPECT_EQ(monitor.signalAndWait(SIGINT), 0);
    });
}

TEST(Tsdmon, ReadsGroupAndPortFromTheDaemonsConfigurationFile)
{
    runIsolated([] {
        Chain chain(false);
        ASSERT_TRUE(PrivateMounts::shadow("/etc"));
        ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml",
                                             tsdtest::configFile(tsdtest::kGroup, tsdtest::kPort)));
        ChildProcess monitor({kTsdmon, "--json"});
        std::vector<Json::Value> seen;
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("listening", "rear")));
        EXPECT_EQ(seen.back()["group"], tsdtest::kGroup);
        EXPECT_EQ(seen.back()["port"], 14000);
        // No front cable: that side waits for its interface.
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("waiting", "front")));
        EXPECT_EQ(seen.back()["interface"], "firewire1");

        // The front cable arrives later: tsdmon joins it and hears it.
        tsdtest::addCable("firewire1", "peer1", "peer", 0x901, "169.254.2.1", "169.254.2.2");
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("listening", "front")));
        orvtest::Netns::Inside inside(chain.peerNs);
        orv::communication::NetadapterList adapters;
        orv::communication::MulticastServer sender(adapters, chain.loop);
        ASSERT_EQ(sender.start(tsdtest::kGroup, tsdtest::kPort + 1, nullptr), 0);
        ASSERT_GT(sender.sendOverInterfaceByAddress("169.254.2.2", telegram::encodeStart(orv::tsd::FRONT_FW), 1), 0);
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("request", "front")));
        EXPECT_EQ(seen.back()["interface"], "firewire1");
        // Stopped within the round's window: the round is reported as cut short.
        ::kill(monitor.pid(), SIGTERM);
        ASSERT_TRUE(readUntil(monitor, seen, eventIs("election", "front")));
        EXPECT_EQ(seen.back()["interrupted"], true);
        EXPECT_EQ(seen.back()["requests"].size(), 1u);
        EXPECT_EQ(monitor.wait(5s), 0);

        // --for ends it by itself.
        const auto began = std::chrono::steady_clock::now();
        ChildProcess timed({kTsdmon, "--json", "--for", "0.5"});
        EXPECT_EQ(timed.wait(5s), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - began, 500ms);

        // A file that names no group is refused before anything listens.
        ASSERT_TRUE(PrivateMounts::writeFile("/etc/TimeSourceDaemonConfig.xml", "<TimeSyncDaemon/>"));
        ChildProcess refused({kTsdmon, "--json"});
        EXPECT_EQ(refused.wait(5s), 2);
        EXPECT_NE(refused.readAllStderr().find("names no multicast group"), std::string::npos);
    });
}

TEST(Tsdmon, LiveViewOnATerminalRefreshesInPlace)
{
    runIsolated([] {
        Chain chain;
        // script(1) gives tsdmon a terminal; its output is what the screen got.
        ChildProcess monitor({"/usr/bin/script", "-qfec",
                              kTsdmon + " --group " + tsdtest::kGroup + " --port 14000 --for 4", "/dev/null"});
        std::string line;
        ASSERT_TRUE(monitor.readLine(line, 5s));
        testsupport::runFor(chain.loop, 300ms);
        chain.peer->send(0, telegram::encodeStart(orv::tsd::REAR_FW));
        chain.peer->send(0, item(0x102, 10, 1, 5, orv::tsd::REAR_FW));
        const std::string screen = line + "\n" + monitor.readAll(10s);
        EXPECT_EQ(monitor.wait(5s), 0);
        EXPECT_NE(screen.find("\x1b[H\x1b[2J"), std::string::npos);  // cleared once
        EXPECT_NE(screen.find("\x1b[K"), std::string::npos);          // then lines overwritten
        EXPECT_NE(screen.find("REAR  firewire0: listening (169.254.1.1)"), std::string::npos) << screen;
        EXPECT_NE(screen.find("round 1 open, window ends in"), std::string::npos) << screen;
        EXPECT_NE(screen.find("0A7C31000102  169.254.1.2"), std::string::npos) << screen;
    });
}

TEST(Tsdmon, HelpVersionAndWrongOptions)
{
    ChildProcess help({kTsdmon, "--help"});
    const std::string usage = help.readAll();
    EXPECT_EQ(help.wait(), 0);
    EXPECT_EQ(usage.rfind("Usage: tsdmon", 0), 0u) << usage;
    EXPECT_NE(usage.find("--json"), std::string::npos);

    ChildProcess version({kTsdmon, "--version"});
    EXPECT_EQ(version.readAll(), "tsdmon " TSD_VERSION "\n");
    EXPECT_EQ(version.wait(), 0);

    ChildProcess wrong({kTsdmon, "--port", "70000", "--group", "239.1.1.1"});
    EXPECT_EQ(wrong.wait(), 2);
    EXPECT_NE(wrong.readAllStderr().find("--port needs a number"), std::string::npos);

    // A group that is not a multicast address cannot be joined.
    ChildProcess unicast({kTsdmon, "--group", "10.1.2.3", "--port", "14000"});
    EXPECT_EQ(unicast.wait(), 1);
    EXPECT_NE(unicast.readAllStderr().find("cannot listen on group 10.1.2.3 port 14000"), std::string::npos);
}

TEST(Tsdmon, ManPageRendersWithoutWarnings)
{
    ChildProcess groff({"/usr/bin/groff", "-man", "-ww", "-z", std::string(TSD_SOURCE_DIR) + "/man/tsdmon.1"});
    EXPECT_EQ(groff.readAllStderr(), "");
    EXPECT_EQ(groff.wait(), 0);
}
