// fwdevd as a process with a velad of the test's own: what it prints with
// --once, how the bus follows a sysfs tree on SIGHUP, what it logs and when
// it says it is ready.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <poll.h>
#include <chrono>
#include <filesystem>
#include <fstream>

#include <orv/sys/EventLoop.h>

#include "TwoCards.h"
#include "testsupport/BusWatcher.h"
#include "testsupport/ChildProcess.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"
#include "testsupport/PrivateMounts.h"
#include "testsupport/SyslogCapture.h"

using namespace std::chrono_literals;
using namespace servicetest::twocards;
using orv::services::SysfsTree;
using testsupport::BusWatcher;
using testsupport::ChildProcess;
using testsupport::LocalVelad;
using testsupport::PrivateMounts;
using testsupport::runFor;
using testsupport::runUntil;
using testsupport::SyslogCapture;

namespace {

const std::string kNewPath = "reachableDevices/firewire0/00000A7C31000D05";
constexpr std::uint64_t kNewNode = 0x00000a7c31000d05;

std::string fwdevd()
{
    return testsupport::binDir() + "/fwdevd";
}

std::string treeRoot(const std::string& name)
{
    return PrivateMounts::scratchDir(name) + "/sys";
}

std::unique_ptr<ChildProcess> startFwdevd(const std::string& root, unsigned port,
                                          const std::vector<std::string>& extra = {})
{
    std::vector<std::string> argv = {fwdevd(), "--sysfs", root, "--port", std::to_string(port)};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return std::make_unique<ChildProcess>(argv);
}

std::size_t countContaining(SyslogCapture& capture, int priority, const std::string& fragment)
{
    std::size_t n = 0;
    for (const auto& line : capture.lines()) {
        if (line.priority == priority && line.text.find(fragment) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

// A velad, a watcher of "reachableDevices/" and fwdevd on a two-card tree.
class Running : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(m_velad.port(), 0);
        build(m_tree);
        ASSERT_TRUE(runUntil(
            m_loop, [&] { return m_watcher.ready(); }, 5s));
        m_fwdevd = startFwdevd(m_tree.root(), m_velad.port());
        ASSERT_TRUE(runUntil(
            m_loop, [&] { return m_watcher.states().size() == 3; }, 5s));
    }

    void hangup() { ASSERT_EQ(::kill(m_fwdevd->pid(), SIGHUP), 0); }

    SyslogCapture m_capture;
    LocalVelad m_velad{{"--quiet"}};
    orv::sys::EventLoop m_loop;
    BusWatcher m_watcher{m_loop, m_velad.port(), "reachableDevices/"};
    SysfsTree m_tree{
        treeRoot("fwdevd-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()))};
    std::unique_ptr<ChildProcess> m_fwdevd;
};

}  // namespace

TEST(FwdevdProgram, OncePrintsTheSortedPathsWithoutTheBus)
{
    SysfsTree tree(treeRoot("once"));
    build(tree);
    tree.addNode(kCardB, "fw9", {{"guid", "0xnothex"}, {"is_local", "0"}});
    ChildProcess once({fwdevd(), "--sysfs", tree.root(), "--once", "--port", "1"});
    EXPECT_EQ(once.readAll(), kPathOwn + "\n" + kPathForeign + "\n" + kPathB + "\n");
    EXPECT_EQ(once.wait(), 0);
    EXPECT_NE(once.readAllStderr().find("fwdevd: fw9: guid '0xnothex' is not a 64-bit hex number; skipped"),
              std::string::npos);
}

TEST(FwdevdProgram, OnceOnATreeThatCannotBeReadFails)
{
    ChildProcess once({fwdevd(), "--sysfs", "/nonexistent/sys", "--once"});
    EXPECT_EQ(once.readAll(), "");
    EXPECT_EQ(once.wait(), 1);
    EXPECT_NE(once.readAllStderr().find("cannot resolve"), std::string::npos);
}

TEST(FwdevdProgram, HelpVersionAndBadOptions)
{
    ChildProcess version({fwdevd(), "--version"});
    EXPECT_EQ(version.readAll(), std::string("fwdevd ") + TSD_VERSION + "\n");
    EXPECT_EQ(version.wait(), 0);

    ChildProcess help({fwdevd(), "--help"});
    const std::string text = help.readAll();
    EXPECT_EQ(help.wait(), 0);
    EXPECT_NE(text.find("usage: fwdevd"), std::string::npos);
    EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 24) << "one screen";

    for (const std::vector<std::string>& args : {std::vector<std::string>{"--port", "0"},
                                                 {"--port", "65536"},
                                                 {"--port", "x"},
                                                 {"--bogus"},
                                                 {"extra"}}) {
        std::vector<std::string> argv = {fwdevd()};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess bad(argv);
        EXPECT_EQ(bad.wait(), 2) << args.front();
    }
}

TEST_F(Running, PublishesEachRemoteNodeWithItsValue)
{
    EXPECT_TRUE(m_watcher.has(kPathOwn));
    EXPECT_TRUE(m_watcher.has(kPathForeign));
    EXPECT_TRUE(m_watcher.has(kPathB));
    EXPECT_EQ(m_watcher.state(kPathForeign)["vendor_name"].asString(), "Camera Maker");
    EXPECT_EQ(m_watcher.state(kPathOwn)["guid"].asString(), "00000A7C31000B02");
}

TEST_F(Running, ADeviceAddedAndRemovedFollowsSighup)
{
    m_tree.addNode(kCardA, "fw5", kNewNode, false);
    hangup();
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.has(kNewPath); }, 5s));

    m_tree.removeNode("fw1");
    hangup();
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return !m_watcher.has(kPathOwn); }, 5s));

    // Only the differences went out: the devices that stayed were told once.
    EXPECT_EQ(m_watcher.notifications(kPathForeign), 1);
    EXPECT_EQ(m_watcher.notifications(kPathB), 1);
    EXPECT_EQ(m_watcher.notifications(kNewPath), 1);
    ASSERT_EQ(m_watcher.eventsFor(kPathOwn).size(), 2u);
    EXPECT_EQ(m_watcher.eventsFor(kPathOwn).back().event, "remove");
}

