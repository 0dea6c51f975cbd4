#include "protocol/CommandProcessor.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <orv/communication/MulticastServer.h>
#include <vela/PeerAsync.h>

#include "errors/TsdErrors.h"
#include "main/Daemon.h"
#include "main/Debug.h"
#include "protocol/CheckResponse.h"
#include "protocol/SupervisedSides.h"
#include "sync/TimeSyncManagement.h"
#include "testsupport/LoopRun.h"
#include "testsupport/SyslogCapture.h"

// The decoder and the answers over real multicast: the module under test has
// both sides wired by veth cables to a peer namespace, where the test plays
// the neighbouring module. Each test runs in a forked child of its own.

namespace orv::tsd {
class TimeSyncManagementTestAccess
{
public:
    static CurrentModules& modules(TimeSyncManagement& tsm) { return tsm.m_currentModules; }
    static enTsdPhase& phase(TimeSyncManagement& tsm) { return tsm.m_State; }
};
}  // namespace orv::tsd

using namespace std::chrono_literals;
using orv::tsd::CheckResponse;
using orv::tsd::CommandProcessor;
using orv::tsd::FRONT_FW;
using orv::tsd::REAR_FW;
using orv::tsd::TimeSyncManagement;
using orv::tsd::TimeSyncManagementTestAccess;
using orv::tsd::TsdErrors;
using orvtest::runIsolated;
using testsupport::runFor;
using testsupport::runUntil;
using testsupport::SyslogCapture;
using tsdtest::kOwnUuid;

namespace {

const char kOwnRearItem[] = "<sync>:item:123456:a:0:0:<sync>";
const char kOwnFrontItem[] = "<sync>:item:123456:a:0:0:1:<sync>";

// The module under test: its side servers feed the daemon's receive handler,
// with the supervisors, the error state and the sync manager behind it.
struct Module : tsdtest::SupervisedSides
{
    TimeSyncManagement tsm{rear, front, net.loop, bus};
    std::vector<int> handled[2];  // what the receive handler returned, per side

    Module()
    {
        EXPECT_EQ(rear.start(tsdtest::kGroup, tsdtest::kPort,
                             [this](orv::communication::MulticastServer& server) {
                                 const int n =
                                     orv::tsd::multicastReceiveHandler(server, REAR_FW, rearCheck, tsm);
                                 handled[0].push_back(n);
                                 return n;
                             }),
                  0);
        EXPECT_EQ(rear.addInterface("169.254.1.1"), 0);
        EXPECT_EQ(front.start(tsdtest::kGroup, tsdtest::kPort + 1,
                              [this](orv::communication::MulticastServer& server) {
                                  const int n =
                                      orv::tsd::multicastReceiveHandler(server, FRONT_FW, frontCheck, tsm);
                                  handled[1].push_back(n);
                                  return n;
                              }),
                  0);
        EXPECT_EQ(front.addInterface("169.254.2.1"), 0);
        EXPECT_TRUE(watching());
    }

    orv::tsd::CurrentModules& modules() { return TimeSyncManagementTestAccess::modules(tsm); }
    orv::tsd::enTsdPhase& phase() { return TimeSyncManagementTestAccess::phase(tsm); }
    std::vector<std::string>& heard(int side) { return net.peer->heard(side); }

    // Sends from the peer and waits until the module's handler took it.
    bool deliver(int side, const std::string& text)
    {
        const std::size_t before = handled[side].size();
        net.peer->send(side, text);
        return runUntil(
            net.loop, [&] { return handled[side].size() > before; }, 5s);
    }
};

}  // namespace

