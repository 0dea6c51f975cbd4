// The simulated world on its own, without the daemon: namespaces, identity
// files, the bus between the modules' interfaces (the kernel's bridge, the
// relay once impaired), its impairments and captures, the reachable-device
// computation and the clean-up.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "tsdsim/McastSocket.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using tsdsim::Module;
using tsdsim::ModuleSetup;
using tsdsim::Side;
using tsdsim::World;

namespace {

const std::string kGroup = "239.255.77.9";
constexpr unsigned kPort = 14500;

ModuleSetup setup(const std::string& name, std::uint32_t uuid)
{
    ModuleSetup s;
    s.name = name;
    s.uuid = uuid;
    return s;
}

std::string inside(const Module& m, const std::vector<std::string>& argv)
{
    std::string out;
    int st = m.run(argv, &out);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << argv.back() << " status " << st;
    return out;
}

ino_t nsInode(const std::string& path)
{
    struct stat st
    {
    };
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// What a pcap file holds: its link type, and the UDP payload of every IPv4
// frame in it, in order.
struct Capture
{
    std::uint32_t linkType = 0;
    std::size_t frames = 0;
    std::vector<std::string> payloads;
};

Capture readCapture(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<unsigned char> d{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    Capture c;
    auto u32 = [&](std::size_t at) {
        std::uint32_t v = 0;
        std::memcpy(&v, d.data() + at, 4);
        return v;
    };
    if (d.size() < 24 || u32(0) != 0xa1b2c3d4) {
        ADD_FAILURE() << path << " is no pcap file";
        return c;
    }
    c.linkType = u32(20);
    for (std::size_t at = 24; at + 16 <= d.size();) {
        const std::size_t stored = u32(at + 8);
        const unsigned char* f = d.data() + at + 16;
        at += 16 + stored;
        if (at > d.size()) {
            ADD_FAILURE() << path << ": a record runs past the end";
            break;
        }
        ++c.frames;
        if (stored >= 42 && f[12] == 0x08 && f[13] == 0x00 && f[23] == 17) {
            const std::size_t start = 14 + static_cast<std::size_t>(f[14] & 0x0f) * 4 + 8;
            c.payloads.emplace_back(f + start, f + stored);
        }
    }
    return c;
}

// Modules a and b with their rear ports on bus "b", and a multicast socket on
// each of those ports.
struct TwoOnOneBus
{
    World world;
    tsdsim::Bus& bus = world.addBus("b");
    Module& a = plugged(world.addModule(setup("a", 0x000101)));
    Module& b = plugged(world.addModule(setup("b", 0x000102)));
    tsdsim::McastSocket sa{a, kGroup, kPort, Side::Rear};
    tsdsim::McastSocket sb{b, kGroup, kPort, Side::Rear};

    Module& plugged(Module& m)
    {
        world.plug(m, Side::Rear, bus);
        return m;
    }
};

}  // namespace

TEST(World, IdentityFilesReadBackInsideTheModule)
{
    World world;
    tsdsim::Bus& bus = world.addBus("b");
    ModuleSetup s = setup("a", 0xabcdef);
    s.type = "KP40";
    Module& m = world.addModule(s);
    world.plug(m, Side::Rear, bus);
    world.plug(m, Side::Front, bus);

    EXPECT_EQ(inside(m, {"/bin/cat", "/proc/device-tree/stratova/moduletype"}), std::string("KP40\0", 5));
    EXPECT_EQ(inside(m, {"/bin/cat", "/sys/class/net/firewire0/type"}), "24\n");
    EXPECT_EQ(inside(m, {"/bin/cat", "/sys/class/net/firewire0/address"}), "00:00:0a:7c:31:ab:cd:ef\n");
    EXPECT_EQ(inside(m, {"/bin/cat", "/sys/class/net/firewire1/address"}), "00:00:0a:7c:31:2b:cd:ef\n");
    EXPECT_EQ(inside(m, {"/bin/cat", "/sys/class/net/firewire1/type"}), "24\n");
    // The module sees its own interfaces only, and the rest of /proc works.
    std::string links = inside(m, {"/bin/ls", "/sys/class/net"});
    EXPECT_EQ(links, "firewire0\nfirewire1\nlo\n");
    EXPECT_NE(inside(m, {"/bin/cat", "/proc/self/status"}).find("Pid:"), std::string::npos);
    EXPECT_NE(inside(m, {"/bin/cat", "/proc/net/dev"}).find("firewire0"), std::string::npos);
    std::string addr = inside(m, {"/bin/cat", "/proc/net/fib_trie"});
    EXPECT_NE(addr.find(m.address(Side::Rear)), std::string::npos);

    std::string config = inside(m, {"/bin/cat", "/etc/TimeSourceDaemonConfig.xml"});
    EXPECT_NE(config.find("<Address>239.255.77.1</Address>"), std::string::npos);
    EXPECT_NE(config.find("<KP>20</KP>"), std::string::npos);
    // The host keeps its own /etc and /run.
    EXPECT_FALSE(std::filesystem::exists("/etc/TimeSourceDaemonConfig.xml") &&
                 std::filesystem::exists("/etc/TimeSourceDaemonConfig.xml.tsdsim-marker"));
    inside(m, {"/bin/sh", "-c", "mkdir -p /var/run/timesync && echo hello > /var/run/timesync/probe"});
    EXPECT_EQ(m.runFile("timesync/probe"), "hello\n");
    EXPECT_FALSE(std::filesystem::exists("/run/timesync/probe"));
}

TEST(World, RecorderScriptsLogCallsAndReturnTheConfiguredStatus)
{
    World world;
    Module& m = world.addModule(setup("a", 0x000101));
    inside(m, {"/bin/sh", "-c", "/bin/ptp4ladm.sh start"});
    m.setScriptStatus("stop_ntpd.sh", 3);
    std::string out;
    int st = m.run({"/bin/sh", "-c", "/bin/stop_ntpd.sh"}, &out);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 3);
    auto calls = m.scriptCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].script, "ptp4ladm.sh");
    EXPECT_EQ(calls[0].args, "start");
    EXPECT_EQ(calls[1].script, "stop_ntpd.sh");
    EXPECT_GE(calls[0].time, -1.0);
    EXPECT_LE(calls[1].time, world.now() + 1.0);
}

