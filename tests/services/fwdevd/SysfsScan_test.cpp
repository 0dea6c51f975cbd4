// The scan of the kernel's FireWire nodes into bus paths, from trees the test
// builds: two cards with their local and remote nodes, foreign vendors, and
// every kind of broken attribute the scan must survive.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "SysfsScan.h"
#include "TwoCards.h"
#include "testsupport/PrivateMounts.h"

using orv::services::scanReachableDevices;
using orv::services::ScanResult;
using orv::services::SysfsTree;

namespace {

using namespace servicetest::twocards;

void twoCards(SysfsTree& tree)
{
    build(tree);
}

struct Case
{
    const char* name;
    std::function<void(SysfsTree&)> build;
    bool complete;
    std::vector<std::string> paths;
    // Each must be found in one of the problems; with none listed, there
    // must be no problem at all.
    std::vector<std::string> problems;
};

const std::vector<Case>& cases()
{
    static const std::vector<Case> table = {
        {"two cards, own and foreign remote nodes; local nodes and units left out",
         twoCards,
         true,
         {kPathOwn, kPathForeign, kPathB},
         {}},
        {"an empty tree", [](SysfsTree&) {}, true, {}, {}},
        {"no FireWire core at all",
         [](SysfsTree& t) { std::filesystem::remove_all(t.root() + "/bus"); },
         true,
         {},
         {}},
        {"a card alone on its bus",
         [](SysfsTree& t) {
             t.addNode(kCardA, "fw0", kLocalA, true);
             t.addInterface(kCardA, "firewire0", kLocalA);
         },
         true,
         {},
         {}},
        {"a guid that is not hex",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw1", "guid", "0xzz\n");
         },
         true,
         {kPathForeign, kPathB},
         {"fw1: guid '0xzz' is not a 64-bit hex number; skipped"}},
        {"a guid longer than 64 bits",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw1", "guid", "0x100000a7c31000b02\n");
         },
         true,
         {kPathForeign, kPathB},
         {"fw1: guid '0x100000a7c31000b02' is not a 64-bit hex number"}},
        {"an empty guid",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw1", "guid", "");
         },
         true,
         {kPathForeign, kPathB},
         {"fw1: guid '' is not"}},
        {"a guid with control bytes shows them escaped",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw1", "guid", "0x00\x01\x1b[2J\n");
         },
         true,
         {kPathForeign, kPathB},
         {"fw1: guid '0x00\\x01\\x1b[2J' is not"}},
        {"a guid without the kernel's 0x prefix",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw1", "guid", "00000a7c31000b02\n");
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {}},
        {"no guid file",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove(t.nodeDir("fw4") + "/guid");
         },
         true,
         {kPathOwn, kPathForeign},
         {"fw4: cannot read guid: No such file or directory; skipped"}},
        {"a guid file larger than a page",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw4", "guid", std::string(5000, '0'));
         },
         true,
         {kPathOwn, kPathForeign},
         {"fw4: cannot read guid: File too large"}},
        {"a guid that is a directory",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove(t.nodeDir("fw4") + "/guid");
             std::filesystem::create_directory(t.nodeDir("fw4") + "/guid");
         },
         true,
         {kPathOwn, kPathForeign},
         {"fw4: cannot read guid: Is a directory"}},
        {"no is_local file",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove(t.nodeDir("fw2") + "/is_local");
         },
         true,
         {kPathOwn, kPathB},
         {"fw2: cannot read is_local"}},
        {"is_local neither 0 nor 1",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw2", "is_local", "yes\n");
         },
         true,
         {kPathOwn, kPathB},
         {"fw2: is_local 'yes' is neither 0 nor 1; skipped"}},
        {"a vendor that is not hex is left out of the value, the node stays",
         [](SysfsTree& t) {
             twoCards(t);
             t.writeNodeFile("fw1", "vendor", "acme\n");
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {"fw1: vendor 'acme' is not a hex number; left out"}},
        {"nodes without vendor and model",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove(t.nodeDir("fw1") + "/vendor");
             std::filesystem::remove(t.nodeDir("fw1") + "/model");
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {}},
        {"a card without a matching interface",
         [](SysfsTree& t) {
             twoCards(t);
             t.removeInterface("firewire1");
         },
         true,
         {kPathOwn, kPathForeign},
         {"card 'devices/" + kCardB +
          "': no FireWire interface shows its node id 00000A7C31000A02 (fw3); "
          "1 remote node skipped"}},
        {"a matching address on an interface that is not FireWire",
         [](SysfsTree& t) {
             twoCards(t);
             t.removeInterface("firewire1");
             t.addInterface(kCardB, "firewire1", "1", orv::services::firewireAddress(kLocalB));
         },
         true,
         {kPathOwn, kPathForeign},
         {"no FireWire interface shows its node id 00000A7C31000A02"}},
        {"an interface whose type is not a number",
         [](SysfsTree& t) {
             twoCards(t);
             t.removeInterface("firewire1");
             t.addInterface(kCardB, "firewire1", "24x", orv::services::firewireAddress(kLocalB));
         },
         true,
         {kPathOwn, kPathForeign},
         {"no FireWire interface shows its node id 00000A7C31000A02"}},
        {"an interface address shorter than a node id",
         [](SysfsTree& t) {
             twoCards(t);
             t.removeInterface("firewire1");
             t.addInterface(kCardB, "firewire1", "24", "00:0a:7c:31:00");
         },
         true,
         {kPathOwn, kPathForeign},
         {"interface firewire1: address '00:0a:7c:31:00' holds no node id; skipped",
          "no FireWire interface shows its node id 00000A7C31000A02"}},
        {"an interface without address",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove(t.root() + "/class/net/firewire1/address");
         },
         true,
         {kPathOwn, kPathForeign},
         {"no FireWire interface shows its node id 00000A7C31000A02"}},
        {"two interfaces with one node id: the first name wins",
         [](SysfsTree& t) {
             twoCards(t);
             t.addInterface(kCardB, "firewire9", kLocalB);
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {"interface firewire9: node id 00000A7C31000A02 is shown by firewire1 already; skipped"}},
        {"an interface name that cannot be a bus path",
         [](SysfsTree& t) {
             twoCards(t);
             t.removeInterface("firewire1");
             t.addInterface(kCardB, "fw\x01x", kLocalB);
         },
         true,
         {kPathOwn, kPathForeign},
         {"interface 'fw\\x01x': the name cannot be part of a bus path; skipped"}},
        {"a card without its local node",
         [](SysfsTree& t) {
             twoCards(t);
             t.removeNode("fw3");
         },
         true,
         {kPathOwn, kPathForeign},
         {"card 'devices/" + kCardB + "': no local node; 1 remote node skipped"}},
        {"a card with two local nodes",
         [](SysfsTree& t) {
             twoCards(t);
             t.addNode(kCardB, "fw5", 0x00000a7c31000a05, true);
         },
         true,
         {kPathOwn, kPathForeign},
         {"more than one local node; 1 remote node skipped"}},
        {"two nodes of one card with the same guid: the lower number wins",
         [](SysfsTree& t) {
             twoCards(t);
             t.addNode(kCardA, "fw12", kRemoteOwn, false);
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {"fw12: guid 00000A7C31000B02 is shown by fw1 already; skipped"}},
        {"one guid seen on both cards is published on both interfaces",
         [](SysfsTree& t) {
             twoCards(t);
             t.addNode(kCardB, "fw5", kRemoteOwn, false);
         },
         true,
         {kPathOwn, kPathForeign, kPathB, "reachableDevices/firewire1/00000A7C31000B02"},
         {}},
        {"a remote node showing its card's own guid",
         [](SysfsTree& t) {
             twoCards(t);
             t.addNode(kCardB, "fw5", kLocalB, false);
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {"fw5: shows the guid of its own card's node fw3; skipped"}},
        {"a node whose link leads out of the tree",
         [](SysfsTree& t) {
             twoCards(t);
             const std::string outside = t.root() + "-outside/fw7";
             std::filesystem::create_directories(outside);
             std::filesystem::create_symlink(outside, t.root() + "/bus/firewire/devices/fw7");
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {"fw7: its device lies outside"}},
        {"a node that vanished after the listing (dangling link)",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove_all(t.nodeDir("fw4"));
         },
         true,
         {kPathOwn, kPathForeign},
         {}},
        {"entries that are not nodes are ignored",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::create_directories(t.root() + "/devices/x/fwX");
             std::filesystem::create_symlink("../../../devices/x/fwX",
                                             t.root() + "/bus/firewire/devices/fwX");
             std::filesystem::create_symlink("../../../devices/x/fwX", t.root() + "/bus/firewire/devices/fw");
         },
         true,
         {kPathOwn, kPathForeign, kPathB},
         {}},
        {"a tree whose interfaces cannot be listed publishes nothing",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove_all(t.root() + "/class/net");
             std::ofstream(t.root() + "/class/net") << "not a directory\n";
         },
         false,
         {},
         {}},
        {"a tree whose nodes cannot be listed publishes nothing",
         [](SysfsTree& t) {
             twoCards(t);
             std::filesystem::remove_all(t.root() + "/bus/firewire/devices");
             std::ofstream(t.root() + "/bus/firewire/devices") << "not a directory\n";
         },
         false,
         {},
         {}},
    };
    return table;
}

