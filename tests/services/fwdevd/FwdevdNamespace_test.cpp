// fwdevd in network namespaces of the test's own (each test in a forked
// child, see orvtest::runIsolated): a real kernel event makes it rescan, and
// tsd takes a module it publishes into its election. Kept apart from the
// other process tests because those capture syslog in the test process
// itself, which the forked children's private mounts do not mix with.
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include <chrono>

#include <orv/sys/EventLoop.h>

#include "Sandbox.h"
#include "TwoCards.h"
#include "protocol/SideNetwork.h"
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

std::unique_ptr<ChildProcess> startFwdevd(const std::string& root, unsigned port)
{
    return std::make_unique<ChildProcess>(std::vector<std::string>{
        testsupport::binDir() + "/fwdevd", "--sysfs", root, "--port", std::to_string(port)});
}

std::string treeRoot(const std::string& name)
{
    return PrivateMounts::scratchDir(name) + "/sys";
}

bool logged(SyslogCapture& capture, int priority, const std::string& fragment)
{
    for (const auto& line : capture.lines()) {
        if (line.priority == priority && line.text.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

// A real kernel event, made safely: a veth pair created in a network
// namespace of the test's own reaches the device-event socket fwdevd opened
// there, and nothing else on the machine.
TEST(FwdevdNamespace, AKernelEventRescansWithoutSighup)
{
    orvtest::runIsolated([] {
        LocalVelad velad({"--quiet"});
        orv::sys::EventLoop loop;
        BusWatcher watcher(loop, velad.port(), "reachableDevices/");
        SysfsTree tree(treeRoot("uevent"));
        build(tree);
        auto child = startFwdevd(tree.root(), velad.port());
        ASSERT_TRUE(runUntil(
            loop, [&] { return watcher.states().size() == 3; }, 5s));

        tree.addNode(kCardA, "fw5", kNewNode, false);
        runFor(loop, 300ms);
        EXPECT_FALSE(watcher.has(kNewPath)) << "fwdevd rescanned without any event";

        ASSERT_TRUE(orvtest::run("ip link add fwdevtest0 type veth peer name fwdevtest1"));
        EXPECT_TRUE(runUntil(
            loop, [&] { return watcher.has(kNewPath); }, 5s));

        tree.removeNode("fw5");
        ASSERT_TRUE(orvtest::run("ip link del fwdevtest0"));
        EXPECT_TRUE(runUntil(
            loop, [&] { return !watcher.has(kNewPath); }, 5s));
    });
}

// tsd's fetch of reachable devices takes what fwdevd publishes: a module of
// its own maker on the rear interface joins the election (and, since the
// test's module never answers, the rear side reports it missing), a foreign
// device is ignored.
TEST(FwdevdNamespace, TsdCountsAModulePublishedByFwdevd)
{
    orvtest::runIsolated(
        [] {
            tsdtest::SideNetwork net;
            LocalVelad velad({"--quiet"}, 11122);
            ASSERT_EQ(velad.port(), 11122);
            BusWatcher watcher(net.loop, 11122, "sync/");
            SyslogCapture capture;
            ChildProcess tsd({testsupport::binDir() + "/tsd", "-d"});
            ASSERT_TRUE(runUntil(
                net.loop, [&] { return watcher.has("sync/app"); }, 10s))
                << capture.dump();

            constexpr std::uint64_t kOwnNode = 0x00000a7c31000000 | tsdtest::kOwnUuid;
            SysfsTree tree(treeRoot("tsd"));
            tree.addNode(kCardA, "fw0", kOwnNode, true);
            tree.addInterface(kCardA, "firewire0", kOwnNode);
            tree.addNode(kCardA, "fw1", 0x00000a7c31abcdef, false);
            tree.addNode(kCardA, "fw2", kRemoteForeign, false, 0x001122, 0x42);
            auto child = startFwdevd(tree.root(), 11122);

            auto waitLogged = [&](int priority, const std::string& fragment) {
                return runUntil(
                    net.loop, [&] { return logged(capture, priority, fragment); }, 10s);
            };
            EXPECT_TRUE(
                waitLogged(LOG_DEBUG, "cbReachableFirewire recognized appearance of device abcdef on"))
                << capture.dump();
            EXPECT_TRUE(waitLogged(LOG_INFO, "device 0011220000334455 is ignored by synchronisation"))
                << capture.dump();
            // 3000 ms after the appearance the election restarts and expects
            // the module; 3000 ms later its silence is an error of the rear side.
            EXPECT_TRUE(runUntil(
                net.loop, [&] { return watcher.has("sync/errors/-1"); }, 15s))
                << capture.dump();
            EXPECT_EQ(tsd.signalAndWait(SIGTERM), 0);
        },
        90);
}