TEST(World, SyslogOfTheModuleIsCapturedWithPriority)
{
    World world;
    Module& m = world.addModule(setup("a", 0x000101));
    inside(m, {"/usr/bin/logger", "--rfc3164", "-t", "probe", "-p", "user.warning", "hello from inside"});
    ASSERT_TRUE(world.waitFor([&] { return !m.syslog().empty(); }, 5s));
    auto lines = m.syslog();
    EXPECT_EQ(lines[0].priority, LOG_WARNING);
    EXPECT_EQ(lines[0].ident, "probe");
    EXPECT_EQ(lines[0].text, "hello from inside");
}

TEST(World, MulticastFromOneModuleReachesTheOtherOverTheBus)
{
    World world;
    tsdsim::Bus& bus = world.addBus("b");
    tsdsim::Bus& other = world.addBus("other");
    Module& a = world.addModule(setup("a", 0x000101));
    Module& b = world.addModule(setup("b", 0x000102));
    Module& c = world.addModule(setup("c", 0x000103));
    world.plug(a, Side::Rear, bus);
    world.plug(b, Side::Rear, bus);
    world.plug(c, Side::Rear, other);

    tsdsim::McastSocket sa(a, kGroup, kPort, Side::Rear);
    tsdsim::McastSocket sb(b, kGroup, kPort, Side::Rear);
    tsdsim::McastSocket sc(c, kGroup, kPort, Side::Rear);
    ASSERT_TRUE(sa.ok() && sb.ok() && sc.ok());
    ASSERT_TRUE(sa.send("<sync>:start:<sync>"));
    EXPECT_EQ(sb.receive(3000ms), "<sync>:start:<sync>");
    ASSERT_TRUE(sb.send("<sync>:item:102:a:2:a:<sync>"));
    EXPECT_EQ(sa.receive(3000ms), "<sync>:item:102:a:2:a:<sync>");
    // A module on another bus hears nothing.
    EXPECT_EQ(sc.receive(300ms), "");
    EXPECT_GE(bus.stats().delivered, 2u);
}