bool hasControlByte(const std::string& text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string out;
    for (const std::string& line : lines) {
        out += "\n  " + line;
    }
    return out;
}

std::vector<std::string> paths(const ScanResult& scan)
{
    std::vector<std::string> out;
    for (const auto& device : scan.devices) {
        out.push_back(device.first);
    }
    return out;
}

class SysfsScan : public ::testing::Test
{
protected:
    std::string m_root = testsupport::PrivateMounts::scratchDir("sysfs-scan") + "/sys";
};

}  // namespace

TEST_F(SysfsScan, TableOfTrees)
{
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        SysfsTree tree(m_root);
        c.build(tree);
        const ScanResult scan = scanReachableDevices(m_root);
        EXPECT_EQ(scan.complete, c.complete) << scan.failure;
        std::vector<std::string> expected = c.paths;
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(paths(scan), expected);
        if (c.problems.empty()) {
            EXPECT_TRUE(scan.problems.empty()) << joined(scan.problems);
        }
        for (const std::string& fragment : c.problems) {
            EXPECT_TRUE(
                std::any_of(scan.problems.begin(), scan.problems.end(),
                            [&](const std::string& p) { return p.find(fragment) != std::string::npos; }))
                << "no problem holds '" << fragment << "'; problems:" << joined(scan.problems);
        }
        for (const std::string& problem : scan.problems) {
            EXPECT_FALSE(hasControlByte(problem)) << problem;
        }
        EXPECT_FALSE(hasControlByte(scan.failure));
        if (!c.complete) {
            EXPECT_FALSE(scan.failure.empty());
        }
    }
}