TEST(CommandProcessor, StartOnRearRestartsRearSideAndAnswersWithItem)
{
    runIsolated([] {
        Module m;
        m.modules().init({0x777}, {0x888});
        m.modules().setEntry({kOwnUuid, 5, 5, 5}, REAR_FW);
        m.modules().setEntry({0x777, 6, 6, 6}, REAR_FW);
        m.modules().setEntry({0x888, 6, 6, 6}, FRONT_FW);
        m.phase() = orv::tsd::SYNCHRONIZED_PHASE;

        ASSERT_TRUE(m.deliver(0, "<sync>:start:<sync>"));
        EXPECT_EQ(m.phase(), orv::tsd::INITIALIZED_PHASE);
        for (const auto& item : m.modules().list(REAR_FW))
            EXPECT_TRUE(item.isEmpty() || item.uuid == kOwnUuid) << std::hex << item.uuid;
        EXPECT_FALSE(m.modules().list(FRONT_FW).back().isEmpty()) << "the front side is not restarted";

        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(0).empty(); }, 5s));
        EXPECT_EQ(m.heard(0).front(), kOwnRearItem);
        EXPECT_TRUE(m.heard(1).empty());

        // The start armed the rear supervision: nobody else answers, so the
        // side is asked again and -1 is raised.
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return m.watcher.has("sync/errors/-1"); }, 10s));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return m.heard(0).size() >= 2; }, 5s));
        EXPECT_EQ(m.heard(0)[1], "<sync>:resync:<sync>");
    });
}

TEST(CommandProcessor, RearStartOnFrontSideOnlyRaisesWrongInterface)
{
    runIsolated([] {
        Module m;
        m.phase() = orv::tsd::SYNCHRONIZED_PHASE;
        ASSERT_TRUE(m.deliver(1, "<sync>:start:<sync>"));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return m.watcher.has("sync/errors/-3"); }, 5s));
        const Json::Value error = m.watcher.state("sync/errors/-3");
        EXPECT_EQ(error["txt"].asString(), "Wrong interface");
        EXPECT_EQ(error["info"].asString(), "Wrong interface during START seq");
        runFor(m.net.loop, 400ms);
        EXPECT_TRUE(m.heard(0).empty());
        EXPECT_TRUE(m.heard(1).empty());
        EXPECT_EQ(m.phase(), orv::tsd::SYNCHRONIZED_PHASE);
        runFor(m.net.loop, 3200ms);
        EXPECT_FALSE(m.watcher.has("sync/errors/-2")) << "no supervision was armed";
    });
}

TEST(CommandProcessor, WrongSideTelegramsRaiseMinusThreeWithTheirTexts)
{
    struct Case
    {
        int side;
        const char* text;
        const char* info;
    };
    const Case cases[] = {
        {0, "<sync>:start:1:<sync>", "Wrong interface during START seq"},
        {0, "<sync>:resync:1:<sync>", "Wrong interface during RESYNC seq"},
        {1, "<sync>:resync:<sync>", "Wrong interface during RESYNC seq"},
        {0, "<sync>:item:1:2:3:4:1:<sync>", "Wrong interface during NEW_ITEM seq"},
        {1, "<sync>:item:1:2:3:4:<sync>", "Wrong interface during NEW_ITEM seq"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        runIsolated([&] {
            Module m;
            m.modules().init({1}, {1});
            ASSERT_TRUE(m.deliver(c.side, c.text));
            ASSERT_TRUE(runUntil(
                m.net.loop, [&] { return m.watcher.has("sync/errors/-3"); }, 5s));
            EXPECT_EQ(m.watcher.state("sync/errors/-3")["info"].asString(), c.info);
            runFor(m.net.loop, 300ms);
            EXPECT_TRUE(m.heard(0).empty());
            EXPECT_TRUE(m.heard(1).empty());
            EXPECT_TRUE(m.modules().list(REAR_FW).back().isEmpty());
            EXPECT_TRUE(m.modules().list(FRONT_FW).back().isEmpty());
        });
    }
}

TEST(CommandProcessor, FrontStartWithAnyExtraFieldIsAccepted)
{
    runIsolated([] {
        Module m;
        SyslogCapture capture;
        m.modules().init({}, {0x888});
        m.modules().setEntry({0x888, 6, 6, 6}, FRONT_FW);
        m.phase() = orv::tsd::PROPAGATION_PHASE;
        ASSERT_TRUE(m.deliver(1, "<sync>:start:x:<sync>"));
        EXPECT_TRUE(m.modules().list(FRONT_FW).back().isEmpty()) << "front side restarted";
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(1).empty(); }, 5s));
        EXPECT_EQ(m.heard(1).front(), kOwnFrontItem);
        EXPECT_EQ(m.phase(), orv::tsd::PROPAGATION_PHASE);
        EXPECT_EQ(capture.countText("invalid command format!"), 0u);
    });
}