TEST(World, CutCableStopsFramesBothWaysAndPlugRestoresThem)
{
    TwoOnOneBus t;
    ASSERT_TRUE(t.sa.ok() && t.sb.ok());
    ASSERT_TRUE(t.sa.send("one"));
    ASSERT_EQ(t.sb.receive(3000ms), "one");

    t.world.setCut(t.a, Side::Rear, true);
    EXPECT_TRUE(t.world.isCut(t.a, Side::Rear));
    t.sa.send("lost");
    t.sb.send("lost too");
    EXPECT_EQ(t.sb.receive(300ms), "");
    EXPECT_EQ(t.sa.receive(300ms), "");
    EXPECT_GE(t.bus.stats().cut, 2u);

    t.world.setCut(t.a, Side::Rear, false);
    t.sa.send("two");
    EXPECT_EQ(t.sb.receive(3000ms), "two");
}

TEST(World, LossDropsAShareOfFramesAndDuplicationDoublesThem)
{
    TwoOnOneBus t;
    ASSERT_TRUE(t.sa.ok() && t.sb.ok());

    t.bus.setLoss(1.0);
    for (int i = 0; i < 20; ++i) {
        t.sa.send("x");
    }
    EXPECT_EQ(t.sb.drain(300ms), 0);

    t.bus.setLoss(0.5);
    constexpr int kSent = 200;
    for (int i = 0; i < kSent; ++i) {
        t.sa.send("y");
        std::this_thread::sleep_for(1ms);
    }
    int got = t.sb.drain(1000ms);
    EXPECT_GT(got, kSent / 5);
    EXPECT_LT(got, kSent * 4 / 5);

    t.bus.setLoss(0.0);
    t.bus.setDuplicate(1.0);
    for (int i = 0; i < 10; ++i) {
        t.sa.send("z");
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_EQ(t.sb.drain(1000ms), 20);
}

TEST(World, DelayHoldsEveryFrameBack)
{
    TwoOnOneBus t;
    ASSERT_TRUE(t.sa.ok() && t.sb.ok());
    t.bus.setDelay(400ms);
    auto t0 = std::chrono::steady_clock::now();
    t.sa.send("late");
    EXPECT_EQ(t.sb.receive(5000ms), "late");
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 350ms);
}

TEST(World, ImpairmentsHandTheBusToTheRelayAndBackKeepingTheCabling)
{
    TwoOnOneBus t;
    ASSERT_TRUE(t.sa.ok() && t.sb.ok());
    EXPECT_FALSE(t.bus.relaying());
    t.bus.setDelay(1ms);
    EXPECT_TRUE(t.bus.relaying());
    ASSERT_TRUE(t.sa.send("relayed"));
    EXPECT_EQ(t.sb.receive(3000ms), "relayed");

    // A cable cut while relaying stays cut once the kernel carries again.
    t.world.setCut(t.a, Side::Rear, true);
    t.bus.setDelay(0ms);
    EXPECT_FALSE(t.bus.relaying());
    t.sa.send("lost");
    EXPECT_EQ(t.sb.receive(300ms), "");
    t.world.setCut(t.a, Side::Rear, false);
    t.sb.send("bridged");
    EXPECT_EQ(t.sa.receive(3000ms), "bridged");
    EXPECT_GE(t.bus.stats().delivered, 2u);
}

TEST(World, CaptureHoldsWhatTheBusCarriedWhetherBridgedOrRelayed)
{
    TwoOnOneBus t;
    ASSERT_TRUE(t.sa.ok() && t.sb.ok());
    const std::string path = t.world.dir() + "/b.pcap";
    std::string error;
    ASSERT_TRUE(t.bus.startCapture(path, error)) << error;
    ASSERT_TRUE(t.sa.send("bridged one"));
    ASSERT_EQ(t.sb.receive(3000ms), "bridged one");
    t.bus.setDuplicate(1.0);
    ASSERT_TRUE(t.sb.send("relayed two"));
    ASSERT_EQ(t.sa.receive(3000ms), "relayed two");
    t.world.setCut(t.a, Side::Rear, true);
    t.sa.send("never on the bus");
    std::this_thread::sleep_for(300ms);
    t.bus.setDuplicate(0.0);
    t.world.setCut(t.a, Side::Rear, false);
    ASSERT_TRUE(t.sa.send("bridged three"));
    ASSERT_EQ(t.sb.receive(3000ms), "bridged three");
    // Until the capture stops, frames may still be on their way to it.
    std::this_thread::sleep_for(200ms);
    const std::uint64_t frames = t.bus.stopCapture();

    const Capture c = readCapture(path);
    EXPECT_EQ(c.linkType, 1u);  // Ethernet, what the ports carry
    EXPECT_EQ(c.frames, frames);
    // Each frame once, as it entered the bus (not once per copy, nor twice
    // for the duplication the relay applied to its copies).
    const std::vector<std::string> telegrams = [&] {
        std::vector<std::string> v;
        for (const auto& p : c.payloads) {
            if (p.find(' ') != std::string::npos) {
                v.push_back(p);
            }
        }
        return v;
    }();
    EXPECT_EQ(telegrams, (std::vector<std::string>{"bridged one", "relayed two", "bridged three"}));
}