TEST_F(SysfsScan, ValueTellsWhatSysfsSaysAboutTheNode)
{
    SysfsTree tree(m_root);
    twoCards(tree);
    tree.writeNodeFile("fw1", "model_name", "Module \x07\xff name\n");
    const ScanResult scan = scanReachableDevices(m_root);
    ASSERT_TRUE(scan.complete);

    const Json::Value& own = scan.devices.at(kPathOwn);
    EXPECT_EQ(own["guid"].asString(), "00000A7C31000B02");
    EXPECT_EQ(own["vendor"].asUInt(), 0x000a7cu);
    EXPECT_EQ(own["model"].asUInt(), 1u);
    EXPECT_EQ(own["model_name"].asString(), "Module \\x07\\xff name");
    EXPECT_FALSE(own.isMember("vendor_name"));

    const Json::Value& foreign = scan.devices.at(kPathForeign);
    EXPECT_EQ(foreign["guid"].asString(), "0011220000334455");
    EXPECT_EQ(foreign["vendor"].asUInt(), 0x001122u);
    EXPECT_EQ(foreign["model"].asUInt(), 0x42u);
    EXPECT_EQ(foreign["vendor_name"].asString(), "Camera Maker");
    EXPECT_EQ(foreign["model_name"].asString(), "Cam 1");
}

TEST_F(SysfsScan, LongRomTextIsCut)
{
    SysfsTree tree(m_root);
    twoCards(tree);
    tree.writeNodeFile("fw1", "vendor_name", std::string(300, 'v') + "\n");
    const ScanResult scan = scanReachableDevices(m_root);
    EXPECT_EQ(scan.devices.at(kPathOwn)["vendor_name"].asString(), std::string(64, 'v') + "...");
}

TEST_F(SysfsScan, MissingRootIsIncomplete)
{
    const ScanResult scan = scanReachableDevices(m_root + "-missing");
    EXPECT_FALSE(scan.complete);
    EXPECT_NE(scan.failure.find("cannot resolve"), std::string::npos) << scan.failure;
    EXPECT_TRUE(scan.devices.empty());
}