TEST(CommandProcessor, FrontStartInInitialPhaseIsAnsweredWithWarning)
{
    runIsolated([] {
        Module m;
        SyslogCapture capture;
        ASSERT_TRUE(m.deliver(1, "<sync>:start:1:<sync>"));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(1).empty(); }, 5s));
        EXPECT_EQ(m.heard(1).front(), kOwnFrontItem);
        EXPECT_EQ(
            capture.count(LOG_WARNING, " TimeSyncManagement::getTsdParam in INITIALIZED_PHASE (FRONT FW)"),
            1u)
            << capture.dump();
    });
}

TEST(CommandProcessor, ResyncAnswersWithoutRestartingTheSide)
{
    runIsolated([] {
        Module m;
        m.modules().init({0x777}, {});
        m.modules().setEntry({0x777, 6, 6, 6}, REAR_FW);
        m.phase() = orv::tsd::SYNCHRONIZED_PHASE;
        ASSERT_TRUE(m.deliver(0, "<sync>:resync:<sync>"));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(0).empty(); }, 5s));
        EXPECT_EQ(m.heard(0).front(), kOwnRearItem);
        EXPECT_EQ(m.phase(), orv::tsd::SYNCHRONIZED_PHASE);
        bool found = false;
        for (const auto& item : m.modules().list(REAR_FW)) {
            if (item.uuid == 0x777) {
                found = true;
                EXPECT_EQ(item.module, 6u);
            }
        }
        EXPECT_TRUE(found);
    });
}

TEST(CommandProcessor, RearItemIsStoredAndMisframedOneRejected)
{
    runIsolated([] {
        Module m;
        SyslogCapture capture;
        m.modules().init({1, 0x10}, {});
        ASSERT_TRUE(m.deliver(0, "<sync>:item:1:2:3:4:<sync>"));
        const auto stored = [&](unsigned uuid) {
            for (const auto& item : m.modules().list(REAR_FW)) {
                if (item.uuid == uuid)
                    return item;
            }
            return ModuleItem();
        };
        EXPECT_EQ(stored(1).module, 2u);
        EXPECT_EQ(stored(1).prio, 3u);
        EXPECT_EQ(stored(1).threshold, 4u);

        ASSERT_TRUE(m.deliver(0, "<sync>:item:10:7:7:7:<SYNC>"));
        EXPECT_TRUE(stored(0x10).isEmpty());
        EXPECT_EQ(capture.count(LOG_WARNING, "invalid command format!"), 1u) << capture.dump();

        // Hex fields: upper case parses, beyond 32 bits is cut, noise gives 0.
        ASSERT_TRUE(m.deliver(0, "<sync>:item:10:1FFFFFFFF:zz:A:<sync>"));
        EXPECT_EQ(stored(0x10).module, 0xFFFFFFFFu);
        EXPECT_EQ(stored(0x10).prio, 0u);
        EXPECT_EQ(stored(0x10).threshold, 10u);
        EXPECT_TRUE(m.heard(0).empty()) << "items are never answered";
    });
}

TEST(CommandProcessor, ItemCompletingTheSideCancelsSupervisionAndWithdrawsError)
{
    runIsolated([] {
        Module m;
        m.modules().init({0x777}, {});
        m.modules().setEntry({kOwnUuid, 10, 2, 10}, REAR_FW);
        m.errors.add(-1, "");
        m.rearCheck.startWaitPeriod();
        ASSERT_TRUE(m.deliver(0, "<sync>:item:777:14:2:a:<sync>"));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return m.watcher.events().size() >= 2; }, 5s));
        EXPECT_FALSE(m.watcher.has("sync/errors/-1"));
        runFor(m.net.loop, 3300ms);
        EXPECT_FALSE(m.watcher.has("sync/errors/-1")) << "the period was cancelled";
        EXPECT_EQ(m.modules().getHighest(REAR_FW).uuid, 0x777u);
    });
}