TEST(World, ReachableDevicesFollowTheCabling)
{
    World world;
    tsdsim::Bus& chain = world.addBus("chain");
    tsdsim::Bus& side = world.addBus("side");
    Module& a = world.addModule(setup("a", 0x000101));
    Module& b = world.addModule(setup("b", 0x000102));
    Module& c = world.addModule(setup("c", 0x000103));
    world.plug(a, Side::Rear, chain);
    world.plug(b, Side::Rear, chain);
    world.plug(b, Side::Front, side);
    world.plug(c, Side::Rear, side);

    EXPECT_EQ(world.reachableFor(a), (std::set<std::string>{"reachableDevices/firewire0/00000A7C31000102"}));
    EXPECT_EQ(world.reachableFor(b), (std::set<std::string>{"reachableDevices/firewire0/00000A7C31000101",
                                                            "reachableDevices/firewire1/00000A7C31000103"}));
    // c sees b's front node, whose low bits differ from b's uuid.
    EXPECT_EQ(world.reachableFor(c), (std::set<std::string>{"reachableDevices/firewire0/00000A7C31800102"}));
    // The same set is what fwdevd will find in the module's tree.
    EXPECT_EQ(b.reachable(), world.reachableFor(b));

    world.unplug(b);
    EXPECT_TRUE(world.reachableFor(a).empty());
    EXPECT_TRUE(world.reachableFor(b).empty());
    EXPECT_TRUE(world.reachableFor(c).empty());
    world.replug(b);
    EXPECT_EQ(world.reachableFor(a).size(), 1u);
    EXPECT_EQ(a.reachable(), world.reachableFor(a));
}