TEST_F(Running, ARescanWithoutChangesSendsNothing)
{
    const std::size_t before = m_watcher.events().size();
    hangup();
    hangup();
    runFor(m_loop, 500ms);
    EXPECT_EQ(m_watcher.events().size(), before);
}

TEST_F(Running, AChangedValueIsAChange)
{
    m_tree.writeNodeFile("fw4", "model", "0x000002\n");
    hangup();
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.state(kPathB)["model"].asUInt() == 2; }, 5s));
    EXPECT_EQ(m_watcher.eventsFor(kPathB).back().event, "change");
}

TEST_F(Running, ACardThatLosesItsInterfaceTakesItsNodesAlong)
{
    m_tree.removeInterface("firewire1");
    hangup();
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return !m_watcher.has(kPathB); }, 5s));
    EXPECT_TRUE(m_watcher.has(kPathOwn));
    m_tree.addInterface(kCardB, "firewire1", kLocalB);
    hangup();
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.has(kPathB); }, 5s));
}

TEST_F(Running, AnIncompleteScanChangesNothingAndIsLoggedOnce)
{
    // The interfaces cannot be listed: removing what the scan did not see
    // would be a half-published set.
    const std::string net = m_tree.root() + "/class/net";
    std::filesystem::rename(net, net + ".away");
    std::ofstream(net) << "not a directory\n";
    m_tree.removeNode("fw1");
    const std::size_t before = m_watcher.events().size();
    hangup();
    hangup();
    runFor(m_loop, 500ms);
    EXPECT_EQ(m_watcher.events().size(), before);
    EXPECT_EQ(countContaining(m_capture, LOG_ERR, "scan incomplete, the bus stays as it is: cannot list"), 1u)
        << m_capture.dump();

    std::filesystem::remove(net);
    std::filesystem::rename(net + ".away", net);
    hangup();
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return !m_watcher.has(kPathOwn); }, 5s));
    EXPECT_EQ(m_watcher.events().size(), before + 1);
}

TEST_F(Running, AProblemIsLoggedOnceWhileItLasts)
{
    m_tree.addNode(kCardA, "fw7", {{"guid", "0x\x1b[2J"}, {"is_local", "0"}});
    for (int i = 0; i < 3; ++i) {
        hangup();
    }
    const std::string line = "fw7: guid '0x\\x1b[2J' is not a 64-bit hex number; skipped";
    ASSERT_TRUE(runUntil(
        m_loop, [&] { return countContaining(m_capture, LOG_WARNING, line) > 0; }, 5s));
    runFor(m_loop, 300ms);
    EXPECT_EQ(countContaining(m_capture, LOG_WARNING, line), 1u) << m_capture.dump();

    // Gone and back: a new occurrence is logged again.
    m_tree.removeNode("fw7");
    hangup();
    runFor(m_loop, 200ms);
    m_tree.addNode(kCardA, "fw7", {{"guid", "0x\x1b[2J"}, {"is_local", "0"}});
    hangup();
    EXPECT_TRUE(runUntil(
        m_loop, [&] { return countContaining(m_capture, LOG_WARNING, line) == 2; }, 5s));
    for (const auto& l : m_capture.lines()) {
        EXPECT_EQ(l.text.find('\x1b'), std::string::npos) << "raw control byte logged";
    }
}

TEST_F(Running, SigtermEndsItAndItsDevicesLeaveTheBus)
{
    EXPECT_EQ(m_fwdevd->signalAndWait(SIGTERM), 0);
    EXPECT_TRUE(runUntil(
        m_loop, [&] { return m_watcher.states().empty(); }, 5s));
}

TEST_F(Running, DevicesComeBackAfterABrokerRestart)
{
    const std::uint16_t port = m_velad.port();
    m_velad.process().signalAndWait(SIGTERM);
    LocalVelad again({"--quiet"}, port);
    ASSERT_EQ(again.port(), port);
    BusWatcher watcher(m_loop, port, "reachableDevices/");
    EXPECT_TRUE(runUntil(
        m_loop, [&] { return watcher.states().size() == 3; }, 10s));
}

TEST(FwdevdProgram, ReadyOnceTheBrokerHasTheFirstPicture)
{
    SyslogCapture capture;
    LocalVelad velad({"--quiet"});
    SysfsTree tree(treeRoot("ready"));
    build(tree);

    const std::string socketPath = PrivateMounts::scratchDir("ready-notify") + "/notify";
    const int sock = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socketPath.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ::setenv("NOTIFY_SOCKET", socketPath.c_str(), 1);
    auto child = startFwdevd(tree.root(), velad.port());
    ::unsetenv("NOTIFY_SOCKET");

    pollfd p{sock, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    char buffer[256] = {};
    ASSERT_GT(::recv(sock, buffer, sizeof buffer - 1, 0), 0);
    ::close(sock);
    EXPECT_STREQ(buffer, "READY=1");

    // At that moment the broker holds every device of the first scan.
    orv::sys::EventLoop loop;
    BusWatcher watcher(loop, velad.port(), "reachableDevices/");
    ASSERT_TRUE(runUntil(
        loop, [&] { return watcher.ready(); }, 5s));
    EXPECT_EQ(watcher.states().size(), 3u);
    EXPECT_TRUE(capture.contains(LOG_INFO, "publishing 3 reachable devices")) << capture.dump();
}