TEST(CommandProcessor, MalformedTelegramsAreLoggedAndDropped)
{
    runIsolated([] {
        Module m;
        SyslogCapture capture;
        m.modules().init({1}, {});
        for (const char* text : {"<sync>:hello:<sync>", "<sync>:item:1:2:<sync>", "<sync>::<sync>",
                                 "<sync>:start:1:2:3:<sync>"}) {
            ASSERT_TRUE(m.deliver(0, text)) << text;
        }
        for (const char* text : {"<sync>", "<sync>:start", ":", "start", "<sync>:start:<sync>:"})
            ASSERT_TRUE(m.deliver(0, text)) << text;
        EXPECT_EQ(capture.count(LOG_WARNING, "received invalid message!"), 4u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_WARNING, "invalid command format!"), 5u) << capture.dump();

        std::string many = "<sync>";
        for (int i = 0; i < 10000; ++i)
            many += ":";
        many += "<sync>";
        ASSERT_TRUE(m.deliver(0, many));
        std::string noise(65000, '\0');
        unsigned state = 99;
        for (char& c : noise) {
            state = state * 1103515245u + 12345u;
            c = static_cast<char>(state >> 16);
        }
        ASSERT_TRUE(m.deliver(0, noise));
        ASSERT_TRUE(m.deliver(0, "<sync>:st\xc3\xa4rt:<sync>"));
        ASSERT_TRUE(m.deliver(1, std::string("<sync>:start\0:1:<sync>", 22)));
        EXPECT_EQ(capture.count(LOG_WARNING, "received invalid message!"), 7u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_WARNING, "invalid command format!"), 6u) << capture.dump();

        runFor(m.net.loop, 300ms);
        EXPECT_TRUE(m.heard(0).empty());
        EXPECT_TRUE(m.heard(1).empty());
        EXPECT_TRUE(m.watcher.events().empty());
        EXPECT_TRUE(m.modules().list(REAR_FW).back().isEmpty());
    });
}

TEST(CommandProcessor, EmptyDatagramAndReceiveErrorReachNoProcessing)
{
    runIsolated([] {
        Module m;
        SyslogCapture capture;
        ASSERT_TRUE(m.deliver(0, "<sync>:start:<sync>"));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(0).empty(); }, 5s));
        // A zero-length datagram: the handler returns 0 and nothing is decoded.
        m.net.peer->send(0, "");
        ASSERT_TRUE(runUntil(
            m.net.loop,
            [&] { return std::find(m.handled[0].begin(), m.handled[0].end(), 0) != m.handled[0].end(); },
            5s));
        // Nothing waiting: the receive error is handed back as it came.
        EXPECT_EQ(orv::tsd::multicastReceiveHandler(m.rear, REAR_FW, m.rearCheck, m.tsm), -EAGAIN);
        EXPECT_EQ(capture.countText("invalid command format!"), 0u) << capture.dump();
        EXPECT_EQ(m.heard(0).size(), 1u);
    });
}

TEST(CommandProcessor, DebugLinesOfTheExchange)
{
    runIsolated([] {
        Module m;
        orv::tsd::setDebugModeFlag(true);
        SyslogCapture capture;
        m.modules().init({1}, {});
        ASSERT_TRUE(m.deliver(0, "<sync>:resync:<sync>"));
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(0).empty(); }, 5s));
        ASSERT_TRUE(m.deliver(0, "<sync>:item:1:2:3:4:<sync>"));
        EXPECT_EQ(capture.count(LOG_DEBUG, "<== send (0): 123456 10 0 0"), 1u) << capture.dump();
        EXPECT_EQ(capture.count(LOG_DEBUG, kOwnRearItem), 1u);
        EXPECT_EQ(capture.count(LOG_DEBUG, "==> received item (0): 1 2 3 4"), 1u);
        CommandProcessor::sendInit(FRONT_FW, m.front);
        CommandProcessor::sendResync(REAR_FW, m.rear);
        ASSERT_TRUE(runUntil(
            m.net.loop, [&] { return !m.heard(1).empty() && m.heard(0).size() >= 2; }, 5s));
        orv::tsd::setDebugModeFlag(false);
        EXPECT_EQ(m.heard(1).front(), "<sync>:start:1:<sync>");
        EXPECT_EQ(m.heard(0)[1], "<sync>:resync:<sync>");
        EXPECT_EQ(capture.count(LOG_DEBUG, "<== send init (1) :<sync>:start:1:<sync>"), 1u);
        EXPECT_EQ(capture.count(LOG_DEBUG, "<== send resync (0): <sync>:resync:<sync>"), 1u);
    });
}