TEST(World, CleanupLeavesNoProcessNamespaceOrDirectory)
{
    pid_t holder = -1;
    ino_t netns = 0;
    std::string dir;
    pid_t child = -1;
    {
        World world;
        tsdsim::Bus& bus = world.addBus("b");
        Module& a = world.addModule(setup("a", 0x000101));
        world.plug(a, Side::Rear, bus);
        holder = a.holderPid();
        dir = world.dir();
        netns = nsInode("/proc/" + std::to_string(holder) + "/ns/net");
        ASSERT_NE(netns, 0u);
        ASSERT_TRUE(std::filesystem::exists(dir));
        // A long-running process inside the module, left for the world to end.
        tsdsim::ChildProcess::Options o;
        o.argv = {"/bin/sleep", "600"};
        o.netnsFd = a.netnsFd();
        o.mntnsFd = a.mntnsFd();
        tsdsim::ChildProcess sleeper;
        ASSERT_TRUE(sleeper.start(o));
        child = sleeper.pid();
    }
    EXPECT_NE(::kill(holder, 0), 0);
    EXPECT_NE(::kill(child, 0), 0);
    EXPECT_FALSE(std::filesystem::exists(dir));
    // No process of the machine is still in the module's network namespace.
    for (const auto& e : std::filesystem::directory_iterator("/proc")) {
        std::string n = e.path().filename();
        if (n.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        EXPECT_NE(nsInode(e.path().string() + "/ns/net"), netns) << "process " << n;
    }
}

TEST(World, FwdevdAndTsdparamdKeepTheModuleBusAndSurviveABrokerRestart)
{
    World world;
    tsdsim::Bus& bus = world.addBus("b");
    Module& a = world.addModule(setup("a", 0x000101));
    Module& b = world.addModule(setup("b", 0x000102));
    world.plug(a, Side::Rear, bus);
    world.plug(b, Side::Rear, bus);
    ASSERT_TRUE(a.startVelad());
    ASSERT_TRUE(a.startPlatform()) << a.unpublished();

    // fwdevd found b's node in the module's tree, tsdparamd shows the
    // module's shipped parameters.
    std::string out;
    ASSERT_EQ(a.run({world.binDir() + "/vela", "list", "reachableDevices/"}, &out), 0);
    EXPECT_EQ(out.substr(0, out.find('\t')), "reachableDevices/firewire0/00000A7C31000102");
    EXPECT_NE(out.find("\"guid\":\"00000A7C31000102\""), std::string::npos) << out;
    EXPECT_EQ(a.state("sync/param"), a.setup().param.toJson());

    // Cabling changes reach the bus.
    world.setCut(b, Side::Rear, true);
    ASSERT_TRUE(a.waitPublished(5000ms)) << a.unpublished();
    out.clear();
    ASSERT_EQ(a.run({world.binDir() + "/vela", "list", "reachableDevices/"}, &out), 0);
    EXPECT_EQ(out, "");
    world.setCut(b, Side::Rear, false);
    ASSERT_TRUE(a.waitPublished(5000ms)) << a.unpublished();

    // A set request is checked, stored and shown; a refused one changes nothing.
    Json::Value keys;
    keys["threshold"] = 2.5;
    Module::ParamAnswer answer = a.setParam(keys);
    ASSERT_TRUE(answer.accepted) << answer.message;
    EXPECT_DOUBLE_EQ(a.param().threshold, 2.5);
    ASSERT_TRUE(world.waitFor([&] { return a.state("sync/param")["threshold"].asDouble() == 2.5; }, 5000ms));
    EXPECT_NE(std::ifstream(a.files().paramStateFile()).peek(), EOF);
    keys["threshold"] = -1;
    keys["ptp4l"] = "-f /etc/passwd";
    answer = a.setParam(keys);
    EXPECT_FALSE(answer.accepted);
    EXPECT_NE(answer.message.find("threshold"), std::string::npos) << answer.message;
    EXPECT_NE(answer.message.find("ptp4l"), std::string::npos) << answer.message;
    EXPECT_DOUBLE_EQ(a.param().threshold, 2.5);
    EXPECT_EQ(a.state("sync/param")["ptp4l"], a.setup().param.ptp4l);

    // A crashed broker comes back; both services give it their states again.
    a.stopVelad(SIGKILL);
    EXPECT_TRUE(a.state("sync/param").isNull());
    ASSERT_TRUE(a.startVelad());
    ASSERT_TRUE(a.waitPublished(15000ms)) << a.unpublished();
    EXPECT_DOUBLE_EQ(a.state("sync/param")["threshold"].asDouble(), 2.5);
    // The other module's bus is its own: nothing arrived there.
    EXPECT_TRUE(b.state("sync/param").isNull());
}

TEST(World, AModuleWithoutParametersRunsNoKeeperAndRefusesSets)
{
    World world;
    ModuleSetup s = setup("a", 0x000101);
    s.publishParam = false;
    Module& a = world.addModule(s);
    ASSERT_TRUE(a.startVelad());
    ASSERT_TRUE(a.startPlatform()) << a.unpublished();
    EXPECT_FALSE(a.processes().running("tsdparamd"));
    EXPECT_TRUE(a.state("sync/param").isNull());
    const Module::ParamAnswer answer = a.setParam(a.param());
    EXPECT_FALSE(answer.accepted);
    EXPECT_FALSE(answer.message.empty());
}

TEST(World, BadRequestsThrowAndLeaveTheWorldUsable)
{
    World world;
    tsdsim::Bus& bus = world.addBus("b");
    EXPECT_THROW(world.addBus("b"), std::runtime_error);
    Module& a = world.addModule(setup("a", 0x000101));
    EXPECT_THROW(world.addModule(setup("a", 0x000102)), std::runtime_error);
    EXPECT_THROW(world.addModule(setup("", 0x000103)), std::runtime_error);
    EXPECT_THROW(world.addModule(setup("x/y", 0x000104)), std::runtime_error);
    world.plug(a, Side::Rear, bus);
    EXPECT_THROW(world.plug(a, Side::Rear, bus), std::runtime_error);
    // A missing program is a clear failure, not a hang.
    World::Options o;
    o.binDir = "/nonexistent";
    World empty(o);
    Module& b = empty.addModule(setup("b", 0x000105));
    EXPECT_FALSE(b.startVelad());
    EXPECT_FALSE(b.startTsd());
    EXPECT_EQ(inside(a, {"/bin/cat", "/sys/class/net/firewire0/type"}), "24\n");
}
